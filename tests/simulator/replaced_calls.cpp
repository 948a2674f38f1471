// The replacements themselves: each says what the log shows of its arguments, and what the call does when no fault
// keeps it from doing so.
//
// All follow one pattern. A call that is none of the program's passes on untouched. A call from frames that a real
// process would never unwind gives back real resources and does nothing else. Everything else goes through Perform.
#include "simulator/real_calls.h"
#include "simulator/running.h"

#include <algorithm>
#include <cstring>

namespace
{
constexpr uint32_t bufferTooSmall = 0xC0000023U; // STATUS_BUFFER_TOO_SMALL

// The open object behind a handle. Something that the run didn't make passes as "outside"; a handle that is no more, or
// never was one, is a misuse and gives null.
Object *Held(void *key, Kind kind, std::string *name)
{
    Object *object = FindObject(key);
    const bool isFromOutside = key != nullptr && key != INVALID_HANDLE_VALUE && !IsToken(key);
    if (object == nullptr && isFromOutside) {
        Object outside = {};
        outside.kind = kind;
        outside.name = "outside";
        outside.real = key;
        outside.isOutside = true;
        object = FindObject(AddObject(outside, key));
    }
    *name = object != nullptr ? object->name : "nothing";
    return object != nullptr && object->open ? object : nullptr;
}

Outcome FromReal(BOOL succeeded)
{
    return succeeded != FALSE ? Outcome() : Outcome{false, REAL(GetLastError)(), ""};
}

Outcome FromStatus(NTSTATUS status)
{
    return BCRYPT_SUCCESS(status) ? Outcome() : Outcome{false, static_cast<uint32_t>(status), ""};
}

NTSTATUS StatusOf(const Outcome &outcome)
{
    return outcome.succeeded ? 0 : static_cast<NTSTATUS>(outcome.error);
}

// Whether the caller gets the handle that the call made: as on the real platform, any status from 0 up says that it
// does.
bool GivesHandle(const Outcome &outcome)
{
    return BCRYPT_SUCCESS(StatusOf(outcome));
}

Outcome BadHandle(const Call &call)
{
    AddMisuse(call, "no open handle");
    const bool isCryptography = call.name.compare(0, 6, "BCrypt") == 0;
    return {false, isCryptography ? 0xC0000008U : ERROR_INVALID_HANDLE, ""};
}

// Whether memory of that length can hold what is made from the provider. Not every platform beneath looks.
bool HasRoomForObject(BCRYPT_ALG_HANDLE provider, ULONG objectLength)
{
    ULONG neededLength = 0;
    ULONG count = 0;
    REAL(BCryptGetProperty)
    (provider, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&neededLength), sizeof(neededLength), &count, 0);
    return objectLength >= neededLength;
}

std::vector<uint8_t> BytesAt(const void *start, size_t count)
{
    const uint8_t *bytes = static_cast<const uint8_t *>(start);
    return start == nullptr ? std::vector<uint8_t>() : std::vector<uint8_t>(bytes, bytes + count);
}

void NoteBuffer(Call &call, const void *buffer, uint64_t length)
{
    call.buffer = buffer;
    call.fields["length"] = length;
    call.fields["aligned"] = AlignmentOf(buffer);
}

// The one shape of every call that gives back what it was called on. release is the real call for what the run doesn't
// know; it says whether that went well.
Outcome Close(const char *name, void *key, Kind kind, ULONG flags = 0)
{
    const InSimulator inside;
    std::string objectName;
    Object *object = Held(key, kind, &objectName);
    const Call call = MakeCall(name, objectName);
    if (flags != 0) {
        AddMisuse(call, "there are no flags for it");
    }
    return Perform(call, [&](uint64_t) {
        if (object == nullptr) {
            return BadHandle(call);
        }
        const bool isCryptography = kind != Kind::File && kind != Kind::Stream;
        const bool closed = ReleaseObject(key);
        return closed ? Outcome() : Outcome{false, isCryptography ? failedStatus : REAL(GetLastError)(), ""};
    });
}

