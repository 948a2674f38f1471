// The conversation with the snapshot service from its first call to its last, the answers that count as good ones, the
// names of shadow devices, and who never takes part in it.
#include "snapshot/snapshot_requester.h"

#include "cli/console.h"
#include "snapshot/snapshotting.h"

namespace
{
struct SnapshotConversation : Snapshotting {
    // The ranges that OpenSnapshots gives for disk 1; CloseSnapshots(true) ends the run.
    std::vector<ShadowRange> Open()
    {
        std::vector<ShadowRange> ranges;
        result = RunCode(machine, [&] {
            ranges = OpenSnapshots(1);
            CloseSnapshots(true);
        });
        EXPECT_EQ(machine.leaks, std::vector<std::string>());
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
        return ranges;
    }

    // Another command touches nothing of COM, of the service or of the volumes' enumeration.
    void ExpectNoPartIn(const std::vector<std::string> &arguments, int exitStatus)
    {
        SCOPED_TRACE(arguments.empty() ? "no command" : arguments[0]);
        EXPECT_EQ(RunCommand(machine, arguments).exitStatus, exitStatus);
        EXPECT_EQ(LogText(machine, IsOfSnapshots), "");
    }
};

bool IsTold(const Call &call)
{
    return IsOfSnapshots(call) || call.name == "stdout";
}
} // namespace

