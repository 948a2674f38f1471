// Fetching: the plaintext of a chunk from wherever in the chain it lies, the checks on its way up, and every fault.
//
// The log of a fetch begins behind the opening, so that it holds the fetch alone; the buffer's end is guarded.
#include "image/small_images.h"

namespace
{
const char noBaseFault[] = "image has a thin chunk but no base image";
const char readFault[] = "could not read chunk data from image (truncated?)";
const char sealFault[] = "chunk failed authentication (corrupt or tampered image)";
const char hashFault[] = "chunk failed its hash check (corrupt image or base)";

// The chain bottom.kstx (full), mid.kstx (stores 1 and 2), top.kstx (stores 2): chunk 0 lies at the bottom, 1 in the
// middle, 2 at the top.
struct Fetching : SmallImages {
    Fetching()
    {
        Write(false, false, false);
    }

    void Write(bool bottomEncrypted, bool midEncrypted, bool topEncrypted)
    {
        bottom = FullPlan();
        bottom.encrypted = bottomEncrypted;
        mid = PlanOn(bottom, "bottom.kstx", {1, 2});
        mid.encrypted = midEncrypted;
        mid.salt[0] = 0x55;
        top = PlanOn(mid, "mid.kstx", {2});
        top.encrypted = topEncrypted;
        top.salt[0] = 0x77;
        SmallImages::Write("bottom.kstx", bottom);
        SmallImages::Write("mid.kstx", mid);
        SmallImages::Write("top.kstx", top);
    }

    // A full image in "bad.kstx" with its bytes changed.
    void WriteChanged(const std::function<void(Bytes &image)> &change, bool encrypted = false)
    {
        bottom.encrypted = encrypted;
        Bytes image = BuildImage(bottom);
        change(image);
        WriteBytes("bad.kstx", image);
    }

    void ExpectFetches(const std::string &path, uint64_t i, const Bytes &expected, const std::string &passwordFile = "")
    {
        EXPECT_EQ(Fetch(path, i, passwordFile), expected) << path << i;
        EXPECT_EQ(fetchResult.exitStatus, 0) << fetchResult.errorText;
        EXPECT_EQ(fetchResult.errorText + fetchResult.outputText, "");
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
    }

    void ExpectFault(const std::string &path, uint64_t i, const std::string &message,
                     const std::string &passwordFile = "", DWORD lastError = spoiledError)
    {
        Fetch(path, i, passwordFile);
        ExpectFatal(fetchResult, FatalLine(message, lastError));
    }

    ImagePlan bottom;
    ImagePlan mid;
    ImagePlan top;
};

size_t EntryAt(uint64_t i)
{
    return 64 + 72 * i;
}
} // namespace

TEST_F(Fetching, GivesEveryChunkOfEveryKindOfChain)
{
    for (uint32_t kinds = 0; kinds < 8; ++kinds) {
        Write((kinds & 1) != 0, (kinds & 2) != 0, (kinds & 4) != 0);
        for (uint64_t i = 0; i < 3; ++i) {
            ExpectFetches("top.kstx", i, ChunkOf(top.disk, i), "pw.txt");
            ExpectFetches("mid.kstx", i, ChunkOf(mid.disk, i), "pw.txt");
            ExpectFetches("bottom.kstx", i, ChunkOf(bottom.disk, i), "pw.txt");
        }
    }
}

TEST_F(Fetching, SeeksReadsAndHashesAStoredChunk)
{
    Fetch("bottom.kstx", 1);
    EXPECT_EQ(StepsOf(machine), "SetFilePointerEx file:bottom.kstx#1 4376\nReadFile file:bottom.kstx#1 4096 at 4376\n"
                                "BCryptHashData hash#2 4096\n");
    EXPECT_EQ(Field(CallsOf(machine, "SetFilePointerEx").at(0), "method"), FILE_BEGIN);
    Fetch("bottom.kstx", 2); // the short last one
    EXPECT_EQ(StepsOf(machine), "SetFilePointerEx file:bottom.kstx#1 8472\nReadFile file:bottom.kstx#1 1024 at 8472\n"
                                "BCryptHashData hash#2 1024\n");
}

