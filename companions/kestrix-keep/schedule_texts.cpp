// Units of systemd, a task of Windows, a line of cron: one function for each, and one for how each writes a word.
//
// What is written for a service is its whole sandbox. A run reads disks and writes into its own folders, and may do
// nothing else; where it starts programs of the administrator's, nobody knows what they need, and it may do anything.
#include "kestrix-keep/schedule_texts.h"

#include "report/report.h"

#include <algorithm>
#include <cstdio>

static const char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
static const char digits[] = "0123456789";

// ---- Times and names ----

std::optional<TimeOfDay> ParseTimeOfDay(const std::string &text)
{
    const bool isShaped = text.size() == 5 && text[2] == ':' &&
                          (text.substr(0, 2) + text.substr(3)).find_first_not_of(digits) == std::string::npos;
    if (!isShaped) {
        return std::nullopt;
    }
    const TimeOfDay time = {std::stoi(text.substr(0, 2)), std::stoi(text.substr(3))};
    return time.hour < 24 && time.minute < 60 ? std::optional<TimeOfDay>(time) : std::nullopt;
}

std::string TimeText(const TimeOfDay &time)
{
    char text[32];
    snprintf(text, sizeof(text), "%02d:%02d", time.hour, time.minute);
    return text;
}

bool ClocksChangeAt(const TimeOfDay &time)
{
    return time.hour >= 1 && time.hour < 4;
}

bool IsJobName(const std::string &name)
{
    return !name.empty() && name.size() <= 64 && name[0] != '.' && name[0] != '-' &&
           name.find_first_not_of(std::string(letters) + digits + "._-") == std::string::npos;
}

std::vector<std::string> ScheduleNames(const std::string &job, host::Scheduler scheduler)
{
    const std::string name = "kestrix-keep-" + job;
    return scheduler == host::Scheduler::Tasks ? std::vector<std::string>{name}
                                               : std::vector<std::string>{name + ".service", name + ".timer"};
}

static std::vector<std::string> CommandOf(const ScheduledRun &run)
{
    std::vector<std::string> words = {run.program, "backup", run.job, "--quiet"};
    if (!run.configuration.empty()) {
        words.insert(words.end(), {"--config", run.configuration});
    }
    return words;
}

// Windows would put a variable's value, or a word of the event that started the task, in the place of such words.
static bool IsReplacedInTasks(const std::string &path)
{
    return path.find('%') != std::string::npos || path.find("$(") != std::string::npos;
}

std::string WhyNotSchedulable(const ScheduledRun &run, host::Scheduler scheduler)
{
    std::vector<std::string> paths = CommandOf(run);
    paths.insert(paths.end(), run.writes.begin(), run.writes.end());
    if (scheduler == host::Scheduler::Systemd && run.program.find_first_of("\"'\\") != std::string::npos) {
        return run.program + ": systemd runs no program with a quotation mark or a backslash in its path";
    }
    for (const std::string &path : paths) {
        if (Printable(path) != path) {
            return path + ": a path with control characters, or one that is no UTF-8, can't be scheduled";
        }
        if (scheduler == host::Scheduler::Tasks && IsReplacedInTasks(path)) {
            return path + ": a path with % or $( can't be scheduled, since the Task Scheduler would put something else "
                          "in its place";
        }
    }
    return {};
}

static bool LiesIn(const std::string &path, const std::string &folder)
{
    return path == folder || path.rfind(folder + "/", 0) == 0;
}

static bool AnyLiesIn(const std::vector<std::string> &paths, const std::vector<std::string> &folders)
{
    return std::any_of(paths.begin(), paths.end(), [&folders](const std::string &path) {
        return std::any_of(folders.begin(), folders.end(),
                           [&path](const std::string &folder) { return LiesIn(path, folder); });
    });
}

// ---- systemd ----

// A word between quotation marks: what would end it or begin something else stands behind a backslash, and a percent
// sign, which begins a specifier, stands twice.
static std::string QuotedForUnit(const std::string &word)
{
    std::string quoted = "\"";
    for (const char letter : word) {
        if (letter == '"' || letter == '\\') {
            quoted += '\\';
        } else if (letter == '%') {
            quoted += '%';
        }
        quoted += letter;
    }
    return quoted + '"';
}

// In all words but the first, which is the program's path, a dollar sign begins a variable.
static std::string ExecLine(const std::vector<std::string> &words)
{
    std::string line;
    for (const std::string &word : words) {
        const std::string quoted = QuotedForUnit(word);
        const bool isPlain = word.find_first_not_of(std::string(letters) + digits + "/._=-") == std::string::npos;
        if (line.empty()) {
            line = isPlain ? word : quoted;
            continue;
        }
        line += ' ';
        for (const char letter : isPlain ? word : quoted) {
            line.append(letter == '$' ? 2 : 1, letter);
        }
    }
    return line;
}

