// What has a job run each day, as text for the scheduler of a system. Nothing is read and nothing is done here.
#pragma once

#include "host/host.h"

#include <optional>
#include <string>
#include <vector>

// By the clock on the wall.
struct TimeOfDay {
    int hour = 5;
    int minute = 0;
};

// The time that "05:00" stands for, and back. None if text is anything but two digits, a colon and two digits of a
// time.
std::optional<TimeOfDay> ParseTimeOfDay(const std::string &text);
std::string TimeText(const TimeOfDay &time);

// Whether it lies between 01:00 and 03:59, where the hours are that clocks leave out, or show twice, once a year.
bool ClocksChangeAt(const TimeOfDay &time);

// Whether name may be that of a job: 1 to 64 of the letters, digits, dot, underscore and dash, a dot or a dash not
// first.
bool IsJobName(const std::string &name);

// A job's run, and what it needs of the machine. All paths are absolute.
struct ScheduledRun {
    std::string job;
    TimeOfDay time;
    bool wakes = false;
    std::string firstDay;            // of the calendar, as 2026-11-22
    std::string program;             // kestrix-keep
    std::string configuration;       // empty: where it is if nothing else is said
    std::string inhibitor;           // systemd-inhibit; empty: it can't be used
    std::vector<std::string> writes; // folders that the run writes into
    std::vector<std::string> places; // all it writes and reads by name, as written and where links of it lead to
    bool runsPrograms = false;       // besides kestrix
    bool usesRclone = false;
    bool usesShare = false;
    bool capturesGuest = false; // by kestrix-vm
};

// Why the paths of a run can't be written down for a scheduler, as a sentence; empty if they can.
std::string WhyNotSchedulable(const ScheduledRun &run, host::Scheduler scheduler);

// Names of what has the job run: the units of systemd, of which the last one is the timer; or the task.
std::vector<std::string> ScheduleNames(const std::string &job, host::Scheduler scheduler);

// The service and the timer of a run. Their first line has the digest of all that follows it.
std::vector<host::ScheduledFile> UnitTexts(const ScheduledRun &run);

// The task of a run in XML, as UTF-8 and without a declaration; and the file of it that schtasks takes: UTF-16 with its
// mark in front. The text must be UTF-8.
std::string TaskXml(const ScheduledRun &run);
std::string TaskFile(const std::string &xml);

// The line that does the same in root's crontab, but for a machine that is off or sleeps then.
std::string CronLine(const ScheduledRun &run);

// Where something in a job's name came from.
enum class ScheduleOrigin {
    Ours,
    Changed, // ours, and changed by hand since
    Foreign,
};
// Looks at the content of a unit file, or at what the scheduler tells of a task. What was changed in a task can't be
// told.
ScheduleOrigin OriginOf(const std::string &content, host::Scheduler scheduler);
