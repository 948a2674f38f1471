// What is asked of a handle or a path.
//
// Calls held here: GetFileSizeEx, GetFileAttributesA, DeviceIoControl.
#include "port.h"

#include <winioctl.h>

#include <cerrno>
#include <cstring>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

static constexpr DWORD insufficientBuffer = 122; // ERROR_INSUFFICIENT_BUFFER

extern "C" BOOL GetFileSizeEx(HANDLE file, PLARGE_INTEGER fileSize)
{
    const PortHandle *handle = HandleRecord(file);
    struct stat found = {};
    if (handle == nullptr) {
        return FALSE;
    }
    if (handle->kind != HandleKind::File || fstat(handle->descriptor, &found) != 0) {
        SetPortError(handle->kind != HandleKind::File ? ERROR_INVALID_PARAMETER : WindowsError(errno));
        return FALSE;
    }
    fileSize->QuadPart = found.st_size;
    return TRUE;
}

extern "C" DWORD GetFileAttributesA(LPCSTR path)
{
    struct stat found = {};
    if (stat(path, &found) != 0) {
        SetPortError(WindowsErrorOfPath(errno, path));
        return INVALID_FILE_ATTRIBUTES;
    }
    return S_ISDIR(found.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
}

static bool Answer(const void *answer, DWORD answerLength, void *output, DWORD outputLength, DWORD *bytesReturned)
{
    if (output == nullptr || outputLength < answerLength) {
        SetPortError(insufficientBuffer);
        return false;
    }
    memcpy(output, answer, answerLength);
    *bytesReturned = answerLength;
    return true;
}

bool HasGoneAway(const PortHandle &handle)
{
    uint64_t lengthBytes = 0;
    return handle.isBlockDevice && handle.lengthWhenOpened != 0 &&
           (ioctl(handle.descriptor, BLKGETSIZE64, &lengthBytes) != 0 || lengthBytes == 0);
}

bool LengthOfDisk(const PortHandle &handle, uint64_t *lengthBytes)
{
    struct stat file = {};
    const int result =
        handle.isBlockDevice ? ioctl(handle.descriptor, BLKGETSIZE64, lengthBytes) : fstat(handle.descriptor, &file);
    if (result != 0 || HasGoneAway(handle)) {
        SetPortError(result != 0 ? WindowsError(errno) : ERROR_IO_DEVICE);
        return false;
    }
    if (!handle.isBlockDevice) {
        *lengthBytes = static_cast<uint64_t>(file.st_size);
    }
    return true;
}

static bool AnswerLength(const PortHandle &handle, void *output, DWORD outputLength, DWORD *bytesReturned)
{
    GET_LENGTH_INFORMATION answer = {};
    uint64_t lengthBytes = 0;
    if (!LengthOfDisk(handle, &lengthBytes)) {
        return false;
    }
    answer.Length.QuadPart = static_cast<LONGLONG>(lengthBytes);
    return Answer(&answer, sizeof(answer), output, outputLength, bytesReturned);
}

static bool AnswerGeometry(const PortHandle &handle, void *output, DWORD outputLength, DWORD *bytesReturned)
{
    DISK_GEOMETRY_EX answer = {};
    uint64_t lengthBytes = 0;
    if (!LengthOfDisk(handle, &lengthBytes)) {
        return false;
    }
    answer.Geometry.BytesPerSector = handle.sectorBytes;
    answer.DiskSize.QuadPart = static_cast<LONGLONG>(lengthBytes);
    return Answer(&answer, sizeof(answer), output, outputLength, bytesReturned);
}

static bool ReadPartitionsAgain(const PortHandle &handle)
{
    if (handle.isBlockDevice && ioctl(handle.descriptor, BLKRRPART) != 0) {
        SetPortError(WindowsError(errno));
        return false;
    }
    return true;
}

static bool ControlDisk(const PortHandle &handle, DWORD controlCode, void *output, DWORD outputLength,
                        DWORD *bytesReturned)
{
    switch (controlCode) {
    case IOCTL_DISK_GET_LENGTH_INFO:
        return AnswerLength(handle, output, outputLength, bytesReturned);
    case IOCTL_DISK_GET_DRIVE_GEOMETRY_EX:
        return AnswerGeometry(handle, output, outputLength, bytesReturned);
    case IOCTL_DISK_UPDATE_PROPERTIES:
        return ReadPartitionsAgain(handle);
    default:
        SetPortError(ERROR_NOT_SUPPORTED);
        return false;
    }
}

static bool ControlVolume(const PortHandle &handle, DWORD controlCode, void *output, DWORD outputLength,
                          DWORD *bytesReturned)
{
    if (controlCode != IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS) {
        SetPortError(ERROR_NOT_SUPPORTED);
        return false;
    }
    VOLUME_DISK_EXTENTS answer = {};
    answer.NumberOfDiskExtents = 1;
    answer.Extents[0].DiskNumber = handle.diskNumber;
    answer.Extents[0].ExtentLength.QuadPart = static_cast<LONGLONG>(handle.lengthBytes);
    return Answer(&answer, sizeof(answer), output, outputLength, bytesReturned);
}

extern "C" BOOL DeviceIoControl(HANDLE device, DWORD controlCode, LPVOID input, DWORD inputLength, LPVOID output,
                                DWORD outputLength, LPDWORD bytesReturned, LPOVERLAPPED overlapped)
{
    PortHandle *handle = HandleRecord(device);
    if (handle == nullptr) {
        return FALSE;
    }
    DWORD unwantedCount = 0;
    DWORD *count = bytesReturned == nullptr ? &unwantedCount : bytesReturned;
    *count = 0;
    const bool takesInput = handle->kind == HandleKind::ControlDevice;
    if (overlapped != nullptr || handle->kind == HandleKind::File || (inputLength != 0 && !takesInput)) {
        SetPortError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (handle->kind == HandleKind::ControlDevice) {
        return ExchangeWithDevice(handle, controlCode, input, inputLength, output, outputLength, count);
    }
    const bool answered = handle->kind == HandleKind::Disk
                              ? ControlDisk(*handle, controlCode, output, outputLength, count)
                              : ControlVolume(*handle, controlCode, output, outputLength, count);
    return answered ? TRUE : FALSE;
}