TEST_F(Fetching, OpensASealedChunkStraightIntoTheCallersBufferAndHashesThePlaintext)
{
    Write(true, false, false);
    Bytes out(smallChunk);
    Open("bottom.kstx", "pw.txt", [&](ImageFile &image) {
        machine.calls.clear();
        FetchChunk(image, 0, out.data());
    });
    EXPECT_EQ(
        LogOf(machine, {"ReadFile", "BCryptDecrypt", "BCryptHashData"}),
        "ReadFile file:bottom.kstx#1 4096 at 280 -> 4096\nBCryptDecrypt key#1 4096\nBCryptHashData hash#2 4096\n");
    EXPECT_EQ(CallsOf(machine, "BCryptHashData").at(0).buffer, out.data());
    EXPECT_NE(CallsOf(machine, "BCryptDecrypt").at(0).buffer, out.data());
}

TEST_F(Fetching, TakesEveryEncryptedByteButZeroForEncrypted)
{
    for (const uint8_t encrypted : Bytes{2, 0x80, 0xFF}) {
        WriteChanged([encrypted](Bytes &image) { image[36] = encrypted; }, true);
        ExpectFetches("bad.kstx", 0, ChunkOf(bottom.disk, 0), "pw.txt");
    }
}

TEST_F(Fetching, HashesAReferenceOnceAtEveryLevelAndMovesOnlyTheFileThatStoresIt)
{
    Fetch("top.kstx", 0);
    EXPECT_EQ(StepsOf(machine), "SetFilePointerEx file:bottom.kstx#1 280\nReadFile file:bottom.kstx#1 4096 at 280\n"
                                "BCryptHashData hash#4 4096\nBCryptHashData hash#5 4096\nBCryptHashData hash#6 4096\n");
    Fetch("top.kstx", 1); // goes no deeper than the image that stores it
    EXPECT_EQ(StepsOf(machine), "SetFilePointerEx file:mid.kstx#1 280\nReadFile file:mid.kstx#1 4096 at 280\n"
                                "BCryptHashData hash#4 4096\nBCryptHashData hash#5 4096\n");
}

TEST_F(Fetching, FollowsReferencesTo64LevelsBelowTheTop)
{
    ImagePlan plan = FullPlan();
    SmallImages::Write("0", plan);
    for (uint32_t i = 1; i < 65; ++i) {
        plan = PlanOn(plan, std::to_string(i - 1), {});
        SmallImages::Write(std::to_string(i), plan);
    }
    ExpectFetches("64", 2, ChunkOf(plan.disk, 2));
    EXPECT_EQ(CountCalls(machine, "BCryptFinishHash"), 65U);
    EXPECT_EQ(CountCalls(machine, "ReadFile"), 1U);
}

TEST_F(Fetching, LeavesTheTopImageWhereItStoodWhileItFollowsReferences)
{
    Bytes out(smallChunk);
    Open("mid.kstx", "", [&](ImageFile &image) {
        EXPECT_TRUE(ReadNextStoredChunk(image, smallChunk, out.data(), smallChunk));
        EXPECT_EQ(out, ChunkOf(mid.disk, 1));
        FetchChunk(image, 0, out.data());
        EXPECT_EQ(out, ChunkOf(mid.disk, 0));
        EXPECT_TRUE(ReadNextStoredChunk(image, 1024, out.data(), smallChunk));
        EXPECT_EQ(Bytes(out.data(), out.data() + 1024), ChunkOf(mid.disk, 2));
    });
}

TEST_F(Fetching, KeepsNothingBetweenCallsAndNeedsNoAlignment)
{
    Bytes out(smallChunk + 1);
    Open("mid.kstx", "", [&](ImageFile &image) {
        for (const uint64_t i : {1U, 0U, 1U, 2U, 2U, 1U}) {
            FetchChunk(image, i, out.data() + 1);
            const Bytes expected = ChunkOf(mid.disk, i);
            EXPECT_TRUE(std::equal(expected.begin(), expected.end(), out.data() + 1)) << i;
        }
    });
    EXPECT_EQ(CountCalls(machine, "SetFilePointerEx", "file:mid.kstx"), 4U + 5U); // four of them while it was opened
}

TEST_F(Fetching, RefusesAReferenceInAFullImage)
{
    WriteChanged([](Bytes &image) { StoreInteger(image, EntryAt(1) + 8, 0, 4); });
    ExpectFault("bad.kstx", 1, noBaseFault);
    ExpectFetches("bad.kstx", 0, ChunkOf(bottom.disk, 0));
}

