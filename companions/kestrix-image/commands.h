// The subcommands: what each is told on the command line, and the exit status that it gives.
//
// None of them writes to an image or a disk. Reports go to standard output, as lines for a person or as one JSON
// object; what stands in the way of one, and progress, go to the error stream.
#pragma once

#include "host/host.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum ExitStatus {
    exitGood = 0,        // all is as hoped
    exitFound = 1,       // a difference, damage, something missing was found
    exitCommandLine = 2, // the command line says nothing that can be done
    exitImpossible = 3,  // it could not be done
};

struct CommonOptions {
    bool json = false;
    bool quiet = false;
    host::Caching caching = host::Caching::Medium;
    uint32_t threads = 1;
    std::string passwordFile;
};

int Info(const CommonOptions &common, const std::vector<std::string> &images);

int Tree(const CommonOptions &common, const std::string &folder);

struct CheckOptions {
    std::vector<std::string> images;
    bool ownOnly = false;
};
int Check(const CommonOptions &common, const CheckOptions &options);

struct CompareOptions {
    std::string image;
    std::optional<uint32_t> disk; // or
    std::string file;
};
int Compare(const CommonOptions &common, const CompareOptions &options);

int Diff(const CommonOptions &common, const std::string &imageA, const std::string &imageB);

struct ExtractOptions {
    std::string image;
    std::string out;
    bool keepGoing = false;
    std::string map;
    std::string twins;                // a folder
    std::optional<uint32_t> twinDisk; // a disk
};
int Extract(const CommonOptions &common, const ExtractOptions &options);

struct RepairOptions {
    std::string image;
    std::string out;
    std::string twins;
    std::optional<uint32_t> twinDisk;
};
int Repair(const CommonOptions &common, const RepairOptions &options);
