// What the tests of opening and fetching share: images of three short chunks, thin ones on top of them, and verbs to
// open them on a machine.
//
// The machine spoils the last error behind every call that succeeds.
#pragma once

#include "image/image_file.h"

#include "simulator/expectations.h"
#include "simulator/images.h"
#include "simulator/run_command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>

// Unnamed, because the tests of other subsystems have helpers of the same names.
namespace
{
constexpr uint64_t smallChunk = 4096;
constexpr uint64_t smallDisk = 2 * smallChunk + 1024; // three chunks, the last one shorter
constexpr uint64_t smallDataStart = 64 + 3 * 72;

inline ImagePlan FullPlan(uint32_t seed = 1)
{
    ImagePlan plan;
    plan.disk = PatternBytes(smallDisk, seed);
    plan.chunkSize = smallChunk;
    plan.kdfIterations = 3;
    return plan;
}

// A thin image on the one of basePlan in the file baseName, storing the changed chunks and no others.
inline ImagePlan PlanOn(const ImagePlan &basePlan, const std::string &baseName, const std::set<uint64_t> &changed)
{
    Bytes disk = basePlan.disk;
    for (const uint64_t i : changed) {
        disk.at(i * basePlan.chunkSize) ^= 0x5A;
    }
    return ThinPlan(basePlan, baseName, disk);
}

inline Bytes ChunkOf(const Bytes &disk, uint64_t i)
{
    const uint64_t start = i * smallChunk;
    return Bytes(disk.data() + start, disk.data() + std::min<uint64_t>(start + smallChunk, disk.size()));
}

// The calls on files and the two costly ones of cryptography, a line each, without what came back.
inline std::string StepsOf(const Machine &machine)
{
    const std::set<std::string> names = {
        "CreateFileW",        "ReadFile",    "WriteFile", "SetFilePointerEx", "GetFileSizeEx",
        "GetFileAttributesA", "CloseHandle", "fopen_s",   "BCryptHashData",   "BCryptDeriveKeyPBKDF2"};
    std::string steps;
    for (const Call &call : machine.calls) {
        if (names.count(call.name) != 0) {
            steps += call.text.substr(0, call.text.find(" -> ")) + "\n";
        }
    }
    return steps;
}

struct SmallImages : testing::Test {
    SmallImages()
    {
        machine.lastErrorAfterSuccess = spoiledError;
        WriteText("pw.txt", "password");
        WriteText("other.txt", "another");
    }

    void Write(const std::string &path, const ImagePlan &plan)
    {
        WriteBytes(path, BuildImage(plan));
    }

    RunResult Open(const std::string &path, const std::string &passwordFile = "",
                   const std::function<void(ImageFile &image)> &use = nullptr)
    {
        return RunCode(machine, [&] {
            ImageFile image = OpenImage(path, passwordFile, 0);
            if (use) {
                use(image);
            }
        });
    }

    void ExpectOpens(const std::string &path, const std::string &passwordFile = "",
                     const std::function<void(ImageFile &image)> &use = nullptr)
    {
        const RunResult result = Open(path, passwordFile, use);
        EXPECT_EQ(result.errorText + result.outputText, "") << path;
        EXPECT_EQ(result.exitStatus, 0) << path;
        EXPECT_FALSE(result.abnormalEnd) << result.abnormalText;
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
    }

    // Opens the image, fetches chunk i and gives it; the caller looks at fetchResult where a failure is expected.
    Bytes Fetch(const std::string &path, uint64_t i, const std::string &passwordFile = "")
    {
        Bytes out(smallChunk + 64, 0xEE);
        uint64_t length = 0;
        fetchResult = Open(path, passwordFile, [&](ImageFile &image) {
            length = std::min(smallChunk, smallDisk - i * smallChunk);
            machine.calls.clear();
            FetchChunk(image, i, out.data());
        });
        EXPECT_EQ(Bytes(out.data() + length, out.data() + length + 64), Bytes(64, 0xEE)); // not a byte too many
        return Bytes(out.data(), out.data() + length);
    }

    Scratch scratch;
    Machine machine;
    RunResult fetchResult;
};
} // namespace
