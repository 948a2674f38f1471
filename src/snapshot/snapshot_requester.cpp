// The conversation with the Volume Shadow Copy Service, in its order: the exit hook, COM, the backup components, the
// writers' metadata, the snapshot set, its volumes, the freeze, the writers' status, the shadow devices; and the end of
// it.
//
// The exit hook goes in before anything is taken, so that a capture that ends through exit leaves no snapshot behind. A
// failure up to the freeze abandons the whole: what was prepared is released, with nothing to abort or delete. After
// the freeze a failure costs one volume its snapshot device and no more. Waits have no bound: a writer that hangs hangs
// the capture.
#include "snapshot/snapshot_requester.h"

#include "cli/console.h"
#include "snapshot/requester_state.h"
#include "structured_guard.h"

#include <objbase.h>
#include <oleauto.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

SnapshotRequester snapshotRequester;

// A volume accepted into the snapshot set.
struct SnapshotVolume {
    VolumeExtent extent;
    VSS_ID snapshotId;
};

// What stopped the set-up: label is null as long as nothing did.
struct Setback {
    const char *label;
    HRESULT value;
};

static constexpr Setback noSetback = {nullptr, S_OK};

static unsigned long ForPrinting(HRESULT value)
{
    return static_cast<unsigned long>(static_cast<ULONG>(value));
}

static HRESULT CreateBackupComponents(IVssBackupComponents **out)
{
    constexpr auto moduleNotFound = static_cast<HRESULT>(0x8007007EU);
    HRESULT result = S_OK;
    if (!CreateBackupComponentsGuarded(out, &result)) {
        *out = nullptr;
        return moduleNotFound;
    }
    return result;
}

static bool WaitForAsync(IVssAsync *async, const char *what)
{
    if (async == nullptr) {
        return false;
    }
    const HRESULT wait = async->Wait(INFINITE);
    HRESULT status = E_FAIL;
    const HRESULT queried = async->QueryStatus(&status, nullptr);
    async->Release();
    if (SUCCEEDED(wait) && SUCCEEDED(queried) && status == VSS_S_ASYNC_FINISHED) {
        return true;
    }
    printf("    %s did not complete successfully (wait=0x%08lX, status=0x%08lX)\n", what, ForPrinting(wait),
           ForPrinting(status));
    return false;
}

static std::vector<ShadowRange> AbandonSnapshots(const char *what, HRESULT value)
{
    printf("  --vss: %s (0x%08lX) - reading live instead (crash-consistent only).\n", what, ForPrinting(value));
    CloseSnapshots(false);
    return {};
}

static Setback StartCom()
{
    HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(result)) {
        return {"CoInitializeEx failed", result};
    }
    snapshotRequester.comInitialized = true;
    result = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_PKT_PRIVACY,
                                  RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
    if (FAILED(result) && result != RPC_E_TOO_LATE) {
        return {"CoInitializeSecurity failed", result};
    }
    return noSetback;
}

static Setback StartBackup()
{
    HRESULT result = CreateBackupComponents(&snapshotRequester.components);
    if (FAILED(result) || snapshotRequester.components == nullptr) {
        return {"VSS is not available here (CreateVssBackupComponents)", result};
    }
    result = snapshotRequester.components->InitializeForBackup(nullptr);
    if (FAILED(result)) {
        return {"InitializeForBackup failed", result};
    }
    result = snapshotRequester.components->SetContext(VSS_CTX_BACKUP);
    if (FAILED(result)) {
        return {"SetContext failed", result};
    }
    result = snapshotRequester.components->SetBackupState(false, true, VSS_BT_COPY, false);
    if (FAILED(result)) {
        return {"SetBackupState failed", result};
    }
    return noSetback;
}

// Where the call went well and the wait did not, the value of the setback is the call's own success.
static Setback StartSnapshotSet()
{
    printf("  --vss: gathering writer metadata...\n");
    IVssAsync *async = nullptr;
    HRESULT result = snapshotRequester.components->GatherWriterMetadata(&async);
    if (FAILED(result) || !WaitForAsync(async, "GatherWriterMetadata")) {
        return {"GatherWriterMetadata failed", result};
    }
    result = snapshotRequester.components->StartSnapshotSet(&snapshotRequester.snapshotSetId);
    if (FAILED(result)) {
        return {"StartSnapshotSet failed", result};
    }
    return noSetback;
}

