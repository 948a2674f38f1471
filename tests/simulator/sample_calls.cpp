// Calls the published API as any program would; see the header.
#include "simulator/sample_calls.h"

#include <windows.h>

#include <bcrypt.h>
#include <winioctl.h>

#include <vss.h>
#include <vswriter.h>

#include <vsbackup.h>

#include <cstdlib>

namespace
{
HANDLE OpenSampleDisk()
{
    return CreateFileW(L"\\\\.\\PhysicalDrive0", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
}

HANDLE CreateOrdinaryFile()
{
    return CreateFileW(L"sample", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

FILE *OpenStream()
{
    CloseHandle(CreateOrdinaryFile());
    FILE *stream = nullptr;
    return fopen_s(&stream, "sample", "rb") == 0 ? stream : nullptr;
}

BCRYPT_ALG_HANDLE OpenProvider(LPCWSTR id, ULONG flags = 0)
{
    BCRYPT_ALG_HANDLE provider = nullptr;
    BCryptOpenAlgorithmProvider(&provider, id, nullptr, flags);
    return provider;
}

void HashSomething()
{
    UCHAR memory[4096] = {};
    UCHAR digest[32] = {};
    ULONG length = 0;
    ULONG count = 0;
    BCRYPT_HASH_HANDLE hash = nullptr;
    const BCRYPT_ALG_HANDLE provider = OpenProvider(BCRYPT_SHA256_ALGORITHM);
    BCryptGetProperty(provider, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&length), sizeof(length), &count, 0);
    BCryptCreateHash(provider, &hash, memory, length, nullptr, 0, 0);
    BCryptHashData(hash, digest, sizeof(digest), 0);
    BCryptFinishHash(hash, digest, sizeof(digest), 0);
    BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(provider, 0);
}

void SealSomething()
{
    UCHAR memory[4096] = {};
    UCHAR secret[32] = {};
    UCHAR plain[64] = {};
    UCHAR cipher[64] = {};
    UCHAR nonce[12] = {};
    UCHAR tag[16] = {};
    ULONG length = 0;
    ULONG count = 0;
    const auto *mode = reinterpret_cast<const UCHAR *>(BCRYPT_CHAIN_MODE_GCM);
    BCRYPT_KEY_HANDLE key = nullptr;
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = {};
    info.cbSize = sizeof(info);
    info.dwInfoVersion = BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO_VERSION;
    info.pbNonce = nonce;
    info.cbNonce = sizeof(nonce);
    info.pbTag = tag;
    info.cbTag = sizeof(tag);
    const BCRYPT_ALG_HANDLE provider = OpenProvider(BCRYPT_AES_ALGORITHM);
    BCryptSetProperty(provider, BCRYPT_CHAINING_MODE, const_cast<PUCHAR>(mode), sizeof(BCRYPT_CHAIN_MODE_GCM), 0);
    BCryptGetProperty(provider, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&length), sizeof(length), &count, 0);
    BCryptGenerateSymmetricKey(provider, &key, memory, length, secret, sizeof(secret), 0);
    BCryptEncrypt(key, plain, sizeof(plain), &info, nullptr, 0, cipher, sizeof(cipher), &count, 0);
    BCryptDecrypt(key, cipher, sizeof(cipher), &info, nullptr, 0, plain, sizeof(plain), &count, 0);
    BCryptDestroyKey(key);
    BCryptCloseAlgorithmProvider(provider, 0);
}

void DeriveSomething()
{
    UCHAR password[1] = {'p'};
    UCHAR salt[16] = {};
    UCHAR derived[32] = {};
    const BCRYPT_ALG_HANDLE provider = OpenProvider(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    BCryptDeriveKeyPBKDF2(provider, password, sizeof(password), salt, sizeof(salt), 2, derived, sizeof(derived), 0);
    BCryptCloseAlgorithmProvider(provider, 0);
}

void DrawSomething()
{
    UCHAR random[12] = {};
    const BCRYPT_ALG_HANDLE provider = OpenProvider(BCRYPT_RNG_ALGORITHM);
    BCryptGenRandom(provider, random, sizeof(random), 0);
    BCryptCloseAlgorithmProvider(provider, 0);
}

void TransferSomething()
{
    char sector[512] = {};
    DWORD count = 0;
    LARGE_INTEGER start = {};
    const HANDLE disk = OpenSampleDisk();
    SetFilePointerEx(disk, start, nullptr, FILE_BEGIN);
    ReadFile(disk, sector, sizeof(sector), &count, nullptr);
    SetFilePointerEx(disk, start, nullptr, FILE_BEGIN);
    WriteFile(disk, sector, sizeof(sector), &count, nullptr);
    CloseHandle(disk);
}

void AskForLengths()
{
    GET_LENGTH_INFORMATION length = {};
    LARGE_INTEGER size = {};
    DWORD count = 0;
    const HANDLE disk = OpenSampleDisk();
    DeviceIoControl(disk, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof(length), &count, nullptr);
    CloseHandle(disk);
    const HANDLE file = CreateOrdinaryFile();
    GetFileSizeEx(file, &size);
    CloseHandle(file);
}

void ReadAStream()
{
    char text[16];
    FILE *stream = OpenStream();
    const size_t count = fread(text, 1, sizeof(text), stream);
    printf("%u", static_cast<unsigned>(count));
    fclose(stream);
}

void UseMemory()
{
    _aligned_free(_aligned_malloc(4096, 512));
    void *volatile zeros = calloc(3, 72); // volatile, so that no compiler leaves the pair out
    free(zeros);
}

void SearchVolumes()
{
    wchar_t name[260];
    const HANDLE search = FindFirstVolumeW(name, 260);
    FindNextVolumeW(search, name, 260);
    FindVolumeClose(search);
}

// Finishes the operation that a call began.
void Finish(IVssAsync *async)
{
    HRESULT status = E_FAIL;
    async->Wait(INFINITE);
    async->QueryStatus(&status, nullptr);
    async->Release();
}

void ReadProperties(IVssBackupComponents *components, VSS_ID snapshot)
{
    VSS_SNAPSHOT_PROP properties = {};
    components->GetSnapshotProperties(snapshot, &properties);
    VssFreeSnapshotProperties(&properties);
}

void ReadAWriter(IVssBackupComponents *components)
{
    IVssAsync *async = nullptr;
    UINT writers = 0;
    VSS_ID instance = {};
    VSS_ID writer = {};
    BSTR name = nullptr;
    VSS_WRITER_STATE state = VSS_WS_UNKNOWN;
    HRESULT failure = S_OK;
    components->GatherWriterStatus(&async);
    Finish(async);
    components->GetWriterStatusCount(&writers);
    components->GetWriterStatus(writers - 1, &instance, &writer, &name, &state, &failure);
    SysFreeString(name);
    components->FreeWriterStatus();
}

void SnapshotTheFirstVolume(IVssBackupComponents *components)
{
    wchar_t volume[260];
    IVssAsync *async = nullptr;
    BOOL supported = FALSE;
    VSS_ID set = {};
    VSS_ID snapshot = {};
    LONG deleted = 0;
    VSS_ID nondeleted = {};
    FindVolumeClose(FindFirstVolumeW(volume, 260));
    components->GatherWriterMetadata(&async);
    Finish(async);
    components->StartSnapshotSet(&set);
    components->IsVolumeSupported(GUID_NULL, volume, &supported);
    components->AddToSnapshotSet(volume, GUID_NULL, &snapshot);
    components->PrepareForBackup(&async);
    Finish(async);
    components->DoSnapshotSet(&async);
    Finish(async);
    ReadAWriter(components);
    ReadProperties(components, snapshot);
    components->BackupComplete(&async);
    Finish(async);
    components->DeleteSnapshots(set, VSS_OBJECT_SNAPSHOT_SET, TRUE, &deleted, &nondeleted);
}

void BackUp()
{
    IVssBackupComponents *components = nullptr;
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_PKT_PRIVACY, RPC_C_IMP_LEVEL_IMPERSONATE,
                         nullptr, EOAC_NONE, nullptr);
    CreateVssBackupComponents(&components);
    components->InitializeForBackup(nullptr);
    components->SetContext(VSS_CTX_BACKUP);
    components->SetBackupState(false, true, VSS_BT_COPY, false);
    SnapshotTheFirstVolume(components);
    components->Release();
    CoUninitialize();
}

void Nothing() {}
} // namespace

std::map<std::string, std::function<void()>> SampleCalls()
{
    return {
        {"CreateFileW", [] { CloseHandle(OpenSampleDisk()); }},
        {"ReadFile", TransferSomething},
        {"WriteFile", TransferSomething},
        {"SetFilePointerEx", TransferSomething},
        {"GetFileSizeEx", AskForLengths},
        {"GetFileAttributesA", [] { GetFileAttributesA("sample"); }},
        {"CloseHandle", [] { CloseHandle(OpenSampleDisk()); }},
        {"DeviceIoControl", AskForLengths},
        {"GetLastError", [] { GetLastError(); }},
        {"GetTickCount64", [] { GetTickCount64(); }},
        {"FindFirstVolumeW", SearchVolumes},
        {"FindNextVolumeW", SearchVolumes},
        {"FindVolumeClose", SearchVolumes},
        {"CoInitializeEx", BackUp},
        {"CoInitializeSecurity", BackUp},
        {"CoUninitialize", BackUp},
        {"SysFreeString", BackUp},
        {"CreateVssBackupComponentsInternal", BackUp},
        {"VssFreeSnapshotPropertiesInternal", BackUp},
        {"BCryptOpenAlgorithmProvider", HashSomething},
        {"BCryptCloseAlgorithmProvider", HashSomething},
        {"BCryptSetProperty", SealSomething},
        {"BCryptGetProperty", HashSomething},
        {"BCryptCreateHash", HashSomething},
        {"BCryptHashData", HashSomething},
        {"BCryptFinishHash", HashSomething},
        {"BCryptDestroyHash", HashSomething},
        {"BCryptDeriveKeyPBKDF2", DeriveSomething},
        {"BCryptGenerateSymmetricKey", SealSomething},
        {"BCryptDestroyKey", SealSomething},
        {"BCryptEncrypt", SealSomething},
        {"BCryptDecrypt", SealSomething},
        {"BCryptGenRandom", DrawSomething},
        {"_aligned_malloc", UseMemory},
        {"_aligned_free", UseMemory},
        {"_fullpath",
         [] {
             char path[_MAX_PATH];
             _fullpath(path, "sample", sizeof(path));
         }},
        {"fopen_s", ReadAStream},
        {"fread", ReadAStream},
        {"fclose", ReadAStream},
        {"calloc", UseMemory},
        {"exit", [] { exit(1); }},
        {"atexit", [] { atexit(Nothing); }},
    };
}

void EndWithStatus(int status)
{
    exit(status);
}
