// The proleptic Gregorian calendar, and the local one by the run-time's tables.
#include "kestrix-keep/clock.h"

#include "report/report.h"

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>

int64_t Now()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Days from 1970-01-01 to a date: years are counted from March, so that a leap day is a year's last.
static int64_t DaysOf(int64_t year, int64_t month, int64_t day)
{
    const int64_t shifted = year - (month <= 2 ? 1 : 0);
    const int64_t era = (shifted >= 0 ? shifted : shifted - 399) / 400;
    const int64_t yearOfEra = shifted - era * 400;
    const int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

static int64_t SecondsOf(const std::tm &fields)
{
    return DaysOf(fields.tm_year + int64_t{1900}, fields.tm_mon + 1, fields.tm_mday) * secondsPerDay +
           int64_t{fields.tm_hour} * 3600 + int64_t{fields.tm_min} * 60 + fields.tm_sec;
}

// Fields of a time that the run-time can't tell are all zero.
static std::tm LocalFields(int64_t time)
{
    const auto seconds = static_cast<std::time_t>(time);
    const std::tm *fields = std::localtime(&seconds);
    return fields == nullptr ? std::tm() : *fields;
}

static std::string Formatted(const char *format, const std::tm &fields)
{
    char text[64];
    const size_t length = std::strftime(text, sizeof(text), format, &fields);
    return std::string(text, length);
}

// The week that the day's Thursday lies in, and the year that does.
static std::string WeekOf(const std::tm &fields)
{
    const int64_t day = DaysOf(fields.tm_year + int64_t{1900}, fields.tm_mon + 1, fields.tm_mday);
    const int64_t thursday = day - (fields.tm_wday + 6) % 7 + 3;
    int64_t year = fields.tm_year + int64_t{1900};
    if (thursday < DaysOf(year, 1, 1)) {
        --year;
    } else if (thursday >= DaysOf(year + 1, 1, 1)) {
        ++year;
    }
    char text[64];
    snprintf(text, sizeof(text), "%" PRId64 "-W%02" PRId64, year, (thursday - DaysOf(year, 1, 1)) / 7 + 1);
    return text;
}

LocalPeriods PeriodsOf(int64_t time)
{
    const std::tm fields = LocalFields(time);
    return {Formatted("%Y-%m-%d", fields), WeekOf(fields), Formatted("%Y-%m", fields)};
}

std::string LocalTimeText(int64_t time)
{
    const std::tm fields = LocalFields(time);
    const int64_t offset = (SecondsOf(fields) - time) / 60;
    char zone[64];
    snprintf(zone, sizeof(zone), " %c%02" PRId64 "%02" PRId64, offset < 0 ? '-' : '+', std::abs(offset) / 60,
             std::abs(offset) % 60);
    return Formatted("%Y-%m-%d %H:%M:%S", fields) + zone;
}

// The date that lies so many days behind 1970-01-01.
static std::tm DateOf(int64_t days)
{
    const int64_t shifted = days + 719468;
    const int64_t era = (shifted >= 0 ? shifted : shifted - 146096) / 146097;
    const int64_t dayOfEra = shifted - era * 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t month = (5 * dayOfYear + 2) / 153;
    std::tm fields = {};
    fields.tm_mday = static_cast<int>(dayOfYear - (153 * month + 2) / 5 + 1);
    fields.tm_mon = static_cast<int>(month < 10 ? month + 2 : month - 10);
    fields.tm_year = static_cast<int>(yearOfEra + era * 400 + (fields.tm_mon <= 1 ? 1 : 0) - 1900);
    return fields;
}

std::string StampOf(int64_t time)
{
    const int64_t second = (time % secondsPerDay + secondsPerDay) % secondsPerDay;
    std::tm fields = DateOf((time - second) / secondsPerDay);
    fields.tm_hour = static_cast<int>(second / 3600);
    fields.tm_min = static_cast<int>(second / 60 % 60);
    fields.tm_sec = static_cast<int>(second % 60);
    return Formatted("%Y%m%dT%H%M%SZ", fields);
}

std::optional<int64_t> TimeOfStamp(const std::string &stamp)
{
    static const std::string form = "00000000T000000Z";
    std::string shape = stamp;
    for (char &letter : shape) {
        letter = letter >= '0' && letter <= '9' ? '0' : letter;
    }
    if (shape != form) {
        return std::nullopt;
    }
    const auto number = [&stamp](size_t begin, size_t digits) { return std::stoi(stamp.substr(begin, digits)); };
    std::tm fields = {};
    fields.tm_year = number(0, 4) - 1900;
    fields.tm_mon = number(4, 2) - 1;
    fields.tm_mday = number(6, 2);
    fields.tm_hour = number(9, 2);
    fields.tm_min = number(11, 2);
    fields.tm_sec = number(13, 2);
    const int64_t time = SecondsOf(fields);
    return StampOf(time) == stamp ? std::optional<int64_t>(time) : std::nullopt; // no 31st of February
}

std::string AgeText(int64_t seconds)
{
    const uint64_t hours = seconds < 0 ? 0 : static_cast<uint64_t>(seconds) / 3600;
    return hours < 72 ? Counted(hours, "hour") : Counted(hours / 24, "day");
}
