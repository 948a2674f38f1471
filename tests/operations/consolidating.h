// What the tests of consolidate share. The source is image.kstx, of two and a half chunks of 4 KiB, and the output
// out.kstx. Plain outputs are compared with an image made by hand; sealed ones are opened by hand.
#pragma once

#include "operations/operations_fixture.h"

#include <string>

namespace operations
{
const std::string verifying = "Consolidated: out.kstx (self-contained full image, verifying...)\n"
                              "Verifying out.kstx  (3 chunks, 0.00 GiB source disk)\n";
const std::string success =
    first + last + "\n" + verifying + first + last + "\nVerify OK - all 3 chunks match their recorded hash.\n";

struct Consolidate : OperationsTest {
    RunResult Run(const Arguments &more = {}, const std::string &out = "out.kstx")
    {
        Arguments arguments = {"consolidate", "--in", path, "--out", out};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return RunCommand(machine, arguments);
    }

    void ExpectSuccess(const RunResult &result)
    {
        EXPECT_EQ(result.outputText, success);
        EXPECT_EQ(result.errorText, "");
        EXPECT_EQ(result.exitStatus, 0);
        ExpectNoMisuse();
    }

    void ExpectFatal(const RunResult &result, const std::string &error, const std::string &output = "")
    {
        EXPECT_EQ(result.errorText, error);
        EXPECT_EQ(result.outputText, output);
        EXPECT_EQ(result.exitStatus, 1);
        ExpectNoMisuse();
    }

    // What stands at out.kstx when the run ended with these first chunks written: zeros in front of them.
    static void ExpectPartialFile(const Bytes &disk, size_t chunks)
    {
        Bytes expected(chunks == 0 ? 0 : 280);
        expected.insert(expected.end(), disk.begin(), disk.begin() + static_cast<std::ptrdiff_t>(chunks * chunkBytes));
        EXPECT_TRUE(ReadBytes("out.kstx") == expected);
    }
};

const Arguments withPassword = {"--password-file", "pw"};
const Arguments sealing = {"--encrypt", "--password-file", "pw"};

// The plain full image of disk that carries no epoch.
inline Bytes PlainImageOf(const Bytes &disk)
{
    ImagePlan plan = SmallPlan();
    plan.disk = disk;
    return BuildImage(plan);
}
} // namespace operations