// A place that isn't there must not keep the run from starting: it tells better what is missing.
static std::string WritablePaths(const std::vector<std::string> &paths)
{
    std::string line = "ReadWritePaths=";
    for (const std::string &path : paths) {
        line += (line.back() == '=' ? "" : " ") + QuotedForUnit("-" + path);
    }
    return line;
}

// A remote of rclone may be a folder of this machine, whose path only its own configuration has; and it renews keys
// there.
static std::vector<std::string> FileSandboxAroundRclone()
{
    return {
        "# rclone may write into any folder that a remote of its configuration stands for.",
        "ProtectSystem=full",
        "Environment=HOME=%h",
    };
}

static std::vector<std::string> FileSandbox(const ScheduledRun &run)
{
    if (run.usesRclone) {
        return FileSandboxAroundRclone();
    }
    std::vector<std::string> lines = {
        "# All files are read-only but for the images' folders.",
        "ProtectSystem=strict",
    };
    if (!AnyLiesIn(run.places, {"/home", "/root", "/run/user"})) {
        lines.emplace_back("ProtectHome=read-only");
    }
    if (!AnyLiesIn(run.places, {"/tmp", "/var/tmp"})) { // which would be others
        lines.emplace_back("PrivateTmp=yes");
    }
    if (!run.writes.empty()) {
        lines.push_back(WritablePaths(run.writes));
    }
    return lines;
}

static std::vector<std::string> NetworkSandbox(const ScheduledRun &run)
{
    if (run.usesRclone) {
        return {"RestrictAddressFamilies=AF_UNIX AF_INET AF_INET6 AF_NETLINK"};
    }
    if (run.usesShare) {
        return {"RestrictAddressFamilies=AF_UNIX"};
    }
    return {"PrivateNetwork=yes", "RestrictAddressFamilies=AF_UNIX"};
}

// PrivateDevices would take the disks away. ProtectClock allows one device by name, which leaves no other one, so that
// the disks have to be named as well.
static std::vector<std::string> Sandbox(const ScheduledRun &run)
{
    std::vector<std::string> lines = FileSandbox(run);
    const std::vector<std::string> network = NetworkSandbox(run);
    lines.insert(lines.end(), network.begin(), network.end());
    lines.insert(lines.end(), {
                                  "# Disks can be read, and not written.",
                                  "DevicePolicy=closed",
                                  "DeviceAllow=block-* r",
                                  "ProtectClock=yes",
                                  "NoNewPrivileges=yes",
                                  "ProtectKernelModules=yes",
                                  "ProtectKernelTunables=yes",
                                  "ProtectKernelLogs=yes",
                                  "ProtectControlGroups=yes",
                                  "ProtectHostname=yes",
                                  "RestrictNamespaces=yes",
                                  "RestrictRealtime=yes",
                                  "RestrictSUIDSGID=yes",
                                  "LockPersonality=yes",
                                  "MemoryDenyWriteExecute=yes",
                                  "SystemCallArchitectures=native",
                              });
    return lines;
}

// A program of the administrator's, or kestrix-vm, may mount the backup disk, which must then be seen outside of the
// service as well, send mail by a program with rights of its own, or talk to any device.
static std::vector<std::string> SandboxAroundPrograms()
{
    return {
        "# Other programs have a part in the job. What would keep them from their work isn't set:",
        "# what files, devices, networks and rights they need is not known.",
        "RestrictRealtime=yes",
        "LockPersonality=yes",
    };
}

static std::string Joined(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return text;
}

static std::string DigestText(const std::string &text)
{
    const host::Digest digest = host::DigestOf(text.data(), text.size());
    return HexText(digest.data(), digest.size());
}

static const char unitMark[] = "# Written by kestrix-keep schedule. SHA-256 of the lines below: ";

static std::string WithMark(const std::string &text)
{
    return unitMark + DigestText(text) + "\n" + text;
}