TEST_F(SnapshotConversation, MakesEveryCallInItsOrderWithItsArguments)
{
    Service().writers = {{L"Registry Writer"}, {L"SqlServerWriter", 9, 0x800423F4}};
    CaptureWithSnapshots();
    EXPECT_EQ(
        LogText(machine, IsTold),
        "stdout " + tinySource + "\n" +
            "atexit hook#1\n"
            "CoInitializeEx null model=0\n"
            "CoInitializeSecurity descriptor=null services=-1,null reserved=null,null authentication=6 impersonation=3 "
            "list=null capabilities=0\n"
            "CreateVssBackupComponentsInternal preset=null -> components#1\n"
            "InitializeForBackup components#1 null\n"
            "SetContext components#1 0\n"
            "SetBackupState components#1 selectComponents=0 bootableSystemState=1 type=5 partialFileSupport=0\n"
            "stdout   --vss: gathering writer metadata...\n\n"
            "GatherWriterMetadata components#1 -> async:GatherWriterMetadata#1\n"
            "Wait async:GatherWriterMetadata#1 0xFFFFFFFF\n"
            "QueryStatus async:GatherWriterMetadata#1 preset=0x80004005 reserved=null -> 0x0004230A\n"
            "Release async:GatherWriterMetadata#1 -> 0\n"
            "StartSnapshotSet components#1 -> set#1\n"
            "FindFirstVolumeW 260 -> \\\\?\\Volume{1}\\\n"
            "CreateFileW \\\\?\\Volume{1} access=0x80000000 share=0x3 disposition=3 flags=0x0 -> volume:1#1\n"
            "DeviceIoControl volume:1#1 code=0x00560000 input=0 output=224 -> 32\n"
            "CloseHandle volume:1#1\n"
            "FindNextVolumeW volumes#1 260 -> \\\\?\\Volume{2}\\\n"
            "CreateFileW \\\\?\\Volume{2} access=0x80000000 share=0x3 disposition=3 flags=0x0 -> volume:2#1\n"
            "DeviceIoControl volume:2#1 code=0x00560000 input=0 output=224 -> 32\n"
            "CloseHandle volume:2#1\n"
            "FindNextVolumeW volumes#1 260 -> failed 18\n"
            "FindVolumeClose volumes#1\n"
            "IsVolumeSupported components#1 GUID_NULL \\\\?\\Volume{1}\\ preset=0 -> 1\n"
            "AddToSnapshotSet components#1 \\\\?\\Volume{1}\\ GUID_NULL preset=GUID_NULL -> snapshot:1\n"
            "stdout   --vss: snapshotting volume \\\\?\\Volume{1} (disk offset 1073741824, 3.50 GiB) ...\n\n"
            "IsVolumeSupported components#1 GUID_NULL \\\\?\\Volume{2}\\ preset=0 -> 1\n"
            "AddToSnapshotSet components#1 \\\\?\\Volume{2}\\ GUID_NULL preset=GUID_NULL -> snapshot:2\n"
            "stdout   --vss: snapshotting volume \\\\?\\Volume{2} (disk offset 0, 0.00 GiB) ...\n"
            "  --vss: asking writers to prepare and freeze...\n\n"
            "PrepareForBackup components#1 -> async:PrepareForBackup#1\n"
            "Wait async:PrepareForBackup#1 0xFFFFFFFF\n"
            "QueryStatus async:PrepareForBackup#1 preset=0x80004005 reserved=null -> 0x0004230A\n"
            "Release async:PrepareForBackup#1 -> 0\n"
            "DoSnapshotSet components#1 -> async:DoSnapshotSet#1\n"
            "Wait async:DoSnapshotSet#1 0xFFFFFFFF\n"
            "QueryStatus async:DoSnapshotSet#1 preset=0x80004005 reserved=null -> 0x0004230A\n"
            "Release async:DoSnapshotSet#1 -> 0\n"
            "GatherWriterStatus components#1 -> async:GatherWriterStatus#1\n"
            "Wait async:GatherWriterStatus#1 0xFFFFFFFF\n"
            "QueryStatus async:GatherWriterStatus#1 preset=0x80004005 reserved=null -> 0x0004230A\n"
            "Release async:GatherWriterStatus#1 -> 0\n"
            "GetWriterStatusCount components#1 preset=0 -> 2\n"
            "GetWriterStatus components#1 0 preset=null,0x00000000 -> string:0#1 state=1 failure=0x00000000\n"
            "SysFreeString string:0#1\n"
            "GetWriterStatus components#1 1 preset=null,0x00000000 -> string:1#1 state=9 failure=0x800423F4\n"
            "stdout     WARNING: VSS writer 'SqlServerWriter' failed (state 9, hr=0x800423F4) - that application's "
            "data "
            "is crash-consistent only.\n\n"
            "SysFreeString string:1#1\n"
            "FreeWriterStatus components#1\n"
            "stdout   --vss: 2 VSS writer(s) reported, 1 failed.\n\n"
            "GetSnapshotProperties components#1 snapshot:1 preset=zeroed -> properties:1#1\n"
            "VssFreeSnapshotPropertiesInternal properties:1#1\n"
            "CreateFileW \\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy1 access=0x80000000 share=0x1 "
            "disposition=3 "
            "flags=0x20000000 -> shadow:1#1\n"
            "GetSnapshotProperties components#1 snapshot:2 preset=zeroed -> properties:2#1\n"
            "VssFreeSnapshotPropertiesInternal properties:2#1\n"
            "CreateFileW \\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy2 access=0x80000000 share=0x1 "
            "disposition=3 "
            "flags=0x20000000 -> shadow:2#1\n"
            "stdout   --vss: 2 volume(s) snapshotted via IVssBackupComponents; anything outside those ranges "
            "(partition tables, unpartitioned space) reads live.\n" +
            noTrackerLine + "\n" +
            "SetFilePointerEx shadow:2#1 0\n"
            "ReadFile shadow:2#1 1024 at 0 -> 1024\n"
            "stdout " +
            tinyProgress + "\n" +
            "CloseHandle shadow:1#1\n"
            "CloseHandle shadow:2#1\n"
            "BackupComplete components#1 -> async:BackupComplete#1\n"
            "Wait async:BackupComplete#1 0xFFFFFFFF\n"
            "QueryStatus async:BackupComplete#1 preset=0x80004005 reserved=null -> 0x0004230A\n"
            "Release async:BackupComplete#1 -> 0\n"
            "DeleteSnapshots components#1 set#1 type=2 force=1 preset=0,GUID_NULL -> 2\n"
            "Release components#1 -> 0\n"
            "CoUninitialize\n"
            "stdout " +
            completeLine + "\n" + "exit hook hook#1\n");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(machine.leaks, std::vector<std::string>());
    EXPECT_EQ(machine.misuses, std::vector<std::string>());
}

