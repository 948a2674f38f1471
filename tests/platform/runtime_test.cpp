// The clock and the C run-time's additions: aligned memory, tidy paths, comparison without case, checked opening of a
// stream.
#include "test_files.h"

#include <malloc.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <thread>

TEST(TickCount, GoesOnWithTheTime)
{
    const ULONGLONG begin = GetTickCount64();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const ULONGLONG elapsed = GetTickCount64() - begin;
    EXPECT_GE(elapsed, 80U);
    EXPECT_LT(elapsed, 60000U);
}

TEST(TickCount, NeverGoesBack)
{
    ULONGLONG last = GetTickCount64();
    for (int i = 0; i < 100000; ++i) {
        const ULONGLONG now = GetTickCount64();
        ASSERT_GE(now, last);
        last = now;
    }
}

TEST(AlignedMemory, LiesAtAMultipleOfTheAlignment)
{
    constexpr size_t mebibyte = 1024 * 1024;
    for (const size_t alignment : {size_t{1}, size_t{2}, size_t{8}, size_t{512}, size_t{4096}, 4 * mebibyte}) {
        for (const size_t size : {size_t{1}, size_t{511}, size_t{4097}, 2 * mebibyte, 4 * mebibyte}) {
            void *block = _aligned_malloc(size, alignment);
            ASSERT_NE(block, nullptr) << size << " " << alignment;
            EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignment, 0U) << size << " " << alignment;
            memset(block, 0xEE, size);
            _aligned_free(block);
        }
    }
}

TEST(AlignedMemory, ThatIsNotThereGivesNull)
{
    volatile size_t size = std::numeric_limits<size_t>::max() / 4; // volatile: not for the compiler to judge
    PoisonLastError();
    EXPECT_EQ(_aligned_malloc(size, 4096), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
}

TEST(AlignedMemory, NothingMayBeFreed)
{
    _aligned_free(nullptr);
}

static std::string FullPath(const std::string &path)
{
    char buffer[_MAX_PATH];
    char *result = _fullpath(buffer, path.c_str(), sizeof(buffer));
    EXPECT_EQ(result, static_cast<char *>(buffer)) << path;
    return result == nullptr ? "" : result;
}

TEST(FullPath, IsAbsoluteAndTidy)
{
    namespace fs = std::filesystem;
    const fs::path here = fs::current_path();
    const struct {
        const char *path;
        fs::path full;
    } cases[] = {
        {"x", here / "x"},
        {"./x", here / "x"},
        {"no/such/folder/x", here / "no" / "such" / "folder" / "x"},
        {"a/../x", here / "x"},
        {"a/./b/.././x", here / "a" / "x"},
        {"../x", here.parent_path() / "x"},
        {"..", here.parent_path()},
        {".", here},
        {"", here},
        {"..x/...y", here / "..x" / "...y"},
        {"a b", here / "a b"},
    };
    for (const auto &known : cases) {
        EXPECT_EQ(FullPath(known.path), fs::path(known.full).make_preferred().string()) << known.path;
    }
}

TEST(FullPath, OfAFullPathIsThatPath)
{
    const std::string path = (std::filesystem::current_path() / "x.kstx").make_preferred().string();
    EXPECT_EQ(FullPath(path), path);
}

TEST(FullPath, NeverLeavesTheRoot)
{
    std::string climb;
    for (int i = 0; i < 60; ++i) {
        climb += "../";
    }
    EXPECT_EQ(FullPath(climb + "x"), (std::filesystem::current_path().root_path() / "x").make_preferred().string());
}

TEST(FullPath, NeedsRoomForItsTerminator)
{
    const std::string path = (std::filesystem::current_path() / "x").make_preferred().string();
    std::string buffer(path.size() + 1, '\xEE');
    EXPECT_EQ(_fullpath(buffer.data(), "x", path.size()), nullptr);
    ASSERT_EQ(_fullpath(buffer.data(), "x", path.size() + 1), buffer.data());
    EXPECT_EQ(std::string(buffer.c_str()), path);
}

TEST(CompareWithoutCase, FoldsTheLettersAToZAlone)
{
    const struct {
        const char *left;
        const char *right;
        int order;
    } cases[] = {
        {"", "", 0},      {"--disk", "--DISK", 0}, {"azAZ", "AZaz", 0},  {"a", "b", -1},        {"B", "a", 1},
        {"abc", "AB", 1}, {"", "a", -1},           {"@", "`", -1},       {"[", "{", -1},        {"a", "_", 1},
        {"A", "_", 1},    {"1", "2", -1},          {"\xC4", "\xE4", -1}, {"disk", "disk ", -1},
    };
    for (const auto &known : cases) {
        const int order = _stricmp(known.left, known.right);
        EXPECT_EQ((order > 0) - (order < 0), known.order) << known.left << " " << known.right;
        const int reversed = _stricmp(known.right, known.left);
        EXPECT_EQ((reversed > 0) - (reversed < 0), -known.order) << known.left << " " << known.right;
    }
}

TEST(OpenStream, ReadsAFileByteForByte)
{
    const ScratchFolder folder;
    const std::string content("a\r\n\0\x1A\xFF", 6);
    WriteBytes(folder.File("password"), content);
    FILE *stream = nullptr;
    ASSERT_EQ(fopen_s(&stream, folder.File("password").c_str(), "rb"), 0);
    ASSERT_NE(stream, nullptr);
    char bytes[16];
    EXPECT_EQ(std::string(bytes, fread(bytes, 1, sizeof(bytes), stream)), content);
    fclose(stream);
}

TEST(OpenStream, OfWhatDoesNotOpenTellsWhy)
{
    const ScratchFolder folder;
    const struct {
        std::string path;
        DWORD error;
    } cases[] = {
        {folder.File("missing"), ERROR_FILE_NOT_FOUND},
        {folder.File("missing/file"), ERROR_PATH_NOT_FOUND},
        {folder.path.string(), ERROR_ACCESS_DENIED},
    };
    for (const auto &known : cases) {
        FILE *stream = reinterpret_cast<FILE *>(&stream);
        PoisonLastError();
        EXPECT_NE(fopen_s(&stream, known.path.c_str(), "rb"), 0) << known.path;
        EXPECT_EQ(GetLastError(), known.error) << known.path;
        EXPECT_EQ(stream, nullptr) << known.path;
    }
}