TEST_F(Fetching, ReportsAFailedSeekOrReadWithItsNumber)
{
    FailCall(machine, "SetFilePointerEx", 1, ERROR_CRC);
    ExpectFault("bottom.kstx", 0, readFault, "", 23);
    EXPECT_EQ(CountCalls(machine, "ReadFile"), 0U);
    machine.faults.clear();
    FailCall(machine, "ReadFile", 3, ERROR_IO_DEVICE);
    ExpectFault("bottom.kstx", 0, readFault, "", 1117);
    for (const uint64_t moved : {0U, 1U, 4095U}) {
        machine.faults.clear();
        ShortenCall(machine, "ReadFile", 3, moved);
        ExpectFault("bottom.kstx", 0, readFault);
    }
    machine.faults.clear();
    FailCall(machine, "ReadFile", 1, ERROR_CRC).object = "file:bottom.kstx";
    machine.faults.back().nth = 3; // behind its header and its table
    ExpectFault("top.kstx", 0, readFault, "", 23);
}

TEST_F(Fetching, GivesTheChunksThatACutImageStillHolds)
{
    WriteChanged([](Bytes &image) { image.resize(8471); }); // chunk 1 lacks its last byte
    ExpectFetches("bad.kstx", 0, ChunkOf(bottom.disk, 0));
    ExpectFault("bad.kstx", 1, readFault);
    ExpectFault("bad.kstx", 2, readFault);
    WriteChanged([](Bytes &image) { image.resize(8472); });
    ExpectFetches("bad.kstx", 1, ChunkOf(bottom.disk, 1));
    ExpectFault("bad.kstx", 2, readFault);
}

TEST_F(Fetching, RefusesAPlainChunkWhoseDigestIsNotTheRecordedOne)
{
    for (const size_t offset : {smallDataStart, smallDataStart + 4095, EntryAt(0) + 12, EntryAt(0) + 43}) {
        WriteChanged([=](Bytes &image) { image[offset] ^= 0x10; });
        ExpectFault("bad.kstx", 0, hashFault);
        ExpectFetches("bad.kstx", 1, ChunkOf(bottom.disk, 1));
    }
}

TEST_F(Fetching, RefusesADamagedBaseAtItsOwnLevel)
{
    Bytes image = BuildImage(bottom);
    image[smallDataStart] ^= 1;
    WriteBytes("bottom.kstx", image);
    ExpectFault("top.kstx", 0, hashFault);
    EXPECT_EQ(CountCalls(machine, "BCryptFinishHash"), 1U); // no level above is looked at
}

TEST_F(Fetching, RefusesAThinImageThatDisagreesWithASoundBase)
{
    Bytes image = BuildImage(top);
    image[EntryAt(0) + 12] ^= 1;
    WriteBytes("top.kstx", image);
    ExpectFault("top.kstx", 0, hashFault);
    EXPECT_EQ(CountCalls(machine, "BCryptFinishHash"), 3U);
}

TEST_F(Fetching, TestsTheTagOfASealedChunkAndThenItsDigest)
{
    const struct {
        size_t offset;
        const char *message;
    } rows[] = {{smallDataStart, sealFault},  {EntryAt(0) + 44, sealFault}, {EntryAt(0) + 55, sealFault},
                {EntryAt(0) + 56, sealFault}, {EntryAt(0) + 71, sealFault}, {EntryAt(0) + 12, hashFault},
                {EntryAt(0) + 43, hashFault}};
    for (const auto &row : rows) {
        WriteChanged([&row](Bytes &image) { image[row.offset] ^= 1; }, true);
        ExpectFault("bad.kstx", 0, row.message, "pw.txt");
        EXPECT_EQ(CountCalls(machine, "BCryptFinishHash"), row.message == sealFault ? 0U : 1U);
    }
    WriteChanged([](Bytes &image) { image[smallDataStart] ^= image[EntryAt(0) + 12] ^= 1; }, true);
    ExpectFault("bad.kstx", 0, sealFault, "pw.txt");
}

TEST_F(Fetching, TakesAWrongPasswordAndEveryFailureToOpenForDamage)
{
    Write(true, false, false);
    ExpectFault("bottom.kstx", 0, sealFault, "other.txt");
    ExpectFault("top.kstx", 0, sealFault, "other.txt");
    FailCall(machine, "BCryptDecrypt", 1, 0xC0000017);
    ExpectFault("bottom.kstx", 0, sealFault, "pw.txt");
}

