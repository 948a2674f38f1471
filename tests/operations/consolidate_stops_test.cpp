// consolidate: what ends it once it has begun, what stays behind then, and the verdict of its closing verify.
#include "operations/consolidating.h"

#include <functional>

using namespace operations;

TEST_F(Consolidate, StopsAtADamagedChunkAndLeavesAFileThatIsNoImage)
{
    struct {
        bool sealed;
        size_t cut; // 0: a byte is changed instead
        std::string error;
    } const cases[] = {
        {false, 0, FatalLine("chunk failed its hash check (corrupt image or base)")},
        {true, 0, FatalLine("chunk failed authentication (corrupt or tampered image)")},
        {false, 1, FatalLine("could not read chunk data from image (truncated?)")},
    };
    for (const auto &[sealed, cut, error] : cases) {
        for (size_t i = 0; i < 3; ++i) {
            std::filesystem::remove("out.kstx");
            Bytes image = BuildImage(SmallPlan(sealed));
            image[DataAt(image, i)] ^= 1;
            image.resize(cut == 0 ? image.size() : DataAt(image, i) + cut);
            WriteBytes(path, image);
            ExpectFatal(Run(withPassword), error, i == 0 ? "" : first);
            ExpectPartialFile(SmallPlan().disk, i);
        }
    }
}

TEST_F(Consolidate, StopsUnderAWrongPasswordAtItsFirstSealedChunk)
{
    Write(SmallPlan(true));
    WriteText("pw", "Password");
    ExpectFatal(Run(withPassword), FatalLine("chunk failed authentication (corrupt or tampered image)"));
    ExpectPartialFile({}, 0);
}

TEST_F(Consolidate, ReadsABaseOnlyWhereTheThinImageRefersToIt)
{
    const Bytes disk = WriteThin(SmallPlan(), {1}, false);
    const Bytes base = ReadBytes("base.kstx");
    FlipByte("base.kstx", DataAt(base, 1));
    ExpectSuccess(Run());
    EXPECT_TRUE(ReadBytes("out.kstx") == PlainImageOf(disk));
    EXPECT_EQ(CountOfLength(machine, "ReadFile", {4096, 2048}), 6U);
    std::filesystem::remove("out.kstx");
    FlipByte("base.kstx", DataAt(base, 2));
    ExpectFatal(Run(), FatalLine("chunk failed its hash check (corrupt image or base)"), first);
    ExpectPartialFile(disk, 2);
}

TEST_F(Consolidate, EndsAtAReferenceInAnImageWithoutABase)
{
    WriteBytes(path, WithStoredLength(BuildImage(SmallPlan()), 1, 0));
    ExpectFatal(Run(), FatalLine("image has a thin chunk but no base image"), first);
}

TEST_F(Consolidate, EndsWithTheStatusOfAFailedSealOrNonce)
{
    Write(SmallPlan());
    FailCall(machine, "BCryptEncrypt", 2, 0xC000000D);
    ExpectFatal(Run(sealing), "FATAL: BCryptEncrypt (NTSTATUS 0xC000000D)\n", first);
    EXPECT_EQ(ReadBytes("out.kstx").size(), 280U + 4096U);
    std::filesystem::remove("out.kstx");
    machine.faults.clear();
    FailCall(machine, "BCryptGenRandom", 3, 0xC000000D);
    ExpectFatal(Run(sealing), "FATAL: BCryptGenRandom (NTSTATUS 0xC000000D)\n", first);
    EXPECT_EQ(CountCalls(machine, "WriteFile"), 1U);
}

TEST_F(Consolidate, LeavesThePartialFileOfAFullDiskWhichTheNextRunRefuses)
{
    const std::string message = "WriteFile failed while consolidating (disk full?)";
    Write(SmallPlan());
    for (uint32_t i = 0; i < 3; ++i) {
        std::filesystem::remove("out.kstx");
        machine.faults.clear();
        FailCall(machine, "WriteFile", i + 1, ERROR_DISK_FULL);
        ExpectFatal(Run(), FatalLine(message, ERROR_DISK_FULL), i == 0 ? "" : first);
        ExpectPartialFile(SmallPlan().disk, i);
        ExpectFatal(Run(), FatalLine("--out already exists - refusing to overwrite an image"));
        std::filesystem::remove("out.kstx");
        machine.faults.clear();
        ShortenCall(machine, "WriteFile", i + 1, 2047);
        ExpectFatal(Run(), FatalLine(message), i == 0 ? "" : first);
        EXPECT_EQ(ReadBytes("out.kstx").size(), 280 + i * chunkBytes + 2047);
        EXPECT_EQ(CountCalls(machine, "CloseHandle"), 0U);
    }
}

