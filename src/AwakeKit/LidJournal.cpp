#include "AwakeKit/LidJournal.h"

#include "CoreKit/Log.h"

#include <nlohmann/json.hpp>

#include <cctype>

namespace tavrick {

namespace {

// Reads the stored object, raw value to {"outcome", "date"}, skipping what it cannot read.
nlohmann::json storedObject(const PreferenceStore& defaults) {
    auto value = defaults.object(LidJournal::key);
    if (!value) return nlohmann::json::object();
    std::string text;
    if (auto* data = value->asData()) {
        text.assign(data->begin(), data->end());
    } else if (auto* string = value->asString()) {
        text = *string;
    } else {
        return nlohmann::json::object();
    }
    auto json = nlohmann::json::parse(text, nullptr, false);
    return json.is_object() ? json : nlohmann::json::object();
}

std::string lowercased(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

} // namespace

std::string_view rawValue(LidOutcome outcome) {
    return outcome == LidOutcome::keptRunning ? "keptRunning" : "slept";
}

std::optional<LidOutcome> lidOutcomeFromRaw(std::string_view raw) {
    if (raw == "keptRunning") return LidOutcome::keptRunning;
    if (raw == "slept") return LidOutcome::slept;
    return std::nullopt;
}

std::optional<LidObservation> LidJournal::observation(PowerSource source) const {
    const auto object = storedObject(defaults_);
    auto entry = object.find(std::string(rawValue(source)));
    if (entry == object.end() || !entry->is_object()) return std::nullopt;
    auto outcome = entry->find("outcome");
    auto date = entry->find("date");
    if (outcome == entry->end() || !outcome->is_string() || date == entry->end() || !date->is_number()) {
        return std::nullopt;
    }
    auto parsed = lidOutcomeFromRaw(outcome->get<std::string>());
    if (!parsed) return std::nullopt;
    return LidObservation{*parsed, date->get<double>()};
}

void LidJournal::record(LidOutcome outcome, PowerSource source, double date) {
    auto object = storedObject(defaults_);
    object[std::string(rawValue(source))] = {{"outcome", std::string(rawValue(outcome))}, {"date", date}};
    if (!defaults_.set(key, PreferenceValue::data(object.dump()))) {
        Log::lid.error("Could not store the lid observation");
    }
}

LidVerdict::LidVerdict(PowerSource source, const std::optional<LidObservation>& observation,
                       const LidConditions& conditions, double now, const LocalCalendar& calendar) {
    if (observation) {
        isObserved = true;
        const bool slept = observation->outcome == LidOutcome::slept;
        summary = slept ? "Goes to sleep" : "Keeps running";
        detail = "Seen " + describe(observation->date, now, calendar) + ": the lid was closed " +
                 lowercased(displayName(source)) + (slept ? " and this Mac went to sleep." : " and this Mac kept running.");
        return;
    }
    if (!conditions.meetsDisplayAndInputRequirements()) {
        summary = "Not set up for it";
        std::string missing;
        if (!conditions.hasExternalDisplay()) missing = "an external display";
        if (!conditions.hasExternalInput()) {
            missing += (missing.empty() ? "" : " and ") + std::string("an external keyboard or mouse");
        }
        detail = "Closing the lid sleeps this Mac. Running with it shut needs " + missing + ".";
        return;
    }
    if (source == PowerSource::powerAdapter) {
        summary = "Expect it to keep running";
        detail = "A display and an input device are connected, which is what clamshell mode asks for. Close the lid "
                 "once on the adapter and this will say what actually happened.";
    } else {
        summary = "Expect it to sleep";
        detail = "Apple's requirements for clamshell mode include the power adapter. Some Macs run on battery anyway — "
                 "close the lid once unplugged and this will say whether yours does.";
    }
}

std::string LidVerdict::describe(double date, double now, const LocalCalendar& calendar) {
    const int days = calendar.daysBetween(date, now);
    if (days == 0) return "today";
    if (days == 1) return "yesterday";
    return calendar.shortDate(date);
}

} // namespace tavrick
