// Images that lie in a place of rclone's, and how one of them comes into a folder from which it can be restored.
#pragma once

#include "kestrix-keep/found_images.h"
#include "kestrix-keep/place_images.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

// Adds the images of the place to those that were found, the newest first, by what their sidecars tell. A place that
// can't be read is a fault.
std::optional<reader::Fault> FindRemoteImages(const Place &place, const std::string &passwordFile,
                                              std::vector<FoundImage> *images);

struct FetchPlan {
    std::vector<ChainFile> files;   // to be fetched, bases first
    uint64_t bytes = 0;             // of these
    uint64_t freeBytes = 0;         // in the folder, for them
    uint64_t allFiles = 0;          // of the chain
    std::vector<std::string> disks; // that the folder lies on, as host::FileSystemFacts has them
};

// What of the image's chain has to be fetched into the folder: what is there and has its digest is not. Nothing is
// written. A fault if the folder can't take it: it can't be looked at, there is no room, or something else has one of
// the names.
reader::Result<FetchPlan> PlanFetch(const FoundImage &image, const std::string &folder, bool showsProgress);

// Takes the folder's lock, which no other run has then, for as long as files are fetched into it. A folder without
// locks is taken as it is: what two runs would do to one another is found by the digests.
std::optional<reader::Fault> LockForFetch(const std::string &folder, host::Lock *lock);

// Fetches one file and its sidecar into the folder. What an earlier fetch left unfinished of it is removed. It has no
// image's name until it is whole, on the disk, and read back with the digest that its sidecar has. After a fault
// nothing of it is left, as far as that can be removed.
std::optional<reader::Fault> FetchFile(const Place &place, const ChainFile &file, const std::string &folder,
                                       const OnBytes &onBytes);
