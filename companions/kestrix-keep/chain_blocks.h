// Which images stand on which, taken apart into pieces that can be drawn in rows, however many there are.
#pragma once

#include "kestrix-keep/job_folder.h"

#include <cstddef>
#include <string>
#include <vector>

// What stands on one image. In a branch each image stands on the one before it, the first one on the block's base.
struct ChainBlock {
    size_t base = noImage;       // index of the image; noImage: it is not among them
    std::string missingBase;     // the name of such a base; empty: it is not known what these stand on
    bool standsOnNothing = true; // the base is drawn here for the first time; false: it is in a branch further up
    std::vector<std::vector<size_t>> branches;
};

// Each image of the folder once: as a base that stands on nothing, or in a branch. Bases come in the order in which
// they were made, and behind each the blocks of what stands on it.
std::vector<ChainBlock> BlocksOf(const JobFolder &folder);
