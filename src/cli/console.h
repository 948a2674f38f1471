// How the program speaks and how it fails: reports go to standard output, what ends the process goes to the error
// stream.
#pragma once

#include <windows.h>

#include <cstdint>

// Prints "FATAL: <message>" to the error stream and ends the process as EndWithFailure does. A non-zero status is the
// NTSTATUS of a failed cryptography call; with 0 the line shows GetLastError, so the call must follow the failing one
// with nothing in between.
[[noreturn]] void Fatal(const char *message, LONG status);

// Ends the process with exit status 1, for a refusal or a verdict that has printed its own words. Exit hooks run and
// the streams are flushed; the caller's locals are not taken down.
[[noreturn]] void EndWithFailure();

// Rewrites the progress line of a chunk loop: done and total in bytes, startTicks the GetTickCount64 value from just
// before the loop. The line has no end of its own; after the loop the operation prints one.
void PrintProgress(uint64_t done, uint64_t total, uint64_t startTicks);

// True for the chunks after which a loop over chunkCount chunks shows its progress: every 32nd and the last.
bool IsProgressDue(uint64_t i, uint64_t chunkCount);

// A byte count in GiB, for the messages that show one.
double ToGiB(uint64_t bytes);
