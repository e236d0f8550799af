#pragma once

#include <string>

namespace tavrick {

// The calendar dates and times are shown in: a time zone and a locale by their ICU names. Empty
// names mean the user's own (TZ and LANG).
struct LocalCalendar {
    std::string timeZone;
    std::string locale;

    static LocalCalendar current() { return {}; }

    // "9:41 AM" in en_US: the locale's short time, no date.
    std::string shortTime(double date) const;
    // "3/14/26" in en_US: the locale's short date, no time.
    std::string shortDate(double date) const;
    // Days between the calendar days of `from` and `to` in this time zone; 1 when `from` was
    // yesterday.
    int daysBetween(double from, double to) const;
};

} // namespace tavrick
