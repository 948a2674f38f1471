// schedule and unschedule: has the system run a job each day, and has it stop that.
//
// The steps of the first: the time; the job; what the run needs; the texts; whether the programs that will run with all
// rights can be trusted; what is there already; the scheduler takes it. Only a unit that was written here and is still
// as it was gives way, and only such a one is taken away again.
#include "kestrix-keep/clock.h"
#include "kestrix-keep/commands.h"
#include "kestrix-keep/guest.h"
#include "kestrix-keep/jobs.h"
#include "kestrix-keep/schedule_texts.h"
#include "report/report.h"

#include <algorithm>
#include <sstream>

struct ScheduleReport {
    std::string job;
    std::string time;
    int status = exitWell;
    std::string fault;                      // empty: all went well
    std::vector<std::string> done;          // what came of it
    std::vector<std::string> notes;         // what one has to know
    std::vector<host::ScheduledFile> texts; // as a person reads them
    std::string cronLine;
    bool printsTexts = false;
    bool isOfSchedule = false; // not of unschedule
};

static bool Refuse(ScheduleReport &report, const std::string &sentence, int status = exitFailed)
{
    report.fault = sentence;
    report.status = status;
    return false;
}

// ---- Saying it ----

// A task stands alone, so that nothing stands before its first tag.
static void PrintText(const host::ScheduledFile &text)
{
    if (host::OwnScheduler() == host::Scheduler::Systemd) {
        PrintLine("# " + host::PlaceOfScheduled(text.name));
    }
    std::istringstream lines(text.content);
    for (std::string line; std::getline(lines, line);) {
        PrintLine(line);
    }
    PrintLine("");
}

static void PrintReport(const ScheduleReport &report)
{
    for (const host::ScheduledFile &text : report.texts) {
        if (report.printsTexts) {
            PrintText(text);
        }
    }
    for (const std::string &line : report.done) {
        PrintLine(line);
    }
    for (const std::string &note : report.notes) {
        PrintLine("NOTE: " + note);
    }
    if (!report.fault.empty()) {
        PrintFault(report.fault);
    }
}

static Json JsonOf(const std::vector<host::ScheduledFile> &texts)
{
    Json list = Json::array();
    for (const host::ScheduledFile &text : texts) {
        list.push_back({{"name", text.name}, {"place", host::PlaceOfScheduled(text.name)}, {"content", text.content}});
    }
    return list;
}

static int Tell(const KeepOptions &common, const ScheduleReport &report)
{
    JsonOutput output(common.json);
    output.Member("job", report.job);
    if (report.isOfSchedule) {
        output.Member("daily", report.time.empty() ? Json(nullptr) : Json(report.time));
        output.Member("texts", JsonOf(report.texts));
        output.Member("cron", report.cronLine.empty() ? Json(nullptr) : Json(report.cronLine));
    }
    output.Member("done", report.done);
    output.Member("notes", report.notes);
    output.Member("fault", report.fault.empty() ? Json(nullptr) : Json(report.fault));
    if (!common.json) {
        PrintReport(report);
    }
    return report.status;
}

// ---- What is to be run ----

static bool ReadTime(ScheduleReport &report, const ScheduleOptions &options, TimeOfDay *time)
{
    const std::optional<TimeOfDay> read = ParseTimeOfDay(options.daily);
    if (!read) {
        return Refuse(report, "--daily: a time from 00:00 to 23:59 is wanted, not " + options.daily, exitCommandLine);
    }
    *time = *read;
    report.time = TimeText(*time);
    if (!ClocksChangeAt(*time)) {
        return true;
    }
    const std::string reason = "between 01:00 and 03:59 clocks are put forward and back: on the one night in a year a "
                               "run may be left out, and on another one made twice";
    if (!options.takesAnyHour) {
        return Refuse(report, "--daily " + report.time + ": " + reason + "; take another time, or --any-hour",
                      exitCommandLine);
    }
    report.notes.push_back(reason);
    return true;
}

// The day on which the clock on the wall shows the time next.
static std::string NextDay(const TimeOfDay &time, int64_t now)
{
    const bool isOver = LocalTimeText(now).substr(11, 5) >= TimeText(time);
    return PeriodsOf(isOver ? now + secondsPerDay : now).day;
}

