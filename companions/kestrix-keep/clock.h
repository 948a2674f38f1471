// Times: seconds since 1970 in UTC, and the calendar of the place where the program runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

constexpr int64_t secondsPerDay = 86400;

// Now, from the system's clock.
int64_t Now();

// The calendar's periods that a time lies in, by the clock on the wall.
struct LocalPeriods {
    std::string day;   // 2026-11-22
    std::string week;  // 2026-W47, of ISO 8601
    std::string month; // 2026-11
};
LocalPeriods PeriodsOf(int64_t time);

// "2026-11-22 03:00:05 +0100".
std::string LocalTimeText(int64_t time);

// "20261122T020005Z", as it stands in the names of images; and back, none if text is anything else.
std::string StampOf(int64_t time);
std::optional<int64_t> TimeOfStamp(const std::string &stamp);

// "26 hours", "3 days".
std::string AgeText(int64_t seconds);
