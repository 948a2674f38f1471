// From the argument vector to the operation: which command lines are refused with the usage text, which end the program
// abnormally, and what each command hands on.
//
// What an operation was given shows in what it does: the disk that is opened, the files that it reads and writes, the
// words of its own refusals.
#include "cli/dispatch.h"

#include "simulator/images.h"
#include "simulator/run_command.h"

#include <gtest/gtest.h>

namespace
{
using Words = std::vector<std::string>;

const char usageText[] =
    "Kestrix - whole-physical-disk raw sector-level imaging.\n\n  kestrix list-disks\n  kestrix capture --disk N --out "
    "PATH [--base PATH [--thin]] [--vss] [--encrypt --password-file PATH]\n  kestrix verify  --in PATH "
    "[--password-file PATH]\n  kestrix restore --in PATH --disk N --confirm YES [--password-file PATH]\n  kestrix "
    "consolidate --in PATH --out PATH [--password-file PATH [--encrypt]]  (thin chain -> one full image)\n\nRun as "
    "Administrator. See README.md for the crash-consistency and\ndestructive-restore notes before using this on a real "
    "disk.\n";

const char unconfirmedText[] =
    "Refusing: restore is destructive (overwrites the ENTIRE target disk). Pass --confirm YES.\n";
const char liveNoteText[] = "NOTE: this is the currently booted system disk and -vss was not given - reading it live\n"
                            "      is crash-consistent only (see the file header comment). Proceeding anyway.\n";

// The current folder is empty but for two password files, and disk 3 holds one short chunk.
struct Dispatching : testing::Test {
    Dispatching()
    {
        WriteText("pw.txt", "password");
        WriteText("other.txt", "another");
    }

    RunResult Run(const Words &arguments)
    {
        return RunCommand(machine, arguments);
    }

    void ExpectUsage(const Words &arguments)
    {
        const RunResult result = Run(arguments);
        EXPECT_EQ(result.outputText, usageText) << testing::PrintToString(arguments);
        EXPECT_EQ(result.errorText, "");
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_FALSE(result.abnormalEnd);
        EXPECT_EQ(LogText(machine), "") << testing::PrintToString(arguments);
    }

    void ExpectAbnormalEnd(const Words &arguments, const std::string &text)
    {
        const RunResult result = Run(arguments);
        EXPECT_TRUE(result.abnormalEnd) << testing::PrintToString(arguments);
        EXPECT_EQ(result.abnormalText, text);
        EXPECT_EQ(result.outputText + result.errorText, "");
        EXPECT_EQ(LogText(machine), "") << testing::PrintToString(arguments);
    }

    void ExpectSuccess(const Words &arguments)
    {
        const RunResult result = Run(arguments);
        EXPECT_EQ(result.exitStatus, 0) << testing::PrintToString(arguments) << result.outputText;
        EXPECT_FALSE(result.abnormalEnd) << result.abnormalText;
        EXPECT_EQ(result.errorText, "");
    }

    void ExpectFailure(const Words &arguments, const std::string &errorText)
    {
        const RunResult result = Run(arguments);
        EXPECT_EQ(result.errorText, errorText) << testing::PrintToString(arguments);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_FALSE(result.abnormalEnd);
    }

    // A full image of disk 3 as it stands, with the chunk size that a capture uses.
    void WriteImage(const std::string &path, bool encrypted = false)
    {
        ImagePlan plan;
        plan.disk = machine.disks[3].bytes;
        plan.encrypted = encrypted;
        WriteBytes(path, BuildImage(plan));
    }

    Scratch scratch;
    Machine machine = MachineWithDisk(3, PatternBytes(64 * KiB, 5));
};
} // namespace

TEST_F(Dispatching, ShowsTheUsageTextWithoutAKnownCommand)
{
    ExpectUsage({});
    for (const char *word :
         {"", "help", "--help", "Capture", "CAPTURE", "captur", "capturex", "capture ", "list_disks", "list-disk",
          "list-disksx", "LIST-DISKS", "Verify", "verifyx", "restoreX", "consolidat", "consolidatex", "--disk"}) {
        ExpectUsage({word, "--disk", "3", "--in", "a", "--out", "x", "--confirm", "YES"});
        ExpectUsage({word});
    }
}

