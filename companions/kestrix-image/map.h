// The map of what is there and what is missing, in the form of GNU ddrescue.
#pragma once

#include <cstdint>
#include <string>

// Collects blocks from the start of the disk on, neighbours of one status in one line. ddrescue itself is to fill what
// is missing: it reads each block that is not tried or not scraped, and lets one lie that is a bad sector.
struct MapText {
    // status: '+' there, '?' not tried yet, '/' not scraped yet.
    void Add(uint64_t lengthBytes, char status);

    // The whole text; to be called once, as the last call.
    std::string Finish();

    void EndBlock();

    uint64_t endBytes = 0; // of what was added
    uint64_t blockBegin = 0;
    char blockStatus = '+';
    bool isWhole = true; // all of it is there
    std::string lines;
};
