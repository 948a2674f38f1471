// Where copies lie: a folder, or a remote that rclone reaches. Each is a set of named files, and what can be done with
// them.
#pragma once

#include "kestrix-keep/configuration.h"
#include "kestrix-keep/sidecar.h"
#include "reader/reader.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

struct PlaceFile {
    std::string name;
    std::optional<uint64_t> bytes; // none: the remote doesn't tell
};

// Gets how many more bytes have been moved, now and then.
using OnBytes = std::function<void(uint64_t bytes)>;

// A file here that is copied to a place, or is what was copied there.
struct LocalFile {
    std::string path;       // empty: there is none
    bool isInDoubt = false; // set where it could not be read, or is not what it has to be
};

// What a file has to be, by its digests as hexadecimal digits.
struct WantedDigests {
    std::string sha256;
    OtherDigests others;
    LocalFile local; // the same file here, of which digests of other kinds can be made
};

// What keeps path, a file's or a place's name, from being used: no verdict on what lies there.
reader::Fault FaultAt(const std::string &path, const std::string &text);

// All of them may be called any number of times; each fault is a sentence with the place in front.
struct Place {
    std::string name; // as the configuration has it
    bool isRemote = false;

    std::function<reader::Result<std::vector<PlaceFile>>()> list;
    // Of a remote alone: makes the folder that the place is, where there is none yet.
    std::function<std::optional<reader::Fault>()> prepare;
    // Copies the file there under that name, and what had the name gives way.
    std::function<std::optional<reader::Fault>(LocalFile *file, const std::string &name, const OnBytes &onBytes)> put;
    // None: the file there has these digests. Damaged: it has others. What the remote has of another kind, and is the
    // local file's too, is added to the wanted ones.
    std::function<std::optional<reader::Fault>(const std::string &name, WantedDigests *wanted, const OnBytes &onBytes)>
        compare;
    // In a folder the new name has to be free.
    std::function<std::optional<reader::Fault>(const std::string &from, const std::string &to)> rename;
    // What has the name gives way: in a folder in one step, in a remote in two.
    std::function<std::optional<reader::Fault>(const std::string &from, const std::string &to)> renameInPlaceOf;
    // Of a remote alone: whether it can't give a file another name, so that renaming sends it once more.
    std::function<bool()> copiesToRename;
    std::function<std::optional<reader::Fault>(const std::string &name)> remove;
    // All of a small file there.
    std::function<reader::Result<std::string>(const std::string &name)> read;
    // Of a remote alone: copies a file from there to localPath, which must be free. What comes of it may not be on the
    // disk yet, and after a fault a part of it may lie there.
    std::function<std::optional<reader::Fault>(const std::string &name, const std::string &localPath,
                                               const OnBytes &onBytes)>
        fetch;
};

// Whether text is meant as a place of rclone's.
bool IsRemoteText(const std::string &text);

// "rclone:REMOTE:PATH", or a folder. A fault where rclone can't have such a remote.
reader::Result<CopyPlace> ParsePlace(const std::string &text);

// The text of a place, which ParsePlace takes.
std::string NameOfPlace(const CopyPlace &place);

// The place that the configuration names. A fault where rclone is wanted and isn't there.
reader::Result<Place> MakePlace(const CopyPlace &place);