TEST_F(Dispatching, ShowsTheUsageTextForAVectorOfNothing)
{
    int status = 0;
    const RunResult result = RunCode(machine, [&status] { status = Dispatch(0, nullptr); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(result.outputText, usageText);
}

TEST_F(Dispatching, RefusesACaptureThatLacksWhatItNeeds)
{
    const Words rows[] = {
        {"capture"},
        {"capture", "--out", "x"},
        {"capture", "--disk", "3"},
        {"capture", "--out", "x", "--disk"},
        {"capture", "--disk", "3", "--out"},
        {"capture", "--disk", "3", "--out", ""},
        {"capture", "--disk", "-5", "--out", "x"},
        {"capture", "--disk", "-1", "--out", "x"},
        {"capture", "--disk", "3", "--out", "x", "--encrypt"},
        {"capture", "--disk", "3", "--out", "x", "--encrypt", "--password-file"},
        {"capture", "--disk", "3", "--out", "x", "--encrypt", "--password-file", ""},
        {"capture", "--encrypt", "--disk", "3", "--out", "x", "--thin"},
    };
    for (const Words &arguments : rows) {
        ExpectUsage(arguments);
        EXPECT_FALSE(FileExists("x"));
    }
}

TEST_F(Dispatching, RefusesTheOtherCommandsWithoutTheirPaths)
{
    const Words rows[] = {
        {"verify"},
        {"verify", "--in"},
        {"verify", "--in", ""},
        {"verify", "--password-file", "pw.txt"},
        {"verify", "--out", "image"},
        {"restore"},
        {"restore", "--disk", "3", "--confirm", "YES"},
        {"restore", "--in", "image", "--confirm", "YES"},
        {"restore", "--in", "image", "--disk", "-1", "--confirm", "YES"},
        {"restore", "--in", "image", "--confirm", "YES", "--disk"},
        {"restore", "--in", "", "--disk", "3", "--confirm", "YES"},
        {"consolidate"},
        {"consolidate", "--in", "a"},
        {"consolidate", "--out", "b"},
        {"consolidate", "--in", "a", "--out"},
        {"consolidate", "--in", "", "--out", "b"},
        {"consolidate", "--in", "a", "--out", ""},
    };
    for (const Words &arguments : rows) {
        ExpectUsage(arguments);
    }
}

TEST_F(Dispatching, EndsAbnormallyAtADiskNumberThatIsNone)
{
    const std::string noNumber = "invalid stoi argument";
    const std::string tooLarge = "stoi argument out of range";
    ExpectAbnormalEnd({"capture", "--disk", "abc", "--out", "x"}, noNumber);
    ExpectAbnormalEnd({"capture", "--disk", "", "--out", "x"}, noNumber);
    ExpectAbnormalEnd({"capture", "--disk", "99999999999", "--out", "x"}, tooLarge);
    ExpectAbnormalEnd({"capture", "--disk", "2147483648", "--out", "x"}, tooLarge);
    ExpectAbnormalEnd({"restore", "--in", "a", "--disk", "99999999999"}, tooLarge);
    ExpectAbnormalEnd({"restore", "--in", "a", "--disk", "x1", "--confirm", "YES"}, noNumber);
    EXPECT_FALSE(FileExists("x"));
}

TEST_F(Dispatching, ConvertsTheDiskNumberBeforeItLooksAtAnythingElse)
{
    ExpectAbnormalEnd({"capture", "--disk", "abc"}, "invalid stoi argument");
    ExpectAbnormalEnd({"capture", "--encrypt", "--disk", "abc"}, "invalid stoi argument");
    ExpectAbnormalEnd({"restore", "--disk", "abc"}, "invalid stoi argument");
    // A value that equals an option's name hides the option's later, real place.
    ExpectAbnormalEnd({"capture", "--out", "--disk", "--disk", "3"}, "invalid stoi argument");
}

TEST_F(Dispatching, LooksAtADiskNumberInCommandsThatHaveOneOnly)
{
    WriteImage("image");
    ExpectSuccess({"verify", "--in", "image", "--disk", "abc"});
    ExpectSuccess({"consolidate", "--in", "image", "--out", "copy", "--disk", "abc"});
    ExpectSuccess({"list-disks", "--disk", "abc"});
}

TEST_F(Dispatching, ListsDisksWhateverElseIsOnTheLine)
{
    ExpectSuccess({"list-disks"});
    const std::string log = LogText(machine);
    ExpectSuccess({"list-disks", "extra", "--out", "x", "words"});
    EXPECT_EQ(LogText(machine), log);
    EXPECT_FALSE(FileExists("x"));
}

TEST_F(Dispatching, CapturesTheDiskWhoseNumberTheTextBeginsWith)
{
    for (const char *text : {"3", "3x", " 3", "+3", "003"}) {
        ExpectSuccess({"capture", "--disk", text, "--out", "x"});
        EXPECT_EQ(machine.calls.front().text,
                  "CreateFileW \\\\.\\PhysicalDrive3 access=0x80000000 share=0x3 disposition=3 flags=0x20000000 -> "
                  "disk3#1");
    }
    EXPECT_EQ(Run({"capture", "--disk", "0", "--out", "x"}).exitStatus, 1); // zero is a number like all others
    EXPECT_EQ(machine.calls.front().object, "disk0");
}

// Only the listing ends at number 15.
TEST_F(Dispatching, TakesDiskNumbersBeyondThoseThatAreListed)
{
    machine.disks[16].bytes = PatternBytes(64 * KiB, 6);
    machine.disks[2147483647].bytes = Bytes(64 * KiB);
    ExpectSuccess({"capture", "--disk", "16", "--out", "image"});
    ExpectSuccess({"restore", "--in", "image", "--disk", "2147483647", "--confirm", "YES"});
    EXPECT_EQ(machine.disks[2147483647].bytes, machine.disks[16].bytes);
}

TEST_F(Dispatching, RestoresOverDiskZeroWhereTheSystemIsElsewhere)
{
    WriteImage("image");
    machine.disks[0].bytes = Bytes(64 * KiB);
    machine.volumeC->extents = {{3, MiB, 64 * MiB}};
    ExpectSuccess({"restore", "--in", "image", "--disk", "0", "--confirm", "YES"});
    EXPECT_EQ(machine.disks[0].bytes, machine.disks[3].bytes);
}

TEST_F(Dispatching, TakesOptionsInAnyOrderAndAnyCase)
{
    ExpectSuccess({"capture", "--DISK", "3", "--OUT", "upper"});
    ExpectSuccess({"capture", "--Out", "mixed", "unknown", "--unknown", "--Disk", "3"});
    ExpectSuccess({"capture", "--PASSWORD-FILE", "pw.txt", "--disk", "3", "--Encrypt", "--out", "sealed"});
    EXPECT_EQ(ReadBytes("upper"), ReadBytes("mixed"));
    EXPECT_EQ(HeaderOf(ReadBytes("sealed")).encrypted, 1);
}

TEST_F(Dispatching, TakesTheFirstOfRepeatedOptions)
{
    ExpectSuccess({"capture", "--disk", "3", "--out", "first", "--out", "second", "--disk", "abc"});
    EXPECT_TRUE(FileExists("first"));
    EXPECT_FALSE(FileExists("second"));
}

TEST_F(Dispatching, CapturesInTheClearUnlessToldToEncrypt)
{
    ExpectSuccess({"capture", "--disk", "3", "--out", "plain", "--password-file", "missing.txt"});
    EXPECT_EQ(HeaderOf(ReadBytes("plain")).encrypted, 0);
    EXPECT_EQ(CountCalls(machine, "fopen_s"), 0U);
    ExpectSuccess({"capture", "--disk", "3", "--out", "sealed", "--password-file", "pw.txt", "--encrypt"});
    EXPECT_EQ(HeaderOf(ReadBytes("sealed")).encrypted, 1);
    EXPECT_EQ(CallsOf(machine, "fopen_s").at(0).text, "fopen_s pw.txt rb -> stream:pw.txt#1");
}

TEST_F(Dispatching, FindsTheBaseUnderBothOfItsNames)
{
    WriteImage("base");
    const struct {
        Words options;
        std::string base; // empty: none
    } rows[] = {
        {{"--base", "base"}, "base"},
        {{"--incremental", "base"}, "base"},
        {{"--base", "", "--incremental", "base"}, "base"},
        {{"--incremental", "nothing", "--base", "base"}, "base"},
        {{"--incremental", "base", "--base"}, "base"},
        {{"--base", ""}, ""},
        {{}, ""},
    };
    for (const auto &row : rows) {
        Words arguments = {"capture", "--disk", "3", "--out", "x"};
        arguments.insert(arguments.end(), row.options.begin(), row.options.end());
        const RunResult result = Run(arguments);
        EXPECT_EQ(result.exitStatus, 0) << result.errorText;
        const std::string line = "Incremental mode: base image " + row.base + "\n";
        EXPECT_EQ(result.outputText.find(line) != std::string::npos, !row.base.empty());
        EXPECT_EQ(CountCalls(machine, "CreateFileW", "file:base"), row.base.empty() ? 0U : 1U);
    }
}

TEST_F(Dispatching, HandsThePasswordFileOnForASealedBaseOfAPlainCapture)
{
    WriteImage("base", true);
    ExpectSuccess({"capture", "--disk", "3", "--out", "x", "--base", "base", "--password-file", "pw.txt"});
    EXPECT_EQ(CountCalls(machine, "fopen_s"), 1U);
    EXPECT_EQ(HeaderOf(ReadBytes("x")).encrypted, 0);
}

TEST_F(Dispatching, MakesAThinImageOnlyWhenToldTo)
{
    WriteImage("base");
    ExpectSuccess({"capture", "--disk", "3", "--out", "full", "--base", "base"});
    ExpectSuccess({"capture", "--disk", "3", "--out", "thin", "--base", "base", "--thin"});
    EXPECT_EQ(HeaderOf(ReadBytes("full")).version, 2U);
    EXPECT_EQ(HeaderOf(ReadBytes("thin")).version, 3U);
    // The last failure was the opening of a tracker that isn't there.
    ExpectFailure({"capture", "--disk", "3", "--out", "x", "--thin"}, "FATAL: --thin needs --base (GetLastError=2)\n");
    EXPECT_FALSE(FileExists("x"));
}

TEST_F(Dispatching, NotesALiveSystemDiskUnlessSnapshotsAreAskedFor)
{
    machine.volumeC->extents = {{3, MiB, 64 * MiB}};
    EXPECT_NE(Run({"capture", "--disk", "3", "--out", "x"}).outputText.find(liveNoteText), std::string::npos);
    EXPECT_EQ(Run({"capture", "--disk", "3", "--out", "x", "--vss"}).outputText.find(liveNoteText), std::string::npos);
    // A flag is found where another option's value stands, and stays that value.
    EXPECT_EQ(Run({"capture", "--disk", "3", "--out", "--vss"}).outputText.find(liveNoteText), std::string::npos);
    EXPECT_TRUE(FileExists("--vss"));
}

TEST_F(Dispatching, VerifiesTheImageWithThePasswordFile)
{
    WriteImage("plain");
    WriteImage("sealed", true);
    ExpectSuccess({"verify", "--in", "plain"});
    ExpectSuccess({"verify", "--in", "sealed", "--password-file", "pw.txt"});
    machine.lastErrorAfterSuccess = 21;
    ExpectFailure({"verify", "--in", "sealed"},
                  "FATAL: this image is encrypted - pass --password-file (GetLastError=21)\n");
    ExpectFailure({"verify", "--in", "sealed", "--password-file", "other.txt"},
                  "Verify FAILED - 1 of 1 chunks did not match. Do not trust this image for restore.\n");
    EXPECT_EQ(LogOf(machine, {"CreateFileW"}),
              "CreateFileW sealed access=0x80000000 share=0x1 disposition=3 flags=0x80 -> file:sealed#1\n");
}

TEST_F(Dispatching, RestoresOnlyWhenConfirmedByTheWordInCapitals)
{
    WriteImage("image", true);
    const Words command = {"restore", "--in", "image", "--disk", "4", "--password-file", "pw.txt"};
    const Words rows[] = {{},
                          {"--confirm"},
                          {"--confirm", "yes"},
                          {"--confirm", "Yes"},
                          {"--confirm", "YES "},
                          {"--confirm", "YESYES"},
                          {"--confirm", ""},
                          {"--confirm", "no", "--confirm", "YES"},
                          {"YES"}};
    machine.disks[4].bytes = Bytes(64 * KiB);
    for (const Words &row : rows) {
        Words arguments = command;
        arguments.insert(arguments.end(), row.begin(), row.end());
        ExpectFailure(arguments, unconfirmedText);
        EXPECT_EQ(CountCalls(machine, "CreateFileW", "disk4"), 0U);
    }
    Words confirmed = command;
    confirmed.insert(confirmed.end(), {"--CONFIRM", "YES"});
    ExpectSuccess(confirmed);
    EXPECT_EQ(machine.disks[4].bytes, machine.disks[3].bytes);
}

TEST_F(Dispatching, LeavesAnUnconfirmedRestoreToTheOperation)
{
    ExpectFailure({"restore", "--in", "a", "--disk", "3"}, unconfirmedText);
}

TEST_F(Dispatching, ConsolidatesFromTheOnePathToTheOther)
{
    WriteImage("sealed", true);
    ExpectSuccess({"consolidate", "--in", "sealed", "--out", "plain", "--password-file", "pw.txt"});
    EXPECT_EQ(HeaderOf(ReadBytes("plain")).encrypted, 0);
    ExpectSuccess({"consolidate", "--in", "sealed", "--out", "new", "--password-file", "pw.txt", "--encrypt"});
    EXPECT_EQ(HeaderOf(ReadBytes("new")).encrypted, 1);
}

TEST_F(Dispatching, LeavesAnEncryptWithoutAPasswordFileToConsolidateItself)
{
    WriteImage("a");
    machine.lastErrorAfterSuccess = 21;
    ExpectFailure({"consolidate", "--in", "a", "--out", "b", "--encrypt"},
                  "FATAL: --encrypt needs --password-file (GetLastError=21)\n");
    EXPECT_FALSE(FileExists("b"));
}

TEST_F(Dispatching, LetsMemoryExhaustionPassOut)
{
    machine.failingAllocation = 1;
    const RunResult result =
        Run({"verify", "--in", "a path that is longer than what a string keeps within itself", "--password-file", "x"});
    EXPECT_TRUE(result.abnormalEnd);
    EXPECT_EQ(result.abnormalText, "std::bad_alloc");
    EXPECT_EQ(result.outputText + result.errorText, "");
}
