// The disks that the running system was started from.
//
// The root folder lies on a disk, or in memory over files of a medium that is mounted elsewhere: a live system has it
// below /run/live or /lib/live/mount, and the root's own mount names the folders that it lies over. A medium that was
// copied into memory and let go is known by the firmware alone, if it has recorded the partition that it started.
#include "host/start_medium_linux.h"
#include "host/open_handle_linux.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace host
{

// ---- What is mounted ----

static bool StandsAt(const std::string &folder, const char *live)
{
    return folder == live || folder.rfind(std::string(live) + "/", 0) == 0;
}

// "a:b" of an option lowerdir=a:b.
static void AddLowerFolders(const std::string &options, std::vector<std::string> *folders)
{
    static const std::string mark = "lowerdir=";
    std::istringstream all(options);
    for (std::string option; std::getline(all, option, ',');) {
        if (option.rfind(mark, 0) == 0) {
            std::istringstream lower(option.substr(mark.size()));
            for (std::string folder; std::getline(lower, folder, ':');) {
                folders->push_back(folder);
            }
        }
    }
}

// Of a line of mountinfo: id, parent, device, root, folder, options, further ones up to a dash, kind, source, options
// of the file system. Names with blanks are written with backslashes; none that counts here has one.
static void AddFolders(const std::string &line, std::vector<std::string> *folders)
{
    std::istringstream fields(line);
    std::string skipped;
    std::string folder;
    std::string kind;
    std::string options;
    fields >> skipped >> skipped >> skipped >> skipped >> folder;
    while (fields >> skipped && skipped != "-") {
    }
    fields >> kind >> skipped >> options;
    if (folder == "/" && kind == "overlay") {
        AddLowerFolders(options, folders);
    }
    if (StandsAt(folder, "/run/live") || StandsAt(folder, "/lib/live/mount") ||
        StandsAt(folder, "/usr/lib/live/mount")) {
        folders->push_back(folder);
    }
}

static void AddOnce(const std::string &disk, StartMedium *medium)
{
    if (std::find(medium->disks.begin(), medium->disks.end(), disk) == medium->disks.end()) {
        medium->disks.push_back(disk);
    }
}

static void AddMounted(StartMedium *medium)
{
    std::vector<std::string> folders = {"/"};
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        AddFolders(line, &folders);
    }
    for (const std::string &folder : folders) {
        FileSystemFacts facts;
        if (FileSystemOf(folder, &facts)) {
            continue; // a folder that only the mount itself still sees
        }
        for (const std::string &disk : facts.disks) {
            AddOnce(disk, medium);
        }
    }
}

// ---- What the firmware says ----

static uint32_t NumberAt(const std::string &bytes, size_t place, size_t count)
{
    uint32_t number = 0;
    for (size_t i = count; i-- > 0;) {
        number = number << 8 | static_cast<unsigned char>(bytes[place + i]);
    }
    return number;
}

static std::string HexAt(const std::string &bytes, size_t place, size_t count)
{
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x",
                 static_cast<unsigned int>(static_cast<unsigned char>(bytes[place + i])));
        text += digits;
    }
    return text;
}

// The first three fields of an identifier are numbers with their lowest byte first.
static std::string IdentifierAt(const std::string &bytes, size_t place)
{
    char numbers[32];
    snprintf(numbers, sizeof(numbers), "%08x-%04x-%04x-", NumberAt(bytes, place, 4), NumberAt(bytes, place + 4, 2),
             NumberAt(bytes, place + 6, 2));
    return numbers + HexAt(bytes, place + 8, 2) + "-" + HexAt(bytes, place + 10, 6);
}

// Of a node that stands for a partition: its number, start, length, signature, and what kind each of them is.
static std::string PartitionOfNode(const std::string &node)
{
    constexpr size_t numberAt = 4;
    constexpr size_t signatureAt = 24;
    constexpr size_t kindAt = 41;
    constexpr char isMbr = 1;
    constexpr char isGpt = 2;
    if (node[kindAt] == isGpt) {
        return IdentifierAt(node, signatureAt);
    }
    if (node[kindAt] != isMbr) {
        return {};
    }
    char text[32];
    snprintf(text, sizeof(text), "%08x-%02x", NumberAt(node, signatureAt, 4), NumberAt(node, numberAt, 4));
    return text;
}

// An entry: attributes, length of its path, a name that ends with a zero, and the path, node by node: kind, subkind,
// length.
std::string PartitionOfBootEntry(const std::string &variable)
{
    constexpr size_t nameAt = 4 + 4 + 2;
    constexpr size_t nodeHead = 4;
    constexpr size_t partitionNode = 42;
    size_t place = nameAt;
    while (place + 2 <= variable.size() && NumberAt(variable, place, 2) != 0) {
        place += 2;
    }
    place += 2;
    while (place <= variable.size() && variable.size() - place >= nodeHead) {
        const size_t length = NumberAt(variable, place + 2, 2);
        if (length < nodeHead || length > variable.size() - place) {
            return {};
        }
        if (variable[place] == 4 && variable[place + 1] == 1 && length >= partitionNode) {
            return PartitionOfNode(variable.substr(place, length));
        }
        place += length;
    }
    return {};
}

static std::string FirmwareVariable(const std::string &name)
{
    std::string content;
    const Trouble trouble =
        ReadSmallFile("/sys/firmware/efi/efivars/" + name + "-8be4df61-93ca-11d2-aa0d-00e098032b8c", &content);
    return trouble ? std::string() : content; // other firmware has none
}

static void AddRecorded(StartMedium *medium)
{
    const std::string current = FirmwareVariable("BootCurrent");
    if (current.size() != 4 + 2) {
        return;
    }
    char entry[16];
    snprintf(entry, sizeof(entry), "Boot%04X", NumberAt(current, 4, 2));
    const std::string partition = PartitionOfBootEntry(FirmwareVariable(entry));
    DeviceAt device;
    if (!partition.empty() && !FollowDeviceLink("/dev/disk/by-partuuid/" + partition, &device)) {
        AddOnce(device.diskNumber, medium);
    }
}

StartMedium FindStartMedium()
{
    StartMedium medium;
    AddMounted(&medium);
    AddRecorded(&medium);
    medium.isKnown = !medium.disks.empty();
    return medium;
}

} // namespace host
