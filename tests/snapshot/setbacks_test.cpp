// What keeps a capture from its snapshots: each failure of the set-up with its line, the combinations of failures, and
// what is given back after each.
#include "snapshot/snapshotting.h"

namespace
{
using Test = Snapshotting;

struct SnapshotSetback : Snapshotting {
    // The name of the call in front of these lines, which must be the last ones of the service in the log.
    std::string LastCallBefore(const std::string &lines) const
    {
        const std::string log = LogText(machine, IsOfSnapshots);
        if (log.size() < lines.size() || log.substr(log.size() - lines.size()) != lines) {
            return "another end";
        }
        const std::string front = log.substr(0, log.size() - lines.size() - 1);
        const std::string last = front.substr(front.rfind('\n') + 1);
        return last.substr(0, last.find(' '));
    }
};

// A set-up that ends before there is any snapshot: the capture reads live, and what was taken is given back.
struct Abandonment {
    const char *name;
    std::function<void(Test &test)> arrange;
    std::string linesBefore;
    std::string labelAndValue;
    std::string lastCall; // behind which nothing but the end sequence comes
    std::string endSequence;
};

const std::string releasedAndDown = "Release components#1 -> 0\nCoUninitialize\n";
const std::string notHere = "VSS is not available here (CreateVssBackupComponents) ";

std::function<void(Test &test)> Answering(const std::string &call, uint32_t result)
{
    return [=](Test &test) { test.AnswerOf(call).result = result; };
}

std::function<void(Test &test)> AnsweringNull(const std::string &call, uint32_t result)
{
    return [=](Test &test) {
        test.AnswerOf(call).result = result;
        test.AnswerOf(call).givesNull = true;
    };
}

std::function<void(Test &test)> Raising(uint32_t code, bool storesBefore)
{
    return [=](Test &test) {
        test.Service().raises = code;
        test.Service().storesBeforeRaising = storesBefore;
    };
}

const std::vector<Abandonment> abandonments = {
    {"COM does not come up", Answering("CoInitializeEx", 0x80010106), "", "CoInitializeEx failed (0x80010106)",
     "CoInitializeEx", ""},
    {"COM gives the largest failure", Answering("CoInitializeEx", 0xFFFFFFFF), "", "CoInitializeEx failed (0xFFFFFFFF)",
     "CoInitializeEx", ""},
    {"its security is refused", Answering("CoInitializeSecurity", 0x80010118), "",
     "CoInitializeSecurity failed (0x80010118)", "CoInitializeSecurity", "CoUninitialize\n"},
    {"creation fails", Answering("CreateVssBackupComponentsInternal", 0x80070005), "", notHere + "(0x80070005)",
     "CreateVssBackupComponentsInternal", "CoUninitialize\n"},
    {"creation gives null", AnsweringNull("CreateVssBackupComponentsInternal", 0), "", notHere + "(0x00000000)",
     "CreateVssBackupComponentsInternal", "CoUninitialize\n"},
    {"creation gives null and S_FALSE", AnsweringNull("CreateVssBackupComponentsInternal", 1), "",
     notHere + "(0x00000001)", "CreateVssBackupComponentsInternal", "CoUninitialize\n"},
    {"there is no library", [](Test &test) { test.machine.snapshotService.reset(); }, "", notHere + "(0x8007007E)",
     "CreateVssBackupComponentsInternal", "CoUninitialize\n"},
    {"the library lacks the call", Raising(0xC06D007F, false), "", notHere + "(0x8007007E)",
     "CreateVssBackupComponentsInternal", "CoUninitialize\n"},
    {"creation reads where nothing is", Raising(0xC0000005, false), "", notHere + "(0x8007007E)",
     "CreateVssBackupComponentsInternal", "CoUninitialize\n"},
    {"creation raises having stored an object", Raising(0xE06D7363, true), "", notHere + "(0x8007007E)",
     "CreateVssBackupComponentsInternal", "CoUninitialize\n"},
    {"no initialization", Answering("InitializeForBackup", 0x80070005), "", "InitializeForBackup failed (0x80070005)",
     "InitializeForBackup", releasedAndDown},
    {"no context", Answering("SetContext", 0x80042301), "", "SetContext failed (0x80042301)", "SetContext",
     releasedAndDown},
    {"no backup state", Answering("SetBackupState", 0x80070057), "", "SetBackupState failed (0x80070057)",
     "SetBackupState", releasedAndDown},
    {"metadata refused", Answering("GatherWriterMetadata", 0x80042302), gatheringLine,
     "GatherWriterMetadata failed (0x80042302)", "GatherWriterMetadata", releasedAndDown},
    {"metadata without an operation", AnsweringNull("GatherWriterMetadata", 0), gatheringLine,
     "GatherWriterMetadata failed (0x00000000)", "GatherWriterMetadata", releasedAndDown},
    {"metadata without an operation, S_FALSE", AnsweringNull("GatherWriterMetadata", 1), gatheringLine,
     "GatherWriterMetadata failed (0x00000001)", "GatherWriterMetadata", releasedAndDown},
    {"no snapshot set", Answering("StartSnapshotSet", 0x80042316), gatheringLine,
     "StartSnapshotSet failed (0x80042316)", "StartSnapshotSet", releasedAndDown},
    {"no volume at all", [](Test &test) { FailCall(test.machine, "FindFirstVolumeW", 1, 18); }, gatheringLine,
     "no volume on this disk could be snapshotted (0x00000001)", "FindFirstVolumeW", releasedAndDown},
    {"no volume opens",
     [](Test &test) {
         test.machine.volumes[0].volume.openError = ERROR_ACCESS_DENIED;
         test.machine.volumes[1].volume.openError = ERROR_ACCESS_DENIED;
     },
     gatheringLine, "no volume on this disk could be snapshotted (0x00000001)", "FindVolumeClose", releasedAndDown},
    {"preparing refused", Answering("PrepareForBackup", 0x800423F4),
     gatheringLine + addedLine1 + addedLine2 + freezingLine, "PrepareForBackup failed (0x800423F4)", "PrepareForBackup",
     releasedAndDown},
    {"preparing without an operation", AnsweringNull("PrepareForBackup", 0), frozenLines,
     "PrepareForBackup failed (0x00000000)", "PrepareForBackup", releasedAndDown},
    {"snapshots refused", Answering("DoSnapshotSet", 0x8004231F), frozenLines, "DoSnapshotSet failed (0x8004231F)",
     "DoSnapshotSet", releasedAndDown},
    {"snapshots without an operation", AnsweringNull("DoSnapshotSet", 0x7FFFFFFF), frozenLines,
     "DoSnapshotSet failed (0x7FFFFFFF)", "DoSnapshotSet", releasedAndDown},
};

// An operation that did not end well, and how its line tells so.
struct BadEnd {
    AsyncEnd end;
    const char *figures;
};

const std::vector<BadEnd> badEnds = {
    {{0x80042319, 0, asyncFinished}, "(wait=0x80042319, status=0x0004230A)"},
    {{0, 0x80004001, std::nullopt}, "(wait=0x00000000, status=0x80004005)"},
    {{0, 0x80004001, asyncFinished}, "(wait=0x00000000, status=0x0004230A)"},
    {{0, 0, std::nullopt}, "(wait=0x00000000, status=0x80004005)"},
    {{0, 0, 0}, "(wait=0x00000000, status=0x00000000)"},
    {{0, 0, asyncPending}, "(wait=0x00000000, status=0x00042309)"},
    {{0, 0, 0x0004230B}, "(wait=0x00000000, status=0x0004230B)"},
    {{1, 1, 0x800423F2}, "(wait=0x00000001, status=0x800423F2)"},
    {{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}, "(wait=0xFFFFFFFF, status=0xFFFFFFFF)"},
};

struct Operation {
    const char *call;
    std::string linesBefore;
};

std::string WaitLine(const std::string &call, const std::string &figures)
{
    return "    " + call + " did not complete successfully " + figures + "\n";
}

// What can become of one volume as it is added, and of its device afterwards. VOLUME stands for the name in the line.
struct VolumeCase {
    std::function<void(NamedVolume &volume)> arrange;
    std::string line;
};

const std::string unsupportedLine =
    "  --vss: volume VOLUME can't be snapshotted (removable/unsupported) - it will be read live.\n";

const std::vector<VolumeCase> addings = {
    {[](NamedVolume &) {}, ""},
    {[](NamedVolume &volume) { volume.isSupported = false; }, unsupportedLine},
    {[](NamedVolume &volume) { volume.results["IsVolumeSupported"] = 0x80042304; }, unsupportedLine},
    {[](NamedVolume &volume) { volume.results["AddToSnapshotSet"] = 0x80042312; },
     "  --vss: could not add volume VOLUME to the snapshot set (0x80042312) - read live.\n"},
};

const std::vector<VolumeCase> devices = {
    {[](NamedVolume &) {}, ""},
    {[](NamedVolume &volume) { volume.results["GetSnapshotProperties"] = 0x80042308; },
     "  --vss: GetSnapshotProperties failed for VOLUME (0x80042308) - read live.\n"},
    {[](NamedVolume &volume) { volume.shadow.openError = ERROR_ACCESS_DENIED; },
     "  --vss: could not open shadow device DEVICE (GetLastError=5) - read live.\n"},
};

// The lines of adding both volumes.
std::string AddingLines(const VolumeCase &first, const VolumeCase &second)
{
    const std::string line1 = first.line.empty() ? addedLine1 : LineOf(first.line, 1);
    const std::string line2 = second.line.empty() ? addedLine2 : LineOf(second.line, 2);
    return gatheringLine + line1 + line2;
}
} // namespace

