// What the fuzz targets share: the end of a run that breaks the target's law, and input taken apart.
//
// A target is a function of bytes. It keeps no state from one input to the next, and answers a broken law with abort,
// so that both a fuzzing engine and the plain driver of replay.cpp see it.
#pragma once

#include "simulator/images.h"

#include <cstddef>
#include <cstdint>
#include <string>

// Looks at one input; 0 always.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// Unless holds is true, prints the law that was broken, and details, and aborts. May be called in the middle of a run,
// when the standard streams are caught.
void Law(bool holds, const char *law, const std::string &details = "");

// The bytes of an input from its front to its end. What is taken beyond the end is zeros.
struct Input {
    Input(const uint8_t *data, size_t size) : bytes(data, data + size) {}

    uint64_t Integer(size_t width); // low byte first
    Bytes Take(size_t count);       // fewer at the end
    Bytes Rest();

    Bytes bytes;
    size_t taken = 0;
};