static bool AddVolume(VolumeExtent &extent, VSS_ID *snapshotId)
{
    BOOL supported = FALSE;
    HRESULT result = snapshotRequester.components->IsVolumeSupported(GUID_NULL, extent.volumeName.data(), &supported);
    if (FAILED(result) || !supported) {
        printf("  --vss: volume %ls can't be snapshotted (removable/unsupported) - it will be read live.\n",
               extent.devicePath.c_str());
        return false;
    }
    result = snapshotRequester.components->AddToSnapshotSet(extent.volumeName.data(), GUID_NULL, snapshotId);
    if (FAILED(result)) {
        printf("  --vss: could not add volume %ls to the snapshot set (0x%08lX) - read live.\n",
               extent.devicePath.c_str(), ForPrinting(result));
        return false;
    }
    return true;
}

static std::vector<SnapshotVolume> AddVolumes(uint32_t diskNumber)
{
    std::vector<SnapshotVolume> volumes;
    for (VolumeExtent &extent : EnumerateVolumesOnDisk(diskNumber)) {
        VSS_ID snapshotId = GUID_NULL;
        if (AddVolume(extent, &snapshotId)) {
            volumes.push_back({extent, snapshotId});
            printf("  --vss: snapshotting volume %ls (disk offset %llu, %.2f GiB) ...\n", extent.devicePath.c_str(),
                   static_cast<unsigned long long>(extent.diskOffset), ToGiB(extent.diskEnd - extent.diskOffset));
        }
    }
    return volumes;
}

static Setback FreezeVolumes()
{
    printf("  --vss: asking writers to prepare and freeze...\n");
    IVssAsync *async = nullptr;
    HRESULT result = snapshotRequester.components->PrepareForBackup(&async);
    if (FAILED(result) || !WaitForAsync(async, "PrepareForBackup")) {
        return {"PrepareForBackup failed", result};
    }
    async = nullptr;
    result = snapshotRequester.components->DoSnapshotSet(&async);
    if (FAILED(result) || !WaitForAsync(async, "DoSnapshotSet")) {
        return {"DoSnapshotSet failed", result};
    }
    snapshotRequester.snapshotsCreated = true;
    return noSetback;
}

// True if the writer reported a failure of its own.
static bool ReportWriter(UINT writer)
{
    VSS_ID instance = GUID_NULL;
    VSS_ID writerId = GUID_NULL;
    BSTR name = nullptr;
    VSS_WRITER_STATE state = VSS_WS_UNKNOWN;
    HRESULT failure = S_OK;
    if (FAILED(snapshotRequester.components->GetWriterStatus(writer, &instance, &writerId, &name, &state, &failure))) {
        return false;
    }
    const bool failed = state >= VSS_WS_FAILED_AT_IDENTIFY && state <= VSS_WS_FAILED_AT_BACKUPSHUTDOWN;
    if (failed) {
        printf("    WARNING: VSS writer '%ls' failed (state %d, hr=0x%08lX) - that application's data is "
               "crash-consistent only.\n",
               name != nullptr ? name : L"?", static_cast<int>(state), ForPrinting(failure));
    }
    SysFreeString(name);
    return failed;
}

// Decides nothing: whatever it finds, the snapshots stand.
static void ReportWriterStatus()
{
    IVssAsync *async = nullptr;
    if (FAILED(snapshotRequester.components->GatherWriterStatus(&async)) ||
        !WaitForAsync(async, "GatherWriterStatus")) {
        return;
    }
    UINT writers = 0;
    if (FAILED(snapshotRequester.components->GetWriterStatusCount(&writers))) {
        return;
    }
    unsigned int failed = 0;
    for (UINT writer = 0; writer < writers; ++writer) {
        failed += ReportWriter(writer) ? 1 : 0;
    }
    snapshotRequester.components->FreeWriterStatus();
    printf("  --vss: %u VSS writer(s) reported, %u failed.\n", writers, failed);
}

// A device's name as the service gives it is an object path, which opens only through the global root.
static std::wstring ToShadowDevicePath(const std::wstring &name)
{
    constexpr std::wstring_view objectPrefix = L"\\Device\\";
    return name.compare(0, objectPrefix.size(), objectPrefix) == 0 ? L"\\\\?\\GLOBALROOT" + name : name;
}

static_assert(sizeof(VSS_ID) == 16 && sizeof(VSS_SNAPSHOT_PROP) == 128);

