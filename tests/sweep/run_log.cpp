// Lines of a log: taken from the machine, searched, and put right after an edit.
#include "sweep/run_log.h"

#include "simulator/expectations.h"

#include <algorithm>
#include <map>
#include <set>

namespace sweep
{
namespace
{
const char arrow[] = " -> ";
const char failedMark[] = " -> failed ";

const std::set<std::string> &HresultCalls()
{
    static const std::set<std::string> names = {"CoInitializeEx",
                                                "CoInitializeSecurity",
                                                "CreateVssBackupComponentsInternal",
                                                "InitializeForBackup",
                                                "SetContext",
                                                "SetBackupState",
                                                "GatherWriterMetadata",
                                                "StartSnapshotSet",
                                                "IsVolumeSupported",
                                                "AddToSnapshotSet",
                                                "PrepareForBackup",
                                                "DoSnapshotSet",
                                                "GatherWriterStatus",
                                                "GetWriterStatusCount",
                                                "GetWriterStatus",
                                                "FreeWriterStatus",
                                                "BackupComplete",
                                                "AbortBackup",
                                                "DeleteSnapshots",
                                                "Wait",
                                                "QueryStatus",
                                                "GetSnapshotProperties"};
    return names;
}

// Numbers each handle anew, at its first place in the lines.
void Renumber(Lines &lines)
{
    std::map<std::string, std::string> renamed;
    std::map<std::string, int> counts;
    for (std::string &line : lines) {
        if (IsOutput(line)) {
            continue;
        }
        for (size_t mark = line.find('#'); mark != std::string::npos; mark = line.find('#', mark + 1)) {
            const size_t end = std::min(line.find_first_not_of("0123456789", mark + 1), line.size());
            const size_t space = line.rfind(' ', mark);
            const std::string old = line.substr(space + 1, end - space - 1);
            if (renamed.count(old) == 0) {
                const std::string name = line.substr(space + 1, mark - space);
                renamed[old] = name + std::to_string(++counts[name]);
            }
            line.replace(space + 1, old.size(), renamed[old]);
            mark = line.find('#', space);
        }
    }
}

void Reposition(Lines &lines)
{
    std::map<std::string, uint64_t> positions;
    for (std::string &line : lines) {
        if (Begins(line, "SetFilePointerEx ") && !IsFailed(line)) {
            positions[Object(line)] = static_cast<uint64_t>(NumberBehind(line, Object(line) + " "));
        } else if (Begins(line, "ReadFile ") || Begins(line, "WriteFile ")) {
            uint64_t &position = positions[Object(line)];
            const size_t place = line.find(" at ") + 4;
            line.replace(place, line.find(' ', place) - place, std::to_string(position));
            position += IsFailed(line) ? 0 : static_cast<uint64_t>(NumberBehind(line, arrow));
        }
    }
}

// What the call left as last error; -1 if it left it alone.
int64_t LastErrorOf(const std::string &line)
{
    const bool isSystemCall = line[0] >= 'A' && line[0] <= 'Z';
    if (!CanFail(line) || Begins(line, "BCrypt") || (!isSystemCall && !IsFailed(line))) {
        return -1;
    }
    if (!IsFailed(line)) {
        return spoiledError;
    }
    return HresultCalls().count(Name(line)) != 0 ? -1 : NumberBehind(line, failedMark);
}

void RestateLastErrors(Lines &lines)
{
    std::string lastError = "0";
    bool isToBePrinted = false;
    for (std::string &line : lines) {
        const size_t figure = line.find("GetLastError=");
        if (Name(line) == "GetLastError") {
            line = "GetLastError -> " + lastError;
            isToBePrinted = true;
        } else if (isToBePrinted && IsOutput(line) && figure != std::string::npos) {
            const size_t start = figure + 13;
            line.replace(start, line.find_first_not_of("0123456789", start) - start, lastError);
            isToBePrinted = false;
        } else if (LastErrorOf(line) >= 0) {
            lastError = std::to_string(LastErrorOf(line));
        }
    }
}
} // namespace

Lines LinesOf(const Machine &machine)
{
    Lines lines;
    for (const Call &call : machine.calls) {
        if (call.name == "stdout" || call.name == "stderr") {
            AddOutput(lines, call.name, call.result);
        } else {
            lines.push_back(call.text);
        }
    }
    return lines;
}

std::string Joined(const Lines &lines)
{
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return text;
}

bool Begins(const std::string &line, const std::string &start)
{
    return line.compare(0, start.size(), start) == 0;
}

bool Holds(const std::string &line, const std::string &text)
{
    return line.find(text) != std::string::npos;
}

bool IsOutput(const std::string &line)
{
    return Begins(line, "stdout ") || Begins(line, "stderr ");
}

bool IsFailed(const std::string &line)
{
    return !IsOutput(line) && Holds(line, failedMark);
}

std::string Name(const std::string &line)
{
    return line.substr(0, line.find(' '));
}

std::string Object(const std::string &line)
{
    const size_t start = Name(line).size() + 1;
    return start > line.size() ? "" : line.substr(start, line.find(' ', start) - start);
}

int64_t NumberBehind(const std::string &line, const std::string &word)
{
    const size_t place = line.find(word);
    const size_t digit = place + word.size();
    const bool isNumber = place != std::string::npos && digit < line.size() && isdigit(line[digit]) != 0;
    return isNumber ? std::stoll(line.substr(digit)) : -1;
}

size_t Find(const Lines &lines, const std::string &start, size_t index)
{
    while (index < lines.size() && !Begins(lines[index], start)) {
        ++index;
    }
    return index;
}

size_t CallBefore(const Lines &lines, size_t index)
{
    while (index-- > 0) {
        if (!IsOutput(lines[index])) {
            return index;
        }
    }
    return lines.size();
}

bool Succeeds(const Lines &lines, const std::string &start)
{
    return CountSuccesses(lines, start) != 0;
}

size_t CountSuccesses(const Lines &lines, const std::string &start)
{
    return static_cast<size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string &line) { return Begins(line, start) && !IsFailed(line); }));
}

