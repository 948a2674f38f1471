// Other programs, run to their end.
#include "host/open_handle_linux.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace host
{

struct Descriptor {
    Descriptor() = default;
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor()
    {
        Close();
    }
    void Close()
    {
        if (number >= 0) {
            close(std::exchange(number, -1));
        }
    }

    int number = -1;
};

struct Pipe {
    Descriptor reading;
    Descriptor writing;
};

static bool MakePipe(Pipe *made)
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    made->reading.number = ends[0];
    made->writing.number = ends[1];
    return true;
}

// In the new process: only what may be called there. What fails is told through the pipe that a program's start closes.
[[noreturn]] static void BecomeProgram(char *const *arguments, const Pipe &input, const Pipe &output,
                                       const Pipe &errors, const Pipe &failure, pid_t parent)
{
    for (const int ignored : {SIGPIPE, SIGXFSZ}) {
        signal(ignored, SIG_DFL);
    }
    // It must not outlive the one who would have heard how it ended.
    const bool isTied = prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
    if (isTied && dup2(input.reading.number, STDIN_FILENO) >= 0 && dup2(output.writing.number, STDOUT_FILENO) >= 0 &&
        dup2(errors.writing.number, STDERR_FILENO) >= 0) {
        execv(arguments[0], arguments);
    }
    const int error = errno;
    if (write(failure.writing.number, &error, sizeof(error)) < 0) {
        _exit(126);
    }
    _exit(127);
}

// Writes what of the input the pipe takes, and closes it behind the last byte, or where nobody reads it.
static void FeedInput(Pipe &input, const std::string &text, size_t *written)
{
    const ssize_t step = write(input.writing.number, text.data() + *written, text.size() - *written);
    *written += step > 0 ? static_cast<size_t>(step) : 0;
    if (*written == text.size() || (step < 0 && errno != EAGAIN && errno != EINTR)) {
        input.writing.Close();
    }
}

using Listener = std::function<void(const std::string &)>;

static void HandOn(Descriptor &reading, const Listener &listener)
{
    char block[4096];
    const ssize_t step = read(reading.number, block, sizeof(block));
    if (step > 0) {
        listener(std::string(block, static_cast<size_t>(step)));
    } else if (step == 0 || (errno != EAGAIN && errno != EINTR)) {
        reading.Close();
    }
}

// options: as waitpid takes them; without WNOHANG it waits.
static bool HasEnded(pid_t process, int options, ProgramEnd *end)
{
    int status = 0;
    pid_t found = 0;
    while ((found = waitpid(process, &status, options)) < 0 && errno == EINTR) {
    }
    if (found != process) {
        return false;
    }
    end->wasEnded = !WIFEXITED(status);
    end->exitStatus = end->wasEnded ? -1 : WEXITSTATUS(status);
    return true;
}

// Until the program has ended and what it had printed by then is handed on. What it left running may hold its streams
// for ever, and is not waited for.
static void Converse(pid_t process, Pipe &input, Pipe &output, Pipe &errors, const ProgramToRun &program,
                     const Listener &onOutput, ProgramEnd *end)
{
    constexpr int pause = 100; // milliseconds
    const Listener &onErrors = program.onErrors ? program.onErrors : onOutput;
    size_t written = 0;
    for (const Pipe *pipe : {&output, &errors}) {
        fcntl(pipe->reading.number, F_SETFL, O_NONBLOCK);
    }
    fcntl(input.writing.number, F_SETFL, O_NONBLOCK);
    for (bool hasEnded = false;;) {
        if (output.reading.number < 0 && errors.reading.number < 0 && input.writing.number < 0) { // all is said
            HasEnded(process, 0, end);
            return;
        }
        pollfd waited[3] = {
            {output.reading.number, POLLIN, 0}, {errors.reading.number, POLLIN, 0}, {input.writing.number, POLLOUT, 0}};
        poll(waited, 3, hasEnded ? 0 : pause);
        const bool hasOutput = waited[0].revents != 0 || waited[1].revents != 0;
        if (hasEnded && !hasOutput) {
            return;
        }
        if (waited[0].revents != 0) {
            HandOn(output.reading, onOutput);
        }
        if (waited[1].revents != 0) {
            HandOn(errors.reading, onErrors);
        }
        if (waited[2].revents != 0) {
            FeedInput(input, program.input, &written);
        }
        hasEnded = hasEnded || (!hasOutput && HasEnded(process, WNOHANG, end));
    }
}

Trouble RunProgram(const ProgramToRun &program, const Listener &onOutput, ProgramEnd *end)
{
    Pipe input;
    Pipe output;
    Pipe errors;
    Pipe failure;
    if (!MakePipe(&input) || !MakePipe(&output) || !MakePipe(&errors) || !MakePipe(&failure)) {
        return SystemText(errno);
    }
    std::vector<char *> arguments;
    for (const std::string &argument : program.arguments) {
        arguments.push_back(const_cast<char *>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t process = fork();
    if (process < 0) {
        return SystemText(errno);
    }
    if (process == 0) {
        BecomeProgram(arguments.data(), input, output, program.onErrors ? errors : output, failure, parent);
    }
    input.reading.Close();
    output.writing.Close();
    errors.writing.Close();
    failure.writing.Close();
    int error = 0;
    ssize_t told = 0;
    while ((told = read(failure.reading.number, &error, sizeof(error))) < 0 && errno == EINTR) {
    }
    if (told == 0) {
        Converse(process, input, output, errors, program, onOutput, end);
        return {};
    }
    waitpid(process, nullptr, 0);
    return SystemText(error);
}

std::string ProgramOfSystem(const std::string &name)
{
    for (const char *folder : {"/usr/local/sbin/", "/usr/local/bin/", "/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"}) {
        if (access((folder + name).c_str(), X_OK) == 0) {
            return folder + name;
        }
    }
    return {};
}

std::string ProgramBeside(const std::string &name)
{
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
    const bool isWhole = length > 0 && static_cast<size_t>(length) < sizeof(path);
    return isWhole ? FolderOf(std::string(path, static_cast<size_t>(length))) + name : std::string();
}

std::string MachineName()
{
    char name[HOST_NAME_MAX + 1] = {};
    return gethostname(name, sizeof(name) - 1) == 0 ? name : "";
}

} // namespace host
