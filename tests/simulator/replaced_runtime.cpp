// The C run-time: the replacements. And what it does at the end of the process.
#include "simulator/replacing.h"

#include <algorithm>

extern "C" {

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
