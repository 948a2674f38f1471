// What the tests of capture share: a machine with one source disk, number 1, captures of it into image.kstx, the lines
// that every capture prints, and looks at the image that came of it.
//
// Last errors are spoiled by every call that succeeds, so that a number taken a call too late shows.
#pragma once

#include "simulator/expectations.h"
#include "simulator/images.h"
#include "simulator/run_command.h"

#include <gtest/gtest.h>

#include <algorithm>

constexpr uint64_t chunkBytes = 4194304;
constexpr uint64_t tinyDiskBytes = 1024;                    // one short chunk
constexpr uint64_t threeChunkBytes = 2 * chunkBytes + 1536; // the last one short

const std::string tinySource =
    "Source: PhysicalDrive1  Size: 0.00 GiB  SectorSize: 512  Chunks: 1 (4194304 bytes each)\n";
const std::string threeChunkSource =
    "Source: PhysicalDrive1  Size: 0.01 GiB  SectorSize: 512  Chunks: 3 (4194304 bytes each)\n";
const std::string noTrackerLine =
    "Change tracker: not available for this disk (Tallier not loaded/attached) - image carries no epoch.\n";
const std::string baseLine = "Incremental mode: base image base.kstx\n";
const std::string provedLine =
    "  --base: base epoch 5 matches tracker; unchanged chunks will be copied from the base image.\n";
const std::string tinyProgress = "\r  100.00%  0 / 0 MiB  (0.0 MiB/s)   \n";
const std::string threeChunkProgress = "\r   49.99%  4 / 8 MiB  (0.0 MiB/s)   \r  100.00%  8 / 8 MiB  (0.0 MiB/s)   \n";

inline const Bytes &TinyDisk()
{
    static const Bytes disk = PatternBytes(tinyDiskBytes, 5);
    return disk;
}

inline const Bytes &ThreeChunkDisk()
{
    static const Bytes disk = PatternBytes(threeChunkBytes, 7);
    return disk;
}

// disk with one byte of that chunk changed.
inline Bytes WithChangedChunk(Bytes disk, uint64_t chunk)
{
    disk.at(chunk * chunkBytes + 100) ^= 0xFF;
    return disk;
}

inline ImagePlan PlanOf(const Bytes &disk, uint64_t epoch = 0)
{
    ImagePlan plan;
    plan.disk = disk;
    plan.epoch = epoch;
    return plan;
}

// The part of an image that belongs to chunk i, as it lies in the data area.
inline Bytes StoredBytes(const Bytes &image, uint64_t i)
{
    uint64_t start = DataStartOf(image);
    const std::vector<EntryFields> entries = EntriesOf(image);
    for (uint64_t k = 0; k < i; ++k) {
        start += entries[k].storedLength;
    }
    const uint8_t *first = image.data() + start;
    return Bytes(first, first + entries[i].storedLength);
}

// Chunk i of a disk.
inline Bytes ChunkOf(const Bytes &disk, uint64_t i)
{
    const uint8_t *end = disk.data() + std::min<uint64_t>(disk.size(), (i + 1) * chunkBytes);
    return Bytes(disk.data() + i * chunkBytes, end);
}

// Chunk i of a sealed image, opened with the password and what stands in the image; empty if it does not open.
inline Bytes OpenedChunk(const Bytes &image, uint64_t i, const std::string &password = "password")
{
    const HeaderFields header = HeaderOf(image);
    const EntryFields entry = EntriesOf(image)[i];
    Bytes plain;
    const bool opened = Unseal(Pbkdf2Of(password, header.salt, header.kdfIterations), entry.nonce,
                               StoredBytes(image, i), entry.tag, &plain);
    return opened ? plain : Bytes();
}

// True for everything but cryptography and memory of the program's own: what the order of a capture is told in.
inline bool IsStepOfCapture(const Call &call)
{
    return call.name.compare(0, 6, "BCrypt") != 0 && call.name != "calloc";
}

struct Capturing : testing::Test {
    Capturing()
    {
        UseDisk(TinyDisk());
        machine.lastErrorAfterSuccess = spoiledError;
    }

    void UseDisk(const Bytes &bytes)
    {
        machine.disks[1].bytes = bytes;
    }

    // A tracker that proves everything since epoch 5 clean; the capture runs under epoch 6.
    void UseTracker(uint32_t blockShift = 20)
    {
        machine.tracker = Tracker();
        TrackerReply &reply = machine.tracker->reply;
        reply.hasPreviousEpoch = 1;
        reply.previousEpoch = 5;
        reply.currentEpoch = 6;
        reply.blockShift = blockShift;
        reply.bitmap = Bytes(8);
    }

    // Runs a capture of disk 1 into image.kstx with further options.
    const RunResult &Capture(const std::vector<std::string> &options = {}, const std::string &outPath = "image.kstx")
    {
        std::vector<std::string> arguments = {"capture", "--disk", "1", "--out", outPath};
        arguments.insert(arguments.end(), options.begin(), options.end());
        result = RunCommand(machine, arguments);
        return result;
    }

    void ExpectSuccess(const std::string &outputText)
    {
        ExpectEnd(0, outputText, "");
    }

    void ExpectFatal(const std::string &outputText, const std::string &errorText)
    {
        ExpectEnd(1, outputText, errorText);
    }

    void ExpectEnd(int exitStatus, const std::string &outputText, const std::string &errorText)
    {
        EXPECT_EQ(result.outputText, outputText);
        EXPECT_EQ(result.errorText, errorText);
        EXPECT_EQ(result.exitStatus, exitStatus);
        EXPECT_FALSE(result.abnormalEnd) << result.abnormalText;
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
    }

    // Where in the log the first call stands whose line begins so; the log's length if there is none.
    size_t PlaceOf(const std::string &line)
    {
        const auto begins = [&line](const Call &call) { return call.text.compare(0, line.size(), line) == 0; };
        const auto found = std::find_if(machine.calls.begin(), machine.calls.end(), begins);
        return static_cast<size_t>(found - machine.calls.begin());
    }

    // What the capture did and printed from the line on that begins so.
    std::string StepsFrom(const std::string &line)
    {
        const Call *first = &machine.calls.at(PlaceOf(line));
        return LogText(machine, [first](const Call &call) { return &call >= first && IsStepOfCapture(call); });
    }

    // All of the lines must be in the log, in this order.
    void ExpectOrder(const std::vector<std::string> &lines)
    {
        size_t last = 0;
        for (const std::string &line : lines) {
            const size_t place = PlaceOf(line);
            ASSERT_LT(place, machine.calls.size()) << "missing: " << line;
            EXPECT_GE(place, last) << "too early: " << line;
            last = place;
        }
    }

    std::vector<uint64_t> Commits() const
    {
        return machine.tracker->commits;
    }

    Scratch scratch;
    Machine machine;
    RunResult result;
};