// Whether a call that gives something back is nothing for the real platform, because what it names belongs to a run,
// this one or one that is over.
bool GivesBackToRun(void *key)
{
    const InSimulator inside;
    if (running != nullptr && FindObject(key) != nullptr) {
        ReleaseObject(key);
        return true;
    }
    return IsToken(key);
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
    const InSimulator inside;
    std::string name;
    Object *object = Held(file, Kind::File, &name);
    const uint64_t position = object != nullptr ? object->position : 0;
    Call call = MakeCall("ReadFile", name, std::to_string(byteCount) + " at " + std::to_string(position));
    NoteBuffer(call, buffer, byteCount);
    call.fields["offset"] = position;
    DWORD moved = 0;
    const Outcome outcome = Perform(call, [&](uint64_t limit) -> Outcome {
        if (object == nullptr) {
            return BadHandle(call);
        }
        if (object->kind == Kind::Disk) {
            return ReadDisk(*object, buffer, byteCount, limit, &moved);
        }
        if (object->kind != Kind::File) {
            return {false, 1, ""}; // ERROR_INVALID_FUNCTION
        }
        const DWORD length = static_cast<DWORD>(std::min<uint64_t>(byteCount, limit));
        Outcome real = FromReal(REAL(ReadFile)(object->real, buffer, length, &moved, overlapped));
        object->position += moved;
        real.result = std::to_string(moved);
        return real;
    });
    if (bytesRead != nullptr) {
        *bytesRead = moved;
    }
    return outcome.succeeded ? TRUE : FALSE;
}

BOOL REPLACEMENT(WriteFile)(HANDLE file, LPCVOID buffer, DWORD byteCount, LPDWORD bytesWritten, LPOVERLAPPED overlapped)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead ? FALSE : REAL(WriteFile)(file, buffer, byteCount, bytesWritten, overlapped);
    }
    const InSimulator inside;
    std::string name;
    Object *object = Held(file, Kind::File, &name);
    const uint64_t position = object != nullptr ? object->position : 0;
    Call call = MakeCall("WriteFile", name, std::to_string(byteCount) + " at " + std::to_string(position));
    NoteBuffer(call, buffer, byteCount);
    call.fields["offset"] = position;
    DWORD moved = 0;
    const Outcome outcome = Perform(call, [&](uint64_t limit) -> Outcome {
        if (object == nullptr) {
            return BadHandle(call);
        }
        if (object->kind == Kind::Disk) {
            return WriteDisk(*object, buffer, byteCount, limit, &moved);
        }
        if (object->kind != Kind::File) {
            return {false, 1, ""}; // ERROR_INVALID_FUNCTION
        }
        const DWORD length = static_cast<DWORD>(std::min<uint64_t>(byteCount, limit));
        Outcome real = FromReal(REAL(WriteFile)(object->real, buffer, length, &moved, overlapped));
        object->position += moved;
        real.result = std::to_string(moved);
        return real;
    });
    if (bytesWritten != nullptr) {
        *bytesWritten = moved;
    }
    return outcome.succeeded ? TRUE : FALSE;
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

// Cryptography

