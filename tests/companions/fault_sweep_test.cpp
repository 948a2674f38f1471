// Every call of kestrix-image that can fail, failing once and for good, one run after the other until one has got by
// without a failure. Each run is a process of its own, from main's first line to its end.
//
// A run in which a call failed ends as the one without did, in all that it prints and leaves; or with another exit
// status, a sentence about it, and no file that is not as it would have been. It never crashes. An image that is
// damaged is never sound.
#include "companions/failing_calls.h"
#include "host/host.h"
#include "kestrix-image/twins.h"
#include "simulator/images.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <sys/wait.h>
#include <unistd.h>

int KestrixImageMain(int argc, char **argv); // the program's entry point, under a name that leaves room for this one's

namespace
{
#ifdef __SANITIZE_ADDRESS__
constexpr uint64_t everySoMany = 13; // requests for memory; so much slower are these processes
#else
constexpr uint64_t everySoMany = 3;
#endif

using Files = std::map<std::string, Bytes>;

struct Ending {
    int status = -1;
    int signal = 0;
    std::string out;
    std::string err;
    Files newFiles;
    uint64_t callsFailed = 0;
};

std::string TextOf(const std::string &path)
{
    const Bytes bytes = ReadBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

constexpr uint32_t chunkBytes = 4096;
constexpr uint64_t diskBytes = 3 * chunkBytes + 1000;

// Loads libcrypto's tables, as a first digest does, and tells whether they were not there before.
bool LoadLibrary()
{
    static bool isLoaded = false;
    const bool wasMissing = !isLoaded;
    isLoaded = true;
    host::DigestOf("", 0);
    return wasMissing;
}

// A folder with images and a disk, the current one while the test runs: thin.kstx, sealed, on base.kstx, plain, beside
// old.kstx, another full one with all that thin.kstx has; damaged.kstx is base.kstx with a chunk that is not what it
// was, and disk.raw holds what thin.kstx does.
class KestrixImageFaults : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "kestrix-faults-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
        previous = std::filesystem::current_path();
        std::filesystem::current_path(folder);
        std::filesystem::create_directory("images");
        MakeImages();
    }

    void TearDown() override
    {
        std::filesystem::current_path(previous);
        std::filesystem::remove_all(folder);
    }

    void MakeImages()
    {
        ImagePlan base;
        base.disk = PatternBytes(diskBytes, 1);
        base.chunkSize = chunkBytes;
        WriteBytes("images/base.kstx", BuildImage(base));
        disk = base.disk;
        std::fill_n(disk.begin() + chunkBytes, chunkBytes, uint8_t{7});
        ImagePlan thin = ThinPlan(base, "base.kstx", disk);
        thin.encrypted = true;
        thin.kdfIterations = 1;
        WriteBytes("images/thin.kstx", BuildImage(thin));
        Bytes damaged = BuildImage(base);
        damaged[damaged.size() - 1] = static_cast<uint8_t>(damaged[damaged.size() - 1] + 1);
        WriteBytes("images/damaged.kstx", damaged);
        base.disk = disk;
        WriteBytes("images/old.kstx", BuildImage(base));
        WriteBytes("disk.raw", disk);
        WriteText("password", "password\n");
    }

