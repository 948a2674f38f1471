// The simulated snapshot service: that it keeps its order, that it counts what it gave out, and that nothing of a run
// passes into the next.
#include "simulator/images.h"
#include "simulator/run_command.h"
#include "simulator/sample_calls.h"
#include "simulator/system_beneath.h"
#include "snapshot/requester_state.h"

#include <gtest/gtest.h>

namespace
{
const std::vector<std::string> noneFound;
constexpr auto badState = static_cast<HRESULT>(0x80042301U);

struct SimulatedSnapshots : testing::Test {
    SimulatedSnapshots()
    {
        machine = MachineWithDisk(0, Bytes(4096));
        AddVolume(machine, L"first\\", {{0, 512, 1024}}, Bytes(1024, 0xF1));
        AddVolume(machine, L"second\\", {{0, 2048, 1024}}, Bytes(1024, 0xF2));
        machine.snapshotService = SnapshotService();
    }

    // body with COM up and new backup components, neither of which is given back afterwards.
    void WithComponents(const std::function<void(IVssBackupComponents *components)> &body)
    {
        RunCode(machine, [&] {
            IVssBackupComponents *components = nullptr;
            ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
            ASSERT_EQ(CreateVssBackupComponents(&components), S_OK);
            body(components);
        });
    }

    // The same from where a set with the first volume is prepared.
    void WithPreparedSet(const std::function<void(IVssBackupComponents *components)> &body)
    {
        WithComponents([&](IVssBackupComponents *components) {
            IVssAsync *async = nullptr;
            components->InitializeForBackup(nullptr);
            components->SetContext(VSS_CTX_BACKUP);
            components->SetBackupState(false, true, VSS_BT_COPY, false);
            components->GatherWriterMetadata(&async);
            Finish(async);
            components->StartSnapshotSet(&set);
            wchar_t name[] = L"first\\";
            components->AddToSnapshotSet(name, GUID_NULL, &snapshot);
            components->PrepareForBackup(&async);
            Finish(async);
            body(components);
        });
    }

    static HRESULT Finish(IVssAsync *async)
    {
        HRESULT status = E_FAIL;
        async->Wait(INFINITE);
        async->QueryStatus(&status, nullptr);
        async->Release();
        return status;
    }

    static HANDLE OpenShadow()
    {
        return CreateFileW(L"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy1", GENERIC_READ, FILE_SHARE_READ,
                           nullptr, OPEN_EXISTING, FILE_FLAG_NO_BUFFERING, nullptr);
    }

    Scratch scratch;
    Machine machine;
    VSS_ID set = GUID_NULL;
    VSS_ID snapshot = GUID_NULL;
};
} // namespace

TEST_F(SimulatedSnapshots, RefuseWhatComesTooEarly)
{
    WithComponents([&](IVssBackupComponents *components) {
        IVssAsync *async = nullptr;
        UINT writers = 0;
        wchar_t name[] = L"first\\";
        EXPECT_EQ(components->SetContext(VSS_CTX_BACKUP), badState);
        EXPECT_EQ(components->SetBackupState(false, true, VSS_BT_COPY, false), badState);
        EXPECT_EQ(components->GatherWriterMetadata(&async), badState);
        EXPECT_EQ(components->StartSnapshotSet(&set), badState);
        EXPECT_EQ(components->AddToSnapshotSet(name, GUID_NULL, &snapshot), badState);
        EXPECT_EQ(components->PrepareForBackup(&async), badState);
        EXPECT_EQ(components->DoSnapshotSet(&async), badState);
        EXPECT_EQ(components->GatherWriterStatus(&async), badState);
        EXPECT_EQ(components->GetWriterStatusCount(&writers), badState);
        EXPECT_EQ(components->FreeWriterStatus(), badState);
        EXPECT_EQ(components->BackupComplete(&async), badState);
        EXPECT_EQ(components->AbortBackup(), badState);
        EXPECT_EQ(async, nullptr);
    });
    EXPECT_EQ(machine.misuses, noneFound);
    EXPECT_EQ(machine.leaks, (std::vector<std::string>{"components#1", "COM"}));
}

TEST_F(SimulatedSnapshots, HaveADeviceFromTheEndOfTheOperationToTheDeletion)
{
    WithPreparedSet([&](IVssBackupComponents *components) {
        IVssAsync *async = nullptr;
        LONG deleted = 0;
        VSS_ID nondeleted = GUID_NULL;
        ASSERT_EQ(components->DoSnapshotSet(&async), S_OK);
        EXPECT_EQ(OpenShadow(), INVALID_HANDLE_VALUE);
        EXPECT_EQ(Finish(async), VSS_S_ASYNC_FINISHED);
        const HANDLE shadow = OpenShadow();
        uint8_t sector[512] = {};
        DWORD count = 0;
        EXPECT_TRUE(ReadFile(shadow, sector, sizeof(sector), &count, nullptr));
        EXPECT_EQ(sector[511], 0xF1);
        CloseHandle(shadow);
        EXPECT_EQ(components->DeleteSnapshots(snapshot, VSS_OBJECT_SNAPSHOT_SET, TRUE, &deleted, &nondeleted),
                  VSS_E_OBJECT_NOT_FOUND);
        EXPECT_EQ(components->DeleteSnapshots(set, VSS_OBJECT_SNAPSHOT_SET, TRUE, &deleted, &nondeleted), S_OK);
        EXPECT_EQ(deleted, 1);
        EXPECT_EQ(OpenShadow(), INVALID_HANDLE_VALUE);
        EXPECT_EQ(components->DeleteSnapshots(set, VSS_OBJECT_SNAPSHOT_SET, TRUE, &deleted, &nondeleted),
                  VSS_E_OBJECT_NOT_FOUND);
    });
    EXPECT_EQ(machine.misuses, noneFound);
    EXPECT_EQ(machine.snapshotService->sets[0].fate, SetFate::Deleted);
}

