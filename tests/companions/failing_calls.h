// Calls of the system that fail when they are asked to, under the companions of a Linux build: the link of the test
// puts them in between. Memory is a call named "memory", whoever asks for it, and a thread one named "thread".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Instead of an errno: a pread of at least so many bytes gives the first one changed, shorter ones don't count.
constexpr int otherBytes = -1;
constexpr size_t leastOtherBytes = 4096;

// What shall go wrong.
struct FailingCall {
    std::string call;     // its name; empty: any but memory and thread
    uint64_t nth = 0;     // the nth call of that name from FailCalls on, from 1; 0: none
    bool forGood = false; // every later one too
    int error = 0;        // errno; otherBytes; 0: a transfer that moves one byte less, and any other call as ever
};

// The names, without memory and thread.
const std::vector<std::string> &CallNames();

// From now on calls are counted, in this process and its children together, and fail as asked. libcrypto's memory
// counts.
void FailCalls(const FailingCall &failing);

uint64_t CallsFailed();  // since then
uint64_t CallsCounted(); // of that name since then