NTSTATUS REPLACEMENT(BCryptOpenAlgorithmProvider)(BCRYPT_ALG_HANDLE *algorithm, LPCWSTR id, LPCWSTR implementation,
                                                  ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptOpenAlgorithmProvider)(algorithm, id, implementation, flags);
    }
    const InSimulator inside;
    std::string name = Narrow(id);
    Call call = MakeCall("BCryptOpenAlgorithmProvider", "", name + Text(" flags=0x%X", Unsigned(flags)));
    std::transform(name.begin(), name.end(), name.begin(), [](char c) { return static_cast<char>(tolower(c)); });
    call.object = (flags & BCRYPT_ALG_HANDLE_HMAC_FLAG) != 0 ? "hmac-" + name : name;
    call.fields = {{"flags", flags}, {"implementation", implementation != nullptr}};
    void *token = nullptr;
    const Outcome outcome = Perform(call, [&](uint64_t) {
        Object provider = {};
        provider.kind = Kind::Provider;
        provider.name = call.object;
        Outcome real = FromStatus(REAL(BCryptOpenAlgorithmProvider)(&provider.real, id, implementation, flags));
        if (real.succeeded) {
            token = AddObject(provider);
            real.result = FindObject(token)->name;
        }
        return real;
    });
    if (GivesHandle(outcome)) {
        *algorithm = token;
    } else {
        ReleaseObject(token);
    }
    return StatusOf(outcome);
}

NTSTATUS REPLACEMENT(BCryptCloseAlgorithmProvider)(BCRYPT_ALG_HANDLE algorithm, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return GivesBackToRun(algorithm) ? 0 : REAL(BCryptCloseAlgorithmProvider)(algorithm, flags);
    }
    return StatusOf(Close("BCryptCloseAlgorithmProvider", algorithm, Kind::Provider, flags));
}

NTSTATUS REPLACEMENT(BCryptSetProperty)(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR input, ULONG inputLength,
                                        ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptSetProperty)(object, property, input, inputLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *held = Held(object, Kind::Provider, &name);
    Call call = MakeCall("BCryptSetProperty", name, Narrow(property) + Text(" %u", Unsigned(inputLength)));
    call.input = BytesAt(input, inputLength);
    call.fields = {{"length", inputLength}, {"flags", flags}};
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr ? BadHandle(call)
                               : FromStatus(REAL(BCryptSetProperty)(held->real, property, input, inputLength, flags));
    }));
}

NTSTATUS REPLACEMENT(BCryptGetProperty)(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR output, ULONG outputLength,
                                        ULONG *resultLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptGetProperty)(object, property, output, outputLength, resultLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *held = Held(object, Kind::Provider, &name);
    Call call = MakeCall("BCryptGetProperty", name, Narrow(property) + Text(" %u", Unsigned(outputLength)));
    NoteBuffer(call, output, outputLength);
    call.fields["flags"] = flags;
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr ? BadHandle(call)
                               : FromStatus(REAL(BCryptGetProperty)(held->real, property, output, outputLength,
                                                                    resultLength, flags));
    }));
}

NTSTATUS REPLACEMENT(BCryptCreateHash)(BCRYPT_ALG_HANDLE algorithm, BCRYPT_HASH_HANDLE *hash, PUCHAR hashObject,
                                       ULONG hashObjectLength, PUCHAR secret, ULONG secretLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptCreateHash)(algorithm, hash, hashObject, hashObjectLength, secret, secretLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *provider = Held(algorithm, Kind::Provider, &name);
    Call call = MakeCall("BCryptCreateHash", name);
    NoteBuffer(call, hashObject, hashObjectLength);
    call.fields["secretLength"] = secretLength;
    call.fields["flags"] = flags;
    void *token = nullptr;
    const Outcome outcome = Perform(call, [&](uint64_t) {
        if (provider == nullptr) {
            return BadHandle(call);
        }
        if (!HasRoomForObject(provider->real, hashObjectLength)) {
            return Outcome{false, bufferTooSmall, ""};
        }
        Object made = {};
        made.kind = Kind::Hash;
        made.name = "hash";
        made.memory.resize(hashObjectLength);
        PUCHAR memory = made.memory.empty() ? nullptr : made.memory.data();
        Outcome real = FromStatus(
            REAL(BCryptCreateHash)(provider->real, &made.real, memory, hashObjectLength, secret, secretLength, flags));
        if (real.succeeded) {
            token = AddObject(std::move(made));
            real.result = FindObject(token)->name;
        }
        return real;
    });
    if (GivesHandle(outcome)) {
        *hash = token;
    } else {
        ReleaseObject(token);
    }
    return StatusOf(outcome);
}

