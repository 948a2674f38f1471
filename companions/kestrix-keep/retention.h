// What is kept of a job's images, and why: a list and rules go in, a decision for each image comes out. Nothing is read
// and nothing is done here.
#pragma once

#include "kestrix-keep/configuration.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr size_t noImage = SIZE_MAX;

struct RetainedImage {
    uint64_t number = 0;  // in the order in which the job made them
    int64_t time = 0;     // by the clock of that moment
    bool isOurs = false;  // its sidecar says that this job made it
    bool isSound = false; // nothing is known against it and what it stands on
    bool isDamaged = false;
    bool isOpaque = false; // what it stands on can't be told
    size_t base = noImage; // index of what it stands on
};

struct RetentionState {
    int64_t now = 0;
    bool chainIsProved = false; // the newest image's whole chain passed an audit lately
    std::string chainSays;      // since when it has not
    std::string forbids = {};   // why nothing goes, whatever the images are; empty: nothing forbids it
};

struct Decision {
    bool isLetGo = false;
    std::vector<std::string> reasons; // why it is kept, or why it may go
};

// The reasons in one line.
std::string ReasonsText(const Decision &decision);

// Decides about each image; without rules all stay. The places of an image from the future, one that nobody made, and a
// damaged one are never counted; as long as one is damaged or opaque, or the newest chain not proved, all stay.
std::vector<Decision> DecideRetention(const std::vector<RetainedImage> &images, const std::optional<KeepRules> &rules,
                                      const RetentionState &state);
