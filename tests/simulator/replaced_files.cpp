// Files and devices, the last error, the clock and the enumeration of volumes: the replacements.
#include "simulator/replacing.h"

#include <algorithm>

namespace
{
// ReadFile and WriteFile differ in nothing but the way that the bytes go: onDisk and onFile move them, no more than
// limit or length, and tell how many.
BOOL Transfer(const char *callName, HANDLE file, const void *buffer, DWORD byteCount, LPDWORD bytesMoved,
              const std::function<Outcome(Object &disk, uint64_t limit, DWORD *moved)> &onDisk,
              const std::function<BOOL(HANDLE real, DWORD length, DWORD *moved)> &onFile)
{
    const InSimulator inside;
    std::string name;
    Object *object = Held(file, Kind::File, &name);
    const uint64_t position = object != nullptr ? object->position : 0;
    Call call = MakeCall(callName, name, std::to_string(byteCount) + " at " + std::to_string(position));
    NoteBuffer(call, buffer, byteCount);
    call.fields["offset"] = position;
    DWORD moved = 0;
    const Outcome outcome = Perform(call, [&](uint64_t limit) -> Outcome {
        if (object == nullptr) {
            return BadHandle(call);
        }
        if (object->kind == Kind::Disk) {
            return onDisk(*object, limit, &moved);
        }
        if (object->kind != Kind::File) {
            return {false, 1, ""}; // ERROR_INVALID_FUNCTION
        }
        Outcome real = FromReal(onFile(object->real, static_cast<DWORD>(std::min<uint64_t>(byteCount, limit)), &moved));
        object->position += moved;
        real.result = std::to_string(moved);
        return real;
    });
    if (bytesMoved != nullptr) {
        *bytesMoved = moved;
    }
    return outcome.succeeded ? TRUE : FALSE;
}
} // namespace

extern "C" {

// Files and devices

HANDLE REPLACEMENT(CreateFileW)(LPCWSTR fileName, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                DWORD disposition, DWORD flags, HANDLE templateFile)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead
                   ? INVALID_HANDLE_VALUE
                   : REAL(CreateFileW)(fileName, access, share, security, disposition, flags, templateFile);
    }
    const InSimulator inside;
    const std::string path = Narrow(fileName);
    const bool isDevice = IsDevicePath(path);
    Call call = MakeCall("CreateFileW", isDevice ? DeviceObjectName(path) : "file:" + StablePath(path));
    call.text = StablePath(path) + Text(" access=0x%08X share=0x%X disposition=%u flags=0x%X", Unsigned(access),
                                        Unsigned(share), Unsigned(disposition), Unsigned(flags));
    call.fields = {{"access", access}, {"share", share}, {"disposition", disposition}, {"flags", flags}};
    call.fields["security"] = security != nullptr;
    call.fields["template"] = templateFile != nullptr;
    HANDLE handle = INVALID_HANDLE_VALUE;
    const Outcome outcome = Perform(call, [&](uint64_t) -> Outcome {
        if (isDevice) {
            return OpenDevice(path, access, share, disposition, flags, &handle);
        }
        const HANDLE real = REAL(CreateFileW)(fileName, access, share, security, disposition, flags, templateFile);
        running->machine->lastError = REAL(GetLastError)();
        if (real == INVALID_HANDLE_VALUE) {
            return {false, running->machine->lastError, ""};
        }
        Object file = {};
        file.kind = Kind::File;
        file.name = call.object;
        file.real = real;
        handle = AddObject(file);
        return {true, 0, FindObject(handle)->name};
    });
    if (!outcome.succeeded && handle != INVALID_HANDLE_VALUE) {
        ReleaseObject(handle);
        handle = INVALID_HANDLE_VALUE;
    }
    return handle;
}

BOOL REPLACEMENT(ReadFile)(HANDLE file, LPVOID buffer, DWORD byteCount, LPDWORD bytesRead, LPOVERLAPPED overlapped)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead ? FALSE : REAL(ReadFile)(file, buffer, byteCount, bytesRead, overlapped);
    }
    return Transfer(
        "ReadFile", file, buffer, byteCount, bytesRead,
        [&](Object &disk, uint64_t limit, DWORD *moved) { return ReadDisk(disk, buffer, byteCount, limit, moved); },
        [&](HANDLE real, DWORD length, DWORD *moved) {
            return REAL(ReadFile)(real, buffer, length, moved, overlapped);
        });
}