TEST_F(Fetching, OpensASealedChunkThatMovedWithItsEntry)
{
    WriteChanged(
        [](Bytes &image) {
            std::swap_ranges(image.begin() + 280, image.begin() + 4376, image.begin() + 4376);
            const auto first = image.begin() + static_cast<ptrdiff_t>(EntryAt(0));
            std::swap_ranges(first + 12, first + 72, first + 72 + 12); // digest, nonce and tag
        },
        true);
    ExpectFetches("bad.kstx", 0, ChunkOf(bottom.disk, 1), "pw.txt");
    ExpectFetches("bad.kstx", 1, ChunkOf(bottom.disk, 0), "pw.txt");
}

TEST_F(Fetching, UsesAChunksLengthOfWhatADamagedTableClaimsToBeMore)
{
    for (const bool encrypted : {false, true}) {
        WriteChanged([](Bytes &image) { StoreInteger(image, EntryAt(0) + 8, 5000, 4); }, encrypted);
        ExpectFetches("bad.kstx", 0, ChunkOf(bottom.disk, 0), "pw.txt");
        EXPECT_EQ(Field(CallsOf(machine, "ReadFile").at(0), "length"), 5000U);
        ExpectFault("bad.kstx", 1, encrypted ? sealFault : hashFault, "pw.txt"); // its place is another one now
        WriteChanged([](Bytes &image) { StoreInteger(image, EntryAt(0) + 8, 0x7FFFFFFF, 4); }, encrypted);
        ExpectFault("bad.kstx", 0, readFault, "pw.txt");
    }
}

TEST_F(Fetching, FailsTheCheckOfAChunkThatIsStoredTooShort)
{
    for (const uint32_t storedLength : {1U, 16U, 4095U}) {
        for (const bool encrypted : {false, true}) {
            WriteChanged([=](Bytes &image) { StoreInteger(image, EntryAt(0) + 8, storedLength, 4); }, encrypted);
            ExpectFault("bad.kstx", 0, encrypted ? sealFault : hashFault, "pw.txt");
            EXPECT_EQ(Field(CallsOf(machine, "ReadFile").at(0), "length"), storedLength);
            EXPECT_EQ(CountCalls(machine, "BCryptHashData"), 0U); // nothing is taken from it
        }
    }
    // Not even a digest of what is there makes it a chunk.
    WriteChanged([this](Bytes &image) {
        StoreInteger(image, EntryAt(0) + 8, 16, 4);
        Bytes padded(smallChunk);
        std::copy_n(bottom.disk.begin(), 16, padded.begin());
        const std::array<uint8_t, 32> digest = Sha256Of(padded);
        std::copy_n(digest.begin(), 32, image.begin() + static_cast<ptrdiff_t>(EntryAt(0) + 12));
    });
    ExpectFault("bad.kstx", 0, hashFault);
}

TEST_F(Fetching, IgnoresTheDiskOffset)
{
    WriteChanged([](Bytes &image) { StoreInteger(image, EntryAt(1), 0xDEADBEEF, 8); });
    ExpectFetches("bad.kstx", 1, ChunkOf(bottom.disk, 1));
}

TEST_F(Fetching, PassesOnAFailedDigest)
{
    FailCall(machine, "BCryptCreateHash", 2, failedStatus);
    Fetch("bottom.kstx", 0);
    ExpectFatal(fetchResult, "FATAL: BCryptCreateHash (NTSTATUS 0xC0000001)\n");
}

TEST_F(Fetching, ReadsStoredChunksInSequencePastThoseThatDoNotFit)
{
    Open("bottom.kstx", "", [this](ImageFile &image) {
        Bytes buffer(1024, 0xEE);
        machine.calls.clear();
        EXPECT_TRUE(ReadNextStoredChunk(image, smallChunk, buffer.data(), 1024));
        EXPECT_EQ(buffer, Bytes(1024, 0xEE));
        EXPECT_TRUE(ReadNextStoredChunk(image, 1024, buffer.data(), 1024));
        EXPECT_EQ(buffer, Bytes(bottom.disk.data() + 4096, bottom.disk.data() + 5120));
        EXPECT_FALSE(ReadNextStoredChunk(image, 0xFFFFFFFF, buffer.data(), 1024));
        EXPECT_FALSE(ReadNextStoredChunk(image, 1, buffer.data(), 1024)); // the end is reached
        EXPECT_EQ(CountCalls(machine, "SetFilePointerEx"), 0U);
    });
}
