// A run from the first call to the last: the streams under the program, the end of the process, what is left behind.
#include "simulator/run_command.h"

#include "cli/dispatch.h"
#include "simulator/running.h"
#include "simulator/system_beneath.h"
#include "snapshot/requester_state.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <new>
#include <random>
#include <stdexcept>
#include <system_error>

namespace
{
// A standard stream that writes into memory while a run goes on.
struct CaughtStream {
    FILE *stream;
    const char *name;
    int memory = -1;
    int original = -1;
    size_t seen = 0; // bytes that are in the log
};

CaughtStream caughtStreams[] = {{stdout, "stdout"}, {stderr, "stderr"}};

void Check(bool succeeded, const char *what)
{
    if (!succeeded) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

std::string TextFrom(const CaughtStream &caught, size_t start)
{
    // The position is the stream's too; what was read to its end leaves it where the stream goes on.
    const auto end = lseek(caught.memory, 0, SEEK_END);
    if (end == static_cast<off_t>(start)) {
        return "";
    }
    std::string text(static_cast<size_t>(end) - start, '\0');
    Check(lseek(caught.memory, static_cast<off_t>(start), SEEK_SET) >= 0, "reading a caught stream");
    for (size_t done = 0; done < text.size();) {
        const auto count = read(caught.memory, text.data() + done, static_cast<unsigned>(text.size() - done));
        Check(count > 0, "reading a caught stream");
        done += static_cast<size_t>(count);
    }
    return text;
}

// Everything that belongs to a run, in place before its first call.
void BeginRun(Running &state, Machine &machine)
{
    if (running != nullptr) {
        throw std::logic_error("a run within a run");
    }
    machine.calls.clear();
    machine.misuses.clear();
    machine.leaks.clear();
    machine.fallibleCalls = 0;
    machine.faultsFired = 0;
    machine.allocations = 0;
    for (Fault &fault : machine.faults) {
        fault.matched = 0;
    }
    state.machine = &machine;
    snapshotRequester = SnapshotRequester(); // the program's one lasting record, as a new process has it
    BeginService(machine);
    BeginStreams();
    running = &state;
}

// The process is over: the system takes back what it held.
void EndRun(RunResult &result)
{
    const InSimulator inside;
    running->ended = true;
    LogOutput();
    EndService();
    ReleaseEverything();
    EndStreams(&result.outputText, &result.errorText);
    running = nullptr;
}

// Failed assertions so far; one that fails during a run prints into the caught stream.
int FailedAssertions()
{
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    return test != nullptr ? test->result()->total_part_count() : 0;
}

RunResult RunBody(Machine &machine, const std::function<int()> &body)
{
    RunResult result;
    Running state;
    const int failedBefore = FailedAssertions();
    BeginRun(state, machine);
    try {
        result.exitStatus = body();
        RunExitHooks();
    } catch (const ProcessExit &end) {
        result.exitStatus = end.status;
    } catch (const ProcessAbort &end) {
        result.abnormalEnd = true;
        result.abnormalText = end.text;
    } catch (const std::exception &uncaught) {
        result.abnormalEnd = true;
        result.abnormalText = uncaught.what();
    } catch (...) {
        result.abnormalEnd = true;
        result.abnormalText = "an exception of unknown type";
    }
    EndRun(result);
    if (FailedAssertions() != failedBefore) {
        fputs(result.outputText.c_str(), stdout);
    }
    return result;
}
} // namespace

void BeginStreams()
{
    for (CaughtStream &caught : caughtStreams) {
        fflush(caught.stream);
        caught.seen = 0;
        caught.memory = OpenCapture(caught.name);
        Check(caught.memory >= 0, "opening a file for a stream");
        caught.original = dup(fileno(caught.stream));
        Check(caught.original >= 0 && dup2(caught.memory, fileno(caught.stream)) >= 0, "redirecting a stream");
    }
}

void LogOutput()
{
    for (CaughtStream &caught : caughtStreams) {
        const auto arrived = static_cast<size_t>(lseek(caught.memory, 0, SEEK_END));
        fflush(caught.stream);
        Call output;
        output.fields["flushed"] = arrived - caught.seen;
        output.result = TextFrom(caught, caught.seen);
        if (output.result.empty()) {
            continue;
        }
        caught.seen += output.result.size();
        output.name = caught.name;
        output.text = output.name + " " + output.result;
        running->machine->calls.push_back(std::move(output));
    }
}

void EndStreams(std::string *outputText, std::string *errorText)
{
    for (CaughtStream &caught : caughtStreams) {
        (caught.stream == stdout ? *outputText : *errorText) = TextFrom(caught, 0);
        dup2(caught.original, fileno(caught.stream));
        close(caught.original);
        close(caught.memory);
    }
}

RunResult RunCommand(Machine &machine, const std::vector<std::string> &arguments)
{
    std::vector<std::string> words = {"kestrix"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return RunBody(machine, [&] { return Dispatch(static_cast<int>(words.size()), argv.data()); });
}

RunResult RunCode(Machine &machine, const std::function<void()> &body)
{
    return RunBody(machine, [&] {
        body();
        return 0;
    });
}

Scratch::Scratch()
{
    std::random_device random;
    const std::string name = "kestrix-test-" + std::to_string(random()) + std::to_string(random());
    const std::filesystem::path made = std::filesystem::temp_directory_path() / name;
    Check(std::filesystem::create_directory(made), "making a scratch folder");
    folder = std::filesystem::canonical(made).string();
    previousFolder = std::filesystem::current_path().string();
    std::filesystem::current_path(folder);
    scratchFolder = Path("");
}

Scratch::~Scratch()
{
    scratchFolder.clear();
    std::error_code ignored; // a folder that stays behind is no reason to end the tests
    std::filesystem::current_path(previousFolder, ignored);
    std::filesystem::remove_all(folder, ignored);
}

std::string Scratch::Path(const std::string &name) const
{
    return (std::filesystem::path(folder) / name).make_preferred().string();
}

// The program's operator new, so that a test can make any allocation fail.
static void *Allocate(size_t size)
{
    if (CurrentMode() == Mode::Live) {
        Machine &machine = *running->machine;
        if (++machine.allocations == machine.failingAllocation || size > machine.memoryBytes) {
            return nullptr;
        }
    }
    return malloc(size == 0 ? 1 : size);
}

static void *AllocateOrThrow(size_t size)
{
    void *block = Allocate(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void *operator new(size_t size)
{
    return AllocateOrThrow(size);
}

void *operator new[](size_t size)
{
    return AllocateOrThrow(size);
}

void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    return Allocate(size);
}

void *operator new[](size_t size, const std::nothrow_t &) noexcept
{
    return Allocate(size);
}

void operator delete(void *block) noexcept
{
    free(block);
}

void operator delete[](void *block) noexcept
{
    free(block);
}

void operator delete(void *block, size_t) noexcept
{
    free(block);
}

void operator delete[](void *block, size_t) noexcept
{
    free(block);
}

void operator delete(void *block, const std::nothrow_t &) noexcept
{
    free(block);
}

void operator delete[](void *block, const std::nothrow_t &) noexcept
{
    free(block);
}
