// The part of the published <windows.h>, and of the C run-time's own additions, that Kestrix uses: the types at their
// published sizes, the constants at their published values, and the calls that platform/linux holds.
//
// WCHAR is the C++ wchar_t of this platform, 32 bits wide; a path unit carries one byte of the user's path, widened
// with its sign, and the calls take the byte back out of it. A failed call leaves its Windows error number for
// GetLastError, which belongs to the calling thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

typedef int BOOL;
typedef unsigned char BYTE;
typedef unsigned char UCHAR;
typedef UCHAR *PUCHAR;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef DWORD *LPDWORD;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef unsigned int UINT;
typedef int INT;
typedef long long LONGLONG;
typedef unsigned long long ULONGLONG;
typedef intptr_t LONG_PTR;
typedef void *LPVOID;
typedef const void *LPCVOID;
typedef void *HANDLE;
typedef char CHAR;
typedef const CHAR *LPCSTR;
typedef wchar_t WCHAR;
typedef WCHAR *LPWSTR;
typedef const WCHAR *LPCWSTR;

typedef union _LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef struct _SECURITY_ATTRIBUTES SECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;
typedef struct _OVERLAPPED OVERLAPPED, *LPOVERLAPPED;

#define FALSE 0
#define TRUE 1

#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)))

#define GENERIC_READ 0x80000000U
#define GENERIC_WRITE 0x40000000U

#define FILE_SHARE_READ 0x00000001U
#define FILE_SHARE_WRITE 0x00000002U

#define CREATE_NEW 1U
#define CREATE_ALWAYS 2U
#define OPEN_EXISTING 3U

#define FILE_ATTRIBUTE_DIRECTORY 0x00000010U
#define FILE_ATTRIBUTE_NORMAL 0x00000080U
#define FILE_FLAG_NO_BUFFERING 0x20000000U
#define INVALID_FILE_ATTRIBUTES 0xFFFFFFFFU

#define FILE_BEGIN 0U

#define INFINITE 0xFFFFFFFFU

#define ERROR_SUCCESS 0U
#define ERROR_FILE_NOT_FOUND 2U
#define ERROR_PATH_NOT_FOUND 3U
#define ERROR_TOO_MANY_OPEN_FILES 4U
#define ERROR_ACCESS_DENIED 5U
#define ERROR_INVALID_HANDLE 6U
#define ERROR_NOT_ENOUGH_MEMORY 8U
#define ERROR_WRITE_PROTECT 19U
#define ERROR_CRC 23U
#define ERROR_SHARING_VIOLATION 32U
#define ERROR_NOT_SUPPORTED 50U
#define ERROR_FILE_EXISTS 80U
#define ERROR_INVALID_PARAMETER 87U
#define ERROR_DISK_FULL 112U
#define ERROR_ALREADY_EXISTS 183U
#define ERROR_IO_DEVICE 1117U

extern "C" {

// Opens or creates what fileName names: a device (\\.\NAME), else a file. access, share, disposition and flags are
// honoured in the combinations that Kestrix passes, any other is refused with ERROR_INVALID_PARAMETER. security and
// templateFile are null. The handle is the caller's, to be closed with CloseHandle; INVALID_HANDLE_VALUE on failure.
HANDLE CreateFileW(LPCWSTR fileName, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                   DWORD flags, HANDLE templateFile);

// Reads up to byteCount bytes at the handle's position and moves it. Short only at the end of the file or device. FALSE
// on failure, *bytesRead then says how many bytes had arrived. overlapped is null.
BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD byteCount, LPDWORD bytesRead, LPOVERLAPPED overlapped);

// Writes byteCount bytes at the handle's position and moves it. FALSE on failure, *bytesWritten then says how many
// bytes had gone out. overlapped is null.
BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD byteCount, LPDWORD bytesWritten, LPOVERLAPPED overlapped);

// Sets the handle's position to distance bytes from the start; method is FILE_BEGIN. A position below 0 is refused.
BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, PLARGE_INTEGER newPosition, DWORD method);

// Stores the length in bytes of an ordinary file.
BOOL GetFileSizeEx(HANDLE file, PLARGE_INTEGER fileSize);

// Tells whether anything stands at path: its attributes, or INVALID_FILE_ATTRIBUTES.
DWORD GetFileAttributesA(LPCSTR path);

// Closes a handle of CreateFileW, once.
BOOL CloseHandle(HANDLE object);

// Sends one control code to a disk, a volume or a control device. bytesReturned may be null where nothing comes back.
BOOL DeviceIoControl(HANDLE device, DWORD controlCode, LPVOID input, DWORD inputLength, LPVOID output,
                     DWORD outputLength, LPDWORD bytesReturned, LPOVERLAPPED overlapped);

// Enumerates the volumes by name, each with its trailing backslash, into nameUnits units at name: the first gives the
// search handle or INVALID_HANDLE_VALUE, the next are told by TRUE, and the search is the caller's to close.
HANDLE FindFirstVolumeW(LPWSTR name, DWORD nameUnits);
BOOL FindNextVolumeW(HANDLE search, LPWSTR name, DWORD nameUnits);
BOOL FindVolumeClose(HANDLE search);

// The error number of this thread's last failed call.
DWORD GetLastError(void);

// Milliseconds of a clock that never goes back.
ULONGLONG GetTickCount64(void);

// The C run-time's additions, which its own headers declare on Windows.

#define _MAX_PATH 4096

// size bytes whose address is a multiple of alignment, to be released with _aligned_free; null without memory. An
// alignment that is no power of two ends the process abnormally.
void *_aligned_malloc(size_t size, size_t alignment);
void _aligned_free(void *block);

// Writes path, made absolute and tidy without following links or needing it to exist, into buffer of size bytes; null
// when it does not fit or there is no current folder.
char *_fullpath(char *buffer, const char *path, size_t size);

// Compares two strings without regard to the case of the letters A to Z: below, above or equal to 0.
int _stricmp(const char *left, const char *right);

// Opens a stream by narrow path: 0 and *stream, or an error number and null.
typedef int errno_t;
errno_t fopen_s(FILE **stream, const char *path, const char *mode);

} // extern "C"
