// The reader as a library: chunks of the images of tests/vectors, fetched from several threads and by hand.
#include "reader/reader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>

namespace
{

const std::string vectors = std::string(KESTRIX_VECTORS) + "/";

reader::Result<reader::Chain> Open(const std::string &name, const std::string &password = "")
{
    return reader::OpenChain(vectors + name,
                             {password.empty() ? "" : vectors + password, host::Caching::Cached, 2, false});
}

std::string DiskOf(const std::string &name)
{
    std::ifstream file(vectors + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string ChunkOf(const std::string &disk, const reader::Chain &chain, uint64_t i)
{
    return disk.substr(i * chain.Header().chunkSize, reader::LengthOfChunk(chain.Header(), i));
}

} // namespace

TEST(Reader, FetchesEveryChunkOfASealedChainFromSeveralThreadsAtOnce)
{
    reader::Result<reader::Chain> chain = Open("sound-thin-sealed.kstx", "right.password");
    ASSERT_TRUE(chain) << chain.fault.text;
    const std::string disk = DiskOf("new.disk");
    std::atomic<uint32_t> right = 0;
    const std::optional<reader::Fault> fault = reader::OnThreads(8, [&] {
        for (uint64_t round = 0; round < 300; ++round) {
            const uint64_t i = round % chain->ChunkCount();
            std::string out(reader::LengthOfChunk(chain->Header(), i), '\0');
            const bool isFetched = !reader::FetchChunk(*chain, i, reinterpret_cast<uint8_t *>(out.data()));
            right += isFetched && out == ChunkOf(disk, *chain, i) ? 1 : 0;
        }
    });
    EXPECT_FALSE(fault);
    EXPECT_EQ(right, 8U * 300);
}

TEST(Reader, TellsFromTheTablesAloneWhichImageStoresAChunk)
{
    reader::Result<reader::Chain> chain = Open("sound-thin.kstx");
    ASSERT_TRUE(chain) << chain.fault.text;
    EXPECT_EQ(chain->storedIn, (std::vector<uint8_t>{1, 0, 1}));
    reader::Result<reader::Chain> full = Open("full-with-reference.kstx");
    ASSERT_TRUE(full) << full.fault.text;
    bool hasNowhere = false;
    for (const uint8_t level : full->storedIn) {
        hasNowhere = hasNowhere || level == reader::storedNowhere;
    }
    EXPECT_TRUE(hasNowhere);
}

TEST(Reader, SaysWhichFileAndWhichChunkAreToBlame)
{
    reader::Result<reader::Chain> chain = Open("base-data-referred.kstx");
    ASSERT_TRUE(chain) << chain.fault.text;
    std::string out(4096, '\0');
    std::string told;
    for (uint64_t i = 0; i < chain->ChunkCount(); ++i) {
        if (const auto fault = reader::FetchChunk(*chain, i, reinterpret_cast<uint8_t *>(out.data()))) {
            EXPECT_EQ(fault->kind, reader::FaultKind::Damaged);
            told += fault->text;
        }
    }
    EXPECT_NE(told.find("base-data-referred-base.kstx: chunk "), std::string::npos) << told;
    EXPECT_NE(told.find("its digest is not the recorded one"), std::string::npos) << told;
}

TEST(Reader, TellsAMissingPasswordFromAMissingBase)
{
    EXPECT_EQ(Open("sealed.kstx").fault.kind, reader::FaultKind::Unavailable);
    EXPECT_EQ(Open("sealed.kstx", "absent.password").fault.kind, reader::FaultKind::Unavailable);
    EXPECT_EQ(Open("sealed.kstx", "empty.password").fault.kind, reader::FaultKind::Unavailable);
    EXPECT_EQ(Open("base-name-missing.kstx").fault.kind, reader::FaultKind::Damaged);
    EXPECT_EQ(Open("absent.kstx").fault.kind, reader::FaultKind::Unavailable);
}

TEST(Reader, NamesALoopAsSuchAndLeavesALongerOneAtItsFirstWrongPin)
{
    const reader::Fault itself = Open("base-name-itself.kstx").fault;
    EXPECT_NE(itself.text.find("its chain comes back to "), std::string::npos) << itself.text;
    const reader::Fault longer = Open("loop-of-3.kstx").fault;
    EXPECT_EQ(longer.kind, reader::FaultKind::Damaged);
    EXPECT_NE(longer.text.find("it was modified or replaced"), std::string::npos) << longer.text;
}

TEST(Reader, GivesChunksOnlyWhereTheyHavePassedTheirChecks)
{
    reader::Result<reader::Chain> chain = Open("data-1-last.kstx");
    ASSERT_TRUE(chain) << chain.fault.text;
    const std::string disk = DiskOf("old.disk");
    reader::ChunkReader reader(*chain);
    for (uint64_t i = 0; i < chain->ChunkCount(); ++i) {
        std::string taken;
        const auto fault = reader.Read(i, [&taken](const uint8_t *piece, size_t byteCount) {
            taken.append(reinterpret_cast<const char *>(piece), byteCount);
            return true;
        });
        EXPECT_EQ(fault.has_value(), i == 1);
        EXPECT_EQ(taken, i == 1 ? "" : ChunkOf(disk, *chain, i));
    }
}

TEST(Reader, KnowsChunksOfZerosByTheirDigest)
{
    ImageHeader header = {};
    header.diskSize = 1000;
    header.chunkSize = 512;
    header.chunkCount = 2;
    ChunkEntry entry = {};
    const std::vector<uint8_t> zeros(512);
    const host::Digest digest = host::DigestOf(zeros.data(), 512);
    std::copy(digest.begin(), digest.end(), entry.hash);
    reader::ZeroChunks zeroChunks;
    EXPECT_TRUE(zeroChunks.Has(header, entry, 0));
    EXPECT_FALSE(zeroChunks.Has(header, entry, 1)); // which is shorter
}

TEST(Threads, AnExceptionEndsOnlyItsOwnThreadAndIsTold)
{
    std::atomic<uint32_t> calls = 0;
    const std::optional<reader::Fault> fault = reader::OnThreads(4, [&calls] {
        if (++calls == 2) {
            throw std::bad_alloc();
        }
    });
    EXPECT_EQ(calls, 4U);
    ASSERT_TRUE(fault);
    EXPECT_EQ(fault->text, "there is not enough memory");
}