TEST_F(SnapshotSetback, BeforeTheSnapshotsMeansThatTheDiskIsReadLive)
{
    for (const Abandonment &one : abandonments) {
        SCOPED_TRACE(one.name);
        StartAnew();
        one.arrange(*this);
        CaptureWithSnapshots();
        ExpectLive(one.linesBefore + AbandonLine(one.labelAndValue));
        EXPECT_EQ(EndSequence(), one.endSequence + "exit hook hook#1\n");
        EXPECT_EQ(LastCallBefore(one.endSequence + "exit hook hook#1\n"), one.lastCall);
        EXPECT_EQ(CountCalls(machine, "Wait"), CountCalls(machine, "Release", "async"));
    }
}

TEST_F(SnapshotSetback, OfAnOperationShowsItsFiguresAndThenTheValueOfTheCallThatBeganIt)
{
    const std::vector<Operation> operations = {
        {"GatherWriterMetadata", gatheringLine}, {"PrepareForBackup", frozenLines}, {"DoSnapshotSet", frozenLines}};
    for (const Operation &operation : operations) {
        for (const BadEnd &bad : badEnds) {
            for (const uint32_t value : {0x00000000U, 0x00000001U}) {
                SCOPED_TRACE(std::string(operation.call) + bad.figures);
                StartAnew();
                AnswerOf(operation.call).result = value;
                AnswerOf(operation.call).end = bad.end;
                CaptureWithSnapshots();
                ExpectLive(
                    operation.linesBefore + WaitLine(operation.call, bad.figures) +
                    AbandonLine(std::string(operation.call) + " failed (0x0000000" + std::to_string(value) + ")"));
                EXPECT_EQ(EndSequence(), releasedAndDown + "exit hook hook#1\n");
                EXPECT_EQ(CountCalls(machine, "Release", "async:" + std::string(operation.call)), 1U);
            }
        }
    }
}