// The results of the last three calls are not looked at: what the closing verify finds in the file decides.
TEST_F(Consolidate, LeavesFaultsOfHeaderAndTableToTheClosingVerify)
{
    const std::string written = first + last + "\nConsolidated: out.kstx (self-contained full image, verifying...)\n";
    const std::string noHeader = FatalLine("not a recognized Kestrix image (bad magic/version)");
    struct {
        const char *call;
        uint32_t nth;
        std::string error;
        std::string output;
    } const cases[] = {
        {"WriteFile", 4, noHeader, written},
        {"SetFilePointerEx", 5, noHeader, written},
        {"WriteFile", 5, FatalLine("image has a thin chunk but no base image"), first + last + "\n" + verifying},
    };
    Write(SmallPlan());
    for (const auto &[call, nth, error, output] : cases) {
        std::filesystem::remove("out.kstx");
        machine.faults.clear();
        FailCall(machine, call, nth, ERROR_DISK_FULL);
        ExpectFatal(Run(), error, output);
        EXPECT_TRUE(FileExists("out.kstx"));
        EXPECT_EQ(CountCalls(machine, "CloseHandle"), 2U);
    }
}

TEST_F(Consolidate, LeavesAFailedFirstSeekToTheClosingVerify)
{
    Write(SmallPlan());
    FailCall(machine, "SetFilePointerEx", 1, ERROR_IO_DEVICE);
    const RunResult result = Run();
    EXPECT_EQ(result.errorText, FatalLine("could not read chunk data - image is truncated"));
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_TRUE(FileExists("out.kstx"));
}

TEST_F(Consolidate, IsNotDeterredByAFailureThatChangedNothing)
{
    Write(SmallPlan(true));
    for (const char *call : {"CloseHandle", "fclose", "BCryptCloseAlgorithmProvider", "BCryptDestroyHash",
                             "BCryptDestroyKey", "BCryptGetProperty", "BCryptHashData", "BCryptFinishHash"}) {
        std::filesystem::remove("out.kstx");
        machine.faults.clear();
        Fault &fault = FailCall(machine, call, 1, failedStatus);
        fault.forGood = true;
        fault.afterEffect = true;
        ExpectSuccess(Run(withPassword));
    }
    for (const auto &[call, nth] : std::vector<std::pair<const char *, uint32_t>>{
             {"SetFilePointerEx", 1}, {"SetFilePointerEx", 5}, {"WriteFile", 4}, {"WriteFile", 5}}) {
        std::filesystem::remove("out.kstx");
        machine.faults.clear();
        FailCall(machine, call, nth, ERROR_IO_DEVICE).afterEffect = true;
        ExpectSuccess(Run(withPassword));
    }
}

TEST_F(Consolidate, EndsWithTheVerdictOfTheClosingVerifyAndLeavesTheFile)
{
    Write(SmallPlan());
    machine.onCall = [](Machine &, const Call &call) {
        if (call.name == "CreateFileW" && call.object == "file:out.kstx" && Field(call, "access") == GENERIC_READ) {
            FlipByte("out.kstx", 4376);
        }
    };
    ExpectFatal(Run(), "Verify FAILED - 1 of 3 chunks did not match. Do not trust this image for restore.\n",
                first + last + "\n" + verifying + first + "\n  chunk 1 (disk offset 4096): HASH MISMATCH\n" + last +
                    "\n");
    EXPECT_EQ(ReadBytes("out.kstx").size(), 280U + diskBytes);
}

// A plain output is verified without a password, though the source needed one: here the output is made to ask for it.
TEST_F(Consolidate, VerifiesAPlainOutputWithoutThePasswordOfItsSource)
{
    Write(SmallPlan(true));
    machine.onCall = [](Machine &, const Call &call) {
        if (call.name == "CreateFileW" && call.object == "file:out.kstx" && Field(call, "access") == GENERIC_READ) {
            ChangeFile("out.kstx", 36, 1, 1);
        }
    };
    ExpectFatal(Run(withPassword), FatalLine("this image is encrypted - pass --password-file"),
                first + last + "\nConsolidated: out.kstx (self-contained full image, verifying...)\n");
}

TEST_F(Consolidate, IsNoBaseForThinImagesOfItsSource)
{
    ImagePlan base = SmallPlan();
    base.epoch = 3;
    WriteThin(base, {1}, false);
    EXPECT_EQ(RunCommand(machine, {"consolidate", "--in", "base.kstx", "--out", "new.kstx"}).exitStatus, 0);
    std::filesystem::rename("new.kstx", "base.kstx");
    ExpectFatal(RunCommand(machine, {"verify", "--in", path}),
                "Base image base.kstx is not the one this image was made against (it was modified or replaced).\n" +
                    FatalLine("base image does not match the one pinned in the thin image"));
}