NTSTATUS REPLACEMENT(BCryptHashData)(BCRYPT_HASH_HANDLE hash, PUCHAR input, ULONG inputLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptHashData)(hash, input, inputLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *held = Held(hash, Kind::Hash, &name);
    Call call = MakeCall("BCryptHashData", name, std::to_string(inputLength));
    NoteBuffer(call, input, inputLength);
    call.fields["flags"] = flags;
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr ? BadHandle(call)
                               : FromStatus(REAL(BCryptHashData)(held->real, input, inputLength, flags));
    }));
}

NTSTATUS REPLACEMENT(BCryptFinishHash)(BCRYPT_HASH_HANDLE hash, PUCHAR output, ULONG outputLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptFinishHash)(hash, output, outputLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *held = Held(hash, Kind::Hash, &name);
    Call call = MakeCall("BCryptFinishHash", name, std::to_string(outputLength));
    NoteBuffer(call, output, outputLength);
    call.fields["flags"] = flags;
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr ? BadHandle(call)
                               : FromStatus(REAL(BCryptFinishHash)(held->real, output, outputLength, flags));
    }));
}

NTSTATUS REPLACEMENT(BCryptDestroyHash)(BCRYPT_HASH_HANDLE hash)
{
    if (CurrentMode() != Mode::Live) {
        return GivesBackToRun(hash) ? 0 : REAL(BCryptDestroyHash)(hash);
    }
    return StatusOf(Close("BCryptDestroyHash", hash, Kind::Hash));
}

NTSTATUS REPLACEMENT(BCryptDeriveKeyPBKDF2)(BCRYPT_ALG_HANDLE prf, PUCHAR password, ULONG passwordLength, PUCHAR salt,
                                            ULONG saltLength, ULONGLONG iterations, PUCHAR derivedKey,
                                            ULONG derivedKeyLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptDeriveKeyPBKDF2)(prf, password, passwordLength, salt, saltLength, iterations, derivedKey,
                                           derivedKeyLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *held = Held(prf, Kind::Provider, &name);
    Call call = MakeCall("BCryptDeriveKeyPBKDF2", name,
                         Text("password=%u salt=%u iterations=%llu length=%u", Unsigned(passwordLength),
                              Unsigned(saltLength), iterations, Unsigned(derivedKeyLength)));
    NoteBuffer(call, derivedKey, derivedKeyLength);
    call.fields["passwordLength"] = passwordLength;
    call.fields["saltLength"] = saltLength;
    call.fields["iterations"] = iterations;
    call.fields["flags"] = flags;
    call.input = BytesAt(salt, saltLength);
    const ULONGLONG rounds = std::min<ULONGLONG>(iterations, running->machine->mostIterations);
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr
                   ? BadHandle(call)
                   : FromStatus(REAL(BCryptDeriveKeyPBKDF2)(held->real, password, passwordLength, salt, saltLength,
                                                            rounds, derivedKey, derivedKeyLength, flags));
    }));
}

