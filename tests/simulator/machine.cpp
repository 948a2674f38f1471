// What a test does with a machine: setting faults, reading the log.
#include "simulator/machine.h"

#include "simulator/running.h"

#include <algorithm>

Machine MachineWithDisk(uint32_t number, std::vector<uint8_t> bytes)
{
    Machine machine;
    machine.disks[number].bytes = std::move(bytes);
    return machine;
}

Fault &FailCall(Machine &machine, const std::string &call, uint32_t nth, uint32_t error)
{
    Fault &fault = machine.faults.emplace_back();
    fault.call = call;
    fault.nth = nth;
    fault.error = error;
    return fault;
}

Fault &FailControl(Machine &machine, DWORD controlCode, uint32_t nth, uint32_t error)
{
    Fault &fault = FailCall(machine, "DeviceIoControl", nth, error);
    fault.controlCode = controlCode;
    return fault;
}

Fault &ShortenCall(Machine &machine, const std::string &call, uint32_t nth, uint64_t transferBytes)
{
    Fault &fault = FailCall(machine, call, nth, 0);
    fault.transferBytes = transferBytes;
    return fault;
}

Fault &FailAnyCall(Machine &machine, uint32_t nth, bool forGood)
{
    Fault &fault = FailCall(machine, "", nth, 0);
    fault.forGood = forGood;
    return fault;
}

NamedVolume &AddVolume(Machine &machine, const std::wstring &name, const std::vector<Extent> &extents,
                       std::vector<uint8_t> shadowBytes)
{
    NamedVolume &added = machine.volumes.emplace_back();
    added.name = name;
    added.volume.extents = extents;
    added.shadowName = L"\\Device\\HarddiskVolumeShadowCopy" + std::to_wstring(machine.volumes.size());
    added.shadow.bytes = std::move(shadowBytes);
    return added;
}

void MarkChanged(TrackerReply &reply, uint64_t offset, uint64_t lengthBytes)
{
    if (lengthBytes == 0) {
        return;
    }
    const uint64_t lastBlock = (offset + lengthBytes - 1) >> reply.blockShift;
    if (reply.bitmap.size() < lastBlock / 8 + 1) {
        reply.bitmap.resize(lastBlock / 8 + 1);
    }
    for (uint64_t block = offset >> reply.blockShift; block <= lastBlock; ++block) {
        reply.bitmap[block / 8] = static_cast<uint8_t>(reply.bitmap[block / 8] | (1U << (block % 8)));
    }
}

std::vector<Call> CallsOf(const Machine &machine, const std::string &name, const std::string &object)
{
    std::vector<Call> found;
    for (const Call &call : machine.calls) {
        if (call.name == name && IsNamed(call.object, object)) {
            found.push_back(call);
        }
    }
    return found;
}

size_t CountCalls(const Machine &machine, const std::string &name, const std::string &object)
{
    return CallsOf(machine, name, object).size();
}

uint64_t Field(const Call &call, const std::string &name)
{
    return call.fields.at(name);
}

std::string LogText(const Machine &machine, const std::function<bool(const Call &call)> &takes)
{
    std::string text;
    for (const Call &call : machine.calls) {
        const bool isOutput = call.name == "stdout" || call.name == "stderr";
        if (takes ? takes(call) : !isOutput) {
            text += call.text + "\n";
        }
    }
    return text;
}

std::string LogOf(const Machine &machine, const std::vector<std::string> &names)
{
    return LogText(machine, [&names](const Call &call) {
        return std::find(names.begin(), names.end(), call.name) != names.end();
    });
}