static std::string ServiceText(const ScheduledRun &run, const std::string &name)
{
    std::vector<std::string> command = CommandOf(run);
    if (!run.inhibitor.empty()) {
        command.insert(command.begin(), {run.inhibitor, "--what=sleep", "--mode=block", "--who=kestrix-keep",
                                         "--why=An image of a disk is being made"});
    }
    const bool usesNetwork = run.usesRclone || run.usesShare;
    std::vector<std::string> lines = {
        "# For changes of your own: systemctl edit " + name,
        "[Unit]",
        "Description=kestrix-keep: an image for job " + run.job,
        "Documentation=man:kestrix-keep(8)",
        std::string("After=local-fs.target remote-fs.target") + (usesNetwork ? " network-online.target" : ""),
    };
    if (usesNetwork) {
        lines.emplace_back("Wants=network-online.target");
    }
    lines.insert(lines.end(), {
                                  "",
                                  "[Service]",
                                  "Type=oneshot",
                                  "ExecStart=" + ExecLine(command),
                                  "# The first image of a large disk takes as long as it takes.",
                                  "TimeoutStartSec=infinity",
                                  "# Behind all others, yet not idle: an idle run has no end on a busy machine.",
                                  "Nice=10",
                                  "IOSchedulingClass=best-effort",
                                  "IOSchedulingPriority=7",
                                  "# /var/lib/kestrix, from where kestrix is run.",
                                  "StateDirectory=kestrix",
                                  "StateDirectoryMode=0700",
                              });
    const std::vector<std::string> sandbox = run.runsPrograms ? SandboxAroundPrograms() : Sandbox(run);
    lines.insert(lines.end(), sandbox.begin(), sandbox.end());
    return WithMark(Joined(lines));
}

static std::string TimerText(const ScheduledRun &run, const std::string &name, const std::string &serviceName)
{
    std::vector<std::string> lines = {
        "# For changes of your own: systemctl edit " + name,
        "[Unit]",
        "Description=kestrix-keep: job " + run.job + " at " + TimeText(run.time) + " each day",
        "Documentation=man:kestrix-keep(8)",
        "",
        "[Timer]",
        "OnCalendar=*-*-* " + TimeText(run.time) + ":00",
        "# A run that the machine was off for is made when it is on again.",
        "Persistent=true",
        "RandomizedDelaySec=0",
        "Unit=" + serviceName,
    };
    if (run.wakes) {
        lines.emplace_back("WakeSystem=true");
    }
    lines.insert(lines.end(), {"", "[Install]", "WantedBy=timers.target"});
    return WithMark(Joined(lines));
}

std::vector<host::ScheduledFile> UnitTexts(const ScheduledRun &run)
{
    const std::vector<std::string> names = ScheduleNames(run.job, host::Scheduler::Systemd);
    return {{names[0], ServiceText(run, names[0])}, {names[1], TimerText(run, names[1], names[0])}};
}

// ---- The Task Scheduler ----

static std::string XmlText(const std::string &text)
{
    std::string escaped;
    for (const char letter : text) {
        switch (letter) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        default:
            escaped += letter;
        }
    }
    return escaped;
}

// As CommandLineToArgvW takes it apart again.
static std::string QuotedForWindows(const std::string &word)
{
    std::string quoted = "\"";
    size_t backslashes = 0;
    for (const char letter : word) {
        if (letter == '"') {
            quoted.append(backslashes + 1, '\\');
        }
        backslashes = letter == '\\' ? backslashes + 1 : 0;
        quoted += letter;
    }
    quoted.append(backslashes, '\\');
    return quoted + '"';
}

static const char taskMark[] = "<Source>kestrix-keep schedule</Source>";

static std::string TaskArguments(const ScheduledRun &run)
{
    const std::vector<std::string> words = CommandOf(run);
    std::string line = words[1];
    for (size_t i = 2; i < words.size(); ++i) {
        const bool isPlain = words[i].find_first_not_of(std::string(letters) + digits + "._-") == std::string::npos;
        line += " " + (isPlain ? words[i] : QuotedForWindows(words[i]));
    }
    return line;
}

