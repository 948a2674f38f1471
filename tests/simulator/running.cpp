// The core of a run: which calls are looked at, how faults meet them, what the program holds.
#include "simulator/running.h"

#include "simulator/real_calls.h"

#include <algorithm>
#include <cstdarg>
#include <exception>
#include <filesystem>
#include <set>

Running *running = nullptr;
int simulatorDepth = 0;
std::string scratchFolder;

namespace
{
constexpr uintptr_t tokenMark = 0x4B58000000000000; // no address looks like that
uintptr_t tokensMade = 0;

bool GivesStatus(const std::string &name)
{
    return IsCryptography(name) || GivesHresult(name);
}

bool CanFail(const std::string &name)
{
    static const std::set<std::string> neverFail = {
        "exit",           "GetLastError",  "GetTickCount64", "_aligned_free",
        "CoUninitialize", "SysFreeString", "Release",        "VssFreeSnapshotPropertiesInternal"};
    return neverFail.count(name) == 0;
}

// A close that fails has closed nevertheless.
bool AlwaysTakesEffect(const std::string &name)
{
    static const std::set<std::string> closing = {"CloseHandle",
                                                  "BCryptCloseAlgorithmProvider",
                                                  "BCryptDestroyHash",
                                                  "BCryptDestroyKey",
                                                  "fclose",
                                                  "FindVolumeClose",
                                                  "FreeWriterStatus"};
    return closing.count(name) != 0;
}

uint32_t UsualError(const std::string &name)
{
    static const std::set<std::string> memory = {"_aligned_malloc", "calloc"};
    if (IsCryptography(name)) {
        return failedStatus;
    }
    if (GivesHresult(name)) {
        return 0x8000FFFFU; // E_UNEXPECTED
    }
    if (name == "fopen_s") {
        return 5; // EIO
    }
    return memory.count(name) != 0 ? ERROR_NOT_ENOUGH_MEMORY : ERROR_IO_DEVICE;
}

// Whether the fault takes this call; counts it if it is one of the fault's kind.
bool Fires(Fault &fault, const Call &call)
{
    if (!CanFail(call.name) || (!fault.call.empty() && fault.call != call.name) ||
        !IsNamed(call.object, fault.object)) {
        return false;
    }
    const auto code = call.fields.find("code");
    if (fault.controlCode != 0 && (code == call.fields.end() || code->second != fault.controlCode)) {
        return false;
    }
    ++fault.matched;
    return fault.matched == fault.nth || (fault.forGood && fault.matched > fault.nth);
}

const Fault *FaultFor(const Call &call)
{
    const Fault *first = nullptr;
    for (Fault &fault : running->machine->faults) {
        if (Fires(fault, call) && first == nullptr) {
            first = &fault;
        }
    }
    return first;
}

// The failure that a fault reports; 0 for a short transfer.
uint32_t ErrorOf(const Fault &fault, const std::string &callName)
{
    const bool isUsualFailure = fault.error == 0 && fault.transferBytes == UINT64_MAX;
    return isUsualFailure ? UsualError(callName) : fault.error;
}

std::string Line(const Call &call)
{
    std::string line = call.text.empty() ? call.name : call.name + " " + call.text;
    if (call.failed) {
        return line +
               (GivesStatus(call.name) ? Text(" -> failed 0x%08X", call.error) : Text(" -> failed %u", call.error));
    }
    return call.result.empty() ? line : line + " -> " + call.result;
}

void SetLastError(const Call &call)
{
    Machine &machine = *running->machine;
    if (IsCryptography(call.name) || !CanFail(call.name)) {
        return;
    }
    const bool isSystemCall = call.name[0] >= 'A' && call.name[0] <= 'Z';
    if (call.failed) {
        machine.lastError = GivesHresult(call.name) ? machine.lastError : call.error;
    } else if (isSystemCall && machine.lastErrorAfterSuccess != 0) {
        machine.lastError = machine.lastErrorAfterSuccess;
    }
}
} // namespace

bool IsCryptography(const std::string &callName)
{
    return callName.compare(0, 6, "BCrypt") == 0;
}

Mode CurrentMode()
{
    if (running == nullptr || simulatorDepth > 0) {
        return Mode::PassOn;
    }
    return running->ended || std::uncaught_exceptions() > 0 ? Mode::Dead : Mode::Live;
}

