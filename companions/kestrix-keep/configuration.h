// What an administrator wants of kestrix-keep: one TOML file, read and checked as a whole before anything runs.
//
// docs/man/keep.toml.5.scd is its page. All times are in seconds. Paths and names stand here as they were written.
#pragma once

#include "host/host.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

constexpr int64_t secondsOfDay = 86400;

// How many images of each kind retention keeps; at least one count is positive.
struct KeepRules {
    int last = 0;
    int daily = 0;
    int weekly = 0;
    int monthly = 0;
};

// When an image is to be a full one.
struct NewFullRules {
    int64_t everySeconds = 30 * secondsOfDay;
    int whenThinExceedsPercent = 50; // of the full image's file, 1 to 100
    int chain = 60;                  // the most images that stand on one another, 1 to 65
};

// What a new thin image stands on.
enum class BaseScheme {
    Full,   // on the newest full image
    Newest, // on the newest image
};

// Own: what the image stores itself. Whole: the chain behind it as well.
enum class CheckDepth { Own, Whole };

struct CheckRules {
    CheckDepth each = CheckDepth::Own; // of each new image
    int64_t wholeEverySeconds = 7 * secondsOfDay;
};

// A file system by one of its names; one is set.
struct FileSystemName {
    std::string uuid;
    std::string source; // as host:/export or \\server\share
};

// Where copies of the images go: folder or rclone is set.
struct CopyPlace {
    std::string folder;
    std::vector<FileSystemName> mustBe; // folder has to lie on one of them; empty: on the one that it lay on before
    std::string rclone;                 // REMOTE:PATH
    bool plainIsFine = false;           // images that are not sealed may go there too
    std::optional<KeepRules> keep;      // none: nothing there is ever let go
};

// A disk of a virtual machine, as kestrix-vm names it. Without a connection there is a socket.
struct GuestDisk {
    std::string connection; // URI of libvirt's
    std::string socket;     // of QMP, a path
    std::string domain;
    std::string disk;
};

struct Job {
    std::string name;                // [A-Za-z0-9._-], at most 64 characters, no other job's in any case
    std::string disk;                // serial:…, wwn:…, a number's digits, or on Linux a path under /dev/disk/
    std::optional<GuestDisk> guest;  // in the place of disk
    std::string folder;              // absolute, no other job's
    std::string fileSystemUuid;      // at most one of these two is set: what folder has to lie on
    std::string fileSystemSource;    // as host:/export or \\server\share
    bool folderWithoutLocks = false; // folder may lie where there are no locks
    std::string passwordFile;        // absolute; empty: images are plain
    bool snapshots = false;
    int64_t everySeconds = secondsOfDay; // how often an image is due
    BaseScheme base = BaseScheme::Full;
    NewFullRules newFull;
    std::optional<KeepRules> keep; // none: no image is ever let go
    CheckRules check;
    std::vector<CopyPlace> copies;
    std::vector<std::string> before; // a program, absolute, and its arguments; empty: none
    std::vector<std::string> after;
    std::vector<std::string> onSuccess;
    std::vector<std::string> onFailure;
};

struct Configuration {
    std::vector<Job> jobs; // in the order of the file
};

// What came of reading one. Only without faults is the configuration what the file says.
struct ReadingResult {
    Configuration configuration;
    std::vector<std::string> faults; // "FILE:LINE: KEY: sentence", by line; without LINE or KEY where there is none
};

// Reads text, which is the content of the file at path, by the rules for paths of a platform. Looks at no file.
ReadingResult ParseConfiguration(const std::string &text, const std::string &path, host::PathRules rules);

// Reads the file at path by this platform's rules. A file that others can change is a fault, and so is one that it
// names for its password or as a program.
ReadingResult ReadConfiguration(const std::string &path);

// What is wrong with REMOTE:PATH as a place of rclone's, by the rules for paths of a platform, as a sentence; empty if
// nothing is.
std::string RcloneFault(const std::string &place, host::PathRules rules);

// Where the configuration is if nothing else was said.
std::string DefaultConfigurationPath();
