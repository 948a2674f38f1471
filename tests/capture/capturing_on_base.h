// What the tests of captures against a base share.
//
// Where the tracker calls a chunk clean, the disk differs from the base all the same: so the image shows by its content
// whether the disk was read.
#pragma once

#include "capture/capturing.h"

#include <set>
#include <string>
#include <vector>

const std::string headLines = threeChunkSource + "Change tracker: disk 1 epoch 6\n" + baseLine;

struct IncrementalCapture : Capturing {
    IncrementalCapture()
    {
        UseDisk(ThreeChunkDisk());
        UseTracker();
        UseBase(PlanOf(ThreeChunkDisk(), 5));
    }

    void UseBase(const ImagePlan &plan)
    {
        basePlan = plan;
        base = BuildImage(plan);
        WriteBytes("base.kstx", base);
    }

    void MarkChunk(uint64_t chunk)
    {
        MarkChanged(machine.tracker->reply, chunk * chunkBytes, 1);
    }

    // Another program's write to the chunk, in the sight of the driver.
    void WriteChunk(uint64_t chunk)
    {
        machine.disks[1].bytes = WithChangedChunk(machine.disks[1].bytes, chunk);
        MarkChunk(chunk);
    }

    // Has the chunk written once, ahead of the first call whose line begins so.
    void WriteChunkAt(const std::string &line, uint64_t chunk)
    {
        machine.onCall = [this, line, chunk, isWritten = false](Machine &, const Call &call) mutable {
            if (!isWritten && (call.name + " " + call.text).compare(0, line.size(), line) == 0) {
                isWritten = true;
                WriteChunk(chunk);
            }
        };
    }

    const RunResult &CaptureThin(std::vector<std::string> options = {})
    {
        options.insert(options.end(), {"--base", "base.kstx", "--thin"});
        return Capture(options);
    }

    const RunResult &CaptureCopying(std::vector<std::string> options = {})
    {
        options.insert(options.end(), {"--base", "base.kstx"});
        return Capture(options);
    }

    // The thin image of disk, with these chunks referred to whatever they hold.
    Bytes ThinImage(const Bytes &disk, const std::set<uint64_t> &references, uint64_t epoch = 6)
    {
        ImagePlan plan = ThinPlan(basePlan, "base.kstx", disk);
        plan.encrypted = false;
        plan.references = references;
        plan.epoch = epoch;
        return BuildImage(plan);
    }

    // The places of the disk that were read, one behind the other.
    std::vector<uint64_t> ReadOffsets()
    {
        std::vector<uint64_t> offsets;
        for (const Call &read : CallsOf(machine, "ReadFile", "disk1")) {
            offsets.push_back(Field(read, "offset") / chunkBytes);
        }
        return offsets;
    }

    void ExpectReads(const std::vector<uint64_t> &chunks)
    {
        EXPECT_EQ(ReadOffsets(), chunks);
    }

    ImagePlan basePlan;
    Bytes base;
};

inline std::string ThinComplete(const std::string &counts)
{
    return "Capture complete (thin): image.kstx  (" + counts + ")\n";
}
