// What is expected of a run in which calls fail: the log of the run in which none does, edited for each failing call in
// its turn. One call that fails is one edit; where every later call fails too, the edited log is edited again at its
// next call, until no call is left that could fail.
#pragma once

#include "sweep/run_kinds.h"
#include "sweep/run_log.h"

#include <functional>
#include <string>

namespace sweep
{
enum class Damage { Failed, Short };

struct Story {
    explicit Story(const SweptRun &sweptRun) : run(sweptRun) {}

    const SweptRun &run;
    Lines lines;             // what is expected, as far as it is told
    Lines good;              // the run without the call that fails now
    size_t k = 0;            // that call's place in good
    int exitStatus = 0;      // 1: ended by a failure
    bool isAbnormal = false; // ended by an exception
    bool isSpoiled = false;  // the new image holds something wrong
    // Not empty: the lines go no further than the last one, and the run ends with this on the error stream; on the way
    // there a reader looks at a file that no sound run leaves behind.
    std::string openEnd;
};

using Tell = std::function<void(Story &story)>;

// The story of the run in which the call at that place of the good run's log is damaged, and, forGood, every later one
// fails. A call that the oracle has no ending for, or two, fails the test.
Story TellStory(const SweptRun &run, size_t k, Damage damage, bool forGood);
} // namespace sweep
