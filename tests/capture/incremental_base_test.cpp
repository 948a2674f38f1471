// Captures against a base: what of its content is used, good and bad, plain and sealed.
#include "capture/capturing_on_base.h"

#include <cstring>

namespace
{
struct SealCase {
    bool isBaseSealed;
    bool encrypt;
};

const SealCase sealCases[] = {{false, false}, {false, true}, {true, false}, {true, true}};
} // namespace

// The base's content, good and bad

TEST_F(IncrementalCapture, CopiesThroughAThinBaseFromTheImageThatStoresTheChunk)
{
    const Bytes changed = WithChangedChunk(ThreeChunkDisk(), 1);
    WriteBytes("first.kstx", BuildImage(PlanOf(ThreeChunkDisk(), 4)));
    ImagePlan plan = ThinPlan(PlanOf(ThreeChunkDisk(), 4), "first.kstx", changed);
    plan.epoch = 5;
    UseBase(plan);
    UseDisk(Bytes(threeChunkBytes));
    CaptureCopying();
    ExpectSuccess(headLines + provedLine + threeChunkProgress +
                  "Capture complete: image.kstx (Read from disk: 0, Copied from base: 3 chunks)\n");
    EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(PlanOf(changed, 6)));
    EXPECT_EQ(CountCalls(machine, "CloseHandle", "file:base.kstx"), 1U);
    EXPECT_EQ(CountCalls(machine, "CloseHandle", "file:first.kstx"), 0U);
}

TEST_F(IncrementalCapture, WithoutProofClosesOnlyTheBasesOwnFile)
{
    WriteBytes("first.kstx", BuildImage(PlanOf(ThreeChunkDisk(), 4)));
    UseBase(ThinPlan(PlanOf(ThreeChunkDisk(), 4), "first.kstx", ThreeChunkDisk()));
    CaptureCopying();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(CountCalls(machine, "CloseHandle", "file:base.kstx"), 1U);
    EXPECT_EQ(CountCalls(machine, "CloseHandle", "file:first.kstx"), 0U);
}

TEST_F(IncrementalCapture, DiesAtADamagedChunkOfItsBaseAndLeavesNoImage)
{
    base[280 + chunkBytes + 7] ^= 0x01;
    WriteBytes("base.kstx", base);
    CaptureCopying();
    ExpectFatal(headLines + provedLine + "\r   49.99%  4 / 8 MiB  (0.0 MiB/s)   ",
                "FATAL: chunk failed its hash check (corrupt image or base) (GetLastError=4711)\n");
    const Bytes image = ReadBytes("image.kstx");
    EXPECT_EQ(image.size(), 280 + chunkBytes);
    EXPECT_EQ(Bytes(image.data(), image.data() + 280), Bytes(280));
    EXPECT_TRUE(Commits().empty());
}

TEST_F(IncrementalCapture, DiesAtASealedBaseOfAnotherPassword)
{
    basePlan.encrypted = true;
    UseBase(basePlan);
    WriteText("pw.txt", "another");
    CaptureCopying({"--password-file", "pw.txt"});
    ExpectFatal(headLines + provedLine,
                "FATAL: chunk failed authentication (corrupt or tampered image) (GetLastError=4711)\n");
    EXPECT_TRUE(Commits().empty());
}

TEST_F(IncrementalCapture, NeverLooksIntoTheBaseOfAThinRun)
{
    Bytes cut(base.data(), base.data() + 280);
    WriteBytes("base.kstx", cut);
    MarkChunk(1);
    UseDisk(WithChangedChunk(ThreeChunkDisk(), 1));
    CaptureThin();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_TRUE(ReadBytes("image.kstx") == ThinImage(WithChangedChunk(ThreeChunkDisk(), 1), {0, 2}));
}

// Sealed or not: every pair of base and new image goes together

