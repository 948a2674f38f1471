// verify: what it prints to the byte, the calls it makes and their order, what it counts and what ends it.
//
// Findings in the named image are counted and the run goes on; everything behind a reference is fatal. Images have
// chunks of 4 KiB, or of 1 MiB where the progress line is to show figures.
#include "operations/operations_fixture.h"

using namespace operations;

namespace
{
struct Verify : OperationsTest {
    RunResult Run(const std::string &file = path)
    {
        return RunCommand(machine, {"verify", "--in", file, "--password-file", "pw"});
    }

    // The whole standard output of a run over image.kstx that printed these lines in its loop.
    static std::string Report(const std::string &loop, const std::string &verdict)
    {
        return "Verifying image.kstx  (3 chunks, 0.00 GiB source disk)\n" + loop + "\n" + verdict;
    }

    void ExpectSound(const RunResult &result, const std::string &output)
    {
        EXPECT_EQ(result.outputText, output);
        EXPECT_EQ(result.errorText, "");
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_FALSE(result.abnormalEnd);
        ExpectNoMisuse();
    }

    void ExpectFailed(const RunResult &result, const std::string &loop, const std::string &count)
    {
        EXPECT_EQ(result.outputText, Report(loop, ""));
        EXPECT_EQ(result.errorText,
                  "Verify FAILED - " + count + " chunks did not match. Do not trust this image for restore.\n");
        EXPECT_EQ(result.exitStatus, 1);
        ExpectNoMisuse();
    }

    // A run that ended in its loop, after these lines.
    void ExpectFatal(const RunResult &result, const std::string &loop, const std::string &error)
    {
        EXPECT_EQ(result.outputText, "Verifying image.kstx  (3 chunks, 0.00 GiB source disk)\n" + loop);
        EXPECT_EQ(result.errorText, error);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(CountCalls(machine, "CloseHandle"), 0U);
        EXPECT_EQ(machine.calls.back().name, "exit");
        ExpectNoMisuse();
    }
};

const std::string verdictOk = "Verify OK - all 3 chunks match their recorded hash.\n";
const std::string chainLine = "  thin image: chain continues with base.kstx\n";

std::string Finding(size_t chunk, uint64_t diskOffset, const std::string &what)
{
    return "\n  chunk " + std::to_string(chunk) + " (disk offset " + std::to_string(diskOffset) + "): " + what + "\n";
}

std::string HashFinding(size_t chunk)
{
    return Finding(chunk, chunk * chunkBytes, "HASH MISMATCH");
}

std::string TagFinding(size_t chunk)
{
    return Finding(chunk, chunk * chunkBytes, "AUTHENTICATION FAILED (corrupt or tampered)");
}
} // namespace

TEST_F(Verify, ReportsASoundImageWithItsSizesAndSpeed)
{
    ImagePlan plan;
    plan.disk = PatternBytes(2 * MiB + MiB / 2, 1);
    plan.chunkSize = MiB;
    WriteBytes(path, BuildImage(plan));
    machine.ticksPerCall = 500;
    ExpectSound(Run("./image.kstx"), "Verifying ./image.kstx  (3 chunks, 0.00 GiB source disk)\n"
                                     "\r   40.00%  1 / 2 MiB  (2.0 MiB/s)   "
                                     "\r  100.00%  2 / 2 MiB  (2.5 MiB/s)   \n"
                                     "Verify OK - all 3 chunks match their recorded hash.\n");
}

TEST_F(Verify, ShowsTheDiskSizeOfTheHeaderInGiB)
{
    WriteBytes(path, BuildHeader({"KSTXDSK2", 2, 3 * GiB + GiB / 2, 512, 4096, 0, 0, 0, {}, 0}));
    ExpectSound(Run(), "Verifying image.kstx  (0 chunks, 3.50 GiB source disk)\n\n"
                       "Verify OK - all 0 chunks match their recorded hash.\n");
}

