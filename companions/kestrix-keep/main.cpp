// The command line of kestrix-keep.
//
// A mistyped word is refused before anything is looked at. No exception passes out of here, and an exit status is one
// of those that commands.h has.
#include "host/host.h"
#include "kestrix-keep/commands.h"
#include "kestrix-keep/configuration.h"
#include "reader/reader.h"
#include "report/command_line.h"

#include <functional>

struct KeepCommandLine {
    KeepOptions common;
    int64_t now = 0;
    BackupOptions backup;
    StatusOptions status;
    RestoreOptions restore;
    ScheduleOptions schedule;
    std::string unscheduled;
    std::function<int()> run;
};

static void AddCommon(CLI::App *command, KeepCommandLine &line)
{
    command->add_flag("--json", line.common.json, "Print one JSON object instead of lines");
    command->add_flag("--quiet", line.common.quiet, "Show no progress");
}

static void AddThreads(CLI::App *command, KeepCommandLine &line)
{
    command->add_option("-j", line.common.threads, "Threads; as many as there are cores, if not given")
        ->check(CLI::Range(1U, 1024U))
        ->type_name("N");
}

// Of a subcommand that reads the configuration.
static void AddConfiguration(CLI::App *command, KeepCommandLine &line)
{
    command
        ->add_option("--config", line.common.configuration,
                     "The configuration; " + DefaultConfigurationPath() + ", if not given")
        ->type_name("FILE");
    command->add_option("--now", line.now, "Seconds since 1970 in the place of the clock; for trials")
        ->type_name("SECONDS")
        ->check(CLI::Range(int64_t{0}, int64_t{253402300799})); // the end of the year 9999
}

static void AddBackup(CLI::App &app, KeepCommandLine &line)
{
    CLI::App *command = app.add_subcommand("backup", "Make the images that jobs ask for, and let go of old ones");
    command->add_option("JOB", line.backup.jobs, "Jobs of the configuration; all, if none is given");
    command->add_flag("--dry-run", line.backup.isDryRun, "Tell what would be done, and why, and do nothing");
    AddThreads(command, line);
    AddCommon(command, line);
    AddConfiguration(command, line);
    command->callback([&line] { line.run = [&line] { return Backup(line.common, line.backup); }; });
}

static void AddStatus(CLI::App &app, KeepCommandLine &line)
{
    CLI::App *command = app.add_subcommand("status", "Tell what state jobs are in, by what lies in their folders");
    command->add_option("JOB", line.status.jobs, "Jobs of the configuration; all, if none is given");
    CLI::Option *place =
        command->add_option("--place", line.status.place, "Tell of the copies in this folder or rclone:REMOTE:PATH");
    place->type_name("PLACE");
    command->add_flag("--compare", line.status.comparesCopies, "Compare each copy there with its digest")->needs(place);
    command->add_option("--prometheus", line.status.prometheusFile, "Also write the figures for monitoring")
        ->type_name("FILE")
        ->excludes(place);
    command->add_option("--html", line.status.htmlFile, "Also write a page with drawings; reads the images' tables")
        ->type_name("FILE")
        ->excludes(place);
    AddCommon(command, line);
    AddConfiguration(command, line);
    command->callback([&line] {
        line.run = [&line] {
            return line.status.place.empty() ? Status(line.common, line.status)
                                             : StatusOfPlace(line.common, line.status);
        };
    });
}

static void AddSchedule(CLI::App &app, KeepCommandLine &line)
{
    CLI::App *command = app.add_subcommand("schedule", "Have the system run a job each day");
    ScheduleOptions &options = line.schedule;
    command->add_option("JOB", options.job, "A job of the configuration")->required();
    command->add_option("--daily", options.daily, "The time, by the clock on the wall; 05:00, if not given")
        ->type_name("HH:MM");
    command->add_flag("--wake", options.wakes, "Wake the machine from sleep for it");
    command->add_flag("--any-hour", options.takesAnyHour, "Allow the hours in which clocks are put forward and back");
    command->add_flag("--print", options.printsOnly, "Show what would be installed, and install nothing");
    command->add_flag("--replace", options.replaces, "Replace what was changed by hand, or made by others");
    AddCommon(command, line);
    AddConfiguration(command, line);
    command->callback([&line] { line.run = [&line] { return Schedule(line.common, line.schedule); }; });
}

static void AddUnschedule(CLI::App &app, KeepCommandLine &line)
{
    CLI::App *command = app.add_subcommand("unschedule", "Take away what schedule made");
    command->add_option("JOB", line.unscheduled, "The job")->required();
    AddCommon(command, line);
    command->callback([&line] { line.run = [&line] { return Unschedule(line.common, line.unscheduled); }; });
}

static void AddRestore(CLI::App &app, KeepCommandLine &line)
{
    CLI::App *command = app.add_subcommand("restore", "Write an image back over a whole disk, guided by questions");
    RestoreOptions &options = line.restore;
    CLI::Option *image = command->add_option("--image", options.image, "Restore this image")->type_name("PATH");
    command->add_option("--from", options.from, "Look for images in this folder or rclone:REMOTE:PATH")
        ->type_name("PLACE")
        ->excludes(image);
    command->add_option("--fetch-to", options.fetchTo, "The folder into which images of rclone's are fetched")
        ->type_name("FOLDER");
    CLI::Option *disk =
        command->add_option("--disk", options.disk, "Overwrite this disk: serial:..., wwn:..., or its number");
    disk->type_name("NAME");
    command
        ->add_option("--yes-overwrite", options.yesOverwrite,
                     "The disk's whole serial, or its size in bytes where no serial tells it from others")
        ->type_name("SERIAL")
        ->needs(disk);
    command
        ->add_option("--password-file", options.passwordFile,
                     "The file with the password of sealed images; on Linux it can be typed instead")
        ->type_name("PATH");
    command->add_flag("--trust-last-audit", options.trustsLastAudit, "Take its word, and don't read the image first");
    command->add_flag("--other-sectors", options.takesOtherSectors, "Take a disk with sectors of another length");
    command->add_flag("--move-backup-gpt", options.movesBackupGpt,
                      "On a larger disk, move the backup of its table to the end without asking; on Linux only");
    AddThreads(command, line);
    AddCommon(command, line);
    AddConfiguration(command, line);
    command->callback([&line] { line.run = [&line] { return Restore(line.common, line.restore); }; });
}

static void AddDisks(CLI::App &app, KeepCommandLine &line)
{
    CLI::App *command = app.add_subcommand("disks", "Tell the disks of this machine apart");
    AddCommon(command, line);
    command->callback([&line] { line.run = [&line] { return Disks(line.common); }; });
}

static int RunProgram(int argc, char **argv)
{
    KeepCommandLine line;
    CLI::App app("Keeps images of disks: which disks there are, and what is done with them.", "kestrix-keep");
    app.set_version_flag("--version", "kestrix-keep " KESTRIX_VERSION);
    app.require_subcommand(1);
    app.allow_windows_style_options(false);
    AddDisks(app, line);
    AddBackup(app, line);
    AddStatus(app, line);
    AddRestore(app, line);
    AddSchedule(app, line);
    AddUnschedule(app, line);
    line.common.threads = reader::CoreCount();
    if (!ParseCommandLine(app, host::Arguments(argc, argv))) {
        return exitCommandLine;
    }
    if (line.now != 0) {
        line.common.now = line.now;
    }
    return line.run ? line.run() : exitWell;
}

int main(int argc, char **argv)
{
    return RunGuarded("kestrix-keep", exitFailed, [=] { return RunProgram(argc, argv); });
}
