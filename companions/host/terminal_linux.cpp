// Questions on a terminal or a serial line, and what is told there and must not be seen.
//
// While an answer is waited for, the signals that end a conversation are only noted. They are let through nowhere but
// in the wait itself, so that none comes unseen between a look and the wait; the terminal has its echo back before
// anything else is done.
#include "host/open_handle_linux.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace host
{

static const int endingSignals[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};

static volatile sig_atomic_t wasInterrupted = 0;

static void NoteInterrupt(int)
{
    wasInterrupted = 1;
}

// ---- Signals ----

namespace
{

// Notes the signals that end a conversation, but those that are ignored.
struct NotedSignals {
    NotedSignals()
    {
        struct sigaction noting = {};
        noting.sa_handler = NoteInterrupt;
        sigemptyset(&noting.sa_mask);
        for (size_t i = 0; i < std::size(endingSignals); ++i) {
            sigaction(endingSignals[i], nullptr, &before[i]);
            if (before[i].sa_handler != SIG_IGN) {
                sigaction(endingSignals[i], &noting, nullptr);
            }
        }
    }
    NotedSignals(const NotedSignals &) = delete;
    NotedSignals &operator=(const NotedSignals &) = delete;
    ~NotedSignals()
    {
        for (size_t i = 0; i < std::size(endingSignals); ++i) {
            sigaction(endingSignals[i], &before[i], nullptr);
        }
    }

    struct sigaction before[std::size(endingSignals)] = {};
};

// Keeps them back, but where letThrough is the mask.
struct BlockedSignals {
    BlockedSignals()
    {
        sigset_t ending;
        sigemptyset(&ending);
        for (const int number : endingSignals) {
            sigaddset(&ending, number);
        }
        pthread_sigmask(SIG_BLOCK, &ending, &letThrough);
    }
    BlockedSignals(const BlockedSignals &) = delete;
    BlockedSignals &operator=(const BlockedSignals &) = delete;
    ~BlockedSignals()
    {
        pthread_sigmask(SIG_SETMASK, &letThrough, nullptr);
    }

    sigset_t letThrough = {};
};

// The terminal on standard input without echo.
struct HiddenInput {
    explicit HiddenInput(Echo echo)
    {
        if (echo == Echo::Shown || tcgetattr(STDIN_FILENO, &before) != 0) {
            return;
        }
        termios quiet = before;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
        isHidden = tcsetattr(STDIN_FILENO, TCSANOW, &quiet) == 0;
    }
    HiddenInput(const HiddenInput &) = delete;
    HiddenInput &operator=(const HiddenInput &) = delete;
    ~HiddenInput()
    {
        if (isHidden) {
            tcsetattr(STDIN_FILENO, TCSANOW, &before);
        }
    }

    termios before = {};
    bool isHidden = false;
};

} // namespace

struct InterruptHoldState {
    NotedSignals noted;
};

InterruptHold::InterruptHold()
{
    wasInterrupted = 0;
    state.reset(new InterruptHoldState);
}

InterruptHold::~InterruptHold() = default;

bool InterruptHold::HasInterrupted() const
{
    return state && wasInterrupted != 0;
}

void EndInterruptHold::operator()(InterruptHoldState *state) const
{
    delete state;
}

// ---- A line ----

static int PromptDescriptor()
{
    return isatty(STDERR_FILENO) == 0 && isatty(STDOUT_FILENO) != 0 ? STDOUT_FILENO : STDERR_FILENO;
}

static bool ShowText(std::string_view text)
{
    const int descriptor = PromptDescriptor();
    while (!text.empty()) {
        const ssize_t step = write(descriptor, text.data(), text.size());
        if (step < 0 && errno != EINTR && errno != EAGAIN) {
            return false;
        }
        text.remove_prefix(step > 0 ? static_cast<size_t>(step) : 0);
    }
    return true;
}

// One byte; what ends the line otherwise than by its end is told instead.
static AnswerEnd ReadByte(const sigset_t &letThrough, char *byte, std::string *trouble)
{
    for (;;) {
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        const int ready = ppoll(&input, 1, nullptr, &letThrough);
        if (wasInterrupted != 0) {
            return AnswerEnd::Interrupted;
        }
        const ssize_t step = ready > 0 ? read(STDIN_FILENO, byte, 1) : -1;
        if (step >= 0) {
            return step == 0 ? AnswerEnd::EndOfInput : AnswerEnd::Line;
        }
        if (ready > 0 && errno == EIO) { // the terminal is gone
            return AnswerEnd::EndOfInput;
        }
        if (errno != EINTR && errno != EAGAIN) {
            *trouble = SystemText(errno);
            return AnswerEnd::Failed;
        }
    }
}

static AnswerEnd ReadLineOfInput(const sigset_t &letThrough, std::string *line, std::string *trouble)
{
    constexpr size_t mostBytes = 4096;
    line->reserve(mostBytes); // so that a secret leaves no copy behind
    for (;;) {
        char byte = 0;
        const AnswerEnd end = ReadByte(letThrough, &byte, trouble);
        if (end != AnswerEnd::Line || byte == '\n') {
            return end;
        }
        if (line->size() == mostBytes) {
            *trouble = "the line is too long";
            return AnswerEnd::Failed;
        }
        line->push_back(byte);
    }
}

AnswerEnd AskLine(const std::string &prompt, Echo echo, std::string *line, std::string *trouble)
{
    const NotedSignals noted;
    const BlockedSignals blocked;
    wasInterrupted = 0;
    line->clear();
    AnswerEnd end = AnswerEnd::Line;
    {
        const HiddenInput hidden(echo);
        tcflush(STDIN_FILENO, TCIFLUSH); // which fails where it is no terminal, and nothing is to be thrown away
        if (!ShowText(prompt)) {
            *trouble = "the question can't be shown: " + SystemText(errno);
            return AnswerEnd::Failed;
        }
        end = ReadLineOfInput(blocked.letThrough, line, trouble);
    }
    if (end != AnswerEnd::Line) {
        Wipe(line);
    }
    if ((end != AnswerEnd::Line || echo == Echo::Hidden) && isatty(STDIN_FILENO) != 0) {
        ShowText("\n"); // that the terminal did not show
    }
    return end;
}

// ---- Secrets ----

void Wipe(std::string *text)
{
    explicit_bzero(text->data(), text->size());
    text->clear();
}

std::string WhyNoSecretFiles()
{
    return {};
}

Trouble MakeSecretFile(std::string *secret, SecretFile *file)
{
    file->handle.reset(new OpenHandle);
    file->handle->descriptor = memfd_create("kestrix-password", MFD_CLOEXEC);
    const int descriptor = file->handle->descriptor;
    Trouble trouble;
    if (descriptor < 0 || fchmod(descriptor, S_IRUSR | S_IWUSR) != 0) {
        trouble = SystemText(errno);
    } else if (const ssize_t written = write(descriptor, secret->data(), secret->size());
               written != static_cast<ssize_t>(secret->size())) {
        trouble = SystemText(written < 0 ? errno : ENOSPC);
    }
    Wipe(secret);
    file->path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(descriptor);
    return trouble;
}

} // namespace host
