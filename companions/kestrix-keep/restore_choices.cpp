// The order of the reasons is that of what a person has to know first: a disk that must never be taken says so even
// where it is too small as well.
#include "kestrix-keep/restore_choices.h"

#include "report/report.h"

#include <algorithm>

using host::DiskFacts;

// ---- Images ----

static std::string WhyNotPart(const ChainPart &part)
{
    switch (part.state) {
    case PartState::Missing:
        return part.name + ", which it stands on, is missing: put it into the same folder";
    case PartState::Replaced:
        return part.name + ", which it stands on, is another image than the one it was made on";
    case PartState::Faulty:
        return part.name + ", which it stands on, can't be used: " + part.says;
    case PartState::There:
        break;
    }
    return {};
}

std::string WhyNotRestorable(const reader::ImageFacts &facts, const std::vector<ChainPart> &needs)
{
    if (facts.kind == reader::FileKind::Unfinished) {
        return "it was never finished";
    }
    if (facts.kind != reader::FileKind::Image) {
        return facts.fault ? facts.fault->text : "it is no image";
    }
    if (facts.bytesMissing != 0) {
        return "its last " + Counted(facts.bytesMissing, "byte") + " are missing";
    }
    if (const uint64_t unknown = reader::UncoveredBytes(facts.header)) {
        return "it has no chunks for the last " + Counted(unknown, "byte") + " of its disk";
    }
    for (const ChainPart &part : needs) {
        if (part.state != PartState::There) {
            return WhyNotPart(part);
        }
    }
    return {};
}

// ---- Disks ----

static bool IsOneOf(const DiskFacts &disk, const std::vector<std::string> &disks)
{
    const std::string name = disk.deviceNumber.empty() ? std::to_string(disk.number) : disk.deviceNumber;
    return disk.file == host::FileIdentity() && std::find(disks.begin(), disks.end(), name) != disks.end();
}

// "/mnt, /srv: umount them" and so on, of what keeps the disk in use.
static Refusal RefuseInUse(const DiskFacts &disk)
{
    std::string mounts, holders, swap;
    const auto add = [](std::string &text, const std::string &name) { text += (text.empty() ? "" : ", ") + name; };
    for (const host::PartitionFacts &partition : disk.partitions) {
        for (const std::string &mount : partition.mounts) {
            add(mounts, mount);
        }
        for (const std::string &holder : partition.holders) {
            add(holders, holder);
        }
        if (partition.isSwap) {
            add(swap, partition.node.empty() ? disk.node : partition.node);
        }
    }
    Refusal refusal = {"it is in use", {}};
    refusal.why += mounts.empty() ? "" : ", mounted at " + mounts;
    refusal.why += holders.empty() ? "" : ", held by " + holders;
    refusal.why += swap.empty() ? "" : ", used as swap: " + swap;
    refusal.why +=
        mounts.empty() && holders.empty() && swap.empty()
            ? "; by what can't be told: a volume that is mounted nowhere here, a pool of ZFS, another program"
            : "";
    refusal.remedy =
        "if it is the right disk, unmount what is mounted of it, and take what stands on it out of use "
        "(umount, swapoff, vgchange -an, cryptsetup close, mdadm --stop, zpool export; on Windows diskpart: "
        "offline disk)";
    return refusal;
}

static std::optional<Refusal> RefuseSectors(const DiskFacts &disk, const TargetRules &rules)
{
    if (rules.takesOtherSectors || disk.logicalSectorBytes == rules.sectorBytes) {
        return std::nullopt;
    }
    const std::string has = disk.logicalSectorBytes == 0
                                ? "how long its sectors are is not known"
                                : "its sectors have " + Counted(disk.logicalSectorBytes, "byte");
    return Refusal{has + ", those of the image's disk have " + std::to_string(rules.sectorBytes),
                   "its partitions would not be found there; if you know that this is wanted, give --other-sectors"};
}

std::optional<Refusal> WhyNoTarget(const DiskFacts &disk, const std::vector<DiskFacts> &all, const TargetRules &rules)
{
    if (IsOneOf(disk, rules.imageDisks)) {
        return Refusal{"the image lies on it", "restore onto another disk, or copy the images to another one first"};
    }
    if (disk.isSystemDisk) {
        return Refusal{"the running system lies on it", "start this machine from another medium to overwrite it"};
    }
    if (IsOneOf(disk, rules.startDisks)) {
        return Refusal{"the running system was started from it", "it can't be overwritten from this system"};
    }
    if (!disk.unreadable.empty()) {
        return Refusal{"what lies on it can't be read: " + disk.unreadable,
                       "run this as root or Administrator; if it was, the disk may be broken"};
    }
    if (disk.isInUse) {
        return RefuseInUse(disk);
    }
    if (disk.sizeBytes < rules.diskBytes) {
        return Refusal{"it is smaller than the image's disk: " + Counted(disk.sizeBytes, "byte") + ", not " +
                           std::to_string(rules.diskBytes),
                       "use a disk of at least that size"};
    }
    if (std::optional<Refusal> refusal = RefuseSectors(disk, rules)) {
        return refusal;
    }
    if (ProofForPerson(disk, all).kind == ProofKind::Nothing) {
        return Refusal{"neither serial nor size tells it from another disk here",
                       "unplug one of the two, and let the disks be listed again"};
    }
    return std::nullopt;
}

