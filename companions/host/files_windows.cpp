// Files read at an offset, over the Windows API.
//
// An audit is to meet the medium: files are opened without buffering, and what is asked for is read in whole blocks
// around it. One handle serves one read at a time; a thread that wants to read beside another opens its own.
#include "host/open_handle_windows.h"

#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

namespace host
{

static constexpr size_t blockBufferBytes = size_t{1} << 20;
static constexpr size_t largestRead = size_t{1} << 30;
static constexpr size_t pageBytes = 4096;

std::wstring Widen(const std::string &text)
{
    const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
    return wide;
}

std::string Narrow(const wchar_t *text)
{
    const auto units = static_cast<int>(wcslen(text));
    const int length = WideCharToMultiByte(CP_UTF8, 0, text, units, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, units, narrow.data(), length, nullptr, nullptr);
    return narrow;
}

std::string SystemText(DWORD error)
{
    wchar_t words[512] = {};
    FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error, 0, words,
                   sizeof(words) / sizeof(words[0]), nullptr);
    std::string text = Narrow(words);
    text.erase(text.find_last_not_of("\r\n. ") + 1);
    return text + (text.empty() ? "error " : " (error ") + std::to_string(error) + (text.empty() ? "" : ")");
}

bool IsLackOfMemory(DWORD error)
{
    return error == ERROR_NOT_ENOUGH_MEMORY || error == ERROR_OUTOFMEMORY || error == ERROR_NO_SYSTEM_RESOURCES ||
           error == ERROR_COMMITMENT_LIMIT;
}

void CloseOpenHandle::operator()(OpenHandle *handle) const
{
    if (handle->file != INVALID_HANDLE_VALUE) {
        CloseHandle(handle->file);
    }
    delete handle;
}

void FreePages::operator()(uint8_t *pages) const
{
    _aligned_free(pages);
}

Pages MakePages(size_t byteCount)
{
    void *pages = _aligned_malloc(std::max(byteCount, pageBytes), pageBytes);
    if (pages == nullptr) {
        throw std::bad_alloc();
    }
    return Pages(static_cast<uint8_t *>(pages));
}

static FileIdentity IdentityOfFile(const BY_HANDLE_FILE_INFORMATION &facts)
{
    return {facts.dwVolumeSerialNumber, uint64_t{facts.nFileIndexHigh} << 32 | facts.nFileIndexLow};
}

