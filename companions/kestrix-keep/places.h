// Where copies lie: a folder, or a remote that rclone reaches. Each is a set of named files, and what can be done with
// them.
#pragma once

#include "kestrix-keep/configuration.h"
#include "reader/reader.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

// All of them may be called any number of times; each fault is a sentence with the place in front.
struct Place {
    std::string name; // as the configuration has it
    bool isRemote = false;

    std::function<reader::Result<std::vector<std::string>>()> list; // the names of its files
    // Copies the file at localPath there under that name, and what had the name gives way.
    std::function<std::optional<reader::Fault>(const std::string &localPath, const std::string &name)> put;
    // SHA-256 of a file there, as it is stored, in hexadecimal digits.
    std::function<reader::Result<std::string>(const std::string &name, const std::string &localPath)> digest;
    std::function<std::optional<reader::Fault>(const std::string &from, const std::string &to)> rename;
    std::function<std::optional<reader::Fault>(const std::string &name)> remove;
    // All of a small file there.
    std::function<reader::Result<std::string>(const std::string &name)> read;
    // Copies a file from there to localPath, which must be free.
    std::function<std::optional<reader::Fault>(const std::string &name, const std::string &localPath)> fetch;
};

// The place that the configuration names. A fault where rclone is wanted and isn't there.
reader::Result<Place> MakePlace(const CopyPlace &place);
