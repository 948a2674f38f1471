// The cards of disks, and the rules by which a name means one of them.
#include "kestrix-keep/disk_cards.h"

#include <algorithm>
#include <cstdio>
#include <functional>

using host::DiskFacts;
using host::PartitionFacts;
using reader::Fault;
using reader::FaultKind;
using reader::Result;

// ---- Lines ----

static std::string ExactSize(uint64_t bytes)
{
    return SizeText(bytes) + " (" + std::to_string(bytes) + " bytes)";
}

static std::string SectorText(uint32_t bytes)
{
    return bytes == 0 ? "of a length that is not known" : "of " + Counted(bytes, "byte");
}

static std::string BusText(const DiskFacts &disk)
{
    const std::string bus = disk.bus.empty() ? "not known" : disk.bus;
    return bus + (!disk.isRemovable   ? ", not known whether removable"
                  : *disk.isRemovable ? ", removable"
                                      : ", not removable");
}

// "a, b and 3 more", of which no more than four are named.
static std::string Enumerated(const std::vector<std::string> &names)
{
    constexpr size_t mostNamed = 4;
    std::string text;
    for (size_t i = 0; i < names.size() && i < mostNamed; ++i) {
        text += (i == 0 ? "" : ", ") + names[i];
    }
    return text + (names.size() > mostNamed ? " and " + std::to_string(names.size() - mostNamed) + " more" : "");
}

static std::string ContentText(const PartitionFacts &partition)
{
    if (!partition.unclear.empty()) {
        return "its content can't be told: " + partition.unclear;
    }
    if (partition.isExtended) {
        return "holds further partitions";
    }
    if (partition.fileSystem.empty()) {
        return "no known file system";
    }
    return partition.fileSystem + (partition.label.empty() ? "" : ", label " + partition.label);
}

static std::string PartitionLine(const DiskFacts &disk, const PartitionFacts &partition)
{
    std::string line =
        partition.number == 0 ? "  on the disk itself" : "  partition " + std::to_string(partition.number);
    line += partition.name.empty() ? "" : " (" + partition.name + ")";
    line += ": " + SizeText(partition.lengthBytes) + " at " + std::to_string(partition.offsetBytes);
    const bool isContentKnown = disk.unreadable.empty() || !partition.fileSystem.empty();
    line += isContentKnown ? ", " + ContentText(partition) : "";
    line += partition.holders.empty() ? "" : ", held by " + Enumerated(partition.holders);
    line += partition.isSwap ? ", used as swap" : "";
    line += partition.mounts.empty() ? "" : ", mounted at " + Enumerated(partition.mounts);
    return line;
}

std::vector<std::string> DiskCard(const DiskFacts &disk)
{
    std::vector<std::string> lines = {
        "disk " + std::to_string(disk.number) + ": " + disk.node,
        "  model: " + (disk.model.empty() ? "not known" : disk.model),
        disk.serial.empty() ? "  no serial" : "  serial: " + disk.serial,
        disk.wwn.empty() ? "  no WWN" : "  WWN: " + disk.wwn,
        "  size: " + ExactSize(disk.sizeBytes),
        "  sectors: logical ones " + SectorText(disk.logicalSectorBytes) + ", physical ones " +
            SectorText(disk.physicalSectorBytes),
        "  bus: " + BusText(disk),
    };
    if (disk.isSystemDisk) {
        lines.emplace_back("  SYSTEM DISK");
    }
    if (disk.isInUse) {
        lines.emplace_back("  IN USE");
    }
    if (!disk.unreadable.empty()) {
        lines.push_back("  what lies on it can't be read: " + disk.unreadable);
    }
    if (!disk.table.empty()) {
        lines.push_back("  partition table: " + disk.table);
    }
    for (const PartitionFacts &partition : disk.partitions) {
        lines.push_back(PartitionLine(disk, partition));
    }
    for (std::string &line : lines) {
        line = Printable(line);
    }
    return lines;
}

