// What check-windows.cmd starts, for a run of it under Wine: one program that is taken for another by its name. Its
// machine lies in the folder that KESTRIX_STAND_IN names: two disks of its own, 0 and 1, and disks in files (VHD) that
// are attached as diskpart's scripts say, from number 2 on. kestrix is the program's own objects on that machine.
//
// A disk's first sector tells in words where its volume lies and what its label is, so that a restored copy has both.
// What is written to the folder where a volume is mounted gets onto the disk when that goes offline.
//
// KESTRIX_STAND_IN_FAULTS, "ROLE FIRST LAST WORD", makes these calls of one role fail: powershell tells another value
// for the fact WORD, the others end with exit status WORD. Every call is a line in the file log of the folder.
#include "simulator/images.h"
#include "simulator/run_command.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace fs = std::filesystem;

constexpr uint64_t sectorBytes = 512;
constexpr uint32_t firstAttached = 2;

static fs::path state;

struct AttachedDisk {
    std::string file;
    bool online = false;
};

struct VolumeOnDisk {
    uint64_t offset = 0;
    uint64_t lengthBytes = 0;
    std::string label;
};

static std::string TextOf(const fs::path &path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

static void StoreAt(const std::string &file, uint64_t offset, const std::string &text)
{
    std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
    stream.seekp(static_cast<std::streamoff>(offset));
    stream << text;
}

static uint64_t DiskBytes(const std::string &file)
{
    return fs::file_size(file) - sectorBytes; // less the footer
}

// The disks that are attached, by number.
static std::map<uint32_t, AttachedDisk> ReadAttached()
{
    std::map<uint32_t, AttachedDisk> attached;
    std::istringstream lines(TextOf(state / "attached"));
    uint32_t number = 0;
    AttachedDisk disk;
    while (lines >> number >> disk.online && std::getline(lines >> std::ws, disk.file)) {
        attached[number] = disk;
    }
    return attached;
}

static void WriteAttached(const std::map<uint32_t, AttachedDisk> &attached)
{
    std::ofstream stream(state / "attached", std::ios::binary);
    for (const auto &[number, disk] : attached) {
        stream << number << ' ' << disk.online << ' ' << disk.file << '\n';
    }
}

static VolumeOnDisk VolumeOf(const std::string &file)
{
    VolumeOnDisk volume;
    std::ifstream(file, std::ios::binary) >> volume.offset >> volume.lengthBytes >> volume.label;
    return volume;
}

static void StoreVolume(const std::string &file, const VolumeOnDisk &volume)
{
    std::string words = std::to_string(volume.offset) + ' ' + std::to_string(volume.lengthBytes) + ' ' + volume.label;
    words.resize(sectorBytes, '\n');
    StoreAt(file, 0, words);
}

// ---- diskpart ----

struct DiskPart {
    std::map<uint32_t, AttachedDisk> attached = ReadAttached();
    std::string file;    // the selected one
    uint32_t number = 0; // of the disk in focus, 0 for none
};

static std::string Quoted(const std::string &line)
{
    const size_t start = line.find('"') + 1;
    return line.substr(start, line.find('"', start) - start);
}

static uint64_t NumberBehind(const std::string &line, const std::string &word)
{
    return std::stoull(line.substr(line.find(word) + word.size()));
}

static fs::path MountNote(const std::string &file)
{
    return state / ("mount-" + fs::path(file).stem().string());
}

static void PourMounted(const std::string &file)
{
    const std::string folder = TextOf(MountNote(file));
    uint64_t offset = VolumeOf(file).offset;
    for (const auto &entry : folder.empty() ? fs::directory_iterator() : fs::directory_iterator(folder)) {
        const std::string text = TextOf(entry.path());
        StoreAt(file, offset, text);
        offset += text.size();
    }
}

static bool Select(DiskPart &part, const std::string &line)
{
    if (line.rfind("select disk ", 0) == 0) {
        part.number = static_cast<uint32_t>(NumberBehind(line, "disk "));
        part.file = part.attached.at(part.number).file;
        return true;
    }
    part.file = Quoted(line);
    part.number = 0;
    for (const auto &[number, disk] : part.attached) {
        part.number = disk.file == part.file ? number : part.number;
    }
    return fs::exists(part.file);
}

static bool Create(const std::string &line)
{
    const std::string file = Quoted(line);
    if (fs::exists(file) || line.find(" type=fixed") == std::string::npos) {
        return false;
    }
    std::ofstream(file, std::ios::binary).close();
    fs::resize_file(file, NumberBehind(line, "maximum=") * MiB);
    const uint64_t end = fs::file_size(file);
    fs::resize_file(file, end + sectorBytes);
    StoreAt(file, end, "conectix " + fs::path(file).stem().string());
    return true;
}

static bool Attach(DiskPart &part)
{
    if (part.file.empty() || part.number != 0) {
        return false;
    }
    part.number = firstAttached;
    while (part.attached.count(part.number) != 0) {
        ++part.number;
    }
    part.attached[part.number] = {part.file, true};
    return true;
}

static bool Switch(DiskPart &part, bool online)
{
    if (!online) {
        PourMounted(part.file);
    }
    const bool changes = part.attached.at(part.number).online != online;
    part.attached[part.number].online = online;
    return changes;
}

static bool Partition(const DiskPart &part, const std::string &line)
{
    StoreVolume(part.file, {NumberBehind(line, "offset=") * KiB, NumberBehind(line, "size=") * MiB, ""});
    return true;
}

static bool Format(const DiskPart &part, const std::string &line)
{
    VolumeOnDisk volume = VolumeOf(part.file);
    volume.label = Quoted(line);
    StoreVolume(part.file, volume);
    return volume.lengthBytes != 0;
}

static bool Assign(const DiskPart &part, const std::string &line)
{
    std::ofstream(MountNote(part.file), std::ios::binary) << Quoted(line);
    return fs::is_empty(Quoted(line));
}

// A line of a script. False: the script ends with a fault.
static bool Obey(DiskPart &part, const std::string &line)
{
    const auto begins = [&line](const char *words) { return line.rfind(words, 0) == 0; };
    if (begins("create vdisk file=")) {
        return Create(line);
    }
    if (begins("select vdisk file=") || begins("select disk ")) {
        return Select(part, line);
    }
    if (line == "attach vdisk") {
        return Attach(part);
    }
    if (line == "detach vdisk noerr") {
        part.attached.erase(part.number);
        return true;
    }
    // The rest wants a disk in focus.
    if (part.number == 0) {
        return false;
    }
    if (line == "online disk noerr") {
        Switch(part, true);
        return true;
    }
    if (line == "online disk" || line == "offline disk") {
        return Switch(part, begins("online"));
    }
    return line == "attributes disk clear readonly noerr" ||
           (begins("create partition primary size=") && Partition(part, line)) ||
           (begins("format fs=ntfs label=") && Format(part, line)) || (begins("assign mount=") && Assign(part, line));
}

static int RunDiskPart(const std::vector<std::string> &words)
{
    if (words.size() != 2 || words[0] != "/s") {
        return 1;
    }
    DiskPart part;
    std::ifstream script(words[1]);
    std::string line;
    while (std::getline(script, line)) {
        std::ofstream(state / "log", std::ios::app) << "  " << line << '\n';
        if (!Obey(part, line)) {
            std::cout << "diskpart can't: " << line << '\n';
            WriteAttached(part.attached);
            return 1;
        }
    }
    WriteAttached(part.attached);
    return 0;
}

// ---- powershell ----

static std::map<std::string, std::string> FactsOf(uint32_t number, const AttachedDisk &disk)
{
    const VolumeOnDisk volume = VolumeOf(disk.file);
    const std::string size = std::to_string(DiskBytes(disk.file));
    return {{"number", std::to_string(number)},
            {"imageSize", size},
            {"diskSize", size},
            {"system", "False"},
            {"offline", disk.online ? "False" : "True"},
            {"partition", std::to_string(volume.offset) + '+' + std::to_string(volume.lengthBytes)},
            {"label", disk.online ? volume.label : ""}};
}

// Tells the facts of the disk in the file, or which disks there are; the fault is the fact to lie about.
static int RunPowerShell(const std::vector<std::string> &words, const std::string &fault)
{
    const std::string asks = "-ImagePath '";
    const std::string command = words.back();
    const size_t start = command.find(asks);
    if (start == std::string::npos) {
        std::cout << "number=0;\nnumber=1;\n";
        return 0;
    }
    const std::string file = command.substr(start + asks.size(), command.find('\'', start + asks.size()) - start - 12);
    for (const auto &[number, disk] : ReadAttached()) {
        if (disk.file != file || fault == "none") {
            continue;
        }
        for (const auto &[name, value] : FactsOf(number, disk)) {
            const std::string lie = name == "system" ? "True" : "1";
            std::cout << name << '=' << (name == fault ? lie : value) << '\n';
        }
        return 0;
    }
    std::cout << "Get-Disk : Cannot validate argument on parameter 'Number'.\n";
    return 1;
}

// ---- kestrix ----

static Machine MachineOfState(uint32_t wanted)
{
    Machine machine = MachineWithDisk(0, Bytes(4096));
    machine.disks[0].lengthBytes = 100 * GiB;
    machine.disks[1].lengthBytes = 2000 * GiB;
    machine.snapshotService = SnapshotService();
    for (const auto &[number, attached] : ReadAttached()) {
        Disk &disk = machine.disks[number];
        disk.lengthBytes = DiskBytes(attached.file);
        disk.exclusiveOpenError = attached.online ? ERROR_ACCESS_DENIED : 0;
        if (number != wanted) {
            continue;
        }
        disk.bytes = ReadBytes(attached.file);
        disk.bytes.resize(disk.lengthBytes);
        if (attached.online) {
            const VolumeOnDisk volume = VolumeOf(attached.file);
            const auto begin = disk.bytes.begin() + static_cast<ptrdiff_t>(volume.offset);
            AddVolume(machine, L"\\\\?\\Volume{1}\\", {{number, volume.offset, volume.lengthBytes}},
                      {begin, begin + static_cast<ptrdiff_t>(volume.lengthBytes)});
        }
    }
    return machine;
}

static int RunKestrix(const std::vector<std::string> &words, bool readFails)
{
    const auto found = std::find(words.begin(), words.end(), "--disk");
    const auto wanted = static_cast<uint32_t>(found < words.end() - 1 ? std::stoul(found[1]) : 0);
    Machine machine = MachineOfState(wanted);
    if (readFails) {
        FailCall(machine, "ReadFile", 20, ERROR_SECTOR_NOT_FOUND);
    }
    const RunResult result = RunCommand(machine, words);
    fputs(result.outputText.c_str(), stdout);
    fputs((result.errorText + result.abnormalText).c_str(), stderr);
    if (words[0] == "restore" && wanted >= firstAttached) {
        StoreAt(ReadAttached().at(wanted).file, 0,
                {machine.disks[wanted].bytes.begin(), machine.disks[wanted].bytes.end()});
    }
    return result.exitStatus;
}

// ---- The rest ----

static int Compare(const std::vector<std::string> &words)
{
    if (words.size() != 3 || words[0] != "/b" || !fs::exists(words[1]) || !fs::exists(words[2])) {
        return 2;
    }
    return ReadBytes(words[1]) == ReadBytes(words[2]) ? 0 : 1;
}

static int Digest(const std::vector<std::string> &words)
{
    if (words.size() != 3 || words[0] != "-hashfile" || words[2] != "SHA256" || !fs::exists(words[1])) {
        return 1;
    }
    printf("SHA256 hash of %s:\n", words[1].c_str());
    for (const uint8_t byte : Sha256Of(ReadBytes(words[1]))) {
        printf("%02x", byte);
    }
    printf("\nCertUtil: -hashfile command completed successfully.\n");
    return 0;
}

static int SetLength(const std::vector<std::string> &words)
{
    if (words.size() != 4 || words[0] != "file" || words[1] != "seteof" || !fs::exists(words[2])) {
        return 1;
    }
    fs::resize_file(words[2], std::stoull(words[3]));
    return 0;
}

// The word of the fault, if this call of the role is to have it; counts the call.
static std::string FaultOf(const std::string &role)
{
    const fs::path counter = state / (role + ".count");
    const int nth = static_cast<int>(std::strtol(TextOf(counter).c_str(), nullptr, 10)) + 1;
    std::ofstream(counter) << nth;
    const char *text = getenv("KESTRIX_STAND_IN_FAULTS");
    std::istringstream faults(text != nullptr ? text : "");
    std::string name;
    std::string word;
    int first = 0;
    int last = 0;
    while (faults >> name >> first >> last >> word) {
        if (name == role && nth >= first && nth <= last) {
            return word;
        }
    }
    return "";
}

static int Run(const std::string &role, const std::vector<std::string> &words)
{
    const std::string fault = FaultOf(role);
    if (role == "powershell") {
        return RunPowerShell(words, fault);
    }
    if (role == "kestrix" && (fault.empty() || fault == "read")) {
        return RunKestrix(words, !fault.empty());
    }
    if (!fault.empty()) {
        return std::stoi(fault);
    }
    if (role == "diskpart") {
        return RunDiskPart(words);
    }
    if (role == "fc") {
        return Compare(words);
    }
    if (role == "certutil") {
        return Digest(words);
    }
    if (role == "fsutil") {
        return SetLength(words);
    }
    return role == "ping" || role == "fltmc" ? 0 : 1;
}

int main(int argc, char **argv)
{
    const char *folder = getenv("KESTRIX_STAND_IN");
    if (folder == nullptr) {
        fputs("KESTRIX_STAND_IN is not set\n", stderr);
        return 2;
    }
    state = folder;
    const std::string role = fs::path(argv[0]).stem().string();
    const std::vector<std::string> words(argv + 1, argv + argc);
    std::ofstream log(state / "log", std::ios::app);
    log << role;
    for (const std::string &word : words) {
        log << ' ' << word;
    }
    log << '\n';
    log.close();
    return Run(role, words);
}
