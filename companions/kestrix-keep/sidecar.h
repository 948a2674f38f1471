// What a job knows of an image that it made: NAME.kstx.json beside NAME.kstx, and the job's own file in the folder.
#pragma once

#include "host/host.h"
#include "reader/reader.h"
#include "report/report.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// What tells a disk from another one in a year's time.
struct DiskIdentity {
    std::string model;
    std::string serial; // empty: it has none
    std::string wwn;
    uint64_t sizeBytes = 0;
    uint32_t sectorBytes = 0;
};

// Whether both are the same disk, as far as it can be told. Empty if so, else what differs, as a sentence.
std::string DifferenceOf(const DiskIdentity &left, const DiskIdentity &right);

// Digests as hexadecimal digits, by their kind as rclone calls it: "md5", "sha1".
using OtherDigests = std::map<std::string, std::string>;

struct Sidecar {
    std::string job;
    std::string machine; // the name of the one that captured
    uint64_t number = 0; // counts the job's images, whatever the clock says
    DiskIdentity disk;
    int64_t startedAt = 0; // by the clock of that moment
    int64_t endedAt = 0;
    std::string startedLocal; // the same on the wall, with its distance from UTC
    std::string base;         // file name of what it stands on; empty in a full image
    std::string baseIdentity; // as the image's trailer has it
    std::string identity;
    uint64_t fileBytes = 0;
    std::string sha256;        // of the whole file
    OtherDigests otherDigests; // of the same, for remotes that have no SHA-256; those that were wanted so far
    uint64_t chunks = 0;
    uint64_t storedChunks = 0;
    bool isSealed = false;
    std::vector<std::string> captureLines; // what kestrix said
    std::vector<std::string> notes;        // what of it one has to know
    bool isSound = false;
    std::string damage;       // why it is not
    std::string unread;       // why the medium did not give it when it was last to be read whole; empty: it did
    int64_t provedAt = 0;     // when the medium last gave all of the file as it was made
    std::string mayNotBeBase; // the reason; empty: an image may stand on it
};

// Whether this machine captured it, as far as machines tell their names.
bool IsOfThisMachine(const Sidecar &sidecar);

// "NAME.kstx.json" for the image at path.
std::string SidecarPath(const std::string &imagePath);

// Reads the sidecar at path. A file that is none is a fault.
reader::Result<Sidecar> ReadSidecar(const std::string &path);

// The sidecar that text is; name says in a fault whose text it was.
reader::Result<Sidecar> ParseSidecar(const std::string &text, const std::string &name);

// Writes it in one step in place of the one before.
[[nodiscard]] host::Trouble WriteSidecar(const std::string &path, const Sidecar &sidecar);

Json JsonOf(const Sidecar &sidecar);
Json JsonOf(const DiskIdentity &disk);

// The chain that last passed an audit as one: all that one image needs, read together.
struct PassedChain {
    std::string full; // file name of the full image that it begins with; empty: none has
    int64_t at = 0;
};

// What the job's own file, JOB.keep.json, remembers.
struct JobMemory {
    uint64_t lastNumber = 0;         // of an image
    std::vector<std::string> stamps; // all that were ever in a name
    Json lastReport;                 // null: there is none yet
    Json places = Json::object();    // of copies: what is remembered of each, by its name
    PassedChain passedChain;
};
std::string MemoryPath(const std::string &folder, const std::string &job);

// A file that isn't there is an empty memory.
reader::Result<JobMemory> ReadMemory(const std::string &path);
[[nodiscard]] host::Trouble WriteMemory(const std::string &path, const JobMemory &memory);
