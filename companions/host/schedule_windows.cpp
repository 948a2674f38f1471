// Tasks of the Task Scheduler, by way of schtasks, which is run from the system's own folder.
#include "host/open_handle_windows.h"

#include <algorithm>

namespace host
{

Scheduler OwnScheduler()
{
    return Scheduler::Tasks;
}

std::string PlaceOfScheduled(const std::string &name)
{
    return "\\" + name;
}

// With its separator behind it; empty where it can't be told.
static std::string SystemFolder()
{
    wchar_t folder[MAX_PATH] = {};
    const UINT units = GetSystemDirectoryW(folder, MAX_PATH);
    return units == 0 || units >= MAX_PATH ? std::string() : Narrow(folder) + "\\";
}

// Of the system, where files that an administrator makes are nobody else's to change.
static std::string TemporaryFolder()
{
    wchar_t folder[MAX_PATH] = {};
    const UINT units = GetSystemWindowsDirectoryW(folder, MAX_PATH);
    return units == 0 || units >= MAX_PATH ? std::string() : Narrow(folder) + "\\Temp\\";
}

// In one line. Zero bytes are the halves of wide characters.
static std::string OneLine(std::string text)
{
    text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return c == '\0' || c == '\r'; }), text.end());
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

// What it printed is kept whether it failed or not.
static Trouble RunSchtasks(const std::vector<std::string> &words, std::string *output)
{
    ProgramToRun program;
    ProgramEnd end;
    program.arguments = {SystemFolder() + "schtasks.exe"};
    program.arguments.insert(program.arguments.end(), words.begin(), words.end());
    if (const Trouble trouble = RunProgram(
            program, [output](const std::string &piece) { *output += piece; }, &end)) {
        return program.arguments[0] + ": " + *trouble;
    }
    *output = OneLine(*output);
    if (end.exitStatus == 0) {
        return {};
    }
    return "schtasks " + words[0] + " failed with exit status " + std::to_string(end.exitStatus) +
           (output->empty() ? "" : ": " + *output);
}

Trouble CheckScheduler()
{
    std::string output;
    return RunSchtasks({"/Query", "/FO", "LIST"}, &output);
}

// schtasks doesn't tell a task that isn't there from one that can't be read. The second one is then in the way of the
// new one, which replaces none unless it was read.
Trouble ReadScheduled(const std::string &name, std::optional<std::string> *content)
{
    std::string output;
    content->reset();
    if (!RunSchtasks({"/Query", "/TN", PlaceOfScheduled(name), "/XML"}, &output)) {
        *content = output;
    }
    return {};
}

static Trouble WriteTask(const std::string &path, const std::string &content)
{
    NewFile made;
    Trouble trouble = CreateNewFile(path, Existing::IsTrouble, &made);
    trouble = trouble ? trouble : WriteAt(made, 0, content.data(), content.size());
    trouble = trouble ? trouble : FinishNewFile(&made);
    return trouble ? path + " can't be written: " + *trouble : Trouble();
}

static Trouble InstallTask(const ScheduledFile &file)
{
    const std::string path = TemporaryFolder() + file.name + "." + std::to_string(GetCurrentProcessId()) + ".xml";
    std::optional<std::string> former;
    std::string output;
    Trouble trouble = ReadScheduled(file.name, &former);
    trouble = trouble ? trouble : WriteTask(path, file.content);
    if (trouble) {
        return trouble;
    }
    std::vector<std::string> words = {"/Create", "/TN", PlaceOfScheduled(file.name), "/XML", path};
    if (former) {
        words.emplace_back("/F");
    }
    trouble = RunSchtasks(words, &output);
    const Trouble left = RemoveName(path);
    return trouble ? trouble : left ? path + " can't be removed: " + *left : Trouble();
}

// A task is taken as a whole or not at all.
Trouble InstallScheduled(const std::vector<ScheduledFile> &files)
{
    for (const ScheduledFile &file : files) {
        if (Trouble trouble = InstallTask(file)) {
            return trouble;
        }
    }
    return {};
}

Trouble RemoveScheduled(const std::vector<std::string> &names)
{
    for (const std::string &name : names) {
        std::string output;
        if (Trouble trouble = RunSchtasks({"/Delete", "/TN", PlaceOfScheduled(name), "/F"}, &output)) {
            return trouble;
        }
    }
    return {};
}

std::string SleepInhibitor()
{
    return {};
}

std::string AbsolutePath(const std::string &path)
{
    std::wstring full(32768, L'\0');
    const DWORD units = GetFullPathNameW(Widen(path).c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    return units == 0 || units >= full.size() ? path : Narrow(full.c_str());
}

std::string ResolvedPath(const std::string &path)
{
    return AbsolutePath(path);
}

} // namespace host
