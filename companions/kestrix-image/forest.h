// Who stands on whom among the images of a folder.
#pragma once

#include "reader/reader.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class BaseState {
    None,          // a full image has no base
    Present,       // the file of that name is the image that is pinned
    Missing,       // there is no file of that name
    Replaced,      // the file of that name is another image, or none
    Damaged,       // the file of that name is damaged, and may be the image that is pinned
    Unreadable,    // the file of that name can't be looked at
    OtherGeometry, // the pinned image is of another disk size or chunk size
};

constexpr size_t noNode = SIZE_MAX;

struct Node {
    reader::ImageFacts facts; // of the kind Image
    BaseState base = BaseState::None;
    size_t standsOn = noNode;     // index of the base, where it is present
    std::vector<size_t> children; // indices of what stands on it, under this name of it
    std::vector<size_t> neededBy; // indices of all that would be lost with it: its children, those of its other names,
                                  // and those that miss their base and pin this image
    size_t sameAsBase = noNode; // where the base is missing or replaced: a file of another name that is the one pinned
    size_t sameFileAs = noNode; // the first other name of the same file
    std::optional<uint64_t> length; // images of its chain, itself and the full one among them; none if it is broken
};

// Where the file lies that an image names as its base, as far as anything lies there.
using FindIdentity = std::optional<host::FileIdentity> (*)(const reader::ImageFacts &facts);

// Links the images of one folder, in which a file may have several names; others are its files that are none.
// identityOfBase asks the file system; the rest is decided from the facts alone.
std::vector<Node> MakeForest(std::vector<reader::ImageFacts> images, const std::vector<reader::ImageFacts> &others,
                             FindIdentity identityOfBase);

// How many more images its chain takes.
uint64_t RoomLeft(const Node &node);

// Bytes of the full image that a consolidation of it would give.
uint64_t ConsolidatedBytes(const Node &node);
