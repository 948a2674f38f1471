// Running the program, or a piece of it, on a simulated machine.
#pragma once

#include "simulator/machine.h"

#include <functional>
#include <string>
#include <vector>

// How a run ended and what it printed.
struct RunResult {
    int exitStatus = 0;       // means nothing after an abnormal end
    bool abnormalEnd = false; // an exception that nobody caught, or the run-time's own end of the process
    std::string abnormalText; // what() of the exception
    std::string outputText;   // standard output, flushed or not
    std::string errorText;    // the error stream
};

// Runs the program with these arguments behind its own name, from main's first line to the end of the process: exit
// hooks run as at a real end, and what the process left open is then closed. The machine keeps the log of this run and
// what became of its disks; log, counts and the numbering of handles begin anew with each run, the faults stay. The
// arguments' text needs no quoting.
RunResult RunCommand(Machine &machine, const std::vector<std::string> &arguments);

// The same with body in place of the program, so that one function can be called: an exit in it ends the run, and its
// return counts as exit status 0. The body may hold assertions; a failed one shows its words after the run. What the
// body opened through a replaced call is closed when the run is over, so nothing that holds such a handle may leave it.
RunResult RunCode(Machine &machine, const std::function<void()> &body);

// A new empty folder, made the current one; both are undone at the end, with all that lies in it. One at a time.
struct Scratch {
    Scratch();
    ~Scratch();
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;

    // The absolute path of name in this folder. In the log such a path stands as its bare name.
    std::string Path(const std::string &name) const;

    std::string folder; // absolute, without a separator at its end
    std::string previousFolder;
};
