// How snapshots are taken down: after a finished capture, by the exit hook after a failed one, and not at all where the
// process ends without exit.
#include "snapshot/snapshotting.h"

namespace
{
const std::string shadowsClosed = "CloseHandle shadow:1#1\nCloseHandle shadow:2#1\n";
const std::string completed = "BackupComplete components#1 -> async:BackupComplete#1\n";
const std::string aborted = "AbortBackup components#1\n";
const std::string deleting = "DeleteSnapshots components#1 set#1 type=2 force=1 preset=0,GUID_NULL -> ";
const std::string deleted = deleting + "2\n";
const std::string down = "Release components#1 -> 0\nCoUninitialize\n";
const std::string hook = "exit hook hook#1\n";
const std::string goodSetUp = frozenLines + noWritersLine + SummaryLine(2);

struct SnapshotEnd : Snapshotting {
    void ExpectEndedByHook(const std::string &endSequence)
    {
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_FALSE(result.abnormalEnd) << result.abnormalText;
        EXPECT_EQ(EndSequence(), hook + endSequence);
        EXPECT_EQ(CountCalls(machine, "BackupComplete"), 0U);
        EXPECT_EQ(machine.leaks, std::vector<std::string>());
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
    }
};

// A way for a finished backup to be told so.
struct Completion {
    const char *name;
    std::function<void(SnapshotEnd &test)> arrange;
    std::string calls;
    std::string lines;
    bool isCompleted;
    bool isAborted;
};

const std::vector<Completion> completions = {
    {"well", [](SnapshotEnd &) {}, completed, "", true, false},
    {"refused", [](SnapshotEnd &test) { test.AnswerOf("BackupComplete").result = 0x80042301; },
     "BackupComplete components#1 -> failed 0x80042301\n" + aborted, "", false, true},
    {"refused, and so is the abort",
     [](SnapshotEnd &test) {
         test.AnswerOf("BackupComplete").result = 0x80042301;
         test.AnswerOf("AbortBackup").result = 0x80042302;
     },
     "BackupComplete components#1 -> failed 0x80042301\nAbortBackup components#1 -> failed 0x80042302\n", "", false,
     false},
    {"without an operation", [](SnapshotEnd &test) { test.AnswerOf("BackupComplete").givesNull = true; },
     "BackupComplete components#1 -> null\n", "", false, false},
    {"wait fails", [](SnapshotEnd &test) { test.AnswerOf("BackupComplete").end.wait = 0x80042319; }, completed,
     "    BackupComplete did not complete successfully (wait=0x80042319, status=0x0004230A)\n", false, false},
    {"status tells of a failure", [](SnapshotEnd &test) { test.AnswerOf("BackupComplete").end.status = 0x800423F4; },
     completed, "    BackupComplete did not complete successfully (wait=0x00000000, status=0x800423F4)\n", false,
     false},
    {"no status",
     [](SnapshotEnd &test) {
         test.AnswerOf("BackupComplete").end = {0, 0x80004001, std::nullopt};
     },
     completed, "    BackupComplete did not complete successfully (wait=0x00000000, status=0x80004005)\n", false,
     false},
};

struct Deletion {
    uint32_t result;
    std::string calls;
    std::string lines;
    SetFate fate;
};

const std::vector<Deletion> deletions = {
    {0, deleted, "", SetFate::Deleted},
    {1, deleting + "0x00000001 2\n", "", SetFate::Deleted},
    {0x80042308, deleting + "failed 0x80042308\n", "", SetFate::Dropped},
    {0x80042307, deleting + "failed 0x80042307\n", DeleteWarning("0x80042307"), SetFate::Dropped},
    {0x80070005, deleting + "failed 0x80070005\n", DeleteWarning("0x80070005"), SetFate::Dropped},
};

// A capture that dies once its snapshots stand.
struct Death {
    const char *name;
    std::function<void(Snapshotting &test)> arrange;
    std::vector<std::string> options;
    std::string errorText;
};

std::function<void(Snapshotting &test)> Failing(const std::string &call, uint32_t nth, const std::string &object,
                                                uint32_t error)
{
    return [=](Snapshotting &test) { FailCall(test.machine, call, nth, error).object = object; };
}

void UseBase(Snapshotting &test)
{
    test.UseTracker();
    WriteBytes("base.kstx", BuildImage(PlanOf(TinyDisk(), 4)));
}

const std::string lostRead =
    "FATAL: ReadFile from source disk failed mid-capture - image is incomplete, do not trust it ";

const std::vector<Death> deaths = {
    {"thin without a base", [](Snapshotting &) {}, {"--thin"}, "FATAL: --thin needs --base (GetLastError=4711)\n"},
    {"a base that is not there",
     Failing("CreateFileW", 1, "file:base.kstx", ERROR_FILE_NOT_FOUND),
     {"--base", "base.kstx"},
     "could not open image file: base.kstx\nFATAL: could not open image file (GetLastError=2)\n"},
    {"a base of another disk",
     [](Snapshotting &test) {
         UseBase(test);
         WriteBytes("base.kstx", BuildImage(PlanOf(Bytes(2048))));
     },
     {"--base", "base.kstx"},
     "FATAL: --base image geometry does not match source disk (GetLastError=4711)\n"},
    {"a thin image over its base",
     UseBase,
     {"--thin", "--base", "base.kstx", "--out", "base.kstx"},
     "FATAL: --thin: --out must differ from --base (GetLastError=4711)\n"},
    {"no password file",
     Failing("fopen_s", 1, "stream:pw.txt", 2),
     {"--encrypt", "--password-file", "pw.txt"},
     "FATAL: could not open password file (GetLastError=2)\n"},
    {"no image file",
     Failing("CreateFileW", 1, "file:image.kstx", ERROR_ACCESS_DENIED),
     {},
     "FATAL: could not create output image file (GetLastError=5)\n"},
    {"no first buffer",
     Failing("_aligned_malloc", 1, "", ERROR_NOT_ENOUGH_MEMORY),
     {},
     "FATAL: out of memory allocating aligned I/O buffer (GetLastError=8)\n"},
    {"no second buffer",
     Failing("_aligned_malloc", 2, "", ERROR_NOT_ENOUGH_MEMORY),
     {},
     "FATAL: out of memory allocating aligned I/O buffer (GetLastError=8)\n"},
    {"a seek on the shadow",
     Failing("SetFilePointerEx", 1, "shadow:2", ERROR_INVALID_PARAMETER),
     {},
     "FATAL: SetFilePointerEx on source failed mid-capture (GetLastError=87)\n"},
    {"a read from the shadow", Failing("ReadFile", 1, "shadow:2", ERROR_CRC), {}, lostRead + "(GetLastError=23)\n"},
    {"a short read from the shadow",
     [](Snapshotting &test) { ShortenCall(test.machine, "ReadFile", 1, 512).object = "shadow:2"; },
     {},
     lostRead + "(GetLastError=4711)\n"},
    {"a hash", Failing("BCryptCreateHash", 1, "", 0xC000009A), {}, "FATAL: BCryptCreateHash (NTSTATUS 0xC000009A)\n"},
    {"a write",
     Failing("WriteFile", 1, "file:image.kstx", ERROR_DISK_FULL),
     {},
     "FATAL: WriteFile to image file failed mid-capture (disk full?) (GetLastError=112)\n"},
    {"a trailer",
     [](Snapshotting &test) {
         UseBase(test);
         FailCall(test.machine, "WriteFile", 2, ERROR_DISK_FULL).object = "file:image.kstx";
     },
     {"--thin", "--base", "base.kstx"},
     "FATAL: could not write thin image trailer (GetLastError=112)\n"},
};
} // namespace

