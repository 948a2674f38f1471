// The C run-time's additions where run-times differ: what ends the process, names of dots alone, long climbs, and bytes
// beyond the letters.
#include "test_files.h"

#include <malloc.h>

#include <cstring>

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
