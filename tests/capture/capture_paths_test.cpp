// Where the new image and its base lie: the two paths of a thin run, resolved and compared, the base's bare name in the
// trailer, and what becomes of a base that --out names as well.
#include "capture/capturing.h"

#include <climits>
#include <cstdlib>
#include <filesystem>

namespace
{
const std::string tinyHeadLines = tinySource + "Change tracker: disk 1 epoch 6\n";
const std::string lostEpochLine =
    "  --base: cannot prove what changed (driver holds no previous epoch (reboot/reload since the base image)) - "
    "reading every chunk and comparing hashes with the base (no driver needed; slower to read, still a small file).\n";
const std::string sameFileRefusal = "FATAL: --thin: --out must differ from --base (GetLastError=4711)\n";
const std::string otherFolderRefusal =
    "FATAL: --thin: the image and its --base must be in the same folder (GetLastError=4711)\n";

struct PathPair {
    std::string basePath;
    std::string outPath;
};

struct CapturePaths : Capturing {
    CapturePaths()
    {
        std::filesystem::create_directory("Sub");
        base = BuildImage(PlanOf(TinyDisk(), 5));
        WriteBytes("base.kstx", base);
        WriteBytes("Sub/base.kstx", base);
    }

    void CaptureThin(const PathPair &paths, bool isProved = true)
    {
        UseTracker();
        machine.tracker->reply.hasPreviousEpoch = isProved ? 1 : 0;
        Capture({"--base", paths.basePath, "--thin"}, paths.outPath);
    }

    // A thin run over these paths ends behind the ladder's line, and nothing but the bases lies there.
    void ExpectRefusal(const PathPair &paths, const std::string &refusal)
    {
        for (const bool isProved : {true, false}) {
            SCOPED_TRACE(paths.basePath + " <- " + paths.outPath + (isProved ? ", proved" : ""));
            CaptureThin(paths, isProved);
            ExpectFatal(tinyHeadLines + "Incremental mode: base image " + paths.basePath + "\n" +
                            (isProved ? provedLine : lostEpochLine),
                        refusal);
            EXPECT_EQ(CountCalls(machine, "CreateFileW", "file"), 1U);
            EXPECT_TRUE(ReadBytes("base.kstx") == base);
            EXPECT_TRUE(ReadBytes("Sub/base.kstx") == base);
            EXPECT_FALSE(FileExists("image.kstx") || FileExists("Sub/image.kstx"));
            EXPECT_TRUE(Commits().empty());
        }
    }

    // The base's name as the new image gives it.
    static std::string NameInTrailer(const std::string &path)
    {
        const Bytes image = ReadBytes(path);
        const size_t start = DataStartOf(image) + EntriesOf(image)[0].storedLength;
        return std::string(image.begin() + static_cast<long>(start) + 12, image.end() - 36);
    }

    Bytes base;
};
} // namespace

TEST_F(CapturePaths, ThatNameOneFileAreRefused)
{
    const std::vector<PathPair> pairs = {
        {"base.kstx", "base.kstx"},
        {"base.kstx", "BASE.kstX"},
        {"base.kstx", "./base.kstx"},
        {"./base.kstx", "base.kstx"},
        {"base.kstx", "Sub/../base.kstx"},
        {"Sub/../base.kstx", "base.kstx"},
        {"Sub/base.kstx", "sUB/./x/..//Base.KSTX"},
        {scratch.Path("base.kstx"), "base.kstx"},
        {"base.kstx", scratch.Path("Sub/../BASE.KSTX")},
    };
    for (const PathPair &pair : pairs) {
        ExpectRefusal(pair, sameFileRefusal);
    }
}

TEST_F(CapturePaths, InTwoFoldersAreRefused)
{
    const std::vector<PathPair> pairs = {
        {"base.kstx", "Sub/image.kstx"},        {"Sub/base.kstx", "image.kstx"},
        {"base.kstx", "../image.kstx"},         {"base.kstx", scratch.Path("Sub/image.kstx")},
        {"Sub/base.kstx", "Sub2/image.kstx"},   {"Sub/base.kstx", "Su/image.kstx"},
        {"Sub/../base.kstx", "Sub/image.kstx"}, {"Sub/base.kstx", "Sub/../image.kstx"},
        {"base.kstx", "image\\image.kstx"},
    };
    for (const PathPair &pair : pairs) {
        ExpectRefusal(pair, otherFolderRefusal);
    }
}

TEST_F(CapturePaths, InOneFolderAreAcceptedHoweverItIsWritten)
{
    std::filesystem::create_directory("sUB");
    const std::vector<PathPair> pairs = {
        {"base.kstx", "Sub/../image.kstx"},
        {"Sub/base.kstx", "./Sub/image.kstx"},
        {"Sub/base.kstx", scratch.Path("Sub/image.kstx")},
        {"Sub/base.kstx", "sUB/image.kstx"},
    };
    for (const PathPair &pair : pairs) {
        CaptureThin(pair);
        EXPECT_EQ(result.exitStatus, 0) << pair.outPath << result.errorText;
        EXPECT_EQ(NameInTrailer(pair.outPath), "base.kstx");
    }
}