TEST_F(IncrementalCapture, StoresCopiedChunksAsTheNewImageWantsThem)
{
    WriteText("pw.txt", "password");
    for (const SealCase &one : sealCases) {
        SCOPED_TRACE(std::to_string(one.isBaseSealed) + std::to_string(one.encrypt));
        basePlan.encrypted = one.isBaseSealed;
        UseBase(basePlan);
        UseTracker();
        MarkChunk(2);
        one.encrypt ? CaptureCopying({"--password-file", "pw.txt", "--encrypt"})
                    : CaptureCopying({"--password-file", "pw.txt"});
        ExpectSuccess(headLines + provedLine + threeChunkProgress +
                      "Capture complete: image.kstx (Read from disk: 1, Copied from base: 2 chunks)\n");
        const Bytes image = ReadBytes("image.kstx");
        if (!one.encrypt) {
            EXPECT_TRUE(image == BuildImage(PlanOf(ThreeChunkDisk(), 6)));
            continue;
        }
        EXPECT_EQ(HeaderOf(image).kdfIterations, 200000U);
        EXPECT_NE(HeaderOf(image).salt, basePlan.salt);
        std::set<std::array<uint8_t, 12>> nonces = {{}};
        for (uint64_t i = 0; i < 3; ++i) {
            const EntryFields entry = EntriesOf(image)[i];
            EXPECT_EQ(entry.hash, Sha256Of(ChunkOf(ThreeChunkDisk(), i)));
            EXPECT_TRUE(OpenedChunk(image, i) == ChunkOf(ThreeChunkDisk(), i));
            nonces.insert({entry.nonce, EntriesOf(base)[i].nonce});
        }
        EXPECT_EQ(nonces.size(), one.isBaseSealed ? 7U : 4U);
    }
}

TEST_F(IncrementalCapture, SealsWhatAThinImageStoresAndNothingOfAReference)
{
    WriteText("pw.txt", "password");
    const Bytes disk = WithChangedChunk(ThreeChunkDisk(), 2);
    UseDisk(disk);
    for (const SealCase &one : sealCases) {
        SCOPED_TRACE(std::to_string(one.isBaseSealed) + std::to_string(one.encrypt));
        basePlan.encrypted = one.isBaseSealed;
        UseBase(basePlan);
        UseTracker();
        MarkChunk(2);
        one.encrypt ? CaptureThin({"--password-file", "pw.txt", "--encrypt"})
                    : CaptureThin({"--password-file", "pw.txt"});
        ExpectSuccess(headLines + provedLine + threeChunkProgress +
                      ThinComplete("stored 1 of 3 chunks, 2 are references to the base; read from disk: 1"));
        const Bytes image = ReadBytes("image.kstx");
        if (!one.encrypt) {
            EXPECT_TRUE(image == ThinImage(disk, {0, 1}));
            continue;
        }
        const std::vector<EntryFields> entries = EntriesOf(image);
        EXPECT_EQ(HeaderOf(image).version, 3U);
        EXPECT_EQ(HeaderOf(image).encrypted, 1U);
        EXPECT_TRUE(OpenedChunk(image, 2) == ChunkOf(disk, 2));
        for (uint64_t i = 0; i < 2; ++i) {
            EXPECT_EQ(entries[i].nonce, (std::array<uint8_t, 12>{}));
            EXPECT_EQ(entries[i].tag, (std::array<uint8_t, 16>{}));
            EXPECT_EQ(entries[i].storedLength, 0U);
        }
        EXPECT_EQ(CountCalls(machine, "BCryptEncrypt"), 1U);
        const Bytes trailer(image.data() + 280 + 1536, image.data() + image.size());
        EXPECT_EQ(trailer, BuildTrailer("base.kstx", ImageIdOf(base)));
    }
}

TEST_F(IncrementalCapture, ReadsOnePasswordFileForEachSealedImage)
{
    WriteText("pw.txt", "password");
    basePlan.encrypted = true;
    UseBase(basePlan);
    CaptureThin({"--password-file", "pw.txt", "--encrypt"});
    const std::vector<Call> derivations = CallsOf(machine, "BCryptDeriveKeyPBKDF2");
    ASSERT_EQ(derivations.size(), 2U);
    EXPECT_EQ(Field(derivations[0], "iterations"), 1000U);
    EXPECT_EQ(Field(derivations[1], "iterations"), 200000U);
    EXPECT_EQ(CountCalls(machine, "fopen_s", "stream:pw.txt"), 2U);
    EXPECT_NE(derivations[0].input, derivations[1].input);
}