TEST_F(Verify, MakesTheseCallsForAPlainImage)
{
    Write(SmallPlan());
    Run();
    EXPECT_EQ(LogWithout(machine, {}),
              "CreateFileW image.kstx access=0x80000000 share=0x1 disposition=3 flags=0x80 -> file:image.kstx#1\n"
              "ReadFile file:image.kstx#1 64 at 0 -> 64\n"
              "calloc 3 72\n"
              "ReadFile file:image.kstx#1 216 at 64 -> 216\n" +
                  DigestLog(1, 280) +
                  "stdout Verifying image.kstx  (3 chunks, 0.00 GiB source disk)\n\n"
                  "_aligned_malloc 4096 64 -> block#1\n"
                  "calloc 4096 1\n"
                  "GetTickCount64 -> 1000\n"
                  "ReadFile file:image.kstx#1 4096 at 280 -> 4096\n" +
                  DigestLog(2, 4096) + "GetTickCount64 -> 1000\nstdout " + first +
                  "\n"
                  "ReadFile file:image.kstx#1 4096 at 4376 -> 4096\n" +
                  DigestLog(3, 4096) + "ReadFile file:image.kstx#1 2048 at 8472 -> 2048\n" + DigestLog(4, 2048) +
                  "GetTickCount64 -> 1000\n"
                  "stdout " +
                  last +
                  "\n\n"
                  "CloseHandle file:image.kstx#1\n"
                  "stdout Verify OK - all 3 chunks match their recorded hash.\n\n"
                  "_aligned_free block#1\n");
}

TEST_F(Verify, MakesTheseCallsForASealedImage)
{
    Write(SmallPlan(true));
    Run();
    EXPECT_EQ(LogWithout(machine, {"stdout"}),
              "CreateFileW image.kstx access=0x80000000 share=0x1 disposition=3 flags=0x80 -> file:image.kstx#1\n"
              "ReadFile file:image.kstx#1 64 at 0 -> 64\n"
              "calloc 3 72\n"
              "ReadFile file:image.kstx#1 216 at 64 -> 216\n" +
                  DigestLog(1, 280) + KeyLog(1, 2) +
                  "_aligned_malloc 4096 64 -> block#1\n"
                  "calloc 4096 1\n"
                  "GetTickCount64 -> 1000\n"
                  "ReadFile file:image.kstx#1 4096 at 280 -> 4096\n"
                  "BCryptDecrypt key#1 4096\n" +
                  DigestLog(2, 4096) +
                  "GetTickCount64 -> 1000\n"
                  "ReadFile file:image.kstx#1 4096 at 4376 -> 4096\n"
                  "BCryptDecrypt key#1 4096\n" +
                  DigestLog(3, 4096) +
                  "ReadFile file:image.kstx#1 2048 at 8472 -> 2048\n"
                  "BCryptDecrypt key#1 2048\n" +
                  DigestLog(4, 2048) +
                  "GetTickCount64 -> 1000\n"
                  "CloseHandle file:image.kstx#1\n"
                  "_aligned_free block#1\n"
                  "BCryptDestroyKey key#1\n"
                  "BCryptCloseAlgorithmProvider aes#1\n");
}

TEST_F(Verify, HashesTheReadBufferOfAPlainImageAndTheOpenedBytesOfASealedOne)
{
    for (const bool sealed : {false, true}) {
        Write(SmallPlan(sealed));
        Run();
        const void *readBuffer = CallsOf(machine, "ReadFile")[2].buffer;
        const void *hashed = CallsOf(machine, "BCryptHashData")[1].buffer;
        EXPECT_EQ(hashed == readBuffer, !sealed);
        for (const Call &open : CallsOf(machine, "BCryptDecrypt")) {
            EXPECT_EQ(open.buffer, readBuffer);
        }
        EXPECT_EQ(Field(CallsOf(machine, "ReadFile")[2], "aligned") % 64, 0U);
    }
}

