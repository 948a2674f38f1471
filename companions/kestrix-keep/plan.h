// What kind of image a run makes, and what it stands on: decided from what lies in the folder, with a reason for each
// step. Nothing is read here.
#pragma once

#include "kestrix-keep/configuration.h"
#include "kestrix-keep/job_folder.h"

#include <string>
#include <vector>

struct CapturePlan {
    size_t base = noImage; // what a thin image will stand on; noImage: a full one is made
    std::vector<std::string> reasons;
};

// Decides for a capture of the disk now. The folder's images must be looked at; an image of which anything is in doubt
// is no base.
CapturePlan MakePlan(const Job &job, const JobFolder &folder, const DiskIdentity &disk, int64_t now);

// Bytes that the image of the plan takes at most, by the disk's size or by what the last thin ones took, with a margin.
uint64_t RoomNeeded(const JobFolder &folder, const CapturePlan &plan, const DiskIdentity &disk);
