// The C run-time's additions where run-times differ: memory in huge pages, what ends the process, names of dots alone,
// long climbs, and bytes beyond the letters.
#include "page_block.h"
#include "test_files.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <sys/resource.h>

static constexpr size_t mebibyte = 1024 * 1024;

// What the kernel says of the mapping that holds address: its lines up to the next mapping.
static std::string MappingOf(const void *address)
{
    std::ifstream maps("/proc/self/smaps");
    std::string mapping;
    bool isIt = false;
    for (std::string line; std::getline(maps, line);) {
        uintptr_t begin = 0;
        uintptr_t end = 0;
        char dash = 0;
        if (std::istringstream(line) >> std::hex >> begin >> dash >> end && dash == '-') {
            isIt = begin <= reinterpret_cast<uintptr_t>(address) && reinterpret_cast<uintptr_t>(address) < end;
        }
        mapping += isIt ? line + "\n" : "";
    }
    return mapping;
}

TEST(PageBlock, AsksForHugePagesAndStartsAtOne)
{
    for (const size_t size : {2 * mebibyte, 4 * mebibyte, 6 * mebibyte}) {
        void *block = _aligned_malloc(size, 512);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % (2 * mebibyte), 0U);
        const std::string mapping = MappingOf(block);
        EXPECT_NE((mapping + " ").find(" hg "), std::string::npos) << mapping; // the advice was given
        _aligned_free(block);
    }
}

TEST(PageBlock, IsKnownByItsAddressAndSizeWhileItIsThere)
{
    void *block = _aligned_malloc(4 * mebibyte, 4096);
    void *other = _aligned_malloc(4 * mebibyte + 512, 4096);
    EXPECT_TRUE(IsPageBlock(block, 4 * mebibyte));
    EXPECT_FALSE(IsPageBlock(block, 2 * mebibyte));
    EXPECT_FALSE(IsPageBlock(static_cast<char *>(block) + 4096, 4 * mebibyte));
    EXPECT_FALSE(IsPageBlock(other, 4 * mebibyte + 512));
    EXPECT_TRUE(FreePageBlock(block));
    EXPECT_FALSE(IsPageBlock(block, 4 * mebibyte));
    EXPECT_FALSE(FreePageBlock(block));
    _aligned_free(other);
}

TEST(PageBlock, ThatNoMemoryHoldsIsNull)
{
    for (const size_t size : {size_t{1} << 62, ~size_t{0} - 2 * mebibyte + 1}) {
        PoisonLastError();
        EXPECT_EQ(_aligned_malloc(size, 4096), nullptr);
        EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    }
    for (const int exponent : {61, 62, 63}) {
        EXPECT_EQ(_aligned_malloc(4 * mebibyte, size_t{1} << exponent), nullptr) << exponent;
    }
}

TEST(PageBlock, GivesItsContentToAnotherAndTakesTheOldOne)
{
    const size_t size = 4 * mebibyte;
    auto *target = static_cast<char *>(_aligned_malloc(size, 4096));
    void *filled = MakePageBlock(size, 1);
    void *empty = MakePageBlock(size, 1);
    for (uint32_t round = 0; round < 5; ++round) {
        const std::string old = SeededBytes(size, 2 * round);
        const std::string fresh = SeededBytes(size, 2 * round + 1);
        memcpy(target, old.data(), size);
        memcpy(filled, fresh.data(), size);
        ASSERT_TRUE(MovePagesInto(target, &filled, &empty, size));
        EXPECT_EQ(memcmp(target, fresh.data(), size), 0);
        EXPECT_EQ(memcmp(filled, old.data(), size), 0);
        EXPECT_TRUE(IsPageBlock(target, size) && IsPageBlock(filled, size) && IsPageBlock(empty, size));
    }
    _aligned_free(target);
    EXPECT_TRUE(FreePageBlock(filled));
    EXPECT_TRUE(FreePageBlock(empty));
}