TEST_F(SnapshotConversation, PassesNoSecurityTemplateOrNewPosition)
{
    CaptureWithSnapshots();
    ExpectFromShadow(frozenLines + noWritersLine + SummaryLine(2));
    for (const Call &open : CallsOf(machine, "CreateFileW", "shadow")) {
        EXPECT_EQ(Field(open, "security") + Field(open, "template"), 0U);
    }
    const Call seek = CallsOf(machine, "SetFilePointerEx", "shadow:2").at(0);
    EXPECT_EQ(Field(seek, "newPosition") + Field(seek, "method"), 0U);
    for (const char *name :
         {"GatherWriterMetadata", "PrepareForBackup", "DoSnapshotSet", "GatherWriterStatus", "BackupComplete"}) {
        EXPECT_EQ(Field(CallsOf(machine, name).at(0), "preset"), 0U) << name;
    }
}

TEST_F(SnapshotConversation, StandsBetweenTheTrackersAttachAndItsQuery)
{
    UseTracker();
    CaptureWithSnapshots();
    ExpectOrder({"DeviceIoControl tracker#1 code=0x8C7D2004", "atexit hook#1",
                 "CreateFileW \\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy2",
                 "DeviceIoControl tracker#1 code=0x8C7D2008", "CreateFileW image.kstx", "CloseHandle file:image.kstx#1",
                 "CloseHandle disk1#1", "CloseHandle shadow:1#1", "DeleteSnapshots", "CoUninitialize",
                 "DeviceIoControl tracker#1 code=0x8C7D200C", "CloseHandle tracker#1"});
    EXPECT_EQ(Commits(), std::vector<uint64_t>{6});
}

TEST_F(SnapshotConversation, GoesOnWhereComIsUpAlreadyAndTakesItDownOnce)
{
    AnswerOf("CoInitializeEx").result = 1; // S_FALSE
    CaptureWithSnapshots();
    ExpectFromShadow(frozenLines + noWritersLine + SummaryLine(2));
    EXPECT_EQ(CountCalls(machine, "CoUninitialize"), 1U);
}

TEST_F(SnapshotConversation, GoesOnWhereTheProcessHasItsSecurityAlready)
{
    AnswerOf("CoInitializeSecurity").result = 0x80010119; // RPC_E_TOO_LATE
    CaptureWithSnapshots();
    ExpectFromShadow(frozenLines + noWritersLine + SummaryLine(2));
}

TEST_F(SnapshotConversation, TakesEverySuccessForOne)
{
    for (const char *call :
         {"CoInitializeSecurity", "CreateVssBackupComponentsInternal", "InitializeForBackup", "SetContext",
          "SetBackupState", "GatherWriterMetadata", "StartSnapshotSet", "IsVolumeSupported", "AddToSnapshotSet",
          "PrepareForBackup", "DoSnapshotSet", "GatherWriterStatus", "GetWriterStatusCount", "GetWriterStatus",
          "FreeWriterStatus", "GetSnapshotProperties", "BackupComplete", "DeleteSnapshots"}) {
        AnswerOf(call).result = 0x00042345;
    }
    for (const char *call :
         {"GatherWriterMetadata", "PrepareForBackup", "DoSnapshotSet", "GatherWriterStatus", "BackupComplete"}) {
        AnswerOf(call).end = {0x7FFFFFFF, 1, asyncFinished};
    }
    Service().writers = {{L"Some Writer"}};
    CaptureWithSnapshots();
    ExpectFromShadow(frozenLines + "  --vss: 1 VSS writer(s) reported, 0 failed.\n" + SummaryLine(2));
    EXPECT_EQ(EndSequence(), "CloseHandle shadow:1#1\nCloseHandle shadow:2#1\n"
                             "BackupComplete components#1 -> 0x00042345 async:BackupComplete#1\n"
                             "DeleteSnapshots components#1 set#1 type=2 force=1 preset=0,GUID_NULL -> 0x00042345 2\n"
                             "Release components#1 -> 0\nCoUninitialize\nexit hook hook#1\n");
}

TEST_F(SnapshotConversation, GivesTheRangesInTheOrderOfTheDisk)
{
    machine.volumes.clear();
    AddVolume(machine, L"\\\\?\\Volume{1}\\", {{1, 9 * GiB, GiB}});
    AddVolume(machine, L"\\\\?\\Volume{2}\\", {{1, MiB, 512}});
    AddVolume(machine, L"\\\\?\\Volume{3}\\", {{1, 4 * GiB, 5 * GiB}});
    const std::vector<ShadowRange> ranges = Open();
    ASSERT_EQ(ranges.size(), 3U);
    EXPECT_EQ(ranges[0].diskOffset, MiB);
    EXPECT_EQ(ranges[0].diskEnd, MiB + 512);
    EXPECT_EQ(ranges[1].diskOffset, 4 * GiB);
    EXPECT_EQ(ranges[1].diskEnd, 9 * GiB);
    EXPECT_EQ(ranges[2].diskOffset, 9 * GiB);
    EXPECT_EQ(ranges[2].diskEnd, 10 * GiB);
    EXPECT_EQ(EndSequence().substr(0, 69), "CloseHandle shadow:1#1\nCloseHandle shadow:2#1\nCloseHandle shadow:3#1\n");
}

