#include "AwakeKit/LocalCalendar.h"

#include <unicode/calendar.h>
#include <unicode/datefmt.h>
#include <unicode/timezone.h>

#include <memory>

namespace tavrick {

namespace {

icu::Locale localeOf(const LocalCalendar& calendar) {
    return calendar.locale.empty() ? icu::Locale::getDefault() : icu::Locale(calendar.locale.c_str());
}

icu::TimeZone* zoneOf(const LocalCalendar& calendar) {
    return calendar.timeZone.empty() ? icu::TimeZone::createDefault()
                                     : icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(calendar.timeZone));
}

std::string formatted(icu::DateFormat* format, const LocalCalendar& calendar, double date) {
    std::unique_ptr<icu::DateFormat> owned(format);
    if (!owned) return {};
    owned->adoptTimeZone(zoneOf(calendar));
    icu::UnicodeString text;
    owned->format(date * 1000.0, text);
    std::string out;
    text.toUTF8String(out);
    return out;
}

} // namespace

std::string LocalCalendar::shortTime(double date) const {
    return formatted(icu::DateFormat::createTimeInstance(icu::DateFormat::kShort, localeOf(*this)), *this, date);
}

std::string LocalCalendar::shortDate(double date) const {
    return formatted(icu::DateFormat::createDateInstance(icu::DateFormat::kShort, localeOf(*this)), *this, date);
}

int LocalCalendar::daysBetween(double from, double to) const {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(zoneOf(*this), localeOf(*this), status));
    if (U_FAILURE(status)) return static_cast<int>((to - from) / 86400.0);
    auto julianDay = [&](double date) {
        calendar->setTime(date * 1000.0, status);
        return calendar->get(UCAL_JULIAN_DAY, status);
    };
    const int first = julianDay(from);
    const int second = julianDay(to);
    return second - first;
}

} // namespace tavrick
