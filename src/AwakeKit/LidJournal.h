#pragma once

#include "AwakeKit/LidConditions.h"
#include "AwakeKit/LocalCalendar.h"
#include "CoreKit/PreferenceStore.h"

#include <optional>
#include <string>

namespace tavrick {

enum class LidOutcome { keptRunning, slept };
std::string_view rawValue(LidOutcome outcome);
std::optional<LidOutcome> lidOutcomeFromRaw(std::string_view raw);

struct LidObservation {
    LidOutcome outcome = LidOutcome::slept;
    double date = 0;  // seconds since 1970
    friend bool operator==(const LidObservation&, const LidObservation&) = default;
};

// What this machine did the last time its lid was shut, per power source: at most two
// observations, under the key "lidObservations" as JSON data.
class LidJournal {
public:
    static constexpr const char* key = "lidObservations";

    explicit LidJournal(PreferenceStore& defaults) : defaults_(defaults) {}

    // An unreadable or absent journal is empty.
    std::optional<LidObservation> observation(PowerSource source) const;
    void record(LidOutcome outcome, PowerSource source, double date);

private:
    PreferenceStore& defaults_;
};

// What to tell the user about closing the lid on a power source.
struct LidVerdict {
    std::string summary;
    std::string detail;
    bool isObserved = false;

    // The machine's own past beats every rule; without it, what Apple's conditions lead to expect.
    LidVerdict(PowerSource source, const std::optional<LidObservation>& observation, const LidConditions& conditions,
               double now, const LocalCalendar& calendar = LocalCalendar::current());

    // "today", "yesterday" or the locale's short date.
    static std::string describe(double date, double now, const LocalCalendar& calendar);
};

} // namespace tavrick