TEST_F(SimulatedSnapshots, NoticeADeviceThatIsOpenWhenItsSetIsDeleted)
{
    WithPreparedSet([&](IVssBackupComponents *components) {
        IVssAsync *async = nullptr;
        LONG deleted = 0;
        VSS_ID nondeleted = GUID_NULL;
        components->DoSnapshotSet(&async);
        Finish(async);
        OpenShadow();
        components->DeleteSnapshots(set, VSS_OBJECT_SNAPSHOT_SET, TRUE, &deleted, &nondeleted);
        components->Release();
        CoUninitialize();
    });
    EXPECT_EQ(machine.misuses, std::vector<std::string>{"DeleteSnapshots components#1: shadow:1#1 is still open"});
    EXPECT_EQ(machine.leaks, std::vector<std::string>{"shadow:1#1"});
}

TEST_F(SimulatedSnapshots, GoWithTheLastReference)
{
    WithPreparedSet([&](IVssBackupComponents *components) {
        IVssAsync *async = nullptr;
        components->DoSnapshotSet(&async);
        Finish(async);
        EXPECT_EQ(components->Release(), 0U);
        EXPECT_EQ(OpenShadow(), INVALID_HANDLE_VALUE);
    });
    EXPECT_EQ(machine.snapshotService->sets[0].fate, SetFate::Dropped);
    EXPECT_EQ(machine.leaks, std::vector<std::string>{"COM"});
}

TEST_F(SimulatedSnapshots, ComeAboutOnlyWhereTheWaitForThemGoesWell)
{
    for (const AsyncEnd &end : {AsyncEnd{0x80042319, 0, asyncFinished}, AsyncEnd{0, 0, 0x80042319}}) {
        machine.snapshotService->answers["DoSnapshotSet"].end = end;
        WithPreparedSet([&](IVssBackupComponents *components) {
            IVssAsync *async = nullptr;
            components->DoSnapshotSet(&async);
            Finish(async);
        });
        EXPECT_EQ(machine.snapshotService->sets[0].fate, SetFate::Started);
    }
}

TEST_F(SimulatedSnapshots, ArePendingUntilTheyAreWaitedFor)
{
    WithPreparedSet([&](IVssBackupComponents *components) {
        IVssAsync *async = nullptr;
        HRESULT status = E_FAIL;
        components->DoSnapshotSet(&async);
        EXPECT_EQ(async->QueryStatus(&status, nullptr), S_OK);
        EXPECT_EQ(static_cast<uint32_t>(status), asyncPending);
        EXPECT_EQ(Finish(async), VSS_S_ASYNC_FINISHED);
    });
}

TEST_F(SimulatedSnapshots, NoticeWhatIsUsedAfterItsRelease)
{
    WithComponents([&](IVssBackupComponents *components) {
        components->Release();
        components->InitializeForBackup(nullptr);
        components->Release();
        CoUninitialize();
        CoUninitialize();
    });
    EXPECT_EQ(machine.misuses,
              (std::vector<std::string>{"InitializeForBackup components#1: released before",
                                        "Release components#1: released before", "CoUninitialize : COM is not up"}));
    EXPECT_EQ(machine.leaks, noneFound);
}

TEST_F(SimulatedSnapshots, NoticeComThatGoesBeforeTheComponents)
{
    WithComponents([&](IVssBackupComponents *components) {
        CoUninitialize();
        components->InitializeForBackup(nullptr);
    });
    EXPECT_EQ(machine.misuses, (std::vector<std::string>{"CoUninitialize : components#1 is still held",
                                                         "InitializeForBackup components#1: COM is not up"}));
    EXPECT_EQ(machine.leaks, std::vector<std::string>{"components#1"});
}