// The account of the system, by the number that it has in every language.
std::string TaskXml(const ScheduledRun &run)
{
    return Joined({
        "<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">",
        "  <RegistrationInfo>",
        std::string("    ") + taskMark,
        "    <Description>kestrix-keep: an image for job " + XmlText(run.job) + "</Description>",
        "  </RegistrationInfo>",
        "  <Triggers>",
        "    <CalendarTrigger>",
        "      <StartBoundary>" + XmlText(run.firstDay) + "T" + TimeText(run.time) + ":00</StartBoundary>",
        "      <ScheduleByDay>",
        "        <DaysInterval>1</DaysInterval>",
        "      </ScheduleByDay>",
        "    </CalendarTrigger>",
        "  </Triggers>",
        "  <Principals>",
        "    <Principal id=\"System\">",
        "      <UserId>S-1-5-18</UserId>",
        "      <RunLevel>HighestAvailable</RunLevel>",
        "    </Principal>",
        "  </Principals>",
        "  <Settings>",
        "    <MultipleInstancesPolicy>IgnoreNew</MultipleInstancesPolicy>",
        "    <DisallowStartIfOnBatteries>false</DisallowStartIfOnBatteries>",
        "    <StopIfGoingOnBatteries>false</StopIfGoingOnBatteries>",
        "    <StartWhenAvailable>true</StartWhenAvailable>",
        "    <IdleSettings>",
        "      <StopOnIdleEnd>false</StopOnIdleEnd>",
        "      <RestartOnIdle>false</RestartOnIdle>",
        "    </IdleSettings>",
        "    <Enabled>true</Enabled>",
        std::string("    <WakeToRun>") + (run.wakes ? "true" : "false") + "</WakeToRun>",
        "    <ExecutionTimeLimit>PT0S</ExecutionTimeLimit>",
        "    <Priority>7</Priority>",
        "  </Settings>",
        "  <Actions Context=\"System\">",
        "    <Exec>",
        "      <Command>" + XmlText(QuotedForWindows(run.program)) + "</Command>",
        "      <Arguments>" + XmlText(TaskArguments(run)) + "</Arguments>",
        "    </Exec>",
        "  </Actions>",
        "</Task>",
    });
}

static void AddUnit(uint32_t unit, std::string *bytes)
{
    *bytes += static_cast<char>(unit & 0xFF);
    *bytes += static_cast<char>(unit >> 8);
}

// The character of the sequence that begins at *i, which is then behind it.
static uint32_t TakeCharacter(const std::string &text, size_t *i)
{
    const auto first = static_cast<unsigned char>(text[(*i)++]);
    const int following = first < 0x80 ? 0 : first < 0xE0 ? 1 : first < 0xF0 ? 2 : 3;
    uint32_t character = following == 0 ? first : first & (0x3FU >> following);
    for (int k = 0; k < following && *i < text.size(); ++k) {
        character = (character << 6) | (static_cast<unsigned char>(text[(*i)++]) & 0x3FU);
    }
    return character;
}

static std::string Utf16(const std::string &text)
{
    std::string bytes;
    for (size_t i = 0; i < text.size();) {
        const uint32_t character = TakeCharacter(text, &i);
        if (character < 0x10000) {
            AddUnit(character, &bytes);
        } else {
            AddUnit(0xD800 + ((character - 0x10000) >> 10), &bytes);
            AddUnit(0xDC00 + ((character - 0x10000) & 0x3FF), &bytes);
        }
    }
    return bytes;
}

std::string TaskFile(const std::string &xml)
{
    return "\xFF\xFE" + Utf16("<?xml version=\"1.0\" encoding=\"UTF-16\"?>\n" + xml);
}

// ---- cron ----

// A shell reads the line after cron, which takes a percent sign for the end of the line unless a backslash stands
// before it. That one cron takes away; one that is the word's own must not stand there.
static std::string QuotedForCron(const std::string &word)
{
    if (word.find_first_not_of(std::string(letters) + digits + "/._-") == std::string::npos) {
        return word;
    }
    std::string quoted = "'";
    for (const char letter : word) {
        if (letter == '\'') {
            quoted += "'\\''";
        } else if (letter == '%') {
            quoted += quoted.back() == '\\' ? "''\\%" : "\\%";
        } else {
            quoted += letter;
        }
    }
    return quoted + "'";
}

std::string CronLine(const ScheduledRun &run)
{
    std::string line = std::to_string(run.time.minute) + " " + std::to_string(run.time.hour) + " * * *";
    for (const std::string &word : CommandOf(run)) {
        line += " " + QuotedForCron(word);
    }
    return line;
}

// ---- What is there already ----

static ScheduleOrigin OriginOfUnit(const std::string &content)
{
    const size_t end = content.find('\n');
    if (end == std::string::npos || content.rfind(unitMark, 0) != 0) {
        return ScheduleOrigin::Foreign;
    }
    const std::string rest = content.substr(end + 1);
    return content.substr(0, end) == unitMark + DigestText(rest) ? ScheduleOrigin::Ours : ScheduleOrigin::Changed;
}

ScheduleOrigin OriginOf(const std::string &content, host::Scheduler scheduler)
{
    if (scheduler == host::Scheduler::Systemd) {
        return OriginOfUnit(content);
    }
    return content.find(taskMark) == std::string::npos ? ScheduleOrigin::Foreign : ScheduleOrigin::Ours;
}