TEST_F(SnapshotSetback, OfAnOperationComesAfterItIsReleased)
{
    AnswerOf("PrepareForBackup").end.wait = 0x80042319;
    CaptureWithSnapshots();
    const size_t released = PlaceOf("Release async:PrepareForBackup#1");
    ASSERT_LT(released + 1, machine.calls.size());
    EXPECT_EQ(machine.calls[released - 1].text.substr(0, 36), "QueryStatus async:PrepareForBackup#1");
    EXPECT_EQ(machine.calls[released + 1].name, "stdout");
}

TEST_F(SnapshotSetback, OfAVolumeLeavesTheOthersTheirSnapshots)
{
    for (const VolumeCase &adding1 : addings) {
        for (const VolumeCase &adding2 : addings) {
            for (const VolumeCase &device1 : devices) {
                for (const VolumeCase &device2 : devices) {
                    StartAnew();
                    adding1.arrange(machine.volumes[0]);
                    adding2.arrange(machine.volumes[1]);
                    device1.arrange(machine.volumes[0]);
                    device2.arrange(machine.volumes[1]);
                    CaptureWithSnapshots();
                    const bool has1 = adding1.line.empty();
                    const bool has2 = adding2.line.empty();
                    const bool opens1 = has1 && device1.line.empty();
                    const bool opens2 = has2 && device2.line.empty();
                    std::string lines = AddingLines(adding1, adding2);
                    if (!has1 && !has2) {
                        ExpectLive(lines + AbandonLine("no volume on this disk could be snapshotted (0x00000001)"));
                        EXPECT_EQ(EndSequence(), releasedAndDown + "exit hook hook#1\n");
                        continue;
                    }
                    lines += freezingLine + noWritersLine + (has1 ? LineOf(device1.line, 1) : "") +
                             (has2 ? LineOf(device2.line, 2) : "") + SummaryLine(opens1 + opens2);
                    ExpectCapture(lines, opens2 ? ShadowOfTinyDisk() : TinyDisk());
                    const std::string expectedEnd =
                        std::string(opens1 ? "CloseHandle shadow:1#1\n" : "") +
                        (opens2 ? "CloseHandle shadow:2#1\n" : "") +
                        "BackupComplete components#1 -> async:BackupComplete#1\n"
                        "DeleteSnapshots components#1 set#1 type=2 force=1 preset=0,GUID_NULL -> " +
                        std::to_string(has1 + has2) + "\n" + releasedAndDown + "exit hook hook#1\n";
                    EXPECT_EQ(EndSequence(), expectedEnd);
                    EXPECT_EQ(OnlySet().fate, SetFate::Deleted);
                    EXPECT_TRUE(OnlySet().isCompleted);
                }
            }
        }
    }
}

