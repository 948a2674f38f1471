// The program's lines are its own fixed texts; of each note the part that names it.
#include "kestrix-keep/capture.h"

#include "kestrix-keep/guest.h"

#include <algorithm>

// Cuts output into lines. What a carriage return overwrites on a terminal is not kept.
struct LineCutter {
    void Add(const std::string &piece)
    {
        for (const char letter : piece) {
            if (letter == '\n') {
                Finish();
            } else if (letter == '\r') {
                line.clear();
            } else {
                line += letter;
            }
        }
    }
    void Finish()
    {
        if (!line.empty()) {
            lines.push_back(line);
            onLine(line);
        }
        line.clear();
    }

    const std::function<void(const std::string &)> &onLine;
    std::vector<std::string> lines = {};
    std::string line = {};
};

static std::vector<std::string> ArgumentsOf(const CaptureOrder &order)
{
    std::vector<std::string> arguments = {order.program, "capture"};
    if (order.guest) {
        arguments.insert(arguments.end(), {order.guest->domain, order.guest->disk});
        const std::vector<std::string> way = WayToGuest(*order.guest);
        arguments.insert(arguments.end(), way.begin(), way.end());
    } else {
        arguments.insert(arguments.end(), {"--disk", std::to_string(order.disk)});
    }
    arguments.insert(arguments.end(), {"--out", order.outPath});
    if (!order.basePath.empty()) {
        arguments.insert(arguments.end(), {"--base", order.basePath, "--thin"});
    }
    if (order.usesSnapshots) {
        arguments.push_back("--vss");
    }
    if (!order.passwordFile.empty()) {
        arguments.insert(arguments.end(), {"--encrypt", "--password-file", order.passwordFile});
    }
    return arguments;
}

static bool Contains(const std::string &line, const char *part)
{
    return line.find(part) != std::string::npos;
}

CaptureOutcome RunCapture(const CaptureOrder &order, const std::function<void(const std::string &)> &onLine)
{
    LineCutter cutter = {onLine};
    host::ProgramEnd end;
    const host::Trouble trouble = host::RunProgram(
        {ArgumentsOf(order), {}}, [&cutter](const std::string &piece) { cutter.Add(piece); }, &end);
    cutter.Finish();
    CaptureOutcome outcome;
    outcome.lines = std::move(cutter.lines);
    const std::string name = order.guest ? "kestrix-vm" : "kestrix";
    if (trouble) {
        outcome.failure = order.program + ": it can't be started: " + *trouble;
    } else if (end.wasEnded) {
        outcome.failure = name + " was ended before the image was complete";
    } else if (end.exitStatus != 0) {
        const auto fatal = std::find_if(outcome.lines.rbegin(), outcome.lines.rend(), [](const std::string &line) {
            return Contains(line, "FATAL") || line.rfind("kestrix-vm: ", 0) == 0;
        });
        outcome.failure = name + " ended with exit status " + std::to_string(end.exitStatus) +
                          (fatal == outcome.lines.rend() ? "" : ": " + *fatal);
    }
    return outcome;
}

std::vector<std::string> NotesOf(const std::vector<std::string> &captureLines)
{
    static const char *const parts[] = {"reading live instead",
                                        "it will be read live",
                                        "read live.",
                                        "cannot prove what changed",
                                        "WARNING",
                                        "crash-consistent only",
                                        "did not complete successfully",
                                        "Not frozen",
                                        "proves nothing"};
    std::vector<std::string> notes;
    for (const std::string &line : captureLines) {
        const bool isNote =
            std::any_of(std::begin(parts), std::end(parts), [&line](const char *part) { return Contains(line, part); });
        if (isNote) {
            notes.push_back(line.substr(std::min(line.find_first_not_of(' '), line.size())));
        }
    }
    return notes;
}

std::string WhyNoBaseAfter(const std::vector<std::string> &captureLines)
{
    const bool failed = std::any_of(captureLines.begin(), captureLines.end(),
                                    [](const std::string &line) { return Contains(line, "tracker COMMIT failed"); });
    return failed ? "the change tracker did not take note of it" : "";
}