static ScheduledRun RunOf(const Job &job, const KeepOptions &common)
{
    ScheduledRun run;
    run.job = job.name;
    run.program = host::ProgramBeside("kestrix-keep");
    run.configuration = common.configuration.empty() ? "" : host::AbsolutePath(common.configuration);
    run.inhibitor = host::SleepInhibitor();
    run.writes = {job.folder};
    for (const CopyPlace &copy : job.copies) {
        run.usesRclone = run.usesRclone || !copy.rclone.empty();
        if (!copy.folder.empty()) {
            run.writes.push_back(copy.folder);
        }
    }
    run.places = run.writes;
    run.places.push_back(run.program);
    for (const std::string &path : {job.passwordFile, run.configuration}) {
        if (!path.empty()) {
            run.places.push_back(path);
        }
    }
    for (size_t i = run.places.size(); i-- > 0;) {
        run.places.push_back(host::ResolvedPath(run.places[i]));
    }
    run.runsPrograms =
        job.guest || !job.before.empty() || !job.after.empty() || !job.onSuccess.empty() || !job.onFailure.empty();
    run.usesShare = !job.fileSystemSource.empty();
    run.capturesGuest = job.guest.has_value();
    return run;
}

static void NoteWhatToKnow(ScheduleReport &report, const Job &job, const ScheduledRun &run)
{
    if (!job.passwordFile.empty()) {
        report.notes.push_back(PasswordCopyText(job));
    }
    if (job.everySeconds < secondsPerDay) {
        report.notes.emplace_back("the job is to have an image more often than once a day, and this makes one a day");
    }
    if (run.runsPrograms) {
        report.notes.emplace_back(
            "other programs have a part in the job, so that the run is not confined to its disk and "
            "its folders: what such programs need is not known");
    }
    if (!run.runsPrograms && !run.usesRclone && host::OwnScheduler() == host::Scheduler::Systemd) {
        report.notes.emplace_back(
            "the run can write into the folders that the job has now, and nowhere else: schedule it "
            "again when its folders, copies or programs change");
    }
    if (run.inhibitor.empty()) {
        report.notes.emplace_back("nothing keeps the machine from going to sleep while a run is under way");
    }
}

static void MakeTexts(ScheduleReport &report, const ScheduledRun &run)
{
    if (host::OwnScheduler() == host::Scheduler::Systemd) {
        report.texts = UnitTexts(run);
        report.cronLine = CronLine(run);
    } else {
        report.texts = {{ScheduleNames(run.job, host::Scheduler::Tasks)[0], TaskXml(run)}};
    }
}

// ---- Having it run ----

// The scheduler runs them with all rights.
static bool CheckPrograms(ScheduleReport &report, const ScheduledRun &run)
{
    std::vector<std::string> programs = {run.program, host::ProgramBeside("kestrix")};
    if (run.capturesGuest) {
        programs.push_back(host::ProgramBeside("kestrix-vm"));
    }
    for (const std::string &path : programs) {
        if (const host::Trouble trouble = host::CheckTrusted(path)) {
            return Refuse(report, "what runs each night with all rights must be nobody else's to change: " + *trouble);
        }
    }
    return true;
}

static bool CheckMachine(ScheduleReport &report)
{
    const host::Trouble trouble = host::CheckScheduler();
    if (!trouble) {
        return true;
    }
    return Refuse(report, *trouble + (report.cronLine.empty()
                                          ? ""
                                          : "; this line in the crontab of root does the same, but for nights on which "
                                            "the machine is off: " +
                                                report.cronLine));
}

// What the scheduler has of the job.
static bool ReadPresent(ScheduleReport &report, const std::string &job, std::vector<host::ScheduledFile> *present)
{
    for (const std::string &name : ScheduleNames(job, host::OwnScheduler())) {
        std::optional<std::string> content;
        if (const host::Trouble trouble = host::ReadScheduled(name, &content)) {
            return Refuse(report, *trouble);
        }
        if (content) {
            present->push_back({name, *content});
        }
    }
    return true;
}