TEST_F(SnapshotSetback, OfTheFreezeComesBehindWhateverBecameOfTheVolumes)
{
    for (const VolumeCase &adding1 : addings) {
        for (const VolumeCase &adding2 : addings) {
            for (const char *call : {"PrepareForBackup", "DoSnapshotSet"}) {
                for (const BadEnd *bad : {static_cast<const BadEnd *>(nullptr), &badEnds[0]}) {
                    if (!adding1.line.empty() && !adding2.line.empty()) {
                        continue; // then nothing is frozen
                    }
                    StartAnew();
                    adding1.arrange(machine.volumes[0]);
                    adding2.arrange(machine.volumes[1]);
                    AnswerOf(call).result = bad != nullptr ? 0 : 0x80042314;
                    AnswerOf(call).end = bad != nullptr ? bad->end : AsyncEnd();
                    CaptureWithSnapshots();
                    ExpectLive(AddingLines(adding1, adding2) + freezingLine +
                               (bad != nullptr ? WaitLine(call, bad->figures) : "") +
                               AbandonLine(std::string(call) + " failed " +
                                           (bad != nullptr ? "(0x00000000)" : "(0x80042314)")));
                    EXPECT_EQ(EndSequence(), releasedAndDown + "exit hook hook#1\n");
                    EXPECT_EQ(OnlySet().fate, SetFate::Dropped);
                    EXPECT_FALSE(OnlySet().isAborted);
                }
            }
        }
    }
}

TEST_F(SnapshotSetback, OfEveryDeviceLeavesTheBackupOpenUntilTheEnd)
{
    machine.volumes[0].shadow.openError = ERROR_ACCESS_DENIED;
    machine.volumes[1].shadow.openError = ERROR_SHARING_VIOLATION;
    CaptureWithSnapshots();
    ExpectLive(frozenLines + noWritersLine + LineOf(devices[2].line, 1) +
               "  --vss: could not open shadow device \\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy2 "
               "(GetLastError=32) - read live.\n" +
               SummaryLine(0));
    EXPECT_EQ(EndSequence(), "BackupComplete components#1 -> async:BackupComplete#1\n"
                             "DeleteSnapshots components#1 set#1 type=2 force=1 preset=0,GUID_NULL -> 2\n" +
                                 releasedAndDown + "exit hook hook#1\n");
    ExpectOrder({"CloseHandle disk1#1", "BackupComplete"});
}

TEST_F(SnapshotSetback, LeavesTheExitStatusAndAProvedIncrementalCaptureAsTheyAre)
{
    UseTracker();
    WriteBytes("base.kstx", BuildImage(PlanOf(TinyDisk(), 5)));
    machine.snapshotService.reset();
    CaptureWithSnapshots({"--base", "base.kstx"});
    ExpectSuccess(tinySource + AbandonLine(notHere + "(0x8007007E)") +
                  "Change tracker: disk 1 epoch 6\n"
                  "Incremental mode: base image base.kstx\n"
                  "  --base: base epoch 5 matches tracker; unchanged chunks will be copied from the base image.\n" +
                  tinyProgress + "Capture complete: image.kstx (Read from disk: 0, Copied from base: 1 chunks)\n");
    EXPECT_EQ(Commits(), std::vector<uint64_t>{6});
}