TEST_F(SnapshotConversation, AsksForTheDiskThatIsCaptured)
{
    machine.volumes[0].volume.extents[0].diskNumber = 0;
    CaptureWithSnapshots();
    ExpectFromShadow(gatheringLine + addedLine2 + freezingLine + noWritersLine + SummaryLine(1));
    EXPECT_EQ(OnlySet().volumes, std::vector<uint32_t>{2});
}

TEST_F(SnapshotConversation, HandsTheNameOverWithWhateverBackslashesItHas)
{
    machine.volumes[0].name = L"\\\\?\\Volume{1}";
    machine.volumes[1].name = L"\\\\?\\Volume{2}\\\\";
    CaptureWithSnapshots();
    ExpectFromShadow(gatheringLine + addedLine1 +
                     "  --vss: snapshotting volume \\\\?\\Volume{2}\\ (disk offset 0, 0.00 GiB) ...\n" + freezingLine +
                     noWritersLine + SummaryLine(2));
    EXPECT_EQ(LogOf(machine, {"AddToSnapshotSet"}),
              "AddToSnapshotSet components#1 \\\\?\\Volume{1} GUID_NULL preset=GUID_NULL -> snapshot:1\n"
              "AddToSnapshotSet components#1 \\\\?\\Volume{2}\\\\ GUID_NULL preset=GUID_NULL -> snapshot:2\n");
}

namespace
{
struct DeviceName {
    const wchar_t *name;
    const char *path;
};

const std::vector<DeviceName> deviceNames = {
    {L"\\Device\\X", "\\\\?\\GLOBALROOT\\Device\\X"},
    {L"\\Device\\", "\\\\?\\GLOBALROOT\\Device\\"},
    {L"\\Device", "\\Device"},
    {L"\\device\\x", "\\device\\x"},
    {L"\\DEVICE\\X", "\\DEVICE\\X"},
    {L"\\Devices\\X", "\\Devices\\X"},
    {L"x\\Device\\X", "x\\Device\\X"},
    {L"\\\\?\\GLOBALROOT\\Device\\X", "\\\\?\\GLOBALROOT\\Device\\X"},
    {L"X", "X"},
};
} // namespace

TEST_F(SnapshotConversation, OpensAShadowDeviceThroughTheGlobalRootOnlyWhereItsNameIsAnObjects)
{
    for (const DeviceName &device : deviceNames) {
        SCOPED_TRACE(device.path);
        machine.volumes[1].shadowName = device.name;
        CaptureWithSnapshots();
        ExpectFromShadow(frozenLines + noWritersLine + SummaryLine(2));
        ExpectOrder({"VssFreeSnapshotPropertiesInternal properties:2#1",
                     std::string("CreateFileW ") + device.path +
                         " access=0x80000000 share=0x1 disposition=3 flags=0x20000000 -> shadow:2#1"});
    }
}

TEST_F(SnapshotConversation, OpensADeviceWithoutANameAsItStands)
{
    machine.volumes[1].shadowName.reset();
    FailCall(machine, "CreateFileW", 1, ERROR_PATH_NOT_FOUND).object = "file:";
    CaptureWithSnapshots();
    ExpectLive(frozenLines + noWritersLine + "  --vss: could not open shadow device  (GetLastError=3) - read live.\n" +
               SummaryLine(1));
    EXPECT_EQ(CountCalls(machine, "VssFreeSnapshotPropertiesInternal"), 2U);
}

TEST_F(SnapshotConversation, OfTheSystemDiskNeedsNoNote)
{
    machine.volumeC->extents[0].diskNumber = 1;
    CaptureWithSnapshots();
    ExpectFromShadow(frozenLines + noWritersLine + SummaryLine(2));
    Capture();
    EXPECT_NE(result.outputText.find("NOTE: "), std::string::npos);
}

