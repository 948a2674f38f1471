// What lies in a place of copies, told by the place alone: its files' names and lengths, and the sidecars among them.
#pragma once

#include "kestrix-keep/job_folder.h"
#include "kestrix-keep/places.h"

#include <string>
#include <vector>

// What the name of an image ends with while it is copied.
extern const char endingOfCopies[];

// Reads the place; no image is opened. Gives the named jobs, or all that have images there if none is named: path is
// the place's name, there is no memory, leftovers are what copies left that were not finished. A sidecar without its
// image is one of these. A place that can't be listed is a fault, and so is a sidecar that can't be fetched.
reader::Result<std::vector<JobFolder>> ReadPlace(const Place &place, const std::vector<std::string> &jobs);