// ---- JSON ----

static Json TextOrNull(const std::string &text)
{
    return text.empty() ? Json(nullptr) : Json(text);
}

static Json NumberOrNull(uint64_t number)
{
    return number == 0 ? Json(nullptr) : Json(number);
}

static Json PartitionJson(const PartitionFacts &partition)
{
    return {{"number", partition.number},
            {"offsetBytes", partition.offsetBytes},
            {"lengthBytes", partition.lengthBytes},
            {"node", TextOrNull(partition.node)},
            {"deviceNumber", TextOrNull(partition.deviceNumber)},
            {"name", TextOrNull(partition.name)},
            {"extended", partition.isExtended},
            {"fileSystem", TextOrNull(partition.fileSystem)},
            {"label", TextOrNull(partition.label)},
            {"mounts", Json(partition.mounts)},
            {"holders", Json(partition.holders)},
            {"swap", partition.isSwap},
            {"unclear", TextOrNull(partition.unclear)}};
}

Json DiskJson(const DiskFacts &disk)
{
    Json partitions = Json::array();
    for (const PartitionFacts &partition : disk.partitions) {
        partitions.push_back(PartitionJson(partition));
    }
    return {{"number", disk.number},
            {"node", disk.node},
            {"model", TextOrNull(disk.model)},
            {"serial", TextOrNull(disk.serial)},
            {"wwn", TextOrNull(disk.wwn)},
            {"bus", TextOrNull(disk.bus)},
            {"sizeBytes", disk.sizeBytes},
            {"logicalSectorBytes", NumberOrNull(disk.logicalSectorBytes)},
            {"physicalSectorBytes", NumberOrNull(disk.physicalSectorBytes)},
            {"removable", disk.isRemovable ? Json(*disk.isRemovable) : Json(nullptr)},
            {"systemDisk", disk.isSystemDisk},
            {"inUse", disk.isInUse},
            {"deviceNumber", TextOrNull(disk.deviceNumber)},
            {"sequence", NumberOrNull(disk.sequence)},
            {"unreadable", TextOrNull(disk.unreadable)},
            {"table", TextOrNull(disk.table)},
            {"partitions", partitions}};
}

// ---- Which disk a name means ----

static Fault Refused(const std::string &text)
{
    return {FaultKind::Unavailable, text};
}

// "0, 2 and 5"
static std::string NumbersOf(const std::vector<const DiskFacts *> &disks)
{
    std::string text;
    for (size_t i = 0; i < disks.size(); ++i) {
        text += i == 0 ? "" : i + 1 == disks.size() ? " and " : ", ";
        text += std::to_string(disks[i]->number);
    }
    return text;
}

using FitsDisk = std::function<bool(const DiskFacts &)>;

static Result<DiskFacts> OnlyOne(const std::vector<DiskFacts> &disks, const std::string &name, const FitsDisk &fits)
{
    std::vector<const DiskFacts *> fitting;
    for (const DiskFacts &disk : disks) {
        if (fits(disk)) {
            fitting.push_back(&disk);
        }
    }
    if (fitting.empty()) {
        return Refused(name + ": no disk of this machine fits that");
    }
    if (fitting.size() > 1) {
        return Refused(name + ": the disks " + NumbersOf(fitting) +
                       " all fit that; name one of them in another way, or unplug the others");
    }
    return DiskFacts(*fitting[0]);
}

static std::string Trimmed(const std::string &text)
{
    const size_t first = text.find_first_not_of(" \t");
    return first == std::string::npos ? std::string() : text.substr(first, text.find_last_not_of(" \t") + 1 - first);
}

static Result<DiskFacts> FindBySerial(const std::vector<DiskFacts> &disks, const std::string &name)
{
    const std::string serial = Trimmed(name.substr(name.find(':') + 1));
    if (serial.empty()) {
        return Refused(name + ": a disk without a serial can't be named by one");
    }
    return OnlyOne(disks, name, [&serial](const DiskFacts &disk) { return Trimmed(disk.serial) == serial; });
}

