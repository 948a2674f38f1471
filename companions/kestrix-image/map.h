// The map of what is there and what is missing, in the form of GNU ddrescue.
#pragma once

#include <cstdint>
#include <string>

// Collects blocks from the start of the disk on, neighbours of one status in one line.
struct MapText {
    // status: '+' there, '-' missing, '?' not tried.
    void Add(uint64_t lengthBytes, char status);

    // The whole text; to be called once, as the last call.
    std::string Finish();

    void EndBlock();

    uint64_t endBytes = 0; // of what was added
    uint64_t blockBegin = 0;
    char blockStatus = '+';
    std::string lines;
};