NTSTATUS REPLACEMENT(BCryptGenerateSymmetricKey)(BCRYPT_ALG_HANDLE algorithm, BCRYPT_KEY_HANDLE *key, PUCHAR keyObject,
                                                 ULONG keyObjectLength, PUCHAR secret, ULONG secretLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptGenerateSymmetricKey)(algorithm, key, keyObject, keyObjectLength, secret, secretLength,
                                                flags);
    }
    const InSimulator inside;
    std::string name;
    Object *provider = Held(algorithm, Kind::Provider, &name);
    Call call = MakeCall("BCryptGenerateSymmetricKey", name, Text("secret=%u", Unsigned(secretLength)));
    NoteBuffer(call, keyObject, keyObjectLength);
    call.fields["secretLength"] = secretLength;
    call.fields["flags"] = flags;
    void *token = nullptr;
    const Outcome outcome = Perform(call, [&](uint64_t) {
        if (provider == nullptr) {
            return BadHandle(call);
        }
        if (!HasRoomForObject(provider->real, keyObjectLength)) {
            return Outcome{false, bufferTooSmall, ""};
        }
        Object made = {};
        made.kind = Kind::Key;
        made.name = "key";
        made.memory.resize(keyObjectLength);
        PUCHAR memory = made.memory.empty() ? nullptr : made.memory.data();
        Outcome real = FromStatus(REAL(BCryptGenerateSymmetricKey)(provider->real, &made.real, memory, keyObjectLength,
                                                                   secret, secretLength, flags));
        if (real.succeeded) {
            token = AddObject(std::move(made));
            real.result = FindObject(token)->name;
        }
        return real;
    });
    if (GivesHandle(outcome)) {
        *key = token;
    } else {
        ReleaseObject(token);
    }
    return StatusOf(outcome);
}

NTSTATUS REPLACEMENT(BCryptDestroyKey)(BCRYPT_KEY_HANDLE key)
{
    if (CurrentMode() != Mode::Live) {
        return GivesBackToRun(key) ? 0 : REAL(BCryptDestroyKey)(key);
    }
    return StatusOf(Close("BCryptDestroyKey", key, Kind::Key));
}
} // extern "C"

namespace
{
using CipherCall = decltype(BCryptEncrypt);

// BCryptEncrypt and BCryptDecrypt differ in nothing but their names.
NTSTATUS Cipher(const char *callName, CipherCall *real, BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength,
                void *paddingInfo, PUCHAR iv, ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG *resultLength,
                ULONG flags)
{
    const InSimulator inside;
    std::string name;
    Object *held = Held(key, Kind::Key, &name);
    Call call = MakeCall(callName, name, std::to_string(inputLength));
    NoteBuffer(call, input, inputLength);
    call.fields["outputLength"] = outputLength;
    call.fields["ivLength"] = ivLength;
    call.fields["flags"] = flags;
    if (paddingInfo != nullptr) {
        const auto *info = static_cast<const BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO *>(paddingInfo);
        call.input = BytesAt(info->pbNonce, info->cbNonce);
        call.fields["infoSize"] = info->cbSize;
        call.fields["infoVersion"] = info->dwInfoVersion;
        call.fields["nonceLength"] = info->cbNonce;
        call.fields["authData"] = info->pbAuthData != nullptr;
        call.fields["authDataLength"] = info->cbAuthData;
        call.fields["tagLength"] = info->cbTag;
        call.fields["macContext"] = info->pbMacContext != nullptr;
        call.fields["macContextLength"] = info->cbMacContext;
        call.fields["aadLength"] = info->cbAAD;
        call.fields["dataLength"] = info->cbData;
        call.fields["infoFlags"] = info->dwFlags;
    }
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr ? BadHandle(call)
                               : FromStatus(real(held->real, input, inputLength, paddingInfo, iv, ivLength, output,
                                                 outputLength, resultLength, flags));
    }));
}
} // namespace

extern "C" {
NTSTATUS REPLACEMENT(BCryptEncrypt)(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, void *paddingInfo,
                                    PUCHAR iv, ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG *resultLength,
                                    ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptEncrypt)(key, input, inputLength, paddingInfo, iv, ivLength, output, outputLength,
                                   resultLength, flags);
    }
    return Cipher("BCryptEncrypt", REAL(BCryptEncrypt), key, input, inputLength, paddingInfo, iv, ivLength, output,
                  outputLength, resultLength, flags);
}

NTSTATUS REPLACEMENT(BCryptDecrypt)(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, void *paddingInfo,
                                    PUCHAR iv, ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG *resultLength,
                                    ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptDecrypt)(key, input, inputLength, paddingInfo, iv, ivLength, output, outputLength,
                                   resultLength, flags);
    }
    return Cipher("BCryptDecrypt", REAL(BCryptDecrypt), key, input, inputLength, paddingInfo, iv, ivLength, output,
                  outputLength, resultLength, flags);
}