    Ending Run(const std::vector<std::string> &arguments, const FailingCall &failing)
    {
        for (const std::string &name : NewFiles()) {
            std::filesystem::remove(name);
        }
        fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            RunChild(arguments, failing);
        }
        int ended = 0;
        EXPECT_EQ(waitpid(child, &ended, 0), child);
        Ending ending;
        ending.status = WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
        ending.signal = WIFSIGNALED(ended) ? WTERMSIG(ended) : 0;
        ending.callsFailed = CallsFailed();
        ending.out = TextOf("out.txt");
        ending.err = TextOf("err.txt");
        for (const std::string &name : NewFiles()) {
            ending.newFiles[name] = ReadBytes(name);
        }
        return ending;
    }

    [[noreturn]] static void RunChild(const std::vector<std::string> &arguments, const FailingCall &failing)
    {
        alarm(60);
        dup2(open("out.txt", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDOUT_FILENO);
        dup2(open("err.txt", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO);
        std::vector<std::string> words = {"kestrix-image"};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char *> argv;
        for (std::string &word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        FailCalls(failing);
        exit(KestrixImageMain(static_cast<int>(words.size()), argv.data()));
    }

    // What is in the folder and was not at the start.
    std::vector<std::string> NewFiles() const
    {
        static const std::set<std::string> known = {"images", "disk.raw", "password", "out.txt", "err.txt"};
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(folder)) {
            if (known.count(entry.path().filename().string()) == 0) {
                names.push_back(entry.path().filename().string());
            }
        }
        return names;
    }

    std::filesystem::path folder;
    std::filesystem::path previous;
    Bytes disk;
};

std::string Describe(const FailingCall &failing, const Ending &ending)
{
    return (failing.call.empty() ? "any call" : failing.call) + " " + std::to_string(failing.nth) +
           (failing.forGood ? " and later" : "") + " with error " + std::to_string(failing.error) + ": status " +
           std::to_string(ending.status) + ", signal " + std::to_string(ending.signal) + "\n" + ending.out + ending.err;
}

bool IsAsWithout(const Ending &ending, const Ending &without)
{
    return ending.status == without.status && ending.out == without.out && ending.err == without.err &&
           ending.newFiles == without.newFiles;
}

void CheckFailed(const Ending &ending, const Ending &without)
{
    EXPECT_EQ(ending.signal, 0);
    EXPECT_TRUE(ending.status == 1 || ending.status == 3);
    EXPECT_TRUE(ending.err.find("kestrix-image: ") != std::string::npos || !ending.out.empty());
    for (const auto &[name, bytes] : ending.newFiles) {
        EXPECT_EQ(without.newFiles.count(name), 1U) << name;
        EXPECT_TRUE(without.newFiles.count(name) == 0 || bytes == without.newFiles.at(name)) << name;
    }
    EXPECT_TRUE(ending.newFiles.empty() || ending.newFiles.size() == without.newFiles.size());
}

using CheckEnding = void (*)(const Ending &ending, const Ending &without);

class Sweep
{
public:
    // run is told what shall fail; its end is looked at by check, unless it is that of a run without failures.
    Sweep(std::function<Ending(const FailingCall &)> runOnce, CheckEnding checkFailed)
        : run(std::move(runOnce)), check(checkFailed), without(run({}))
    {
    }

    // Lets the calls of that name fail one after the other, or every so many, each in a run of its own.
    void Each(FailingCall failing, uint64_t step = 1)
    {
        for (failing.nth = 1; failing.nth < 20000; failing.nth += step) {
            const Ending ending = run(failing);
            if (ending.callsFailed == 0) {
                EXPECT_TRUE(IsAsWithout(ending, without)) << Describe(failing, ending);
                return;
            }
            ++failures;
            if (!IsAsWithout(ending, without)) {
                SCOPED_TRACE(Describe(failing, ending));
                check(ending, without);
            }
            if (testing::Test::HasFailure()) {
                return;
            }
        }
        ADD_FAILURE() << "the calls come to no end";
    }

    // All that can go wrong.
    void All()
    {
        for (const std::string &call : CallNames()) {
            for (const bool forGood : {false, true}) {
                Each({call, 0, forGood, EIO});
            }
        }
        for (const char *call : {"pwrite", "fsync", "ftruncate", "open", "renameat2"}) {
            Each({call, 0, true, ENOSPC});
        }
        Each({"renameat2", 0, false, EINVAL}); // a file system without such a call
        Each({"memory", 0, false, ENOMEM}, everySoMany);
        Each({"memory", 0, true, ENOMEM}, everySoMany);
        EXPECT_GT(failures, 0U);
    }

    // What must make no difference at all.
    void Repeated()
    {
        for (const char *call : {"pread", "pwrite"}) {
            for (const int error : {0, EINTR}) {
                for (uint64_t nth = 1;; ++nth) {
                    const Ending ending = run({call, nth, false, error});
                    EXPECT_TRUE(IsAsWithout(ending, without)) << Describe({call, nth, false, error}, ending);
                    if (ending.callsFailed == 0 || testing::Test::HasFailure()) {
                        break;
                    }
                    ++failures;
                }
            }
        }
    }

    std::function<Ending(const FailingCall &)> run;
    CheckEnding check;
    Ending without;
    uint64_t failures = 0;
};
} // namespace

// The first of all tests, since it wants libcrypto as a new process has it.
TEST_F(KestrixImageFaults, MemoryThatIsMissingWhileLibcryptoIsLoaded)
{
    const std::vector<std::string> arguments = {"check", "images/damaged.kstx", "-j", "1"};
    Sweep sweep([&](const FailingCall &failing) { return Run(arguments, failing); }, CheckFailed);
    ASSERT_EQ(sweep.without.status, 1);
    sweep.Each({"memory", 0, false, ENOMEM}, 7 * everySoMany);
    sweep.Each({"memory", 0, true, ENOMEM}, 7 * everySoMany);
    EXPECT_GT(sweep.failures, 1000U / everySoMany);
    ASSERT_TRUE(LoadLibrary());
}

class KestrixImageSweeps : public KestrixImageFaults
{
protected:
    void SetUp() override
    {
        LoadLibrary(); // once for all runs, most of whose time it would take
        KestrixImageFaults::SetUp();
    }