BOOL REPLACEMENT(WriteFile)(HANDLE file, LPCVOID buffer, DWORD byteCount, LPDWORD bytesWritten, LPOVERLAPPED overlapped)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead ? FALSE : REAL(WriteFile)(file, buffer, byteCount, bytesWritten, overlapped);
    }
    return Transfer(
        "WriteFile", file, buffer, byteCount, bytesWritten,
        [&](Object &disk, uint64_t limit, DWORD *moved) { return WriteDisk(disk, buffer, byteCount, limit, moved); },
        [&](HANDLE real, DWORD length, DWORD *moved) {
            return REAL(WriteFile)(real, buffer, length, moved, overlapped);
        });
}

BOOL REPLACEMENT(SetFilePointerEx)(HANDLE file, LARGE_INTEGER distance, PLARGE_INTEGER newPosition, DWORD method)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead ? FALSE : REAL(SetFilePointerEx)(file, distance, newPosition, method);
    }
    const InSimulator inside;
    std::string name;
    Object *object = Held(file, Kind::File, &name);
    Call call = MakeCall("SetFilePointerEx", name, std::to_string(distance.QuadPart));
    if (method != FILE_BEGIN) {
        call.text += Text(" method=%u", Unsigned(method));
    }
    call.fields = {{"offset", static_cast<uint64_t>(distance.QuadPart)}, {"method", method}};
    call.fields["newPosition"] = newPosition != nullptr;
    const Outcome outcome = Perform(call, [&](uint64_t) -> Outcome {
        if (object == nullptr) {
            return BadHandle(call);
        }
        if (object->kind == Kind::File) {
            const Outcome real = FromReal(REAL(SetFilePointerEx)(object->real, distance, newPosition, method));
            if (!real.succeeded) {
                return real;
            }
        } else if (object->kind != Kind::Disk || method != FILE_BEGIN || distance.QuadPart < 0) {
            return {false, ERROR_INVALID_PARAMETER, ""};
        } else if (newPosition != nullptr) {
            *newPosition = distance;
        }
        object->position = static_cast<uint64_t>(distance.QuadPart);
        return {};
    });
    return outcome.succeeded ? TRUE : FALSE;
}

BOOL REPLACEMENT(GetFileSizeEx)(HANDLE file, PLARGE_INTEGER fileSize)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead ? FALSE : REAL(GetFileSizeEx)(file, fileSize);
    }
    const InSimulator inside;
    std::string name;
    Object *object = Held(file, Kind::File, &name);
    const Call call = MakeCall("GetFileSizeEx", name);
    const Outcome outcome = Perform(call, [&](uint64_t) -> Outcome {
        if (object == nullptr) {
            return BadHandle(call);
        }
        if (object->kind != Kind::File) {
            return {false, 1, ""}; // ERROR_INVALID_FUNCTION
        }
        Outcome real = FromReal(REAL(GetFileSizeEx)(object->real, fileSize));
        real.result = real.succeeded ? std::to_string(fileSize->QuadPart) : "";
        return real;
    });
    return outcome.succeeded ? TRUE : FALSE;
}

DWORD REPLACEMENT(GetFileAttributesA)(LPCSTR path)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead ? INVALID_FILE_ATTRIBUTES : REAL(GetFileAttributesA)(path);
    }
    const InSimulator inside;
    Call call = MakeCall("GetFileAttributesA", "file:" + StablePath(path));
    call.text = StablePath(path);
    DWORD attributes = INVALID_FILE_ATTRIBUTES;
    const Outcome outcome = Perform(call, [&](uint64_t) {
        attributes = REAL(GetFileAttributesA)(path);
        Outcome real = FromReal(attributes != INVALID_FILE_ATTRIBUTES ? TRUE : FALSE);
        real.result = real.succeeded ? Text("0x%X", Unsigned(attributes)) : "";
        return real;
    });
    return outcome.succeeded ? attributes : INVALID_FILE_ATTRIBUTES;
}

BOOL REPLACEMENT(CloseHandle)(HANDLE object)
{
    if (CurrentMode() != Mode::Live) {
        return GivesBackToRun(object) ? TRUE : REAL(CloseHandle)(object);
    }
    return Close("CloseHandle", object, Kind::File).succeeded ? TRUE : FALSE;
}