TEST_F(SnapshotEnd, OfAFinishedCaptureTellsOfWhatFailsAndGoesOnWithTheRest)
{
    for (const Completion &completion : completions) {
        for (const Deletion &deletion : deletions) {
            SCOPED_TRACE(std::string(completion.name) + " " + deletion.calls);
            StartAnew();
            completion.arrange(*this);
            AnswerOf("DeleteSnapshots").result = deletion.result;
            CaptureWithSnapshots();
            ExpectFromShadow(goodSetUp, completion.lines + deletion.lines);
            EXPECT_EQ(EndSequence(), shadowsClosed + completion.calls + deletion.calls + down + hook);
            EXPECT_EQ(OnlySet().fate, deletion.fate);
            EXPECT_EQ(OnlySet().isCompleted, completion.isCompleted);
            EXPECT_EQ(OnlySet().isAborted, completion.isAborted);
        }
    }
}

TEST_F(SnapshotEnd, FailingDoesNotKeepTheEpochFromItsCommit)
{
    UseTracker();
    AnswerOf("BackupComplete").result = 0x80042301;
    AnswerOf("DeleteSnapshots").result = 0x80042301;
    CaptureWithSnapshots();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(Commits(), std::vector<uint64_t>{6});
}

TEST_F(SnapshotEnd, ComesBehindAFailedCommitOrClose)
{
    UseTracker();
    machine.tracker->commitError = ERROR_IO_DEVICE;
    FailCall(machine, "CloseHandle", 1, ERROR_INVALID_HANDLE).object = "shadow:1";
    CaptureWithSnapshots();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(EndSequence(),
              "CloseHandle shadow:1#1 -> failed 6\nCloseHandle shadow:2#1\n" + completed + deleted + down + hook);
    ExpectOrder({"CoUninitialize", "stdout WARNING: tracker COMMIT failed", "exit hook hook#1"});
}

