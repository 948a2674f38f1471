// The kinds of run that the fault sweep goes through: each a command line on a machine and on files of its own.
#pragma once

#include "simulator/images.h"
#include "simulator/run_command.h"
#include "sweep/run_log.h"

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace sweep
{
// A run and what it starts from.
struct SweptRun {
    std::vector<std::string> arguments;
    Machine machine;     // as each run finds it
    std::string outPath; // the image that the run makes; empty if it makes none
    Bytes content;       // what that image, or the target of a restore, is to hold in the end
    Bytes frozen;        // what it is to hold instead where the snapshots were read
    std::map<std::string, std::vector<EntryFields>> entries; // the tables of all images of a good run, by name
    mutable std::map<std::pair<bool, bool>, Lines> goodLogs; // kept by LogOfGoodRun

    const std::string &Command() const
    {
        return arguments[0];
    }
    bool Has(const std::string &option) const;
};

struct RunKind {
    const char *name;               // as it stands among the figures
    const char *testName;           // the same as one word
    void (*prepare)(SweptRun &run); // writes the files into the current folder and fills in the rest
};

const std::vector<RunKind> &RunKinds();

// Prepares the kind's run in the current folder, which is empty, and runs it once.
SweptRun PrepareRun(const RunKind &kind);

// Runs it as a new process would: on a new machine, with these faults and that failing allocation, and without an image
// of an earlier run.
RunResult RunAnew(const SweptRun &run, Machine &machine, const std::vector<Fault> &faults, uint32_t failingAllocation);

// How a run can differ from the one that is swept.
struct Without {
    bool tracker = false;
    bool snapshots = false;
};

// The log of a run in which nothing fails, run once and kept.
const Lines &LogOfGoodRun(const SweptRun &run, Without without = {});
} // namespace sweep