BOOL REPLACEMENT(DeviceIoControl)(HANDLE device, DWORD controlCode, LPVOID input, DWORD inputLength, LPVOID output,
                                  DWORD outputLength, LPDWORD bytesReturned, LPOVERLAPPED overlapped)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead ? FALSE
                                           : REAL(DeviceIoControl)(device, controlCode, input, inputLength, output,
                                                                   outputLength, bytesReturned, overlapped);
    }
    const InSimulator inside;
    std::string name;
    Object *object = Held(device, Kind::File, &name);
    Call call = MakeCall(
        "DeviceIoControl", name,
        Text("code=0x%08X input=%u output=%u", Unsigned(controlCode), Unsigned(inputLength), Unsigned(outputLength)));
    call.fields = {{"code", controlCode}, {"inputLength", inputLength}, {"outputLength", outputLength}};
    call.fields["count"] = bytesReturned != nullptr;
    call.fields["overlapped"] = overlapped != nullptr;
    call.input = BytesAt(input, inputLength);
    call.buffer = output;
    DWORD moved = 0;
    const Outcome outcome = Perform(call, [&](uint64_t limit) {
        uint8_t *bytes = static_cast<uint8_t *>(output);
        return object == nullptr ? BadHandle(call)
                                 : ControlDevice(*object, controlCode, call.input, bytes, outputLength, limit, &moved);
    });
    if (bytesReturned != nullptr) {
        *bytesReturned = moved;
    }
    return outcome.succeeded ? TRUE : FALSE;
}

DWORD REPLACEMENT(GetLastError)(void)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(GetLastError)();
    }
    const InSimulator inside;
    const DWORD lastError = running->machine->lastError;
    Perform(MakeCall("GetLastError"), [&](uint64_t) -> Outcome { return {true, 0, std::to_string(lastError)}; });
    return lastError;
}

ULONGLONG REPLACEMENT(GetTickCount64)(void)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(GetTickCount64)();
    }
    const InSimulator inside;
    const uint64_t ticks = running->machine->ticks;
    running->machine->ticks += running->machine->ticksPerCall;
    Perform(MakeCall("GetTickCount64"), [&](uint64_t) -> Outcome { return {true, 0, std::to_string(ticks)}; });
    return ticks;
}

// Enumeration of volumes

HANDLE REPLACEMENT(FindFirstVolumeW)(LPWSTR name, DWORD nameUnits)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead ? INVALID_HANDLE_VALUE : REAL(FindFirstVolumeW)(name, nameUnits);
    }
    const InSimulator inside;
    Call call = MakeCall("FindFirstVolumeW", "", std::to_string(nameUnits));
    NoteBuffer(call, name, nameUnits);
    void *search = INVALID_HANDLE_VALUE;
    const Outcome outcome = Perform(call, [&](uint64_t) { return BeginVolumeSearch(name, nameUnits, &search); });
    if (!outcome.succeeded && search != INVALID_HANDLE_VALUE) {
        ReleaseObject(search);
        search = INVALID_HANDLE_VALUE;
    }
    return search;
}

BOOL REPLACEMENT(FindNextVolumeW)(HANDLE search, LPWSTR name, DWORD nameUnits)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead ? FALSE : REAL(FindNextVolumeW)(search, name, nameUnits);
    }
    const InSimulator inside;
    std::string objectName;
    Object *object = Held(search, Kind::Search, &objectName);
    Call call = MakeCall("FindNextVolumeW", objectName, std::to_string(nameUnits));
    NoteBuffer(call, name, nameUnits);
    const Outcome outcome = Perform(call, [&](uint64_t) {
        const bool isSearch = object != nullptr && object->kind == Kind::Search;
        return isSearch ? ContinueVolumeSearch(*object, name, nameUnits) : BadHandle(call);
    });
    return outcome.succeeded ? TRUE : FALSE;
}

BOOL REPLACEMENT(FindVolumeClose)(HANDLE search)
{
    if (CurrentMode() != Mode::Live) {
        return GivesBackToRun(search) ? TRUE : REAL(FindVolumeClose)(search);
    }
    return Close("FindVolumeClose", search, Kind::Search).succeeded ? TRUE : FALSE;
}
} // extern "C"
