// The images of a job in other places: what is not there yet is copied, and what the place's own rules let go of goes.
#pragma once

#include "kestrix-keep/job_folder.h"
#include "kestrix-keep/places.h"

#include <functional>
#include <string>
#include <vector>

// An image in the job's own folder that was found to be no longer what was made, or that could not be read.
struct BadImage {
    size_t index = 0; // in the folder
    std::string what;
    bool isDamaged = false; // false: it could not be read, which is no verdict on it
};

struct CopyOutcome {
    std::string place;
    std::string failure; // why the place does not have all that it should; empty: it has
    std::vector<std::string> copied;
    std::vector<std::string> letGo;
    std::vector<std::string> notes; // what one has to know though it was made good
    std::vector<BadImage> bad;      // noted in the folder as it was given, and not yet in the sidecars
};

struct CopyOptions {
    RetentionState chain; // whether the newest image's was proved lately, as it is for letting go in the folder
    int64_t compareEverySeconds = 0; // before something is let go, the newest chain there has been compared since
    bool showsProgress = false;
    std::function<void(const std::string &)> onLine; // is told what is done, and why
};

// Brings the place up to the folder, whose images have been looked at. Digests that a remote wants of an image are
// added to its sidecar; to the folder's memory, when each copy was compared last and what forbids that any goes.
CopyOutcome CopyImages(JobFolder &folder, const CopyPlace &wanted, const CopyOptions &options);
