// The subcommands of kestrix-keep: what each is told on the command line, and the exit status that it gives.
//
// Reports go to standard output, as lines for a person or as one JSON object; what stands in the way of one, and
// progress, go to the error stream. kestrix makes the images and writes the disks; no subcommand does.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum ExitStatus {
    exitWell = 0,        // all is as it should be
    exitFailed = 1,      // a job or a check failed, or something is overdue
    exitCommandLine = 2, // the command line or the configuration says nothing that can be done
    exitBusy = 3,        // another run holds the folder
};

struct KeepOptions {
    bool json = false;
    bool quiet = false;
    std::string configuration; // path of the configuration file
    uint32_t threads = 1;
    std::optional<int64_t> now; // seconds since 1970 in the place of the system's clock
};

struct BackupOptions {
    std::vector<std::string> jobs; // none: all
    bool isDryRun = false;
};
int Backup(const KeepOptions &common, const BackupOptions &options);

struct StatusOptions {
    std::vector<std::string> jobs; // none: all
    std::string prometheusFile;    // empty: none is written
    std::string htmlFile;          // likewise
    std::string place;             // of copies, as keep.toml names it; empty: the jobs' own folders
    bool comparesCopies = false;   // there, by their digests
};
int StatusOfPlace(const KeepOptions &common, const StatusOptions &options);
int Status(const KeepOptions &common, const StatusOptions &options);

struct ScheduleOptions {
    std::string job;
    std::string daily = "05:00"; // by the clock on the wall
    bool wakes = false;          // the machine, from sleep
    bool takesAnyHour = false;   // those too in which clocks change
    bool printsOnly = false;
    bool replaces = false; // what was changed by hand, or is somebody else's
};
int Schedule(const KeepOptions &common, const ScheduleOptions &options);
int Unschedule(const KeepOptions &common, const std::string &job);

int Disks(const KeepOptions &common);

struct RestoreOptions {
    std::string from;         // a folder or rclone:..., where images are looked for; empty: those of the configuration
    std::string image;        // path, or rclone:REMOTE:PATH/NAME; empty: it is asked for
    std::string fetchTo;      // the folder for an image of rclone's; empty: it is asked for
    std::string disk;         // as FindDisk takes it; empty: it is asked for
    std::string yesOverwrite; // the disk's whole serial, or its size in bytes; empty: it is asked for
    std::string passwordFile; // empty: it is asked for
    bool trustsLastAudit = false;
    bool takesOtherSectors = false;
    bool movesBackupGpt = false; // where nobody is asked
};
int Restore(const KeepOptions &common, const RestoreOptions &options);
