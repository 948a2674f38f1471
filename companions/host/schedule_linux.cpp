// Units of systemd in the folder that is the administrator's. systemctl is run from where it lies, not from where the
// environment says.
#include "host/open_handle_linux.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>

namespace host
{

static const std::string unitFolder = "/etc/systemd/system/";

Scheduler OwnScheduler()
{
    return Scheduler::Systemd;
}

std::string PlaceOfScheduled(const std::string &name)
{
    return unitFolder + name;
}

// ---- Programs of the system ----

// What was printed, in one line.
static std::string OneLine(std::string text)
{
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

static Trouble RunSystemctl(const std::vector<std::string> &words)
{
    ProgramToRun program;
    ProgramEnd end;
    std::string output;
    std::string command = "systemctl";
    program.arguments = {ProgramOfSystem("systemctl"), "--no-ask-password"};
    for (const std::string &word : words) {
        program.arguments.push_back(word);
        command += " " + word;
    }
    if (program.arguments[0].empty()) {
        return "systemctl is not there";
    }
    if (const Trouble trouble = RunProgram(
            program, [&output](const std::string &piece) { output += piece; }, &end)) {
        return program.arguments[0] + ": " + *trouble;
    }
    if (end.exitStatus == 0) {
        return {};
    }
    return command + " failed" +
           (end.wasEnded ? " by a signal" : " with exit status " + std::to_string(end.exitStatus)) +
           (output.empty() ? "" : ": " + OneLine(output));
}

// This folder is made by a systemd that started the machine, and by nothing else.
Trouble CheckScheduler()
{
    struct stat found = {};
    if (lstat("/run/systemd/system", &found) != 0 || !S_ISDIR(found.st_mode)) {
        return "no systemd is running here";
    }
    return ProgramOfSystem("systemctl").empty() ? Trouble("systemctl is not there") : Trouble();
}

// Where nobody listens to it, it would fail before it runs anything.
std::string SleepInhibitor()
{
    const std::string path = ProgramOfSystem("systemd-inhibit");
    const std::string doesNothing = ProgramOfSystem("true");
    ProgramToRun trial;
    ProgramEnd end;
    if (path.empty() || doesNothing.empty()) {
        return {};
    }
    trial.arguments = {
        path, "--what=sleep", "--mode=block", "--who=kestrix-keep", "--why=To see whether it works", doesNothing};
    const Trouble trouble = RunProgram(
        trial, [](const std::string &) {}, &end);
    return !trouble && end.exitStatus == 0 ? path : std::string();
}

// ---- Unit files ----

Trouble ReadScheduled(const std::string &name, std::optional<std::string> *content)
{
    const std::string path = unitFolder + name;
    content->reset();
    if (NameIsFree(path)) {
        return {};
    }
    struct stat found = {};
    if (stat(path.c_str(), &found) != 0 || !S_ISREG(found.st_mode)) { // a unit is masked by a link to no file
        content->emplace();
        return {};
    }
    std::string text;
    if (Trouble trouble = ReadSmallFile(path, &text)) {
        return path + ": " + *trouble;
    }
    *content = text;
    return {};
}

static Trouble WriteUnit(const ScheduledFile &file)
{
    const std::string path = unitFolder + file.name;
    NewFile made;
    Trouble trouble = CreateNewFile(path, Existing::GivesWay, &made);
    trouble = trouble ? trouble : WriteAt(made, 0, file.content.data(), file.content.size());
    trouble = trouble ? trouble : FinishInPlaceOf(&made);
    return trouble ? path + " can't be written: " + *trouble : Trouble();
}

static Trouble RemoveUnit(const std::string &name)
{
    const Trouble trouble = RemoveName(unitFolder + name);
    return trouble ? unitFolder + name + " can't be removed: " + *trouble : Trouble();
}

static bool IsTimer(const std::string &name)
{
    static const std::string ending = ".timer";
    return name.size() > ending.size() && name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
}

// What a unit file was before.
struct Former {
    std::string name;
    std::optional<std::string> content;
};

static Trouble UndoInstalling(const std::vector<Former> &formers)
{
    Trouble first;
    const auto note = [&first](const Trouble &trouble) { first = first ? first : trouble; };
    for (const Former &former : formers) {
        if (!former.content && IsTimer(former.name) && !NameIsFree(unitFolder + former.name)) {
            note(RunSystemctl({"disable", "--now", former.name}));
        }
    }
    for (const Former &former : formers) {
        if (former.content) {
            note(WriteUnit({former.name, *former.content}));
        } else if (!NameIsFree(unitFolder + former.name)) {
            note(RemoveUnit(former.name));
        }
    }
    note(RunSystemctl({"daemon-reload"}));
    return first;
}

Trouble InstallScheduled(const std::vector<ScheduledFile> &files)
{
    std::vector<Former> formers;
    Trouble trouble;
    for (const ScheduledFile &file : files) {
        formers.push_back({file.name, std::nullopt});
        trouble = trouble ? trouble : ReadScheduled(file.name, &formers.back().content);
    }
    if (trouble) {
        return trouble;
    }
    for (const ScheduledFile &file : files) {
        trouble = trouble ? trouble : WriteUnit(file);
    }
    trouble = trouble ? trouble : RunSystemctl({"daemon-reload"});
    trouble = trouble ? trouble : RunSystemctl({"enable", "--now", files.back().name});
    if (!trouble) {
        return {};
    }
    const Trouble left = UndoInstalling(formers);
    return left ? *trouble + "; and what was done until then could not be undone: " + *left : trouble;
}

// The timer goes first: nothing is to be started any more when its files go.
Trouble RemoveScheduled(const std::vector<std::string> &names)
{
    Trouble trouble;
    for (const std::string &name : names) {
        if (IsTimer(name)) {
            trouble = trouble ? trouble : RunSystemctl({"disable", "--now", name});
        }
    }
    for (const std::string &name : names) {
        trouble = trouble ? trouble : RemoveUnit(name);
    }
    return trouble ? trouble : RunSystemctl({"daemon-reload"});
}

// ---- Paths ----

// Two dots stay: behind a link they lead elsewhere than the name before them says.
std::string AbsolutePath(const std::string &path)
{
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    return error ? path : absolute.string();
}

std::string ResolvedPath(const std::string &path)
{
    std::error_code error;
    const std::filesystem::path resolved = std::filesystem::weakly_canonical(path, error);
    return error ? AbsolutePath(path) : resolved.string();
}

} // namespace host