    void SweepAll(const std::vector<std::string> &arguments, int status, CheckEnding check = CheckFailed)
    {
        Sweep sweep([&](const FailingCall &failing) { return Run(arguments, failing); }, check);
        ASSERT_EQ(sweep.without.status, status) << sweep.without.out << sweep.without.err;
        ASSERT_EQ(sweep.without.err, "");
        sweep.All();
        sweep.Repeated();
        printf("    %s: %llu calls failed\n", arguments[0].c_str(), static_cast<unsigned long long>(sweep.failures));
    }

    static std::vector<std::string> WithPassword(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.end(), {"-j", "1", "--password-file", "password"});
        return arguments;
    }
};

TEST_F(KestrixImageSweeps, InfoSurvivesEachCallThatFails)
{
    SweepAll({"info", "images/thin.kstx", "images/base.kstx"}, 0);
}

TEST_F(KestrixImageSweeps, TreeSurvivesEachCallThatFails)
{
    SweepAll({"tree", "images", "-j", "1"}, 0);
}

TEST_F(KestrixImageSweeps, CompareSurvivesEachCallThatFails)
{
    SweepAll({"compare", "images/thin.kstx", "--file", "disk.raw", "-j", "1"}, 0);
}

TEST_F(KestrixImageSweeps, DiffSurvivesEachCallThatFails)
{
    SweepAll({"diff", "images/old.kstx", "images/base.kstx"}, 1);
}

TEST_F(KestrixImageSweeps, CheckSurvivesEachCallThatFails)
{
    SweepAll(WithPassword({"check", "images/thin.kstx"}), 0);
}

TEST_F(KestrixImageSweeps, CheckNeverCallsADamagedImageSound)
{
    SweepAll({"check", "images/damaged.kstx", "-j", "1"}, 1);
}

TEST_F(KestrixImageSweeps, ExtractSurvivesEachCallThatFails)
{
    SweepAll(WithPassword({"extract", "images/thin.kstx", "--out", "new"}), 0);
}

// Where one twin can't be read, another serves.
static void CheckMadeGood(const Ending &ending, const Ending &without)
{
    if (ending.status == 0) {
        EXPECT_EQ(ending.newFiles, without.newFiles);
        EXPECT_NE(ending.out.find("was taken from images/"), std::string::npos);
    } else {
        CheckFailed(ending, without);
    }
}

TEST_F(KestrixImageSweeps, ExtractWithTwinsSurvivesEachCallThatFails)
{
    SweepAll({"extract", "images/damaged.kstx", "--out", "new", "--twins", "images", "-j", "1"}, 0, CheckMadeGood);
}

TEST_F(KestrixImageSweeps, RepairSurvivesEachCallThatFails)
{
    SweepAll({"repair", "images/damaged.kstx", "--out", "new", "--twins", "images", "-j", "1"}, 0, CheckMadeGood);
}

// A file that was extracted as far as it went has a hole or the disk's own bytes, and where it has a hole it says so.
static void CheckExtractedAsFarAsItWent(const Ending &ending, const Ending &without)
{
    if (ending.status != 1 || ending.newFiles.empty()) {
        CheckFailed(ending, without);
        return;
    }
    EXPECT_EQ(ending.signal, 0);
    EXPECT_EQ(ending.newFiles.size(), 2U);
    const Bytes &file = ending.newFiles.at("new");
    const Bytes &whole = without.newFiles.at("new");
    ASSERT_EQ(file.size(), whole.size());
    for (size_t i = 0; i < file.size(); ++i) {
        ASSERT_TRUE(file[i] == whole[i] || file[i] == 0) << i;
    }
    EXPECT_NE(ending.out.find("MISSING"), std::string::npos);
}

TEST_F(KestrixImageSweeps, ExtractThatKeepsGoingSurvivesEachCallThatFails)
{
    SweepAll(WithPassword({"extract", "images/thin.kstx", "--out", "new", "--keep-going", "--map", "map"}), 0,
             CheckExtractedAsFarAsItWent);
}

// A chunk of two pieces is read twice: four reads, of which the third is on its way into the file when the fourth
// differs.
TEST_F(KestrixImageSweeps, ALargeChunkThatChangesBetweenTwoReadingsIsAHole)
{
    ImagePlan large;
    large.disk = PatternBytes(reader::largestBuffer + (1U << 20), 1);
    large.chunkSize = static_cast<uint32_t>(large.disk.size());
    WriteBytes("images/large.kstx", BuildImage(large));
    const std::vector<std::string> arguments = {
        "extract", "images/large.kstx", "--out", "new", "--keep-going", "--map", "map", "-j", "1"};
    EXPECT_TRUE(Run(arguments, {}).newFiles.at("new") == large.disk);
    for (uint64_t nth = 1; nth <= 4; ++nth) {
        const Ending ending = Run(arguments, {"pread", nth, false, otherBytes});
        ASSERT_EQ(ending.callsFailed, 1U) << nth;
        ASSERT_EQ(ending.status, 1) << ending.out << ending.err;
        EXPECT_TRUE(ending.newFiles.at("new") == Bytes(large.disk.size())) << nth;
    }
}