TEST_F(SnapshotEnd, OfAFailedCaptureIsTheExitHooks)
{
    for (const Death &death : deaths) {
        SCOPED_TRACE(death.name);
        StartAnew();
        machine.tracker.reset();
        UseDisk(TinyDisk());
        death.arrange(*this);
        WriteText("pw.txt", "password");
        std::vector<std::string> options = {"capture", "--vss", "--disk", "1"};
        options.insert(options.end(), death.options.begin(), death.options.end());
        options.insert(options.end(), {"--out", "image.kstx"});
        result = RunCommand(machine, options);
        EXPECT_EQ(result.errorText, death.errorText);
        ExpectEndedByHook(shadowsClosed + aborted + deleted + down);
        EXPECT_EQ(OnlySet().fate, SetFate::Deleted);
        EXPECT_TRUE(OnlySet().isAborted);
        EXPECT_EQ(result.outputText.find("Capture complete"), std::string::npos);
        EXPECT_EQ(result.outputText.substr(0, tinySource.size() + goodSetUp.size()), tinySource + goodSetUp);
    }
}

TEST_F(SnapshotEnd, OfAFailedCaptureTellsOfASetThatIsLeft)
{
    for (const Deletion &deletion : deletions) {
        StartAnew();
        AnswerOf("AbortBackup").result = 0x80042301;
        AnswerOf("DeleteSnapshots").result = deletion.result;
        FailCall(machine, "ReadFile", 1, ERROR_CRC).object = "shadow:2";
        CaptureWithSnapshots();
        EXPECT_EQ(result.errorText, lostRead + "(GetLastError=23)\n");
        EXPECT_EQ(result.outputText, tinySource + goodSetUp + noTrackerLine + deletion.lines);
        ExpectEndedByHook(shadowsClosed + "AbortBackup components#1 -> failed 0x80042301\n" + deletion.calls + down);
        EXPECT_EQ(OnlySet().fate, deletion.fate);
    }
}

TEST_F(SnapshotEnd, OfAFailedCaptureCoversAVolumeWithoutADevice)
{
    machine.volumes[0].shadow.openError = ERROR_ACCESS_DENIED;
    machine.volumes[1].results["GetSnapshotProperties"] = 0x80042308;
    FailCall(machine, "ReadFile", 1, ERROR_CRC).object = "disk1";
    CaptureWithSnapshots();
    ExpectEndedByHook(aborted + deleted + down);
    EXPECT_EQ(OnlySet().fate, SetFate::Deleted);
}

TEST_F(SnapshotEnd, FindsNothingToDoAfterTheSnapshotsWereAbandoned)
{
    AnswerOf("DoSnapshotSet").result = 0x80042301;
    FailCall(machine, "ReadFile", 1, ERROR_CRC).object = "disk1";
    CaptureWithSnapshots();
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(EndSequence(), down + hook);
    EXPECT_EQ(machine.leaks, std::vector<std::string>());
}

TEST_F(SnapshotEnd, DoesNotComeWhereAnExceptionIsNotCaught)
{
    FailCall(machine, "calloc", 1, ERROR_NOT_ENOUGH_MEMORY);
    CaptureWithSnapshots();
    EXPECT_TRUE(result.abnormalEnd);
    EXPECT_EQ(result.outputText, tinySource + goodSetUp + noTrackerLine);
    EXPECT_EQ(EndSequence(), "");
    EXPECT_EQ(OnlySet().fate, SetFate::Created);
    EXPECT_FALSE(OnlySet().isAborted);
}

TEST_F(SnapshotEnd, DoesNotComeWhereTheRunTimeEndsTheProcess)
{
    machine.disks[1].sectorBytes = 520;
    CaptureWithSnapshots();
    EXPECT_TRUE(result.abnormalEnd);
    EXPECT_EQ(EndSequence(), "");
    EXPECT_EQ(OnlySet().fate, SetFate::Created);
}
