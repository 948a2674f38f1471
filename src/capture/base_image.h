// What a base image changes in a capture, at five places of the pass. Without a base each of these does nothing. All
// failures are fatal; a base that proves nothing is none, it only costs reading.
#pragma once

#include "capture/capture_run.h"

enum class ChunkShortcut {
    Read,      // the chunk has to be read from the source
    Fetched,   // its plaintext is in readBuffer and its hash in the entry
    Reference, // the entry refers to the base, and the chunk is done
};

// Opens the base, decides whether the tracker proves what changed since, says so, and checks a thin run's paths.
void PrepareBase(CaptureRun &run);

// Spares chunk i, length bytes at offset, the read if it is proved clean.
ChunkShortcut TakeFromBase(CaptureRun &run, uint64_t i, uint64_t offset, uint32_t length);

// Turns chunk i, just read and hashed, into a reference if a thin run's base has the same; true if it did.
bool ReferToBase(CaptureRun &run, uint64_t i);

// Writes a thin image's trailer behind the last stored chunk.
void WriteTrailer(const CaptureRun &run);

// Closes the base's file if it is still open.
void ReleaseBase(const CaptureRun &run);
