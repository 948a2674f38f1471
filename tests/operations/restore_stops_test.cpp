// restore: what ends it once it has begun, in which words, and what every stop leaves on the target.
#include "operations/restoring.h"

#include <winioctl.h>

#include <functional>

using namespace operations;

namespace
{
const std::string readFault = "could not read chunk data from image - restore aborted, target disk left partially "
                              "written";

std::string TagLine(size_t chunk)
{
    return "\nFATAL: chunk " + std::to_string(chunk) +
           " failed authentication (corrupt/tampered image) - restore aborted, target disk left partially written.\n";
}

std::string HashLine(size_t chunk)
{
    return "\nFATAL: chunk " + std::to_string(chunk) +
           " hash mismatch (corrupt image) - restore aborted, target disk left partially written.\n";
}
} // namespace

TEST_F(Restore, StopsAtAReadThatFailsOrEndsShort)
{
    for (const bool sealed : {false, true}) {
        const Bytes image = Write(SmallPlan(sealed));
        for (uint32_t i = 0; i < 3; ++i) {
            machine.faults.clear();
            FailCall(machine, "ReadFile", 3 + i, ERROR_CRC);
            ExpectStopped(Run(), SmallPlan().disk, i, FatalLine(readFault, ERROR_CRC));
            machine.faults.clear();
            ShortenCall(machine, "ReadFile", 3 + i, 2047);
            ExpectStopped(Run(), SmallPlan().disk, i, FatalLine(readFault));
        }
    }
}

TEST_F(Restore, StopsWhereTheFileIsCut)
{
    const Bytes image = Write(SmallPlan());
    for (size_t i = 0; i < 3; ++i) {
        for (const size_t kept : {size_t{0}, size_t{2047}}) {
            WriteBytes(path,
                       Bytes(image.begin(), image.begin() + static_cast<std::ptrdiff_t>(DataAt(image, i) + kept)));
            ExpectStopped(Run(), SmallPlan().disk, i, FatalLine(readFault));
        }
    }
}

TEST_F(Restore, StopsAtADamagedChunkBeforeItIsWritten)
{
    for (const bool sealed : {false, true}) {
        for (size_t i = 0; i < 3; ++i) {
            const Bytes image = Write(SmallPlan(sealed));
            FlipByte(path, DataAt(image, i) + 2047);
            ExpectStopped(Run(), SmallPlan().disk, i, sealed ? TagLine(i) : HashLine(i));
            EXPECT_EQ(CountCalls(machine, "WriteFile"), i);
        }
    }
}

TEST_F(Restore, ComparesAllOfThePlainDigest)
{
    for (size_t byte = 0; byte < 32; ++byte) {
        Write(SmallPlan());
        FlipByte(path, EntryAt(1) + hashAt + byte);
        ExpectStopped(Run(), SmallPlan().disk, 1, HashLine(1));
    }
}

TEST_F(Restore, TakesTheTagOfASealedChunkAsSufficient)
{
    Write(SmallPlan(true));
    FlipByte(path, EntryAt(0) + hashAt);
    FlipByte(path, EntryAt(2) + hashAt + 31);
    ExpectRestored(Run(), SmallPlan().disk);
    EXPECT_EQ(CountCalls(machine, "BCryptHashData"), 1U); // the image's own identity
    for (const size_t field : {nonceAt, tagAt + 15}) {
        Write(SmallPlan(true));
        FlipByte(path, EntryAt(1) + field);
        ExpectStopped(Run(), SmallPlan().disk, 1, TagLine(1));
    }
}

TEST_F(Restore, TakesEveryEncryptedByteButZeroForEncrypted)
{
    for (const uint64_t encrypted : {uint64_t{2}, uint64_t{0x80}, uint64_t{0xFF}}) {
        Write(SmallPlan(true));
        ChangeFile(path, 36, encrypted, 1);
        ExpectRestored(Run(), SmallPlan().disk);
    }
}