TEST_F(Verify, OpensEachChunkWithTheNonceOfItsEntry)
{
    Write(SmallPlan(true));
    Run();
    const std::vector<Call> opened = CallsOf(machine, "BCryptDecrypt");
    ASSERT_EQ(opened.size(), 3U);
    for (uint8_t i = 0; i < 3; ++i) {
        EXPECT_EQ(opened[i].input, (Bytes{static_cast<uint8_t>(i + 1), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
        EXPECT_EQ(Field(opened[i], "tagLength"), 16U);
        EXPECT_EQ(Field(opened[i], "authDataLength"), 0U);
    }
}

TEST_F(Verify, TakesEveryNonZeroMarkForSealed)
{
    Write(SmallPlan(true));
    ChangeFile(path, 36, 0x80, 1);
    ExpectSound(Run(), Report(first + last, verdictOk));
    EXPECT_EQ(CountCalls(machine, "BCryptDecrypt"), 3U);
}

TEST_F(Verify, ShowsProgressAtEvery32ndChunkAndAtTheLast)
{
    for (const size_t chunks : {size_t{1}, size_t{32}, size_t{33}, size_t{34}, size_t{70}}) {
        ImagePlan plan = SmallPlan();
        plan.chunkSize = 512;
        plan.disk = PatternBytes(chunks * 512, 2);
        Write(plan);
        std::string progress;
        for (size_t i = 0; i < chunks; ++i) {
            progress += i % 32 == 0 || i == chunks - 1 ? ProgressLine((i + 1) * 512, chunks * 512) : "";
        }
        const std::string count = std::to_string(chunks);
        ExpectSound(Run(), "Verifying image.kstx  (" + count + " chunks, 0.00 GiB source disk)\n" + progress +
                               "\nVerify OK - all " + count + " chunks match their recorded hash.\n");
    }
}

TEST_F(Verify, NamesAChangedPlainChunkAndReadsOn)
{
    const std::string loops[] = {HashFinding(0) + first + last, first + HashFinding(1) + last,
                                 first + HashFinding(2) + last};
    for (size_t i = 0; i < 3; ++i) {
        const Bytes image = Write(SmallPlan());
        FlipByte(path, DataAt(image, i) + 2047);
        ExpectFailed(Run(), loops[i], "1 of 3");
        EXPECT_EQ(CountOfLength(machine, "ReadFile", {4096, 2048}), 3U);
        EXPECT_EQ(CountOfLength(machine, "BCryptHashData", {4096, 2048}), 3U);
    }
}

// Such a chunk counts once: its digest is left out, and so is a progress line that was due.
TEST_F(Verify, NamesAChangedSealedChunkOnceAndShowsNoProgressForIt)
{
    const std::string loops[] = {TagFinding(0) + last, first + TagFinding(1) + last, first + TagFinding(2)};
    for (size_t i = 0; i < 3; ++i) {
        const Bytes image = Write(SmallPlan(true));
        FlipByte(path, DataAt(image, i) + 2047);
        ExpectFailed(Run(), loops[i], "1 of 3");
        EXPECT_EQ(CountOfLength(machine, "BCryptHashData", {4096, 2048}), 2U);
        EXPECT_EQ(CountCalls(machine, "BCryptDecrypt"), 3U);
    }
}

TEST_F(Verify, FailsASealedChunkWhoseNonceOrTagWasChanged)
{
    for (const size_t field : {nonceAt, nonceAt + 11, tagAt, tagAt + 15}) {
        Write(SmallPlan(true));
        FlipByte(path, EntryAt(1) + field);
        ExpectFailed(Run(), first + TagFinding(1) + last, "1 of 3");
    }
}

TEST_F(Verify, TakesEveryFailureOfTheOpeningForAFailedTag)
{
    Write(SmallPlan(true));
    FailCall(machine, "BCryptDecrypt", 2, failedStatus);
    ExpectFailed(Run(), first + TagFinding(1) + last, "1 of 3");
}

TEST_F(Verify, ComparesAllOfTheDigest)
{
    for (const bool sealed : {false, true}) {
        for (size_t byte = 0; byte < 32; ++byte) {
            Write(SmallPlan(sealed));
            FlipByte(path, EntryAt(1) + hashAt + byte);
            ExpectFailed(Run(), first + HashFinding(1) + last, "1 of 3");
        }
    }
}

TEST_F(Verify, CountsEveryFinding)
{
    const Bytes image = Write(SmallPlan());
    for (size_t i = 0; i < 3; ++i) {
        FlipByte(path, DataAt(image, i));
    }
    ExpectFailed(Run(), HashFinding(0) + first + HashFinding(1) + HashFinding(2) + last, "3 of 3");
}

TEST_F(Verify, CountsEverySealedChunkUnderAWrongPassword)
{
    Write(SmallPlan(true));
    WriteText("pw", "Password\n");
    ExpectFailed(Run(), TagFinding(0) + TagFinding(1) + TagFinding(2), "3 of 3");
}

TEST_F(Verify, LetsTwoSealedChunksChangePlacesWithTheirEntries)
{
    Bytes image = BuildImage(SmallPlan(true));
    const size_t data = DataAt(image, 0);
    std::swap_ranges(&image[data], &image[data + 4096], &image[data + 4096]);
    std::swap_ranges(&image[EntryAt(0) + hashAt], &image[EntryAt(1)], &image[EntryAt(1) + hashAt]);
    WriteBytes(path, image);
    ExpectSound(Run(), Report(first + last, verdictOk));
}

TEST_F(Verify, ShowsTheRecordedDiskOffsetWithoutTestingIt)
{
    const Bytes image = Write(SmallPlan());
    ChangeFile(path, EntryAt(0), 12345678901, 8);
    ExpectSound(Run(), Report(ProgressLine(12345682997, diskBytes) + last, verdictOk));
    FlipByte(path, DataAt(image, 0));
    ExpectFailed(Run(), Finding(0, 12345678901, "HASH MISMATCH") + ProgressLine(12345682997, diskBytes) + last,
                 "1 of 3");
}

TEST_F(Verify, EndsAtTheFirstChunkThatIsCutShort)
{
    struct {
        size_t chunk;
        size_t kept; // of its bytes
        std::string loop;
    } const cases[] = {{0, 0, ""}, {0, 4095, ""}, {1, 0, first}, {1, 4095, first}, {2, 2047, first}};
    for (const bool sealed : {false, true}) {
        for (const auto &[chunk, kept, loop] : cases) {
            Bytes image = BuildImage(SmallPlan(sealed));
            image.resize(DataAt(image, chunk) + kept);
            WriteBytes(path, image);
            ExpectFatal(Run(), loop, FatalLine("could not read chunk data - image is truncated"));
        }
    }
}

TEST_F(Verify, ReportsTheErrorOfAFailedReadAtOnce)
{
    Write(SmallPlan());
    FailCall(machine, "ReadFile", 4, ERROR_CRC);
    ExpectFatal(Run(), first, FatalLine("could not read chunk data - image is truncated", ERROR_CRC));
    EXPECT_EQ(CountCalls(machine, "ReadFile"), 4U);
}

TEST_F(Verify, TellsNoCountWhenAReadEndsIt)
{
    Bytes image = BuildImage(SmallPlan());
    image[DataAt(image, 0)] ^= 1;
    image.pop_back();
    WriteBytes(path, image);
    ExpectFatal(Run(), HashFinding(0) + first, FatalLine("could not read chunk data - image is truncated"));
}

TEST_F(Verify, IgnoresBytesBehindTheLastChunkOfAFullImage)
{
    Bytes image = BuildImage(SmallPlan());
    image.insert(image.end(), 100, 0xEE);
    WriteBytes(path, image);
    ExpectSound(Run(), Report(first + last, verdictOk));
}

TEST_F(Verify, EndsAtAReferenceInAnImageWithoutABase)
{
    WriteBytes(path, WithStoredLength(BuildImage(SmallPlan()), 1, 0));
    ExpectFatal(Run(), first, FatalLine("image has a thin chunk but no base image"));
}

TEST_F(Verify, EndsWithoutMemoryForTheReadBuffer)
{
    Write(SmallPlan());
    FailCall(machine, "_aligned_malloc", 1, ERROR_NOT_ENOUGH_MEMORY);
    ExpectFatal(Run(), "", FatalLine("out of memory allocating aligned I/O buffer", ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_EQ(CountCalls(machine, "calloc"), 1U); // the table; the plain buffer would come second
    EXPECT_EQ(CountCalls(machine, "GetTickCount64"), 0U);
}

TEST_F(Verify, EndsAbnormallyWithoutMemoryForThePlainBuffer)
{
    Write(SmallPlan());
    FailCall(machine, "calloc", 2, ERROR_NOT_ENOUGH_MEMORY);
    const RunResult result = Run();
    EXPECT_TRUE(result.abnormalEnd);
    EXPECT_EQ(result.outputText, "Verifying image.kstx  (3 chunks, 0.00 GiB source disk)\n");
    EXPECT_EQ(result.errorText, "");
}

TEST_F(Verify, IsNotDeterredByAFailureThatChangedNothing)
{
    Write(SmallPlan(true));
    for (const char *call : {"CloseHandle", "fclose", "BCryptCloseAlgorithmProvider", "BCryptDestroyHash",
                             "BCryptDestroyKey", "BCryptGetProperty", "BCryptHashData", "BCryptFinishHash"}) {
        machine.faults.clear();
        Fault &fault = FailCall(machine, call, 1, failedStatus);
        fault.forGood = true;
        fault.afterEffect = true;
        ExpectSound(Run(), Report(first + last, verdictOk));
        EXPECT_GT(machine.faultsFired, 0U) << call;
    }
}

TEST_F(Verify, TakesADigestThatCameToNothingForAMismatch)
{
    for (const char *call : {"BCryptHashData", "BCryptFinishHash"}) {
        Write(SmallPlan());
        machine.faults.clear();
        FailCall(machine, call, 3, failedStatus);
        ExpectFailed(Run(), first + HashFinding(1) + last, "1 of 3");
    }
}

TEST_F(Verify, EndsWithTheStatusOfAFailedDigest)
{
    Write(SmallPlan());
    FailCall(machine, "BCryptCreateHash", 3, 0xC000009A);
    ExpectFatal(Run(), first, "FATAL: BCryptCreateHash (NTSTATUS 0xC000009A)\n");
    machine.faults.clear();
    FailCall(machine, "BCryptOpenAlgorithmProvider", 2, 0xC0000022);
    ExpectFatal(Run(), "", "FATAL: BCryptOpenAlgorithmProvider(SHA256) (NTSTATUS 0xC0000022)\n");
}

TEST_F(Verify, ReadsTheStoredChunksOfAThinImageInSequenceAmongItsReferences)
{
    WriteThin(SmallPlan(), {0, 2}, false);
    ExpectSound(Run(), Report(chainLine + first + last, verdictOk));
    EXPECT_EQ(LogOf(machine, {"SetFilePointerEx", "ReadFile", "CloseHandle"}),
              "ReadFile file:image.kstx#1 64 at 0 -> 64\n"
              "ReadFile file:image.kstx#1 216 at 64 -> 216\n"
              "SetFilePointerEx file:image.kstx#1 6477\n"
              "ReadFile file:image.kstx#1 4 at 6477 -> 4\n"
              "SetFilePointerEx file:image.kstx#1 6424\n"
              "ReadFile file:image.kstx#1 57 at 6424 -> 57\n"
              "ReadFile file:base.kstx#1 64 at 0 -> 64\n"
              "ReadFile file:base.kstx#1 216 at 64 -> 216\n"
              "SetFilePointerEx file:image.kstx#1 0\n"
              "SetFilePointerEx file:image.kstx#1 280\n"
              "ReadFile file:image.kstx#1 4096 at 280 -> 4096\n"
              "SetFilePointerEx file:base.kstx#1 4376\n"
              "ReadFile file:base.kstx#1 4096 at 4376 -> 4096\n"
              "ReadFile file:image.kstx#1 2048 at 4376 -> 2048\n"
              "CloseHandle file:image.kstx#1\n");
}

// The line on the chain is due behind the taking of the time, and the chain's other links are not named.
TEST_F(Verify, NamesTheFirstLinkOfAChainOnly)
{
    MakeChain(3, [](size_t) { return false; });
    const RunResult result = Run("level2.kstx");
    EXPECT_EQ(result.outputText, "Verifying level2.kstx  (6 chunks, 0.00 GiB source disk)\n"
                                 "  thin image: chain continues with level1.kstx\n" +
                                     ProgressLine(1024, 5632) + ProgressLine(5632, 5632) +
                                     "\nVerify OK - all 6 chunks match their recorded hash.\n");
    const std::string start = LogOf(machine, {"_aligned_malloc", "GetTickCount64", "stdout"});
    EXPECT_EQ(start.find("stdout Verifying level2.kstx  (6 chunks, 0.00 GiB source disk)\n\n"
                         "_aligned_malloc 1024 64 -> block#1\nGetTickCount64 -> 1000\nstdout   thin image"),
              0U);
}

TEST_F(Verify, ReadsNothingFromAThinImageWithoutChunksOfItsOwn)
{
    for (const bool sealed : {false, true}) {
        WriteThin(SmallPlan(sealed), {}, sealed);
        ExpectSound(Run(), Report(chainLine + first + last, verdictOk));
        EXPECT_EQ(CountOfLength(machine, "ReadFile", {4096, 2048}), 3U);
        EXPECT_EQ(CountCalls(machine, "ReadFile", "file:image.kstx"), 4U); // header, table, trailer's length, trailer
        EXPECT_EQ(CountCalls(machine, "CloseHandle"), 1U);
    }
}

TEST_F(Verify, FindsDamageInABaseOnlyWhereTheThinImageUsesIt)
{
    WriteThin(SmallPlan(), {1}, false);
    FlipByte("base.kstx", DataAt(ReadBytes("base.kstx"), 1));
    ExpectSound(Run(), Report(chainLine + first + last, verdictOk));
    const RunResult ofBase = Run("base.kstx");
    EXPECT_EQ(ofBase.exitStatus, 1);
    EXPECT_NE(ofBase.outputText.find(HashFinding(1)), std::string::npos);
}

TEST_F(Verify, EndsAtDamageBehindAReferenceAndTellsNoCount)
{
    const std::string badHash = FatalLine("chunk failed its hash check (corrupt image or base)");
    const std::string badTag = FatalLine("chunk failed authentication (corrupt or tampered image)");
    for (const bool baseSealed : {false, true}) {
        for (const bool topSealed : {false, true}) {
            WriteThin(SmallPlan(baseSealed), {0}, topSealed);
            FlipByte(path, DataAt(ReadBytes(path), 0));
            FlipByte("base.kstx", DataAt(ReadBytes("base.kstx"), 1) + 100);
            const std::string counted = topSealed ? TagFinding(0) : HashFinding(0) + first;
            ExpectFatal(Run(), chainLine + counted, baseSealed ? badTag : badHash);
        }
    }
}

TEST_F(Verify, EndsAtAReferenceThatDisagreesWithASoundBase)
{
    WriteThin(SmallPlan(), {0}, false);
    FlipByte(path, EntryAt(2) + hashAt + 31);
    ExpectFatal(Run(), chainLine + first, FatalLine("chunk failed its hash check (corrupt image or base)"));
}

TEST_F(Verify, EndsAtAReferenceIntoACutBase)
{
    WriteThin(SmallPlan(), {0}, false);
    std::filesystem::resize_file("base.kstx", DataAt(ReadBytes("base.kstx"), 2) + 2047);
    ExpectFatal(Run(), chainLine + first, FatalLine("could not read chunk data from image (truncated?)"));
    FailCall(machine, "SetFilePointerEx", 1, ERROR_CRC).object = "file:base.kstx";
    ExpectFatal(Run(), chainLine + first, FatalLine("could not read chunk data from image (truncated?)", ERROR_CRC));
}

TEST_F(Verify, EndsUnderAWrongPasswordAtTheFirstReferenceIntoASealedBase)
{
    WriteThin(SmallPlan(true), {0}, true);
    WriteText("pw", "wrong");
    ExpectFatal(Run(), chainLine + TagFinding(0), FatalLine("chunk failed authentication (corrupt or tampered image)"));
}

TEST_F(Verify, FailsAChunkWhoseStoredLengthIsNotItsOwnAndReadsOnBehindIt)
{
    for (const bool sealed : {false, true}) {
        const Bytes image = BuildImage(SmallPlan(sealed));
        for (const uint32_t storedLength : {1U, 4095U, 4097U, 100000U}) {
            WriteBytes(path, WithStoredLength(image, 1, storedLength));
            ExpectFailed(Run(), first + (sealed ? TagFinding(1) : HashFinding(1)) + last, "1 of 3");
        }
        for (const uint32_t storedLength : {2047U, 2049U, 4096U}) {
            WriteBytes(path, WithStoredLength(image, 2, storedLength));
            const std::string end =
                sealed ? TagFinding(2) : HashFinding(2) + ProgressLine(8192 + storedLength, diskBytes);
            ExpectFailed(Run(), first + end, "1 of 3");
        }
    }
}

// Its digest is right for the bytes that stand there, which are still not the chunk.
TEST_F(Verify, FailsAShortenedChunkWhoseDigestFits)
{
    Bytes image = WithStoredLength(BuildImage(SmallPlan()), 1, 512);
    const size_t data = DataAt(image, 1);
    const auto digest = Sha256Of(Bytes(&image[data], &image[data + 512]));
    std::copy(digest.begin(), digest.end(), &image[EntryAt(1) + hashAt]);
    WriteBytes(path, image);
    ExpectFailed(Run(), first + HashFinding(1) + last, "1 of 3");
}

TEST_F(Verify, EndsAtAStoredLengthBeyondTheFile)
{
    for (const bool sealed : {false, true}) {
        Write(SmallPlan(sealed));
        ChangeFile(path, EntryAt(1) + storedLengthAt, 0xFFFFFFFF, 4);
        ExpectFatal(Run(), first, FatalLine("could not read chunk data - image is truncated"));
    }
}

// Behind a reference as many bytes are read as are stored, the chunk's length of them is used, and the digest decides.
TEST_F(Verify, JudgesAStoredLengthBehindAReferenceByWhatItHolds)
{
    struct {
        bool sealed;
        uint32_t storedLength;
        std::string error;
    } const cases[] = {
        {false, 4097, ""},
        {true, 100000, ""},
        {false, 4095, FatalLine("chunk failed its hash check (corrupt image or base)")},
        {true, 4095, FatalLine("chunk failed authentication (corrupt or tampered image)")},
    };
    for (const auto &[sealed, storedLength, error] : cases) {
        const ImagePlan base = SmallPlan(sealed);
        const Bytes changedBase = WithStoredLength(BuildImage(base), 1, storedLength);
        WriteBytes("base.kstx", changedBase);
        ImagePlan thin = ThinPlan(base, "base.kstx", WithChanges(base.disk, {0}));
        thin.basePin = ImageIdOf(changedBase);
        Write(thin);
        if (error.empty()) {
            ExpectSound(Run(), Report(chainLine + first + last, verdictOk));
        } else {
            ExpectFatal(Run(), chainLine + first, error);
        }
        EXPECT_EQ(CountOfLength(machine, "ReadFile", {storedLength}), 1U);
    }
}

TEST_F(Verify, TouchesNoDisk)
{
    machine.disks[0].bytes = PatternBytes(diskBytes, 1);
    WriteThin(SmallPlan(), {0}, true);
    Run();
    EXPECT_EQ(CountCalls(machine, "DeviceIoControl"), 0U);
    EXPECT_EQ(CountCalls(machine, "WriteFile"), 0U);
    for (const Call &open : CallsOf(machine, "CreateFileW")) {
        EXPECT_EQ(open.object.compare(0, 5, "file:"), 0);
    }
}
