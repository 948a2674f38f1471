// What the tests of restore share. The target is disk 1, C: lies on disk 0. The target holds noise of its own before
// each run, so that what was not written can be told from what was.
#pragma once

#include "operations/operations_fixture.h"

#include <string>

namespace operations
{
const std::string opening = "Restoring image.kstx -> PhysicalDrive1 (3 chunks, 0.00 GiB)\n";
const std::string closing =
    "Restore complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n";
const std::string writeFault =
    "WriteFile to target disk failed mid-restore - target disk left partially written, do not boot it yet";

struct Restore : OperationsTest {
    Restore()
    {
        SetTarget(diskBytes);
    }

    void SetTarget(uint64_t bytes)
    {
        old = PatternBytes(bytes, 99);
        machine.disks[1] = Disk();
        machine.disks[1].bytes = old;
    }

    RunResult Run(const Arguments &confirmation = {"--confirm", "YES"})
    {
        machine.disks[1].bytes = old;
        Arguments arguments = {"restore", "--in", path, "--disk", "1", "--password-file", "pw"};
        arguments.insert(arguments.end(), confirmation.begin(), confirmation.end());
        return RunCommand(machine, arguments);
    }

    const Bytes &Target() const
    {
        return machine.disks.at(1).bytes;
    }

    void ExpectRestored(const RunResult &result, const Bytes &disk, const std::string &progress = first + last)
    {
        EXPECT_EQ(result.outputText, opening + progress + "\n" + closing);
        EXPECT_EQ(result.errorText, "");
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_TRUE(Target() == disk);
        ExpectNoMisuse();
    }

    // The run ended while it was at chunk i, in the middle of its loop.
    void ExpectStopped(const RunResult &result, const Bytes &disk, size_t i, const std::string &error)
    {
        EXPECT_EQ(result.errorText, error);
        EXPECT_EQ(result.outputText, opening + (i > 0 ? first : ""));
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_TRUE(Target() == WithChunksOf(disk, old, i)) << "stopped at chunk " << i;
        EXPECT_EQ(CountCalls(machine, "CloseHandle", "disk1"), 0U);
        EXPECT_EQ(CountCalls(machine, "DeviceIoControl", "disk1"), 2U);
        ExpectNoMisuse();
    }

    void ExpectRefused(const RunResult &result, const std::string &error, const std::string &output = "")
    {
        EXPECT_EQ(result.errorText, error);
        EXPECT_EQ(result.outputText, output);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_TRUE(Target() == old);
        EXPECT_EQ(CountCalls(machine, "WriteFile"), 0U);
        ExpectNoMisuse();
    }

    // The order of the calls that matter to the target.
    std::string CallsOnTarget() const
    {
        return LogText(machine, [](const Call &call) { return call.object.compare(0, 5, "disk1") == 0; });
    }

    Bytes old;
};
} // namespace operations