// False if one of them is not as it was written here; advice says what to do about it.
static bool CheckOrigins(ScheduleReport &report, const std::vector<host::ScheduledFile> &present, const char *advice)
{
    for (const host::ScheduledFile &file : present) {
        const ScheduleOrigin origin = OriginOf(file.content, host::OwnScheduler());
        if (origin != ScheduleOrigin::Ours) {
            return Refuse(report,
                          host::PlaceOfScheduled(file.name) +
                              (origin == ScheduleOrigin::Changed ? " was changed by hand since schedule wrote it"
                                                                 : " is there, and schedule did not write it") +
                              ": " + advice);
        }
    }
    return true;
}

static std::vector<host::ScheduledFile> FilesOf(const std::vector<host::ScheduledFile> &texts)
{
    std::vector<host::ScheduledFile> files = texts;
    if (host::OwnScheduler() == host::Scheduler::Tasks) {
        for (host::ScheduledFile &file : files) {
            file.content = TaskFile(file.content);
        }
    }
    return files;
}

static bool Install(ScheduleReport &report, const ScheduledRun &run, const ScheduleOptions &options)
{
    std::vector<host::ScheduledFile> present;
    if (!CheckPrograms(report, run) || !CheckMachine(report) || !ReadPresent(report, run.job, &present) ||
        (!options.replaces && !CheckOrigins(report, present, "--replace puts a new one in its place"))) {
        return false;
    }
    if (const host::Trouble trouble = host::InstallScheduled(FilesOf(report.texts))) {
        return Refuse(report, "job " + run.job + " could not be scheduled: " + *trouble);
    }
    report.done.push_back("job " + run.job + " runs at " + report.time + " each day" +
                          (run.wakes ? ", and wakes the machine for it" : ""));
    for (const host::ScheduledFile &text : report.texts) {
        report.done.push_back("  " + host::PlaceOfScheduled(text.name));
    }
    return true;
}

int Schedule(const KeepOptions &common, const ScheduleOptions &options)
{
    ScheduleReport report;
    std::vector<Job> jobs;
    TimeOfDay time;
    report.job = options.job;
    report.isOfSchedule = true;
    report.printsTexts = options.printsOnly;
    if (!ReadTime(report, options, &time)) {
        return Tell(common, report);
    }
    if (!ReadJobs(common.configuration, {options.job}, &jobs)) {
        return exitCommandLine;
    }
    ScheduledRun run = RunOf(jobs[0], common);
    run.time = time;
    run.wakes = options.wakes;
    run.firstDay = NextDay(time, common.now.value_or(Now()));
    const std::string reason = WhyNotSchedulable(run, host::OwnScheduler());
    if (!reason.empty()) {
        Refuse(report, reason, exitCommandLine);
        return Tell(common, report);
    }
    NoteWhatToKnow(report, jobs[0], run);
    MakeTexts(report, run);
    if (!options.printsOnly) {
        Install(report, run, options);
    }
    return Tell(common, report);
}

// ---- Having it stop ----

static bool Remove(ScheduleReport &report, const std::string &job)
{
    std::vector<host::ScheduledFile> present;
    if (!IsJobName(job)) {
        return Refuse(report, job + ": this can't be the name of a job", exitCommandLine);
    }
    if (!ReadPresent(report, job, &present) ||
        !CheckOrigins(report, present, "what was made by hand has to be removed by hand")) {
        return false;
    }
    if (present.empty()) {
        return Refuse(report, "job " + job + " is not scheduled");
    }
    std::vector<std::string> names;
    for (const host::ScheduledFile &file : present) {
        names.push_back(file.name);
        report.done.push_back("  " + host::PlaceOfScheduled(file.name) + " is gone");
    }
    if (const host::Trouble trouble = host::RemoveScheduled(names)) {
        report.done.clear();
        return Refuse(report, "job " + job + " is still scheduled, or a part of it: " + *trouble);
    }
    report.done.insert(report.done.begin(), "job " + job + " is not run each day any more");
    return true;
}

int Unschedule(const KeepOptions &common, const std::string &job)
{
    ScheduleReport report;
    report.job = job;
    Remove(report, job);
    return Tell(common, report);
}