TEST_F(Restore, SpeaksOfAPartlyWrittenDiskUnderAWrongPasswordThoughNothingWasWritten)
{
    Write(SmallPlan(true));
    WriteText("pw", "Password");
    ExpectStopped(Run(), SmallPlan().disk, 0, TagLine(0));
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "disk1"), 1U);
}

TEST_F(Restore, StopsAtTheFirstSealedChunkThatItMeetsUnderAWrongPassword)
{
    WriteText("pw", "Password");
    const Bytes disk = WriteThin(SmallPlan(false), {1}, true);
    const RunResult result = Run();
    EXPECT_EQ(result.errorText, TagLine(1));
    EXPECT_TRUE(Target() == WithChunksOf(disk, old, 1));
}

TEST_F(Restore, StopsAtAWriteThatFailsOrEndsShort)
{
    for (const bool sealed : {false, true}) {
        Write(SmallPlan(sealed));
        for (uint32_t i = 0; i < 3; ++i) {
            machine.faults.clear();
            FailCall(machine, "WriteFile", 1 + i, ERROR_WRITE_PROTECT);
            ExpectStopped(Run(), SmallPlan().disk, i, FatalLine(writeFault, ERROR_WRITE_PROTECT));
            machine.faults.clear();
            ShortenCall(machine, "WriteFile", 1 + i, 0);
            ExpectStopped(Run(), SmallPlan().disk, i, FatalLine(writeFault));
        }
    }
}

// The half that the device took stays; nothing behind it is touched.
TEST_F(Restore, LeavesWhatAShortWriteWrote)
{
    Write(SmallPlan());
    ShortenCall(machine, "WriteFile", 2, 1024);
    const RunResult result = Run();
    EXPECT_EQ(result.errorText, FatalLine(writeFault));
    EXPECT_TRUE(Target() == WithChunksOf(SmallPlan().disk, old, 5, 1024));
}

TEST_F(Restore, StopsInTheWordsOfTheFetchBehindAReference)
{
    const std::string badHash = FatalLine("chunk failed its hash check (corrupt image or base)");
    const std::string badTag = FatalLine("chunk failed authentication (corrupt or tampered image)");
    for (const bool sealed : {false, true}) {
        const Bytes disk = WriteThin(SmallPlan(sealed), {0}, !sealed);
        for (size_t i = 1; i < 3; ++i) {
            const Bytes base = ReadBytes("base.kstx");
            FlipByte("base.kstx", DataAt(base, i) + 1);
            ExpectStopped(Run(), disk, i, sealed ? badTag : badHash);
            Bytes cut = base;
            cut.resize(DataAt(base, i) + 2047);
            WriteBytes("base.kstx", cut);
            ExpectStopped(Run(), disk, i, FatalLine("could not read chunk data from image (truncated?)"));
            WriteBytes("base.kstx", base);
        }
    }
}

TEST_F(Restore, StopsAtAReferenceThatDisagreesWithASoundBase)
{
    const Bytes disk = WriteThin(SmallPlan(), {0}, false);
    FlipByte(path, EntryAt(2) + hashAt + 31);
    ExpectStopped(Run(), disk, 2, FatalLine("chunk failed its hash check (corrupt image or base)"));
}

TEST_F(Restore, StopsAtAReferenceInAnImageWithoutABase)
{
    WriteBytes(path, WithStoredLength(BuildImage(SmallPlan()), 1, 0));
    ExpectStopped(Run(), SmallPlan().disk, 1, FatalLine("image has a thin chunk but no base image"));
}

TEST_F(Restore, DoesNotReadBaseChunksThatTheThinImageHasOverridden)
{
    const Bytes disk = WriteThin(SmallPlan(), {1}, false);
    FlipByte("base.kstx", DataAt(ReadBytes("base.kstx"), 1));
    ExpectRestored(Run(), disk, ProgressLine(0, diskBytes) + ProgressLine(8192, diskBytes));
}