TEST_F(SnapshotConversation, DoesNotBeginWhereTheSystemDiskIsUnknown)
{
    machine.volumeC.reset();
    CaptureWithSnapshots();
    ExpectFatal(tinySource, "FATAL: could not open C: to determine the system disk number (GetLastError=2)\n");
    EXPECT_EQ(LogText(machine, IsOfSnapshots), "");
}

TEST_F(SnapshotConversation, IsTheCapturesAloneAndThenOnlyWhenAskedFor)
{
    Capture();
    const Bytes image = ReadBytes("image.kstx");
    machine.disks[2].bytes = TinyDisk();
    ExpectNoPartIn({}, 1);
    ExpectNoPartIn({"list-disks", "--vss"}, 0);
    ExpectNoPartIn({"capture", "--disk", "1", "--vss"}, 1);
    ExpectNoPartIn({"capture", "--disk", "1", "--out", "image.kstx"}, 0);
    ExpectNoPartIn({"verify", "--in", "image.kstx", "--vss"}, 0);
    ExpectNoPartIn({"restore", "--in", "image.kstx", "--disk", "2", "--confirm", "YES", "--vss"}, 0);
    ExpectNoPartIn({"consolidate", "--in", "image.kstx", "--out", "other.kstx", "--vss"}, 0);
    EXPECT_TRUE(ReadBytes("other.kstx") == image);
}

TEST_F(SnapshotConversation, IsNotNeededToEnd)
{
    RunCode(machine, [] {
        CloseSnapshots(false);
        CloseSnapshots(true);
        CloseSnapshotsAtExit();
    });
    EXPECT_EQ(LogText(machine), "");
}

TEST_F(SnapshotConversation, EndsOnceHoweverOftenItIsEnded)
{
    RunCode(machine, [] {
        OpenSnapshots(1);
        CloseSnapshots(true);
        CloseSnapshots(true);
        CloseSnapshots(false);
    });
    EXPECT_EQ(EndSequence(), "CloseHandle shadow:1#1\nCloseHandle shadow:2#1\n"
                             "BackupComplete components#1 -> async:BackupComplete#1\n"
                             "DeleteSnapshots components#1 set#1 type=2 force=1 preset=0,GUID_NULL -> 2\n"
                             "Release components#1 -> 0\nCoUninitialize\nexit hook hook#1\n");
    EXPECT_EQ(machine.misuses, std::vector<std::string>());
}

TEST_F(SnapshotConversation, RegistersItsExitHookOnceAndBeforeAnythingElse)
{
    RunCode(machine, [] {
        OpenSnapshots(1);
        CloseSnapshots(true);
        OpenSnapshots(1);
        CloseSnapshots(true);
    });
    EXPECT_EQ(LogOf(machine, {"atexit", "exit hook"}), "atexit hook#1\nexit hook hook#1\n");
    EXPECT_EQ(machine.calls.at(0).name, "atexit");
    EXPECT_EQ(CountCalls(machine, "CoUninitialize"), 2U);
    EXPECT_EQ(Service().sets.size(), 2U);
    EXPECT_EQ(machine.leaks, std::vector<std::string>());
}

TEST_F(SnapshotConversation, ForgetsAtItsEndThatThereWereSnapshots)
{
    FailCall(machine, "DoSnapshotSet", 2, 0x80042301);
    RunCode(machine, [] {
        OpenSnapshots(1);
        CloseSnapshots(true);
        EXPECT_TRUE(OpenSnapshots(1).empty());
    });
    EXPECT_EQ(CountCalls(machine, "DeleteSnapshots"), 1U);
    EXPECT_EQ(CountCalls(machine, "AbortBackup"), 0U);
    EXPECT_EQ(machine.leaks, std::vector<std::string>());
}

TEST_F(SnapshotConversation, GoesOnWhereTheHookIsRefused)
{
    FailCall(machine, "atexit", 1, ERROR_NOT_ENOUGH_MEMORY);
    CaptureWithSnapshots();
    ExpectFromShadow(frozenLines + noWritersLine + SummaryLine(2));
    EXPECT_EQ(CountCalls(machine, "exit hook"), 0U);
    EXPECT_EQ(OnlySet().fate, SetFate::Deleted);
}