Trouble OpenFileToRead(const std::string &path, Caching caching, Source *source)
{
    BY_HANDLE_FILE_INFORMATION facts = {};
    source->handle.reset(new OpenHandle);
    OpenHandle &handle = *source->handle;
    handle.isUnbuffered = caching == Caching::Medium;
    handle.file = CreateFileW(Widen(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              handle.isUnbuffered ? FILE_FLAG_NO_BUFFERING : FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle.file == INVALID_HANDLE_VALUE || !GetFileInformationByHandle(handle.file, &facts)) {
        const DWORD error = GetLastError();
        return error == ERROR_SHARING_VIOLATION ? beingWritten : SystemText(error);
    }
    if (GetFileType(handle.file) != FILE_TYPE_DISK || (facts.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        return "it is no ordinary file";
    }
    source->sizeBytes = uint64_t{facts.nFileSizeHigh} << 32 | facts.nFileSizeLow;
    source->identity = IdentityOfFile(facts);
    return {};
}

Trouble OpenAgain(const Source &source, Source *again)
{
    const OpenHandle &first = *source.handle;
    again->handle.reset(new OpenHandle);
    OpenHandle &handle = *again->handle;
    handle.isUnbuffered = first.isUnbuffered;
    handle.blockBytes = first.blockBytes;
    handle.isDisk = first.isDisk;
    handle.file = ReOpenFile(first.file, GENERIC_READ, FILE_SHARE_READ | (first.isDisk ? FILE_SHARE_WRITE : 0),
                             handle.isUnbuffered ? FILE_FLAG_NO_BUFFERING : 0);
    if (handle.file == INVALID_HANDLE_VALUE && !DuplicateHandle(GetCurrentProcess(), first.file, GetCurrentProcess(),
                                                                &handle.file, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
        return SystemText(GetLastError());
    }
    again->sizeBytes = source.sizeBytes;
    again->sectorBytes = source.sectorBytes;
    again->identity = source.identity;
    return {};
}

// What a read that failed says. A lack of memory is ours, and not the medium's.
static std::string TextOfFailedRead(DWORD error)
{
    if (IsLackOfMemory(error)) {
        throw std::bad_alloc();
    }
    return SystemText(error);
}

// One read of at most byteCount bytes, at its own offset: two handles of one file may share a position.
static Trouble ReadOnce(HANDLE file, uint64_t offsetBytes, void *buffer, size_t byteCount, size_t *bytesRead)
{
    DWORD moved = 0;
    OVERLAPPED place = {};
    place.Offset = static_cast<DWORD>(offsetBytes);
    place.OffsetHigh = static_cast<DWORD>(offsetBytes >> 32);
    if (!ReadFile(file, buffer, static_cast<DWORD>(std::min(byteCount, largestRead)), &moved, &place)) {
        const DWORD error = GetLastError();
        if (error != ERROR_HANDLE_EOF) {
            return TextOfFailedRead(error);
        }
    }
    *bytesRead = moved;
    return {};
}

// The same on a disk, which has a handle of its own in every thread.
static Trouble ReadDiskOnce(HANDLE disk, uint64_t offsetBytes, void *buffer, size_t byteCount, size_t *bytesRead)
{
    DWORD moved = 0;
    LARGE_INTEGER place;
    place.QuadPart = static_cast<LONGLONG>(offsetBytes);
    if (!SetFilePointerEx(disk, place, nullptr, FILE_BEGIN) ||
        !ReadFile(disk, buffer, static_cast<DWORD>(std::min(byteCount, largestRead)), &moved, nullptr)) {
        return TextOfFailedRead(GetLastError());
    }
    *bytesRead = moved;
    return {};
}

Trouble ReadAt(const Source &source, uint64_t offsetBytes, void *buffer, size_t byteCount)
{
    if (offsetBytes > source.sizeBytes || byteCount > source.sizeBytes - offsetBytes) {
        return "it ends before";
    }
    OpenHandle &handle = *source.handle;
    const std::lock_guard<std::mutex> lock(handle.mutex);
    auto *bytes = static_cast<uint8_t *>(buffer);
    while (byteCount != 0) {
        const bool isAligned =
            !handle.isUnbuffered || (offsetBytes % handle.blockBytes == 0 && byteCount % handle.blockBytes == 0 &&
                                     reinterpret_cast<uintptr_t>(bytes) % pageBytes == 0);
        if (!isAligned && handle.block == nullptr) {
            handle.block = MakePages(blockBufferBytes);
        }
        const size_t skipped = isAligned ? 0 : static_cast<size_t>(offsetBytes % handle.blockBytes);
        const size_t wanted = (skipped + byteCount + handle.blockBytes - 1) / handle.blockBytes * handle.blockBytes;
        const size_t piece =
            isAligned ? byteCount : std::min(wanted, blockBufferBytes - blockBufferBytes % handle.blockBytes);
        uint8_t *target = isAligned ? bytes : handle.block.get();
        size_t moved = 0;
        if (const Trouble trouble =
                (handle.isDisk ? ReadDiskOnce : ReadOnce)(handle.file, offsetBytes - skipped, target, piece, &moved)) {
            return trouble;
        }
        if (moved <= skipped) {
            return "it ends there";
        }
        const size_t taken = std::min(byteCount, moved - skipped);
        if (!isAligned) {
            memcpy(bytes, target + skipped, taken);
        }
        offsetBytes += taken;
        bytes += taken;
        byteCount -= taken;
    }
    return {};
}

void Announce(const Source & /*source*/, uint64_t /*offsetBytes*/, uint64_t /*byteCount*/) {}

bool IsGone(const Source &source)
{
    uint8_t first = 0;
    return source.sizeBytes != 0 && ReadAt(source, 0, &first, sizeof(first)).has_value();
}

Trouble IdentityOf(const std::string &path, FileIdentity *identity)
{
    const std::unique_ptr<OpenHandle, CloseOpenHandle> handle(new OpenHandle);
    BY_HANDLE_FILE_INFORMATION facts = {};
    handle->file = CreateFileW(Widen(path).c_str(), FILE_READ_ATTRIBUTES,
                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                               FILE_FLAG_BACKUP_SEMANTICS, nullptr); // which a folder can't be opened without
    if (handle->file == INVALID_HANDLE_VALUE || !GetFileInformationByHandle(handle->file, &facts)) {
        return SystemText(GetLastError());
    }
    *identity = IdentityOfFile(facts);
    return {};
}

Trouble ListFiles(const std::string &folder, std::vector<std::string> *names)
{
    WIN32_FIND_DATAW entry = {};
    const HANDLE listing = FindFirstFileW((Widen(folder) + L"\\*").c_str(), &entry);
    if (listing == INVALID_HANDLE_VALUE) {
        return SystemText(GetLastError());
    }
    DWORD error = 0;
    do {
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
            names->push_back(Narrow(entry.cFileName));
        }
    } while (FindNextFileW(listing, &entry) || (error = GetLastError()) == 0);
    FindClose(listing);
    if (error != ERROR_NO_MORE_FILES) {
        return SystemText(error);
    }
    std::sort(names->begin(), names->end());
    return {};
}

// kestrix asks whether the name exists in the code page of the system, and opens what its bytes are with their sign as
// units of 16 bits. The two agree on ASCII alone.
BasePlace FindBase(const std::string &imagePath, const std::string &baseName)
{
    const std::wstring folder = Widen(FolderOf(imagePath));
    const std::string name = baseName.substr(0, baseName.find('\0')); // which ends it
    std::wstring asked(name.size(), L'\0');
    const int length = MultiByteToWideChar(CP_ACP, 0, name.data(), static_cast<int>(name.size()), asked.data(),
                                           static_cast<int>(asked.size()));
    asked.resize(static_cast<size_t>(length));
    std::wstring opened;
    for (const char byte : name) {
        opened.push_back(static_cast<wchar_t>(static_cast<signed char>(byte)));
    }
    BasePlace place;
    place.path = Narrow((folder + opened).c_str());
    place.exists = GetFileAttributesW((folder + asked).c_str()) != INVALID_FILE_ATTRIBUTES;
    return place;
}

Trouble ReadSmallFile(const std::string &path, std::string *content)
{
    FILE *file = nullptr;
    if (_wfopen_s(&file, Widen(path).c_str(), L"rb") != 0 || file == nullptr) {
        return SystemText(GetLastError());
    }
    char block[256];
    size_t bytesRead = 0;
    while (content->size() <= mostSmallBytes && (bytesRead = fread(block, 1, sizeof(block), file)) != 0) {
        content->append(block, bytesRead);
    }
    const DWORD error = GetLastError();
    const bool isUnread = ferror(file) != 0;
    fclose(file);
    return isUnread ? Trouble(SystemText(error)) : content->size() > mostSmallBytes ? Trouble(tooLargeText) : Trouble();
}

} // namespace host