TEST(PageBlockDeathTest, EndsAtAPageThatNobodyMayTouch)
{
    const size_t size = 4 * mebibyte;
    auto *block = static_cast<volatile char *>(_aligned_malloc(size, 4096));
    block[0] = block[size - 1] = 1;
    EXPECT_DEATH(block[size] = 1, "");
    EXPECT_DEATH(block[-1] = 1, "");
    _aligned_free(const_cast<char *>(block));
}

TEST(Memory, OfAChunkIsZeroAgainAndAlignedForEveryDisk)
{
    for (int i = 0; i < 3; ++i) {
        void *volatile block = calloc(4, mebibyte);
        const auto *bytes = static_cast<const uint8_t *>(block);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes) % (2 * mebibyte), 0U);
        EXPECT_EQ(std::count(bytes, bytes + 4 * mebibyte, 0), 4 * mebibyte);
        memset(block, 0xEE, 4 * mebibyte);
        free(block);
    }
}

TEST(Memory, OfAFreedChunkIsGivenToOneOfItsSizeAlone)
{
    for (const size_t size : {2 * mebibyte, 4 * mebibyte, 2 * mebibyte, 6 * mebibyte}) {
        void *volatile block = calloc(size, 1);
        const auto *bytes = static_cast<const uint8_t *>(block);
        EXPECT_EQ(static_cast<size_t>(std::count(bytes, bytes + size, 0)), size);
        EXPECT_TRUE(IsPageBlock(block, size));
        memset(block, 0xEE, size);
        free(block);
    }
}

TEST(Memory, OfMoreThanAChunkOf16MiBIsNotKept)
{
    void *volatile chunk = calloc(16 * mebibyte, 1);
    void *volatile table = calloc(18 * mebibyte, 1);
    EXPECT_TRUE(IsPageBlock(chunk));
    EXPECT_FALSE(IsPageBlock(table));
    free(chunk);
    free(table);
}

#ifndef __SANITIZE_ADDRESS__ // which has an allocator of its own

TEST(Memory, ThatNoSizeCanHoldIsRefused)
{
    volatile size_t count = SIZE_MAX / 2 + 1;
    void *volatile block = calloc(count, 2);
    EXPECT_EQ(block, nullptr);
}

TEST(Memory, OfAChunkThatIsFreedIsThereForTheNext)
{
    rusage usage = {};
    long faults = 0;
    for (int i = 0; i < 20; ++i) {
        void *volatile block = calloc(4 * mebibyte, 1);
        memset(block, 0xEE, 4 * mebibyte);
        free(block);
        getrusage(RUSAGE_SELF, &usage);
        faults = i == 0 ? usage.ru_minflt : faults;
    }
    EXPECT_LT(usage.ru_minflt - faults, 19) << "not even one huge page for each";
}

#endif

TEST(AlignedMemoryDeathTest, AnAlignmentThatIsNoPowerOfTwoEndsTheProcess)
{
    for (const size_t alignment : {size_t{3}, size_t{520}, size_t{4160}}) {
        EXPECT_DEATH(_aligned_malloc(4096, alignment), "") << alignment;
    }
}

TEST(FullPathOfThePort, KeepsNamesOfThreeDotsAndClimbsAsFarAsAsked)
{
    const std::filesystem::path here = std::filesystem::current_path();
    std::string climb;
    for (int i = 0; i < 500; ++i) {
        climb += "../";
    }
    char full[_MAX_PATH];
    ASSERT_NE(_fullpath(full, "..x/...", sizeof(full)), nullptr);
    EXPECT_EQ(std::string(full), (here / "..x/...").string());
    ASSERT_NE(_fullpath(full, (climb + "x").c_str(), sizeof(full)), nullptr);
    EXPECT_EQ(std::string(full), "/x");
}

TEST(CompareWithoutCaseOfThePort, PutsBytesBeyondTheLettersLast)
{
    EXPECT_LT(_stricmp("z", "\xC4"), 0);
    EXPECT_GT(_stricmp("\xC4", "z"), 0);
}