// INVALID_HANDLE_VALUE if the volume has to be read live.
static HANDLE OpenShadowDevice(const SnapshotVolume &volume)
{
    VSS_SNAPSHOT_PROP properties = {};
    const HRESULT result = snapshotRequester.components->GetSnapshotProperties(volume.snapshotId, &properties);
    if (FAILED(result)) {
        printf("  --vss: GetSnapshotProperties failed for %ls (0x%08lX) - read live.\n",
               volume.extent.devicePath.c_str(), ForPrinting(result));
        return INVALID_HANDLE_VALUE;
    }
    const wchar_t *deviceName = properties.m_pwszSnapshotDeviceObject;
    const std::wstring device = deviceName != nullptr ? deviceName : L"";
    VssFreeSnapshotProperties(&properties);
    const std::wstring path = ToShadowDevicePath(device);
    const HANDLE shadow = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_NO_BUFFERING, nullptr);
    if (shadow == INVALID_HANDLE_VALUE) {
        const DWORD lastError = GetLastError();
        printf("  --vss: could not open shadow device %ls (GetLastError=%lu) - read live.\n", path.c_str(),
               static_cast<unsigned long>(lastError));
    }
    return shadow;
}

static std::vector<ShadowRange> OpenShadowDevices(const std::vector<SnapshotVolume> &volumes)
{
    std::vector<ShadowRange> ranges;
    for (const SnapshotVolume &volume : volumes) {
        const HANDLE shadow = OpenShadowDevice(volume);
        if (shadow != INVALID_HANDLE_VALUE) {
            snapshotRequester.shadowHandles.push_back(shadow);
            ranges.push_back({volume.extent.diskOffset, volume.extent.diskEnd, shadow});
        }
    }
    std::sort(ranges.begin(), ranges.end(),
              [](const ShadowRange &left, const ShadowRange &right) { return left.diskOffset < right.diskOffset; });
    return ranges;
}

static void RegisterExitHook()
{
    if (!snapshotRequester.exitHookRegistered) {
        atexit(CloseSnapshotsAtExit);
        snapshotRequester.exitHookRegistered = true;
    }
}

std::vector<ShadowRange> OpenSnapshots(uint32_t diskNumber)
{
    RegisterExitHook();
    for (const auto step : {StartCom, StartBackup, StartSnapshotSet}) {
        const Setback setback = step();
        if (setback.label != nullptr) {
            return AbandonSnapshots(setback.label, setback.value);
        }
    }
    const std::vector<SnapshotVolume> volumes = AddVolumes(diskNumber);
    if (volumes.empty()) {
        return AbandonSnapshots("no volume on this disk could be snapshotted", 1);
    }
    const Setback setback = FreezeVolumes();
    if (setback.label != nullptr) {
        return AbandonSnapshots(setback.label, setback.value);
    }
    ReportWriterStatus();
    std::vector<ShadowRange> ranges = OpenShadowDevices(volumes);
    printf("  --vss: %zu volume(s) snapshotted via IVssBackupComponents; anything outside those ranges (partition "
           "tables, unpartitioned space) reads live.\n",
           ranges.size());
    return ranges;
}

static void EndBackup(bool captureSucceeded)
{
    if (!captureSucceeded) {
        snapshotRequester.components->AbortBackup();
        return;
    }
    IVssAsync *async = nullptr;
    if (FAILED(snapshotRequester.components->BackupComplete(&async))) {
        snapshotRequester.components->AbortBackup();
        return;
    }
    WaitForAsync(async, "BackupComplete");
}

static void DeleteSnapshotSet()
{
    LONG deleted = 0;
    VSS_ID nondeletedId = GUID_NULL;
    const HRESULT result = snapshotRequester.components->DeleteSnapshots(
        snapshotRequester.snapshotSetId, VSS_OBJECT_SNAPSHOT_SET, TRUE, &deleted, &nondeletedId);
    if (FAILED(result) && result != VSS_E_OBJECT_NOT_FOUND) {
        printf("  --vss: WARNING: could not delete the snapshot set (0x%08lX) - it is still listed under "
               "Win32_ShadowCopy and must be removed by hand.\n",
               ForPrinting(result));
    }
}

void CloseSnapshots(bool captureSucceeded)
{
    for (const HANDLE shadow : snapshotRequester.shadowHandles) {
        CloseHandle(shadow);
    }
    snapshotRequester.shadowHandles.clear();
    if (snapshotRequester.components != nullptr) {
        if (snapshotRequester.snapshotsCreated) {
            EndBackup(captureSucceeded);
            DeleteSnapshotSet();
        }
        snapshotRequester.components->Release();
        snapshotRequester.components = nullptr;
        snapshotRequester.snapshotsCreated = false;
    }
    if (snapshotRequester.comInitialized) {
        CoUninitialize();
        snapshotRequester.comInitialized = false;
    }
}

void CloseSnapshotsAtExit()
{
    CloseSnapshots(false);
}
