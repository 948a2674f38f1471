// Images that lie in folders, with what a person wants to know of them before one is chosen.
#pragma once

#include "kestrix-keep/restore_choices.h"
#include "kestrix-keep/sidecar.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

// A file of a chain in a place of rclone's.
struct ChainFile {
    std::string name;
    Sidecar sidecar;
};

struct FoundImage {
    std::string path; // of one that is not in a folder yet, the place's name and its own
    reader::ImageFacts facts;
    std::optional<Sidecar> sidecar; // that tells of this very file
    std::string sidecarDoubt;       // why there is none, or why it doesn't count
    std::vector<ChainPart> needs;   // what it stands on, the nearest first
    std::vector<std::string> files; // paths of all that there is of its chain, its own first
    bool isSealed = false;          // it, or something that it stands on
    std::string whyNot;             // why it can't be restored; empty: nothing is known against it
    int64_t provedAt = 0;           // when the oldest of its files was last read whole and found sound; 0: not known
    std::string place;              // of rclone's, from which it has to be fetched; empty: it lies in a folder
    std::vector<ChainFile> toFetch; // with all that it stands on, bases first
    std::string passwordFile;       // that the configuration has for it; empty: none
};

// What was looked at already, by path.
using KnownFiles = std::map<std::string, reader::ImageFacts>;

// Looks at one file, which may be no image, and at what it stands on.
FoundImage LookAtImage(const std::string &path, KnownFiles &known);

// Adds all images of a folder, finished or not, to those that were found, the newest first.
[[nodiscard]] host::Trouble FindImages(const std::string &folder, const std::string &passwordFile,
                                       std::vector<FoundImage> *images);

// Lines for a person; the first one is the image's path.
std::vector<std::string> ImageCard(const FoundImage &image);

Json JsonOf(const FoundImage &image);
