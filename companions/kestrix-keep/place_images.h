// What lies in a place of copies, told by the place alone: its files' names and lengths, and the sidecars among them.
#pragma once

#include "kestrix-keep/job_folder.h"
#include "kestrix-keep/places.h"

#include <string>
#include <vector>

// The name that a file has while this machine copies it there: NAME.0123abcd.copying, where the digits stand for the
// machine. And what NAME is, whichever machine copies; empty: it is no such name.
std::string NameWhileCopied(const std::string &name);
std::string NameOfCopy(const std::string &name);

// Reads the place; no image is opened. Gives the named jobs, or all that have images there if none is named: path is
// the place's name, there is no memory, leftovers are what copies left that were not finished. A sidecar without its
// image is one of these. A place that can't be listed is a fault, and so is a sidecar that can't be fetched.
reader::Result<std::vector<JobFolder>> ReadPlace(const Place &place, const std::vector<std::string> &jobs);