// Digits of a WWN are hexadecimal, and written large by one system and small by another.
static std::string LowerCase(std::string text)
{
    for (char &letter : text) {
        letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    }
    return text;
}

static Result<DiskFacts> FindByWwn(const std::vector<DiskFacts> &disks, const std::string &name)
{
    const std::string wwn = LowerCase(Trimmed(name.substr(name.find(':') + 1)));
    if (wwn.empty()) {
        return Refused(name + ": a disk without a WWN can't be named by one");
    }
    return OnlyOne(disks, name, [&wwn](const DiskFacts &disk) { return LowerCase(Trimmed(disk.wwn)) == wwn; });
}

Result<DiskFacts> FindDiskOfDevice(const std::vector<DiskFacts> &disks, const std::string &path,
                                   const host::DeviceAt &device)
{
    const FitsDisk fits = [&device](const DiskFacts &disk) {
        return !disk.deviceNumber.empty() && disk.deviceNumber == device.diskNumber;
    };
    Result<DiskFacts> found = OnlyOne(disks, path + " (" + device.node + ")", fits);
    if (found && device.deviceNumber != device.diskNumber) {
        return Refused(path + ": it leads to " + device.node + ", a partition of disk " +
                       std::to_string(found->number) + "; name the whole disk");
    }
    return found;
}

static bool HasPart(const std::string &path, const std::string &part)
{
    return (path + "/").find("/" + part + "/") != std::string::npos;
}

static Result<DiskFacts> FindByPath(const std::vector<DiskFacts> &disks, const std::string &path)
{
    host::DeviceAt device;
    if (path.rfind("/dev/disk/", 0) != 0 || HasPart(path, "..")) {
        return Refused(path + ": of paths only those below /dev/disk name a disk, since other nodes are another disk's "
                              "after the next start");
    }
    if (const host::Trouble trouble = host::FollowDeviceLink(path, &device)) {
        return Refused(path + ": no disk of this machine fits that: " + *trouble);
    }
    return FindDiskOfDevice(disks, path, device);
}

static bool IsNumber(const std::string &name)
{
    return !name.empty() && name.size() <= 10 && name.find_first_not_of("0123456789") == std::string::npos &&
           (name == "0" || name[0] != '0');
}

Result<DiskFacts> FindDisk(const std::vector<DiskFacts> &disks, const std::string &name)
{
    if (IsNumber(name)) {
        return OnlyOne(disks, "disk " + name,
                       [&name](const DiskFacts &disk) { return std::to_string(disk.number) == name; });
    }
    if (name.rfind("serial:", 0) == 0) {
        return FindBySerial(disks, name);
    }
    if (name.rfind("wwn:", 0) == 0) {
        return FindByWwn(disks, name);
    }
    if (!name.empty() && name[0] == '/') {
        return FindByPath(disks, name);
    }
    return Refused("\"" + name +
                   "\" names no disk: its number is wanted, or serial: or wwn: with what the disk is called, or a path "
                   "below /dev/disk on Linux");
}

std::vector<std::string> DiskCards(const std::vector<DiskFacts> &disks)
{
    std::vector<std::string> lines = {disks.empty() ? "This machine has no disk that can be seen."
                                                    : "The disks of this machine are:"};
    for (const DiskFacts &disk : disks) {
        const std::vector<std::string> card = DiskCard(disk);
        lines.insert(lines.end(), card.begin(), card.end());
    }
    return lines;
}

bool IsSameDisk(const DiskFacts &earlier, const DiskFacts &later)
{
    return earlier.number == later.number && earlier.node == later.node && earlier.serial == later.serial &&
           earlier.wwn == later.wwn && earlier.sizeBytes == later.sizeBytes &&
           earlier.deviceNumber == later.deviceNumber && earlier.sequence == later.sequence &&
           earlier.file == later.file;
}