// ---- What is typed ----

// What counts of a serial that is read off a label and typed.
static std::string Typable(const std::string &text)
{
    std::string typable;
    for (const char letter : text) {
        if (letter != ' ' && letter != '\t') {
            typable += letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
        }
    }
    return typable;
}

static std::string EndOf(const std::string &text, size_t characters)
{
    return text.size() <= characters ? text : text.substr(text.size() - characters);
}

// Those that are not the disk.
static std::vector<const DiskFacts *> OthersOf(const DiskFacts &disk, const std::vector<DiskFacts> &all)
{
    std::vector<const DiskFacts *> others;
    for (const DiskFacts &other : all) {
        if (other.number != disk.number) {
            others.push_back(&other);
        }
    }
    return others;
}

static Proof ProofBySize(const DiskFacts &disk, const std::vector<DiskFacts> &all)
{
    const std::vector<const DiskFacts *> others = OthersOf(disk, all);
    const bool isOnlyOne = std::none_of(others.begin(), others.end(),
                                        [&disk](const DiskFacts *other) { return other->sizeBytes == disk.sizeBytes; });
    return isOnlyOne && disk.sizeBytes != 0 ? Proof{ProofKind::Size, 0, std::to_string(disk.sizeBytes)} : Proof();
}

Proof ProofForPerson(const DiskFacts &disk, const std::vector<DiskFacts> &all)
{
    constexpr size_t leastCharacters = 4;
    const std::string serial = Typable(disk.serial);
    const std::vector<const DiskFacts *> others = OthersOf(disk, all);
    for (size_t characters = leastCharacters; characters <= serial.size(); ++characters) {
        const std::string end = EndOf(serial, characters);
        const bool tells = std::none_of(others.begin(), others.end(), [&](const DiskFacts *other) {
            return EndOf(Typable(other->serial), characters) == end;
        });
        if (tells) {
            return {ProofKind::SerialEnd, characters, end};
        }
    }
    return ProofBySize(disk, all);
}

bool IsProof(const Proof &proof, const DiskFacts &disk, const std::string &typed)
{
    const std::string text = Typable(typed);
    if (proof.kind == ProofKind::Size) {
        return text == proof.text;
    }
    const std::string serial = Typable(disk.serial);
    return proof.kind == ProofKind::SerialEnd && text.size() >= proof.characters && text.size() <= serial.size() &&
           EndOf(serial, text.size()) == text;
}

Proof ProofForScript(const DiskFacts &disk, const std::vector<DiskFacts> &all)
{
    const std::vector<const DiskFacts *> others = OthersOf(disk, all);
    const bool isOnlyOne = std::none_of(others.begin(), others.end(),
                                        [&disk](const DiskFacts *other) { return other->serial == disk.serial; });
    return isOnlyOne && !disk.serial.empty() ? Proof{ProofKind::SerialEnd, disk.serial.size(), disk.serial}
                                             : ProofBySize(disk, all);
}

// ---- After kestrix ----

std::string FailureLine(const std::vector<std::string> &lines)
{
    for (const char *mark : {"FATAL", "Refusing", "Could not"}) {
        for (const std::string &line : lines) {
            if (line.find(mark) != std::string::npos) {
                return line;
            }
        }
    }
    return {};
}

// What kestrix refuses it ends with its own exit status, before it prints that it restores, and says why. Whatever
// ended it otherwise may have taken its lines away with it, and on Windows may have given it any exit status.
DiskState StateAfter(const host::ProgramEnd &end, const std::vector<std::string> &lines)
{
    constexpr int refused = 1;
    if (!end.wasEnded && end.exitStatus == 0) {
        return DiskState::Written;
    }
    const bool began = std::any_of(lines.begin(), lines.end(),
                                   [](const std::string &line) { return line.rfind("Restoring ", 0) == 0; });
    const bool hasSaidWhy = !FailureLine(lines).empty();
    return !end.wasEnded && end.exitStatus == refused && !began && hasSaidWhy ? DiskState::Untouched
                                                                              : DiskState::PartlyWritten;
}
