// The law: whatever stands on the command line, no disk is opened for writing, even in vain, without restore, --confirm
// and the exact word YES, and never the system's own; only a disk number that the standard conversion refuses ends the
// program abnormally; an unknown command makes not one call, prints the usage text and has exit status 1; every other
// run has exit status 0 or 1, and an ordinary file is created only at the value of --out of capture and consolidate. (A
// disk's name there is refused by the system, which creates no disks.)
//
// The input is the arguments, divided by line breaks; a slash becomes an underscore, so that no path leaves the scratch
// folder. The machine has a system disk 0 and a disk 1, a plain image, a thin one and a password. It derives no keys,
// which would cost each run 200000 iterations and no command line decides.
#include "fuzz/law.h"
#include "simulator/run_command.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <strings.h>

using Arguments = std::vector<std::string>;

static Arguments TakeArguments(Input &input)
{
    Arguments arguments;
    std::string argument;
    Bytes bytes = input.Rest();
    bytes.push_back('\n');
    for (const uint8_t byte : bytes) {
        if (byte == '\n') {
            arguments.push_back(argument);
            argument.clear();
        } else if (byte != 0) {
            argument += byte == '/' ? '_' : static_cast<char>(byte);
        }
    }
    if (arguments.back().empty()) {
        arguments.pop_back();
    }
    return arguments;
}

// The value behind the first argument of that name; whatever is the first argument of all is the command as well.
static std::string ValueOf(const Arguments &arguments, const char *name, const std::string &otherwise)
{
    for (size_t i = 0; i + 1 < arguments.size(); ++i) {
        if (strcasecmp(arguments[i].c_str(), name) == 0) {
            return arguments[i + 1];
        }
    }
    return otherwise;
}

static std::string CommandOf(const Arguments &arguments)
{
    static const Arguments commands = {"list-disks", "capture", "verify", "restore", "consolidate"};
    const bool isKnown =
        !arguments.empty() && std::find(commands.begin(), commands.end(), arguments[0]) != commands.end();
    return isKnown ? arguments[0] : "";
}

// Which exception the conversion of the disk number throws; empty if none.
static std::string RefusalOfNumber(const Arguments &arguments)
{
    if (CommandOf(arguments) != "capture" && CommandOf(arguments) != "restore") {
        return "";
    }
    try {
        std::stoi(ValueOf(arguments, "--disk", "-1"));
    } catch (const std::invalid_argument &) {
        return "invalid stoi argument";
    } catch (const std::out_of_range &) {
        return "stoi argument out of range";
    }
    return "";
}

static Machine MachineForCommands()
{
    Machine machine = MachineWithDisk(0, PatternBytes(4096, 1));
    machine.disks[1].bytes = PatternBytes(8192, 2);
    machine.volumeC->extents = {{0, 0, 4096}};
    machine.memoryBytes = 64 * MiB;
    FailCall(machine, "BCryptDeriveKeyPBKDF2", 1, failedStatus).forGood = true;
    return machine;
}

static void FillFolder(const Scratch &scratch)
{
    for (const auto &entry : std::filesystem::directory_iterator(scratch.folder)) {
        std::filesystem::remove_all(entry);
    }
    ImagePlan plan;
    plan.disk = PatternBytes(8192, 3);
    plan.chunkSize = 4096;
    WriteBytes("full.kstx", BuildImage(plan));
    Bytes changed = plan.disk;
    changed[5000] = static_cast<uint8_t>(changed[5000] + 1);
    WriteBytes("thin.kstx", BuildImage(ThinPlan(plan, "full.kstx", changed)));
    WriteText("password", "password\n");
}

static void CheckOpenings(const Machine &machine, const Arguments &arguments)
{
    const std::string command = CommandOf(arguments);
    for (const Call &call : machine.calls) {
        if (call.name != "CreateFileW" || (Field(call, "access") & GENERIC_WRITE) == 0 ||
            (call.failed && Field(call, "disposition") != OPEN_EXISTING)) {
            continue;
        }
        if (call.object.compare(0, 5, "file:") == 0) {
            Law(command == "capture" || command == "consolidate", "only two commands create files", call.text);
            Law(call.object == "file:" + ValueOf(arguments, "--out", ""), "only --out is created", call.text);
        } else if (call.object != "tracker") {
            Law(command == "restore" && ValueOf(arguments, "--confirm", "") == "YES", "no disk is written unconfirmed",
                call.text);
            Law(call.failed || call.object == "disk1", "only the target that is not the system's own is written",
                call.text);
        }
    }
}

static bool CreatedFile(const Machine &machine)
{
    return std::any_of(machine.calls.begin(), machine.calls.end(), [](const Call &call) {
        return call.name == "CreateFileW" && Field(call, "disposition") != OPEN_EXISTING;
    });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Scratch scratch;
    static bool isFilled = false;
    if (!isFilled) {
        FillFolder(scratch);
        isFilled = true;
    }
    Input input(data, size);
    const Arguments arguments = TakeArguments(input);
    Machine machine = MachineForCommands();
    const Bytes systemDisk = machine.disks[0].bytes;
    const RunResult result = RunCommand(machine, arguments);

    const std::string refusal = RefusalOfNumber(arguments);
    Law(result.abnormalText == refusal && result.abnormalEnd == !refusal.empty(),
        "a malformed disk number ends the program abnormally, and nothing else does",
        result.abnormalText + " instead of " + refusal);
    Law(result.abnormalEnd || result.exitStatus == 0 || result.exitStatus == 1, "the exit status is 0 or 1");
    const bool showsUsage = result.outputText.compare(0, 10, "Kestrix - ") == 0;
    Law(!showsUsage || result.exitStatus == 1, "the usage text comes with exit status 1");
    if (CommandOf(arguments).empty()) {
        Law(showsUsage && result.exitStatus == 1 && result.errorText.empty() && machine.calls.size() == 1,
            "an unknown command shows the usage text and does nothing", LogText(machine));
    }
    Law(machine.disks[0].bytes == systemDisk, "the system disk is never written");
    Law(machine.misuses.empty(), "nothing is closed twice or used when closed");
    CheckOpenings(machine, arguments);
    isFilled = !CreatedFile(machine);
    return 0;
}
