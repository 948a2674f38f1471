// An input taken as a chain of image files.
//
// Byte 0 holds the flags and byte 1 the number of files less one, modulo five; each file but the last begins with its
// length in two bytes, the last is the rest. They are named a.kstx to e.kstx in the current folder, and a.kstx is the
// image that is opened. Two flags make digests fit that no mutation would ever hit.
//
// Iteration counts are cut to 15, so that no input costs more time than its size.
#pragma once

#include "fuzz/law.h"
#include "simulator/run_command.h"

#include <string>
#include <vector>

constexpr uint8_t withFittingPins = 1;   // each trailer pins the base that it names, as it stands in this input
constexpr uint8_t withFittingHashes = 2; // entries of plain images have the digest of what they store or refer to
constexpr uint8_t withoutPassword = 4;   // no password file is named

struct ImageFiles {
    uint8_t flags = 0;
    std::vector<Bytes> files; // one to five
};
ImageFiles TakeImageFiles(Input &input);

// A machine for such files, with 1 MiB of memory: what a damaged header claims beyond that is refused.
Machine MachineForImages();

// Puts the files into the current folder, a scratch folder that stays from one input to the next, beside the file named
// password. Files of earlier inputs are gone.
void WriteImageFiles(const ImageFiles &images);

// True if chunk entries of the file can be read whole: its header and table are there.
bool HasTable(const Bytes &image);

// The laws on how every run with such files ends: exit status 0, or 1 with exactly one line that begins with FATAL, is
// the last one and ends with a number in brackets or is one of restore's own on a chunk, or 1 with no such line but
// refusal as the last words, or for want of memory. Memory is wanted only where a file claims a large table or chunk.
// Nothing was closed twice, and no file was opened to be written.
void CheckEnd(const ImageFiles &images, const Machine &machine, const RunResult &result, const std::string &refusal);