Outcome Perform(Call call, const std::function<Outcome(uint64_t limit)> &effect)
{
    const InSimulator inside;
    Machine &machine = *running->machine;
    LogOutput();
    machine.fallibleCalls += CanFail(call.name) ? 1 : 0;
    const Fault *fault = FaultFor(call);
    if (machine.onCall) {
        machine.onCall(machine, call);
    }
    const uint32_t faultError = fault != nullptr ? ErrorOf(*fault, call.name) : 0;
    const bool isKeptFromEffect = faultError != 0 && !fault->afterEffect && !AlwaysTakesEffect(call.name);
    Outcome outcome;
    if (!isKeptFromEffect) {
        outcome = effect(fault != nullptr ? fault->transferBytes : UINT64_MAX);
    }
    if (faultError != 0) {
        outcome = {false, faultError, ""};
    }
    call.faulted = fault != nullptr;
    machine.faultsFired += call.faulted ? 1 : 0;
    call.failed = !outcome.succeeded;
    call.error = outcome.error;
    call.result = outcome.result;
    call.text = Line(call);
    SetLastError(call);
    machine.calls.push_back(std::move(call));
    return outcome;
}

bool IsNamed(const std::string &name, const std::string &filter)
{
    if (filter.empty() || name == filter) {
        return true;
    }
    return name.compare(0, filter.size(), filter) == 0 && (name[filter.size()] == '#' || name[filter.size()] == ':');
}

void AddMisuse(const Call &call, const std::string &what)
{
    running->machine->misuses.push_back(call.name + " " + call.object + ": " + what);
}

void *AddObject(Object object, void *key)
{
    if (key == nullptr) {
        key = reinterpret_cast<void *>(tokenMark + 8 * ++tokensMade);
    }
    object.name += "#" + std::to_string(++running->nameCounts[object.name]);
    running->objects[key] = std::move(object);
    return key;
}

Object *FindObject(void *key)
{
    const auto found = running->objects.find(key);
    return found == running->objects.end() ? nullptr : &found->second;
}

bool ReleaseObject(void *key)
{
    Object *object = FindObject(key);
    if (object == nullptr || !object->open) {
        return false;
    }
    object->open = false;
    bool succeeded = true;
    switch (object->kind) {
    case Kind::File:
        succeeded = REAL(CloseHandle)(object->real) != FALSE;
        break;
    case Kind::Provider:
        succeeded = BCRYPT_SUCCESS(REAL(BCryptCloseAlgorithmProvider)(object->real, 0));
        break;
    case Kind::Hash:
        succeeded = BCRYPT_SUCCESS(REAL(BCryptDestroyHash)(object->real));
        break;
    case Kind::Key:
        succeeded = BCRYPT_SUCCESS(REAL(BCryptDestroyKey)(object->real));
        break;
    case Kind::Stream:
        succeeded = REAL(fclose)(static_cast<FILE *>(object->real)) == 0;
        break;
    case Kind::Block:
        REAL(_aligned_free)(object->real);
        break;
    case Kind::Disk:
    case Kind::Volume:
    case Kind::Search:
    case Kind::Tracker:
        break;
    }
    if (!IsToken(key)) {
        running->objects.erase(key); // the platform may use the address again, for something else
    }
    return succeeded;
}

bool IsToken(const void *key)
{
    const uintptr_t value = reinterpret_cast<uintptr_t>(key);
    return value > tokenMark && value <= tokenMark + 8 * tokensMade;
}

void ReleaseEverything()
{
    std::vector<void *> keys;
    // What was made from a provider goes before the provider does.
    for (const bool isProvider : {false, true}) {
        for (const auto &[key, object] : running->objects) {
            if ((object.kind == Kind::Provider) == isProvider && !object.isOutside) {
                keys.push_back(key);
            }
        }
    }
    for (void *key : keys) {
        ReleaseObject(key);
    }
}

Call MakeCall(const char *name, const std::string &object, const std::string &arguments)
{
    Call call;
    call.name = name;
    call.object = object;
    call.text = object;
    if (!arguments.empty()) {
        call.text += (object.empty() ? "" : " ") + arguments;
    }
    return call;
}

std::string StablePath(const std::string &path)
{
    const bool isInside = !scratchFolder.empty() && path.compare(0, scratchFolder.size(), scratchFolder) == 0;
    return isInside ? std::filesystem::path(path.substr(scratchFolder.size())).generic_string() : path;
}

std::string Narrow(const wchar_t *text)
{
    std::string narrow;
    for (; *text != 0; ++text) {
        narrow += static_cast<char>(*text);
    }
    return narrow;
}

uint64_t AlignmentOf(const void *buffer)
{
    const uintptr_t address = reinterpret_cast<uintptr_t>(buffer);
    return address == 0 ? 4096 : std::min<uint64_t>(address & (~address + 1), 4096);
}

std::string Text(const char *format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return std::string(text, std::min<size_t>(static_cast<size_t>(length), sizeof(text) - 1));
}