void Replace(Lines &lines, const std::string &text, const std::string &by)
{
    for (std::string &line : lines) {
        const size_t place = line.find(text);
        if (place != std::string::npos) {
            line.replace(place, text.size(), by);
        }
    }
}

void AddOutput(Lines &lines, const std::string &stream, const std::string &text)
{
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size() - 1) + 1;
        const std::string piece = text.substr(start, end - start);
        if (!lines.empty() && Begins(lines.back(), stream + " ") && lines.back().back() != '\n') {
            lines.back() += piece;
        } else {
            lines.push_back(stream + " " + piece);
        }
        start = end;
    }
}

bool CanFail(const std::string &line)
{
    static const std::set<std::string> never = {
        "stdout",         "stderr",        "exit",           "GetLastError",  "Release",
        "GetTickCount64", "_aligned_free", "CoUninitialize", "SysFreeString", "VssFreeSnapshotPropertiesInternal"};
    return never.count(Name(line)) == 0;
}

std::string AsFailed(const std::string &line)
{
    static const std::map<std::string, std::string> usual = {
        {"calloc", "8"}, {"_aligned_malloc", "8"}, {"fopen_s", "5"}};
    const std::string call = line.substr(0, line.find(arrow)) + failedMark;
    if (Begins(line, "BCrypt")) {
        return call + "0xC0000001";
    }
    if (HresultCalls().count(Name(line)) != 0) {
        return call + "0x8000FFFF";
    }
    const auto found = usual.find(Name(line));
    return call + (found != usual.end() ? found->second : "1117");
}

std::string AsShort(const std::string &line)
{
    static const std::set<std::string> transfers = {"ReadFile", "WriteFile", "fread"};
    const int64_t moved = transfers.count(Name(line)) != 0 ? NumberBehind(line, arrow) : 0;
    return moved < 2 ? "" : line.substr(0, line.find(arrow)) + arrow + std::to_string(moved / 2);
}

void Settle(Lines &lines)
{
    Renumber(lines);
    Reposition(lines);
    RestateLastErrors(lines);
}
} // namespace sweep
