// Parts of a disk, neighbours of one kind put together.
#pragma once

#include "report/report.h"

#include <cstdint>
#include <string>

// Takes the chunks of a disk in order and reports the stretches of one state, as items of the list that is open in
// output, or as lines. Chunks of no state are left out.
struct RangeReport {
    explicit RangeReport(JsonOutput &jsonOutput);

    void Add(uint64_t diskOffset, uint64_t lengthBytes, const char *stateOfChunk); // null: none
    void Finish();

    JsonOutput &output;
    const char *state = nullptr;
    uint64_t begin = 0;
    uint64_t end = 0;
};