NTSTATUS REPLACEMENT(BCryptGenRandom)(BCRYPT_ALG_HANDLE algorithm, PUCHAR buffer, ULONG bufferLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptGenRandom)(algorithm, buffer, bufferLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *held = Held(algorithm, Kind::Provider, &name);
    Call call = MakeCall("BCryptGenRandom", name, std::to_string(bufferLength));
    NoteBuffer(call, buffer, bufferLength);
    call.fields["flags"] = flags;
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr ? BadHandle(call)
                               : FromStatus(REAL(BCryptGenRandom)(held->real, buffer, bufferLength, flags));
    }));
}

// The C run-time

void *REPLACEMENT(_aligned_malloc)(size_t size, size_t alignment)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(_aligned_malloc)(size, alignment);
    }
    void *block = nullptr;
    const bool isPossible = size != 0 && alignment != 0 && (alignment & (alignment - 1)) == 0;
    {
        const InSimulator inside;
        Call call = MakeCall("_aligned_malloc", "", std::to_string(size) + " " + std::to_string(alignment));
        call.fields = {{"length", size}, {"alignment", alignment}};
        const Outcome outcome = Perform(call, [&](uint64_t) -> Outcome {
            if (!isPossible) {
                return {false, ERROR_INVALID_PARAMETER, ""};
            }
            block = size <= running->machine->memoryBytes ? REAL(_aligned_malloc)(size, alignment) : nullptr;
            if (block == nullptr) {
                return {false, ERROR_NOT_ENOUGH_MEMORY, ""};
            }
            Object made = {};
            made.kind = Kind::Block;
            made.name = "block";
            made.real = block;
            AddObject(made, block);
            return {true, 0, FindObject(block)->name};
        });
        if (!outcome.succeeded && block != nullptr) {
            ReleaseObject(block);
            block = nullptr;
        }
    }
    if (!isPossible) {
        throw ProcessAbort{"invalid parameter: size " + std::to_string(size) + " alignment " +
                           std::to_string(alignment)};
    }
    return block;
}

void REPLACEMENT(_aligned_free)(void *block)
{
    if (CurrentMode() != Mode::Live) {
        if (!GivesBackToRun(block)) {
            REAL(_aligned_free)(block);
        }
        return;
    }
    const InSimulator inside;
    const Object *object = FindObject(block);
    const Call call = MakeCall("_aligned_free", object != nullptr ? object->name : "nothing");
    Perform(call, [&](uint64_t) {
        if (block != nullptr && !ReleaseObject(block)) {
            AddMisuse(call, "no block of this run");
        }
        return Outcome();
    });
}

char *REPLACEMENT(_fullpath)(char *buffer, const char *path, size_t size)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(_fullpath)(buffer, path, size);
    }
    const InSimulator inside;
    Call call = MakeCall("_fullpath", "file:" + StablePath(path));
    call.text = StablePath(path);
    call.fields["length"] = size;
    const Outcome outcome = Perform(call, [&](uint64_t) {
        Outcome real = FromReal(REAL(_fullpath)(buffer, path, size) != nullptr ? TRUE : FALSE);
        real.result = real.succeeded ? StablePath(buffer) : "";
        return real;
    });
    return outcome.succeeded ? buffer : nullptr;
}