TEST_F(SimulatedSnapshots, CountStringsRecordsSearchesAndOperations)
{
    machine.snapshotService->writers = {{L"Writer"}};
    wchar_t name[260];
    WithPreparedSet([&](IVssBackupComponents *components) {
        IVssAsync *async = nullptr;
        VSS_SNAPSHOT_PROP properties = {};
        VSS_ID id = GUID_NULL;
        BSTR writer = nullptr;
        VSS_WRITER_STATE state = VSS_WS_UNKNOWN;
        HRESULT failure = S_OK;
        components->DoSnapshotSet(&async);
        Finish(async);
        components->GetSnapshotProperties(snapshot, &properties);
        components->GatherWriterStatus(&async);
        async->Wait(INFINITE);
        components->GetWriterStatus(0, &id, &id, &writer, &state, &failure);
        EXPECT_EQ(std::wstring(writer), L"Writer");
        EXPECT_EQ(std::wstring(properties.m_pwszOriginalVolumeName), L"first\\");
        FindFirstVolumeW(name, 260);
        SysFreeString(name);
        components->Release();
        CoUninitialize();
    });
    EXPECT_EQ(machine.leaks,
              (std::vector<std::string>{"async:GatherWriterStatus#1", "string:0#1", "properties:1#1", "volumes#1"}));
    EXPECT_EQ(machine.misuses, std::vector<std::string>{"SysFreeString nothing: nothing to free"});
}

TEST_F(SimulatedSnapshots, SpoilWhatWasFreed)
{
    WithPreparedSet([&](IVssBackupComponents *components) {
        IVssAsync *async = nullptr;
        VSS_SNAPSHOT_PROP properties = {};
        components->DoSnapshotSet(&async);
        Finish(async);
        components->GetSnapshotProperties(snapshot, &properties);
        const wchar_t *device = properties.m_pwszSnapshotDeviceObject;
        EXPECT_EQ(std::wstring(device), L"\\Device\\HarddiskVolumeShadowCopy1");
        VssFreeSnapshotProperties(&properties);
        EXPECT_EQ(std::wstring(device), std::wstring(33, L'#'));
    });
}

TEST_F(SimulatedSnapshots, GiveTheAnswersOfTheTest)
{
    SnapshotService &service = *machine.snapshotService;
    service.answers["InitializeForBackup"].result = 0x80070005;
    service.answers["SetContext"].result = 7;
    service.answers["GatherWriterMetadata"].givesNull = true;
    FailCall(machine, "AbortBackup", 2, 0x80042309);
    WithComponents([&](IVssBackupComponents *components) {
        EXPECT_EQ(static_cast<uint32_t>(components->InitializeForBackup(nullptr)), 0x80070005U);
        EXPECT_EQ(components->SetContext(VSS_CTX_BACKUP), badState);
        EXPECT_EQ(components->AbortBackup(), badState);
        EXPECT_EQ(static_cast<uint32_t>(components->AbortBackup()), 0x80042309U);
    });
    service.answers.erase("InitializeForBackup");
    WithComponents([&](IVssBackupComponents *components) {
        IVssAsync *async = nullptr;
        components->InitializeForBackup(nullptr);
        EXPECT_EQ(components->SetContext(VSS_CTX_BACKUP), 7);
        components->SetBackupState(false, true, VSS_BT_COPY, false);
        EXPECT_EQ(components->GatherWriterMetadata(&async), S_OK);
        EXPECT_EQ(async, nullptr);
    });
    EXPECT_EQ(LogOf(machine, {"SetContext", "GatherWriterMetadata"}),
              "SetContext components#1 0 -> 0x00000007\nGatherWriterMetadata components#1 -> null\n");
}

TEST_F(SimulatedSnapshots, LeaveTheLastErrorAloneWhenTheyFail)
{
    machine.snapshotService->answers["InitializeForBackup"].result = 0x80070005;
    machine.lastError = 1234;
    WithComponents([](IVssBackupComponents *components) {
        components->InitializeForBackup(nullptr);
        EXPECT_EQ(GetLastError(), 1234U);
    });
}

TEST_F(SimulatedSnapshots, RaiseWhatTheTestWantsAndTheMissingLibraryWhereThereIsNone)
{
    const auto raisedBy = [&] {
        uint32_t code = 0;
        RunCode(machine, [&] {
            IVssBackupComponents *components = nullptr;
            code = ConditionRaisedBy([&] { CreateVssBackupComponents(&components); });
        });
        return code;
    };
    EXPECT_EQ(raisedBy(), 0U);
    machine.snapshotService->raises = 0xC0000005;
    EXPECT_EQ(raisedBy(), 0xC0000005U);
    EXPECT_EQ(LogText(machine), "CreateVssBackupComponentsInternal preset=null -> failed 0xC0000005\n");
    machine.snapshotService.reset();
    EXPECT_EQ(raisedBy(), 0xC06D007EU);
}

TEST_F(SimulatedSnapshots, BeginEachRunWithoutThoseOfTheLast)
{
    RunCode(machine, [] {
        snapshotRequester.exitHookRegistered = true;
        snapshotRequester.shadowHandles.push_back(INVALID_HANDLE_VALUE);
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        CreateVssBackupComponents(&snapshotRequester.components);
    });
    EXPECT_EQ(machine.leaks, (std::vector<std::string>{"components#1", "COM"}));
    RunCode(machine, [] {
        EXPECT_FALSE(snapshotRequester.exitHookRegistered);
        EXPECT_TRUE(snapshotRequester.shadowHandles.empty());
        EXPECT_EQ(snapshotRequester.components, nullptr);
    });
    EXPECT_EQ(machine.leaks, noneFound);
}
