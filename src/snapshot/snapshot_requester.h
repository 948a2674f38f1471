// The requester side of Volume Shadow Copy: one snapshot set over the volumes of the disk being captured.
//
// A snapshot is an improvement, never a condition. Nothing here ends the program or returns an error; every failure
// means reading live, one volume or the whole disk, and says so on standard output.
#pragma once

#include "snapshot/shadow_range.h"

#include <cstdint>
#include <vector>

// Snapshots the volumes on disk diskNumber and opens a shadow device for each. Gives the ranges that they serve,
// ascending by diskOffset, their handles borrowed; empty where everything is to be read live. Called once in a run, and
// followed by CloseSnapshots when the ranges are no longer read.
std::vector<ShadowRange> OpenSnapshots(uint32_t diskNumber);

// Closes the shadow devices, completes the backup (or aborts it, if the capture did not succeed), deletes the snapshots
// and lets everything go. May be called in any state and any number of times; with nothing open it does nothing.
void CloseSnapshots(bool captureSucceeded);

// What the exit hook runs when a capture ends the process: CloseSnapshots(false).
void CloseSnapshotsAtExit();
