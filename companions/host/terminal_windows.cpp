// Questions on a console. While an answer is waited for, an interrupt is only noted; the console's mode is given back
// before anything else is done.
#include "host/open_handle_windows.h"

#include <atomic>

namespace host
{

static std::atomic<bool> wasInterrupted = false;

static BOOL WINAPI NoteInterrupt(DWORD)
{
    wasInterrupted = true;
    return TRUE;
}

struct InterruptHoldState {
    InterruptHoldState()
    {
        SetConsoleCtrlHandler(NoteInterrupt, TRUE);
    }
    InterruptHoldState(const InterruptHoldState &) = delete;
    InterruptHoldState &operator=(const InterruptHoldState &) = delete;
    ~InterruptHoldState()
    {
        SetConsoleCtrlHandler(NoteInterrupt, FALSE);
    }
};

InterruptHold::InterruptHold()
{
    wasInterrupted = false;
    state.reset(new InterruptHoldState);
}

InterruptHold::~InterruptHold() = default;

bool InterruptHold::HasInterrupted() const
{
    return state && wasInterrupted;
}

void EndInterruptHold::operator()(InterruptHoldState *state) const
{
    delete state;
}

namespace
{

// The console's input, line by line, with or without echo.
struct LineInput {
    explicit LineInput(Echo echo) : input(GetStdHandle(STD_INPUT_HANDLE))
    {
        isConsole = GetConsoleMode(input, &before) != 0;
        const DWORD lines = ENABLE_PROCESSED_INPUT | ENABLE_LINE_INPUT;
        if (isConsole) {
            FlushConsoleInputBuffer(input);
            SetConsoleMode(input, echo == Echo::Shown ? lines | ENABLE_ECHO_INPUT : lines);
        }
    }
    LineInput(const LineInput &) = delete;
    LineInput &operator=(const LineInput &) = delete;
    ~LineInput()
    {
        if (isConsole) {
            SetConsoleMode(input, before);
        }
    }

    HANDLE input;
    DWORD before = 0;
    bool isConsole = false;
};

} // namespace

static bool IsConsole(DWORD stream)
{
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(stream), &mode) != 0;
}

static bool ShowText(const std::string &text)
{
    const bool isOutput = !IsConsole(STD_ERROR_HANDLE) && IsConsole(STD_OUTPUT_HANDLE);
    const HANDLE stream = GetStdHandle(isOutput ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
    DWORD written = 0;
    return WriteFile(stream, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) != 0;
}

// One UTF-16 unit of a console, or one byte of another input; an end of the input is 0 of them.
static bool ReadUnit(const LineInput &from, wchar_t *unit, DWORD *count)
{
    if (from.isConsole) {
        return ReadConsoleW(from.input, unit, 1, count, nullptr) != 0;
    }
    char byte = 0;
    const BOOL isRead = ReadFile(from.input, &byte, 1, count, nullptr);
    *unit = static_cast<unsigned char>(byte);
    if (!isRead && GetLastError() == ERROR_BROKEN_PIPE) {
        *count = 0;
        return true;
    }
    return isRead != 0;
}

static AnswerEnd ReadLineOfInput(const LineInput &from, std::wstring *units, std::string *trouble)
{
    constexpr size_t mostUnits = 4096;
    constexpr wchar_t endOfInput = 0x1A; // Ctrl-Z
    for (;;) {
        wchar_t unit = 0;
        DWORD count = 0;
        const bool isRead = ReadUnit(from, &unit, &count);
        const DWORD error = GetLastError();
        if (wasInterrupted || (count == 0 && from.isConsole && error == ERROR_OPERATION_ABORTED)) {
            return AnswerEnd::Interrupted;
        }
        if (!isRead || units->size() == mostUnits) {
            *trouble = isRead ? "the line is too long" : SystemText(error);
            return AnswerEnd::Failed;
        }
        if (count == 0 || unit == endOfInput || unit == L'\n') {
            return unit == L'\n' && count != 0 ? AnswerEnd::Line : AnswerEnd::EndOfInput;
        }
        if (unit != L'\r') {
            units->push_back(unit);
        }
    }
}

AnswerEnd AskLine(const std::string &prompt, Echo echo, std::string *line, std::string *trouble)
{
    const InterruptHold hold;
    wasInterrupted = false;
    line->clear();
    const LineInput from(echo);
    if (!ShowText(prompt)) {
        *trouble = "the question can't be shown: " + SystemText(GetLastError());
        return AnswerEnd::Failed;
    }
    std::wstring units;
    const AnswerEnd end = ReadLineOfInput(from, &units, trouble);
    if (end == AnswerEnd::Line && from.isConsole) {
        *line = Narrow(units.c_str());
    } else if (end == AnswerEnd::Line) {
        for (const wchar_t unit : units) {
            line->push_back(static_cast<char>(unit));
        }
    }
    SecureZeroMemory(units.data(), units.size() * sizeof(wchar_t));
    if ((end != AnswerEnd::Line || echo == Echo::Hidden) && from.isConsole) {
        ShowText("\r\n"); // that the console did not show
    }
    return end;
}

void Wipe(std::string *text)
{
    SecureZeroMemory(text->data(), text->size());
    text->clear();
}

std::string WhyNoSecretFiles()
{
    return "on Windows a password can't be typed, since kestrix takes it from a file";
}

Trouble MakeSecretFile(std::string *secret, SecretFile *)
{
    Wipe(secret);
    return WhyNoSecretFiles();
}

} // namespace host
