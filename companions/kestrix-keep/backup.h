// One run of a job: from the lock of its folder to its report.
#pragma once

#include "kestrix-keep/commands.h"
#include "kestrix-keep/configuration.h"
#include "kestrix-keep/sidecar.h"

#include <optional>
#include <string>
#include <vector>

struct RunOptions {
    bool isDryRun = false;
    bool speaks = true; // prints each line as it comes
    bool showsProgress = true;
    uint32_t threads = 1;
    std::optional<int64_t> now; // a clock of the caller's own
};

// What a run did, as it is printed, given to programs, and remembered in the folder.
struct RunReport {
    std::string job;
    int status = exitWell;
    int64_t startedAt = 0;
    int64_t endedAt = 0;
    std::string image;              // file name of the new image; empty: there is none
    std::string failure;            // the first thing that failed, as a sentence
    std::vector<std::string> lines; // every decision with its reason, and what came of it
    std::vector<std::string> warnings;
    std::vector<std::string> notes; // what kestrix said that one has to know
    std::vector<std::string> letGo; // file names
};
Json JsonOf(const RunReport &report);

// Runs the job once, and its programs before and after.
RunReport RunJob(const Job &job, const RunOptions &options);