// A disk that is in use while chunks are looked for on it.
TEST_F(KestrixImageSweeps, WhatADiskGivesIsTakenOnlyAsItWasChecked)
{
    for (const size_t length : {size_t{chunkBytes}, reader::largestBuffer + (1U << 20)}) {
        const Bytes content = PatternBytes(length, 3);
        WriteBytes("disk.raw", content);
        TwinPlaces places;
        places.diskName = "disk";
        ASSERT_FALSE(host::OpenFileToRead("disk.raw", host::Caching::Cached, &places.disk));
        reader::ImageFile image;
        image.facts.header.diskSize = length;
        image.facts.header.chunkSize = static_cast<uint32_t>(length);
        image.table.resize(1);
        const host::Digest digest = host::DigestOf(content.data(), content.size());
        memcpy(image.table[0].hash, digest.data(), digest.size());
        const reader::Chain chain = reader::MakeAlone(std::move(image));
        std::vector<LostChunk> lost(1);
        uint64_t dropped = 0;
        Bytes taken;
        std::vector<std::string> notes;
        FailCalls({"pread", 0, false, 0});
        const auto take = [&](uint64_t, uint64_t, const uint8_t *piece, size_t byteCount) {
            taken.insert(taken.end(), piece, piece + byteCount);
            WriteBytes("disk.raw", Bytes(length, 7));
            return true;
        };
        FindTwins({}, chain, places, lost, notes, {take, [&dropped] { ++dropped; }});
        EXPECT_EQ(CallsCounted(), length == chunkBytes ? 1U : 4U);
        EXPECT_EQ(lost[0].isFound, length == chunkBytes);
        EXPECT_EQ(taken == content, lost[0].isFound);
        EXPECT_EQ(dropped, lost[0].isFound ? 0U : 1U);
    }
}

TEST_F(KestrixImageSweeps, MemoryThatTheSystemLacksForAReadIsNoDamage)
{
    const std::vector<std::string> arguments = {"check", "images/base.kstx", "-j", "1"};
    uint64_t failed = 0;
    for (uint64_t nth = 1; nth < 20; ++nth) {
        const Ending ending = Run(arguments, {"pread", nth, false, ENOMEM});
        failed += ending.callsFailed;
        EXPECT_EQ(ending.status, ending.callsFailed == 0 ? 0 : 3) << ending.out << ending.err;
    }
    EXPECT_GE(failed, 4U); // as many as there are chunks
}

// Whatever is read from then on fails, the file's first byte too. Where a single read fails, the rest is there.
TEST_F(KestrixImageSweeps, AMediumThatGoesAwayIsNoDamageAndABadPlaceOnItIs)
{
    const std::vector<std::vector<std::string>> commands = {
        {"check", "images/base.kstx", "-j", "1"},
        {"extract", "images/base.kstx", "--out", "new", "-j", "1"},
        {"repair", "images/base.kstx", "--out", "new", "--twins", "images", "-j", "1"}};
    for (const std::vector<std::string> &arguments : commands) {
        uint64_t bad = 0;
        for (uint64_t nth = 1; nth < 100; ++nth) {
            const Ending gone = Run(arguments, {"pread", nth, true, EIO});
            if (gone.callsFailed == 0) {
                break;
            }
            EXPECT_EQ(gone.status, 3) << Describe({"pread", nth, true, EIO}, gone);
            EXPECT_TRUE(gone.newFiles.empty());
            bad += Run(arguments, {"pread", nth, false, EIO}).status == 1 ? 1 : 0;
        }
        EXPECT_EQ(bad, arguments[0] == "repair" ? 0U : 4U) << arguments[0]; // as many as there are chunks
    }
}

TEST_F(KestrixImageSweeps, ThreadsThatCannotBeHadAreDoneWithout)
{
    for (const char *command : {"check", "extract"}) {
        std::vector<std::string> arguments = {command, "images/thin.kstx", "-j", "4", "--password-file", "password"};
        if (arguments[0] == "extract") {
            arguments.insert(arguments.end(), {"--out", "new"});
        }
        const Ending without = Run(arguments, {});
        ASSERT_EQ(without.status, 0) << without.err;
        uint64_t failed = 0;
        for (uint64_t nth = 1; nth <= 4; ++nth) {
            const Ending ending = Run(arguments, {"thread", nth, true, EAGAIN});
            EXPECT_TRUE(IsAsWithout(ending, without)) << Describe({"thread", nth, true, EAGAIN}, ending);
            failed += ending.callsFailed;
        }
        EXPECT_GE(failed, 3U);
    }
}