TEST_F(CapturePaths, AreResolvedTheBaseFirstIntoBuffersOfTheSystemsPathLength)
{
    CaptureThin({"Sub/../base.kstx", "./image.kstx"});
    EXPECT_EQ(LogOf(machine, {"_fullpath"}),
              "_fullpath Sub/../base.kstx -> base.kstx\n_fullpath ./image.kstx -> image.kstx\n");
    for (const Call &call : CallsOf(machine, "_fullpath")) {
        EXPECT_EQ(Field(call, "length"), static_cast<uint64_t>(_MAX_PATH));
    }
}

TEST_F(CapturePaths, ThatDoNotResolveAreRefused)
{
    for (const uint32_t nth : {1U, 2U}) {
        machine.faults.clear();
        FailCall(machine, "_fullpath", nth, ERROR_NOT_ENOUGH_MEMORY);
        ExpectRefusal({"base.kstx", "image.kstx"}, "FATAL: could not resolve image paths (GetLastError=8)\n");
        EXPECT_EQ(CountCalls(machine, "_fullpath"), nth);
    }
}

TEST_F(CapturePaths, TooLongForTheBufferAreRefused)
{
    CaptureThin({"base.kstx", std::string(_MAX_PATH, 'x')});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.errorText.substr(0, 51), "FATAL: could not resolve image paths (GetLastError=");
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "file"), 1U);
}

TEST_F(CapturePaths, AreOfNoInterestToARunThatIsNotThin)
{
    UseTracker();
    Capture({"--base", "base.kstx"}, "Sub/image.kstx");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(CountCalls(machine, "_fullpath"), 0U);
}

TEST_F(CapturePaths, AreRefusedBeforeThePasswordIsReadAndTheFileMade)
{
    UseTracker();
    Capture({"--base", "base.kstx", "--thin", "--encrypt", "--password-file", "missing.txt"}, "Sub/image.kstx");
    ExpectFatal(tinyHeadLines + "Incremental mode: base image base.kstx\n" + provedLine, otherFolderRefusal);
    EXPECT_EQ(CountCalls(machine, "fopen_s"), 0U);
}

TEST_F(CapturePaths, OfTheSameNameInTwoFoldersAreTwoFolders)
{
    ExpectRefusal({"base.kstx", "Sub/base.kstx"}, otherFolderRefusal);
}

TEST_F(CapturePaths, GiveTheTrailerTheBasesNameAsItWasTyped)
{
    WriteBytes("C:base.kstx", base);
    WriteBytes("sub\\BASE.kstx", base);
    const std::vector<std::pair<PathPair, std::string>> cases = {
        {{"base.kstx", "image.kstx"}, "base.kstx"},        {{"./base.kstx", "image.kstx"}, "base.kstx"},
        {{"Sub/../base.kstx", "image.kstx"}, "base.kstx"}, {{scratch.Path("base.kstx"), "image.kstx"}, "base.kstx"},
        {{"C:base.kstx", "image.kstx"}, "C:base.kstx"},    {{"sub\\BASE.kstx", "sub\\image.kstx"}, "BASE.kstx"},
    };
    for (const auto &[paths, name] : cases) {
        CaptureThin(paths);
        EXPECT_EQ(result.exitStatus, 0) << paths.basePath << result.errorText;
        EXPECT_EQ(NameInTrailer(paths.outPath), name);
    }
}

// Only a run that closed its base has its name free for the new image.

TEST_F(CapturePaths, OfOneFileFailAtItsCreationWhileTheProofHoldsTheBaseOpen)
{
    UseTracker();
    Capture({"--base", "base.kstx"}, "base.kstx");
    ExpectFatal(tinyHeadLines + "Incremental mode: base image base.kstx\n" + provedLine,
                "FATAL: could not create output image file (GetLastError=32)\n");
    EXPECT_TRUE(ReadBytes("base.kstx") == base);
    EXPECT_TRUE(Commits().empty());
}

TEST_F(CapturePaths, OfOneFileReplaceTheBaseOnceTheProofIsLost)
{
    machine.tracker.reset();
    UseDisk(PatternBytes(tinyDiskBytes, 44));
    Capture({"--base", "base.kstx"}, "base.kstx");
    ExpectSuccess(tinySource + noTrackerLine +
                  "Incremental mode: base image base.kstx\n"
                  "  --base: cannot prove what changed (no change tracker for this disk) - doing a FULL capture "
                  "(correct, just slower).\n" +
                  tinyProgress + "Capture complete: base.kstx\n");
    EXPECT_TRUE(ReadBytes("base.kstx") == BuildImage(PlanOf(PatternBytes(tinyDiskBytes, 44))));
    EXPECT_EQ(LogOf(machine, {"CloseHandle"}), "CloseHandle volume:C#1\nCloseHandle file:base.kstx#1\n"
                                               "CloseHandle file:base.kstx#2\nCloseHandle disk1#1\n");
}
