// Other programs, run to their end.
#include "host/open_handle_windows.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace host
{

struct OwnedHandle {
    OwnedHandle() = default;
    OwnedHandle(const OwnedHandle &) = delete;
    OwnedHandle &operator=(const OwnedHandle &) = delete;
    ~OwnedHandle()
    {
        Close();
    }
    void Close()
    {
        if (handle != nullptr) {
            CloseHandle(std::exchange(handle, nullptr));
        }
    }

    HANDLE handle = nullptr;
};

struct Pipe {
    OwnedHandle reading;
    OwnedHandle writing;
};

// Only the end that the program is to have goes to it.
static bool MakePipe(Pipe *made, OwnedHandle Pipe::*inherited)
{
    return CreatePipe(&made->reading.handle, &made->writing.handle, nullptr, 0) &&
           SetHandleInformation((made->*inherited).handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
}

// As CommandLineToArgvW takes it apart again: a quotation mark, and the backslashes before one, stand behind a
// backslash.
static void AddQuoted(const std::wstring &word, std::wstring *line)
{
    *line += line->empty() ? L"\"" : L" \"";
    size_t backslashes = 0;
    for (const wchar_t letter : word) {
        if (letter == L'"') {
            line->append(backslashes + 1, L'\\');
        }
        backslashes = letter == L'\\' ? backslashes + 1 : 0;
        *line += letter;
    }
    line->append(backslashes, L'\\');
    *line += L'"';
}

// Whatever is in it ends when its last handle, which is this process's, goes.
static bool MakeJob(OwnedHandle *job)
{
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    job->handle = CreateJobObjectW(nullptr, nullptr);
    return job->handle != nullptr &&
           SetInformationJobObject(job->handle, JobObjectExtendedLimitInformation, &limits, sizeof(limits));
}

static void FeedInput(Pipe &input, const std::string &text)
{
    size_t written = 0;
    DWORD step = 0;
    while (written < text.size() && WriteFile(input.writing.handle, text.data() + written,
                                              static_cast<DWORD>(text.size() - written), &step, nullptr)) {
        written += step;
    }
    input.writing.Close();
}

using Listener = std::function<void(const std::string &)>;

// False if there is nothing to hand on now.
static bool HandOn(HANDLE reading, const Listener &listener)
{
    char block[4096];
    DWORD waiting = 0;
    DWORD step = 0;
    if (!PeekNamedPipe(reading, nullptr, 0, nullptr, &waiting, nullptr) || waiting == 0 ||
        !ReadFile(reading, block, std::min<DWORD>(waiting, sizeof(block)), &step, nullptr)) {
        return false;
    }
    listener(std::string(block, step));
    return true;
}

// Until the program has ended and what it had printed by then is handed on. What it left running may hold its streams
// for ever, and is not waited for.
static void Converse(HANDLE process, Pipe &output, Pipe &errors, const Listener &onOutput, const Listener &onErrors)
{
    constexpr DWORD pause = 50; // milliseconds
    for (bool hasEnded = false;;) {
        const bool hadOutput = HandOn(output.reading.handle, onOutput);
        const bool hadErrors = HandOn(errors.reading.handle, onErrors);
        if (!hadOutput && !hadErrors) {
            if (hasEnded) {
                return;
            }
            hasEnded = WaitForSingleObject(process, pause) == WAIT_OBJECT_0;
        }
    }
}

Trouble RunProgram(const ProgramToRun &program, const Listener &onOutput, ProgramEnd *end)
{
    Pipe input;
    Pipe output;
    Pipe errors;
    OwnedHandle job;
    if (!MakePipe(&input, &Pipe::reading) || !MakePipe(&output, &Pipe::writing) || !MakePipe(&errors, &Pipe::writing) ||
        !MakeJob(&job)) {
        return SystemText(GetLastError());
    }
    std::wstring line;
    for (const std::string &argument : program.arguments) {
        AddQuoted(Widen(argument), &line);
    }
    STARTUPINFOW start = {};
    start.cb = sizeof(start);
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = input.reading.handle;
    start.hStdOutput = output.writing.handle;
    start.hStdError = program.onErrors ? errors.writing.handle : output.writing.handle;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(Widen(program.arguments[0]).c_str(), line.data(), nullptr, nullptr, TRUE,
                        CREATE_SUSPENDED | CREATE_NO_WINDOW, nullptr, nullptr, &start, &process)) {
        return SystemText(GetLastError());
    }
    OwnedHandle processHandle;
    OwnedHandle threadHandle;
    processHandle.handle = process.hProcess;
    threadHandle.handle = process.hThread;
    if (!AssignProcessToJobObject(job.handle, process.hProcess)) {
        const DWORD error = GetLastError();
        TerminateProcess(process.hProcess, 1);
        return SystemText(error);
    }
    ResumeThread(process.hThread);
    input.reading.Close();
    output.writing.Close();
    errors.writing.Close();
    std::thread feeder([&] { FeedInput(input, program.input); });
    Converse(process.hProcess, output, errors, onOutput, program.onErrors ? program.onErrors : onOutput);
    job.Close(); // what it left running would keep the feeder waiting
    feeder.join();
    DWORD status = 0;
    GetExitCodeProcess(process.hProcess, &status);
    end->exitStatus = static_cast<int>(status);
    end->wasEnded = false;
    return {};
}

// There is no folder for programs of others that only the Administrators may change but this program's own.
std::string ProgramOfSystem(const std::string &name)
{
    const std::string path = ProgramBeside(name);
    return GetFileAttributesW(Widen(path).c_str()) == INVALID_FILE_ATTRIBUTES ? std::string() : path;
}

std::string ProgramBeside(const std::string &name)
{
    std::wstring path(32768, L'\0');
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    const bool isWhole = length != 0 && length < path.size();
    return isWhole ? FolderOf(Narrow(path.c_str())) + name + ".exe" : std::string();
}

std::string MachineName()
{
    wchar_t name[256];
    DWORD units = 256;
    return GetComputerNameExW(ComputerNameDnsHostname, name, &units) ? Narrow(name) : std::string();
}

} // namespace host