errno_t REPLACEMENT(fopen_s)(FILE **stream, const char *path, const char *mode)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(fopen_s)(stream, path, mode);
    }
    const InSimulator inside;
    Call call = MakeCall("fopen_s", "stream:" + StablePath(path));
    call.text = StablePath(path) + " " + mode;
    FILE *opened = nullptr;
    const Outcome outcome = Perform(call, [&](uint64_t most) -> Outcome {
        if (most == 0) {
            return {true, 0, "no stream"};
        }
        const errno_t error = REAL(fopen_s)(&opened, path, mode);
        if (error != 0 || opened == nullptr) {
            return {false, static_cast<uint32_t>(error), ""};
        }
        Object made = {};
        made.kind = Kind::Stream;
        made.name = call.object;
        made.real = opened;
        AddObject(made, opened);
        return {true, 0, FindObject(opened)->name};
    });
    if (!outcome.succeeded && opened != nullptr) {
        ReleaseObject(opened);
        opened = nullptr;
    }
    *stream = opened;
    return static_cast<errno_t>(outcome.error);
}

size_t REPLACEMENT(fread)(void *buffer, size_t size, size_t count, FILE *stream)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(fread)(buffer, size, count, stream);
    }
    const InSimulator inside;
    std::string name;
    Object *object = Held(stream, Kind::Stream, &name);
    Call call = MakeCall("fread", name, std::to_string(size) + " " + std::to_string(count));
    NoteBuffer(call, buffer, size * count);
    size_t moved = 0;
    Perform(call, [&](uint64_t limit) {
        if (object == nullptr) {
            return BadHandle(call);
        }
        moved = REAL(fread)(buffer, size, std::min<uint64_t>(count, limit), stream);
        return Outcome{true, 0, std::to_string(moved)};
    });
    return moved;
}

int REPLACEMENT(fclose)(FILE *stream)
{
    if (CurrentMode() != Mode::Live) {
        return GivesBackToRun(stream) ? 0 : REAL(fclose)(stream);
    }
    return Close("fclose", stream, Kind::Stream).succeeded ? 0 : EOF;
}

void *REPLACEMENT(calloc)(size_t count, size_t size)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(calloc)(count, size);
    }
    const InSimulator inside;
    Call call = MakeCall("calloc", "", std::to_string(count) + " " + std::to_string(size));
    call.fields = {{"count", count}, {"length", size}};
    void *block = nullptr;
    Perform(call, [&](uint64_t) {
        const bool fits = size == 0 || count <= running->machine->memoryBytes / size;
        block = fits ? REAL(calloc)(count, size) : nullptr;
        return block != nullptr ? Outcome() : Outcome{false, ERROR_NOT_ENOUGH_MEMORY, ""};
    });
    return block;
}

// Not declared as the platform does: the end of the simulated process goes through this function's callers as an
// exception.
[[noreturn]] void REPLACEMENT(exit)(int status)
{
    if (CurrentMode() != Mode::Live) {
        REAL(exit)(status);
    }
    {
        const InSimulator inside;
        Call call = MakeCall("exit", "", std::to_string(status));
        call.fields["status"] = static_cast<uint64_t>(status);
        Perform(call, [](uint64_t) { return Outcome(); });
    }
    RunExitHooks();
    running->ended = true;
    throw ProcessExit{status};
}

int REPLACEMENT(atexit)(void (*hook)(void))
{
    if (CurrentMode() != Mode::Live) {
        return REAL(atexit)(hook);
    }
    const InSimulator inside;
    const std::string name = "hook#" + std::to_string(running->exitHooks.size() + 1);
    const Outcome outcome = Perform(MakeCall("atexit", "", name), [&](uint64_t) {
        running->exitHooks.push_back(hook);
        return Outcome();
    });
    return outcome.succeeded ? 0 : 1;
}
} // extern "C"

void RunExitHooks()
{
    while (!running->exitHooks.empty()) {
        void (*hook)() = running->exitHooks.back();
        {
            const InSimulator inside;
            Call call = MakeCall("exit hook", "", "hook#" + std::to_string(running->exitHooks.size()));
            LogOutput();
            call.text = call.name + " " + call.text;
            running->machine->calls.push_back(call);
            running->exitHooks.pop_back();
        }
        hook();
    }
}