TEST_F(Restore, StopsAtAStoredLengthThatIsNotTheChunksOwn)
{
    for (const bool sealed : {false, true}) {
        const Bytes image = BuildImage(SmallPlan(sealed));
        for (const uint32_t storedLength : {1U, 4095U, 4097U, 100000U}) {
            WriteBytes(path, WithStoredLength(image, 1, storedLength));
            ExpectStopped(Run(), SmallPlan().disk, 1, sealed ? TagLine(1) : HashLine(1));
        }
        for (const uint32_t storedLength : {2047U, 2049U, 4096U}) {
            WriteBytes(path, WithStoredLength(image, 2, storedLength));
            ExpectStopped(Run(), SmallPlan().disk, 2, sealed ? TagLine(2) : HashLine(2));
        }
        WriteBytes(path, image);
        ChangeFile(path, EntryAt(1) + storedLengthAt, 0xFFFFFFFF, 4);
        ExpectStopped(Run(), SmallPlan().disk, 1, FatalLine(readFault));
    }
}

TEST_F(Restore, DoesNotLookAtTheResultsOfItsSeeksItsLastRequestAndItsCloses)
{
    for (const bool sealed : {false, true}) {
        Write(SmallPlan(sealed));
        for (const char *call :
             {"SetFilePointerEx", "CloseHandle", "BCryptCloseAlgorithmProvider", "BCryptDestroyHash",
              "BCryptDestroyKey", "fclose", "BCryptGetProperty", "BCryptHashData", "BCryptFinishHash"}) {
            machine.faults.clear();
            Fault &fault = FailCall(machine, call, 1, failedStatus);
            fault.forGood = true;
            fault.afterEffect = true;
            ExpectRestored(Run(), SmallPlan().disk);
        }
        machine.faults.clear();
        FailControl(machine, IOCTL_DISK_UPDATE_PROPERTIES, 1, ERROR_NOT_SUPPORTED);
        ExpectRestored(Run(), SmallPlan().disk);
        EXPECT_EQ(machine.faultsFired, 1U);
    }
}

TEST_F(Restore, WritesWhereTheTargetStandsAfterASeekThatFailed)
{
    Write(SmallPlan());
    ChangeFile(path, EntryAt(1), 0, 8);
    FailCall(machine, "SetFilePointerEx", 2, ERROR_IO_DEVICE);
    ExpectRestored(Run(), SmallPlan().disk);
    EXPECT_EQ(machine.faultsFired, 1U);
}

TEST_F(Restore, EndsWithoutMemoryForItsBuffersAndLeavesTheTarget)
{
    Write(SmallPlan());
    FailCall(machine, "_aligned_malloc", 1, ERROR_NOT_ENOUGH_MEMORY);
    ExpectRefused(Run(), FatalLine("out of memory allocating aligned I/O buffer", ERROR_NOT_ENOUGH_MEMORY), opening);
    EXPECT_EQ(CountCalls(machine, "calloc"), 1U); // the table; the plain buffer would come second
    machine.faults.clear();
    FailCall(machine, "calloc", 2, ERROR_NOT_ENOUGH_MEMORY);
    const RunResult result = Run();
    EXPECT_TRUE(result.abnormalEnd);
    EXPECT_EQ(result.outputText, opening);
    EXPECT_TRUE(Target() == old);
}

TEST_F(Restore, BeginsANewRunAtTheFirstChunk)
{
    Write(SmallPlan());
    FailCall(machine, "WriteFile", 3, ERROR_CRC);
    ExpectStopped(Run(), SmallPlan().disk, 2, FatalLine(writeFault, ERROR_CRC));
    machine.faults.clear();
    ExpectRestored(Run(), SmallPlan().disk);
    EXPECT_EQ(CountCalls(machine, "WriteFile"), 3U);
}
