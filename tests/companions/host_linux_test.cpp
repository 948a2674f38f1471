// What is only of Linux: seals over several pieces, as for a chunk that is larger than a buffer, which Wine doesn't
// know, standard streams that were closed, and links to devices.
#include "host/host.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

TEST(HostCryptography, PiecesGiveWhatOnePieceGives)
{
    host::Key key;
    const uint8_t nonce[12] = {1, 2, 3};
    std::vector<uint8_t> whole(100, 7);
    std::vector<uint8_t> pieces = whole;
    uint8_t tagOfWhole[16] = {};
    uint8_t tagOfPieces[16] = {};
    host::Sealing once(key, nonce, whole.size());
    ASSERT_TRUE(once.Add(whole.data(), whole.size()) && once.Finish(tagOfWhole));
    host::Sealing thrice(key, nonce, pieces.size());
    ASSERT_TRUE(thrice.Add(pieces.data(), 16) && thrice.Add(pieces.data() + 16, 64) &&
                thrice.Add(pieces.data() + 80, 20));
    ASSERT_TRUE(thrice.Finish(tagOfPieces));
    EXPECT_EQ(pieces, whole);
    EXPECT_TRUE(std::equal(std::begin(tagOfWhole), std::end(tagOfWhole), std::begin(tagOfPieces)));
    host::Opening opening(key, nonce, tagOfPieces, pieces.size());
    ASSERT_TRUE(opening.Add(pieces.data(), 48) && opening.Add(pieces.data() + 48, 52));
    EXPECT_TRUE(opening.Finish());
    EXPECT_EQ(pieces, std::vector<uint8_t>(100, 7));
}

TEST(HostProcess, StreamsThatWereClosedAreOpenOnNothing)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close_range(0, ~0U, 0); // whoever started the tests may have left more open
        host::PrepareProcess();
        char byte = 0;
        const bool refusesAll = read(0, &byte, 1) < 0 && errno == EBADF && write(1, "x", 1) < 0 && errno == EBADF &&
                                write(2, "x", 1) < 0 && errno == EBADF;
        const int next = dup(0);
        _exit(refusesAll && next == 3 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

namespace
{

// A link to a path, for the time of a test.
struct Link {
    explicit Link(const std::string &target)
        : path(std::filesystem::temp_directory_path() / ("kestrix-link-" + std::to_string(std::random_device()())))
    {
        std::filesystem::create_symlink(target, path);
    }
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    ~Link()
    {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
    }

    std::filesystem::path path;
};

std::string FirstLine(const std::filesystem::path &path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// Checks the links to a device of sysfs and to its partitions; gives how many nodes there were.
int FollowLinksTo(const std::filesystem::path &folder, const std::string &diskNumber)
{
    const std::string node = "/dev/" + folder.filename().string();
    int nodes = 0;
    if (std::filesystem::is_block_file(node)) {
        const Link link(node);
        host::DeviceAt device;
        EXPECT_EQ(host::FollowDeviceLink(link.path.string(), &device), std::nullopt) << node;
        EXPECT_EQ(device.node, node);
        EXPECT_EQ(device.deviceNumber, FirstLine(folder / "dev"));
        EXPECT_EQ(device.diskNumber, diskNumber);
        nodes = 1;
    }
    for (const std::filesystem::directory_entry &entry : std::filesystem::directory_iterator(folder)) {
        if (std::filesystem::exists(entry.path() / "partition")) {
            nodes += FollowLinksTo(entry.path(), diskNumber);
        }
    }
    return nodes;
}

} // namespace

TEST(HostDisks, LinksLeadToDevicesAndTheirDisks)
{
    int nodes = 0;
    for (const std::filesystem::directory_entry &entry : std::filesystem::directory_iterator("/sys/block")) {
        nodes += FollowLinksTo(entry.path(), FirstLine(entry.path() / "dev"));
    }
    if (nodes == 0) {
        GTEST_SKIP() << "there is no block device";
    }
}

TEST(HostDisks, LinksThatLeadToNoDeviceAreATrouble)
{
    host::DeviceAt device;
    for (const char *target : {"/dev/null", "/", "/nowhere"}) {
        const Link link(target);
        EXPECT_TRUE(host::FollowDeviceLink(link.path.string(), &device)) << target;
    }
    EXPECT_TRUE(host::FollowDeviceLink("", &device));
}

TEST(HostNewFile, IsMadeWhereOneOfThisProcessesNumberDied)
{
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / "of-one-that-died";
    std::filesystem::create_directories(folder);
    const std::string path = (folder / "new").string();
    const std::string left = path + "." + std::to_string(getpid()) + host::unfinishedEnding;
    std::ofstream(left) << "half";
    {
        host::NewFile file;
        ASSERT_FALSE(host::CreateNewFile(path, host::Existing::IsTrouble, &file));
        ASSERT_FALSE(host::WriteAt(file, 0, "whole", 5));
        ASSERT_FALSE(host::FinishNewFile(&file));
    }
    std::ifstream made(path);
    std::ifstream half(left);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(made), {}), "whole");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(half), {}), "half");
    std::filesystem::remove_all(folder);
}
