// The sweep of a snapshot capture: every call of the platform that can fail does so once. For each call a rule says
// what becomes of the run from there on, in the log, in both streams, in the file and in the snapshot set; a call
// without a rule, or with two, fails the test.
//
// The rules are edits of the log of the run in which nothing fails: up to the failing call everything is as there. They
// work on lines: a call as it stands in the log, or a line of output behind "stdout " or "stderr ".
#include "snapshot/snapshotting.h"

#include <filesystem>

namespace
{
using Lines = std::vector<std::string>;

constexpr uint64_t sweptBytes = chunkBytes + 1024; // chunk 0 on the first volume, chunk 1 on the second

// A run as it goes on behind a failing call.
struct Story {
    const Lines &good;                         // the run in which nothing fails
    const Lines &live;                         // the same without snapshots
    size_t k;                                  // the failing call's place in good
    Lines lines;                               // what is expected
    int exitStatus = 0;                        // 1: ended by a fatal error
    bool isAbnormal = false;                   // ended by an exception
    std::vector<bool> isFrozen = {true, true}; // of each chunk: comes from a shadow device
    uint64_t epoch = 6;
    std::map<uint64_t, std::array<uint8_t, 32>> wrongHashes = {}; // that stand in the table by chunk
};

struct Rule {
    std::string call; // what the failing line begins with
    std::function<void(Story &story)> tell;
};

bool Begins(const std::string &line, const std::string &start)
{
    return line.compare(0, start.size(), start) == 0;
}

bool Holds(const std::string &line, const std::string &text)
{
    return line.find(text) != std::string::npos;
}

bool HasLine(const Lines &lines, const std::string &start)
{
    return std::any_of(lines.begin(), lines.end(), [&](const std::string &line) { return Begins(line, start); });
}

// A call is among the lines that begins so, and it does not fail.
bool Succeeds(const Lines &lines, const std::string &start)
{
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string &line) { return Begins(line, start) && !Holds(line, "-> failed"); });
}

void Say(Story &story, const std::string &outputLine)
{
    story.lines.push_back("stdout " + outputLine);
}

// The rest of the good run, from a line on that begins so (or from the next one), less what is left out.
void GoOn(Story &story, const std::string &from = "",
          const std::function<bool(const std::string &line)> &without = nullptr)
{
    size_t next = story.k + 1;
    while (next < story.good.size() && !Begins(story.good[next], from)) {
        ++next;
    }
    for (; next < story.good.size(); ++next) {
        if (!without || !without(story.good[next])) {
            story.lines.push_back(story.good[next]);
        }
    }
}

void Replace(Story &story, const std::string &text, const std::string &by)
{
    for (std::string &line : story.lines) {
        const size_t place = line.find(text);
        if (place != std::string::npos) {
            line.replace(place, text.size(), by);
        }
    }
}

// What the hook has to take down at this point of the run.
void EndByHook(Story &story)
{
    const Lines before = story.lines;
    for (const char *shadow : {"shadow:1#1", "shadow:2#1"}) {
        if (std::any_of(before.begin(), before.end(),
                        [&](const std::string &line) { return Holds(line, std::string("-> ") + shadow); })) {
            story.lines.push_back(std::string("CloseHandle ") + shadow);
        }
    }
    story.lines.insert(story.lines.end(), {"AbortBackup components#1",
                                           "DeleteSnapshots components#1 set#1 type=2 force=1 preset=0,GUID_NULL -> 2",
                                           "Release components#1 -> 0", "CoUninitialize"});
}

// The run ends with exit status 1; figures stand in the brackets behind the words.
void Die(Story &story, const std::string &words, const std::string &figures)
{
    story.lines.push_back("stderr FATAL: " + words + " (" + figures + ")");
    story.lines.push_back("exit 1");
    story.exitStatus = 1;
    if (HasLine(story.lines, "atexit")) {
        story.lines.push_back("exit hook hook#1");
        EndByHook(story);
    }
}

std::function<void(Story &story)> Fatal(const std::string &words, uint32_t error = ERROR_IO_DEVICE)
{
    return [=](Story &story) {
        story.lines.push_back("GetLastError -> " + std::to_string(error));
        Die(story, words, "GetLastError=" + std::to_string(error));
    };
}

std::function<void(Story &story)> FatalStatus(const std::string &words)
{
    return [=](Story &story) { Die(story, words, "NTSTATUS 0xC0000001"); };
}

// Everything is let go, and the rest is a capture without snapshots.
void Abandon(Story &story, const std::string &labelAndValue)
{
    std::string line = AbandonLine(labelAndValue);
    line.pop_back();
    Say(story, line);
    const Lines before = story.lines;
    if (std::any_of(before.begin(), before.end(),
                    [](const std::string &one) { return Holds(one, "-> components#1"); })) {
        story.lines.push_back("Release components#1 -> 0");
    }
    if (std::find(before.begin(), before.end(), "CoInitializeEx null model=0") != before.end()) {
        story.lines.push_back("CoUninitialize");
    }
    const auto query = std::find_if(story.live.begin(), story.live.end(),
                                    [](const std::string &one) { return Holds(one, "code=0x8C7D2008"); });
    story.lines.insert(story.lines.end(), query, story.live.end());
    story.lines.push_back("exit hook hook#1");
    story.isFrozen = {false, false};
}

std::function<void(Story &story)> Abandoning(const std::string &label)
{
    return [=](Story &story) { Abandon(story, label + " (0x8000FFFF)"); };
}

// The wait for an operation fails: the operation is still asked and released, and its figures are told.
void TellOfTheWait(Story &story, const std::string &operation)
{
    const bool isWait = Begins(story.good[story.k], "Wait");
    if (isWait) {
        story.lines.push_back("QueryStatus async:" + operation + "#1 preset=0x80004005 reserved=null -> 0x00042309");
    }
    story.lines.push_back("Release async:" + operation + "#1 -> 0");
    Say(story, "    " + operation + " did not complete successfully " +
                   (isWait ? "(wait=0x8000FFFF, status=0x00042309)" : "(wait=0x00000000, status=0x80004005)"));
}

void AbandonAfterTheWait(Story &story, const std::string &operation)
{
    TellOfTheWait(story, operation);
    Abandon(story, operation + " failed (0x00000000)");
}

// That chunk comes from the disk instead, at its own place.
void ReadLive(Story &story, int volume)
{
    const std::string shadow = "shadow:" + std::to_string(volume) + "#1 ";
    const std::string place = volume == 1 ? "0" : "4194304";
    const std::string length = volume == 1 ? "4194304" : "1024";
    Replace(story, "SetFilePointerEx " + shadow + "0", "SetFilePointerEx disk1#1 " + place);
    Replace(story, "ReadFile " + shadow + length + " at 0", "ReadFile disk1#1 " + length + " at " + place);
    Replace(story, "2 volume(s) snapshotted", "1 volume(s) snapshotted");
    story.isFrozen[static_cast<size_t>(volume - 1)] = false;
}

bool IsOnDevice(const std::string &line, int volume)
{
    const std::string number = std::to_string(volume);
    return Holds(line, "snapshot:" + number) || Holds(line, "properties:" + number) ||
           Holds(line, "HarddiskVolumeShadowCopy" + number) || Begins(line, "CloseHandle shadow:" + number);
}

// The volume's snapshot has no device, or no snapshot was made of it.
std::function<void(Story &story)> WithoutDevice(int volume, const std::string &line)
{
    return [=](Story &story) {
        if (Begins(story.good[story.k], "CreateFileW")) {
            story.lines.push_back("GetLastError -> 1117");
        }
        Say(story, LineOf(line, volume));
        GoOn(story, "", [&](const std::string &one) { return IsOnDevice(one, volume); });
        ReadLive(story, volume);
    };
}

// As if the volume were not there, but for the lines about it that are kept.
std::function<void(Story &story)> WithoutVolume(int volume, const std::string &kept = "nothing")
{
    return [=](Story &story) {
        const std::string number = std::to_string(volume);
        GoOn(story, "", [&](const std::string &one) {
            const bool isAbout = Holds(one, "Volume{" + number + "}") || Holds(one, "volume:" + number);
            return (isAbout && !Begins(one, kept) && !Begins(one, "FindNextVolumeW")) || IsOnDevice(one, volume);
        });
        Replace(story, "preset=0,GUID_NULL -> 2", "preset=0,GUID_NULL -> 1");
        ReadLive(story, volume);
    };
}

std::function<void(Story &story)> NotAdded(int volume, const std::string &line)
{
    return [=](Story &story) {
        Say(story, LineOf(line, volume));
        WithoutVolume(volume)(story);
    };
}

// The writers are not asked, or no further than here.
void WithoutWriters(Story &story)
{
    GoOn(story, "GetSnapshotProperties");
}

// No epoch, no commit; the tracker's handle is closed if it was opened.
void WithoutTracker(Story &story)
{
    const bool isOpen = HasLine(story.lines, "DeviceIoControl tracker#1");
    GoOn(story, "", [&](const std::string &line) {
        return Holds(line, "DeviceIoControl tracker#1") || (!isOpen && Holds(line, "tracker#1"));
    });
    Replace(story, "Change tracker: disk 1 epoch 6", noTrackerLine.substr(0, noTrackerLine.size() - 1));
    story.epoch = 0;
}

// The image's position is off by that much from here on, up to the seek back to its start.
void ShiftWrites(Story &story, const std::vector<std::pair<std::string, std::string>> &writes)
{
    GoOn(story);
    for (const auto &[write, shifted] : writes) {
        Replace(story, "WriteFile file:image.kstx#1 " + write, "WriteFile file:image.kstx#1 " + shifted);
    }
}

// The chunk whose hash is being made.
uint64_t ChunkInWork(const Story &story)
{
    uint64_t reads = 0;
    for (const std::string &line : story.lines) {
        reads += Begins(line, "ReadFile") ? 1 : 0;
    }
    return reads - 1;
}

void JustGoOn(Story &story)
{
    GoOn(story);
}

const std::string readWords = "ReadFile from source disk failed mid-capture - image is incomplete, do not trust it";
const std::string seekWords = "SetFilePointerEx on source failed mid-capture";
const std::string writeWords = "WriteFile to image file failed mid-capture (disk full?)";
const std::string notSupported =
    "  --vss: volume VOLUME can't be snapshotted (removable/unsupported) - it will be read live.";
const std::string notInSet = "  --vss: could not add volume VOLUME to the snapshot set (0x8000FFFF) - read live.";
const std::string noProperties = "  --vss: GetSnapshotProperties failed for VOLUME (0x8000FFFF) - read live.";
const std::string noDevice = "  --vss: could not open shadow device DEVICE (GetLastError=1117) - read live.";
const std::string volumePath1 = "\\\\?\\Volume{1}";
const std::string volumePath2 = "\\\\?\\Volume{2}";
const std::string devicePath = "\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy";

const std::vector<Rule> rulesOfTheStart = {
    {"CreateFileW \\\\.\\PhysicalDrive1", Fatal("could not open source disk for raw read (run as Administrator?)")},
    {"DeviceIoControl disk1#1 code=0x0007405C", Fatal("IOCTL_DISK_GET_LENGTH_INFO failed")},
    {"DeviceIoControl disk1#1 code=0x000700A0", Fatal("IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed")},
    {"CreateFileW \\\\.\\C:", Fatal("could not open C: to determine the system disk number")},
    {"DeviceIoControl volume:C#1",
     [](Story &story) {
         story.lines.push_back("CloseHandle volume:C#1"); // which spoils the number
         Fatal("IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed", 4711)(story);
     }},
    {"CreateFileW \\\\.\\Tallier", WithoutTracker},
    {"DeviceIoControl tracker#1 code=0x8C7D2004", WithoutTracker},
    {"DeviceIoControl tracker#1 code=0x8C7D2008 input=8 output=48", WithoutTracker},
    {"DeviceIoControl tracker#1 code=0x8C7D2008 input=8 output=56", WithoutTracker},
};

const std::vector<Rule> rulesOfTheSetUp = {
    {"atexit",
     [](Story &story) { GoOn(story, "", [](const std::string &line) { return Begins(line, "exit hook"); }); }},
    {"CoInitializeEx", Abandoning("CoInitializeEx failed")},
    {"CoInitializeSecurity", Abandoning("CoInitializeSecurity failed")},
    {"CreateVssBackupComponentsInternal", Abandoning("VSS is not available here (CreateVssBackupComponents)")},
    {"InitializeForBackup", Abandoning("InitializeForBackup failed")},
    {"SetContext", Abandoning("SetContext failed")},
    {"SetBackupState", Abandoning("SetBackupState failed")},
    {"GatherWriterMetadata", Abandoning("GatherWriterMetadata failed")},
    {"Wait async:GatherWriterMetadata", [](Story &story) { AbandonAfterTheWait(story, "GatherWriterMetadata"); }},
    {"QueryStatus async:GatherWriterMetadata",
     [](Story &story) { AbandonAfterTheWait(story, "GatherWriterMetadata"); }},
    {"StartSnapshotSet", Abandoning("StartSnapshotSet failed")},
    {"FindFirstVolumeW",
     [](Story &story) { Abandon(story, "no volume on this disk could be snapshotted (0x00000001)"); }},
    {"FindNextVolumeW volumes#1 260 -> \\\\?\\Volume{2}\\",
     [](Story &story) {
         WithoutVolume(2)(story);
         const auto secondNext =
             std::find(story.lines.begin(), story.lines.end(), "FindNextVolumeW volumes#1 260 -> failed 18");
         ASSERT_NE(secondNext, story.lines.end());
         story.lines.erase(secondNext);
     }},
    {"CreateFileW " + volumePath1 + " ", WithoutVolume(1)},
    {"CreateFileW " + volumePath2 + " ", WithoutVolume(2)},
    {"DeviceIoControl volume:1#1", WithoutVolume(1, "CloseHandle volume:1#1")},
    {"DeviceIoControl volume:2#1", WithoutVolume(2, "CloseHandle volume:2#1")},
    {"IsVolumeSupported components#1 GUID_NULL " + volumePath1, NotAdded(1, notSupported)},
    {"IsVolumeSupported components#1 GUID_NULL " + volumePath2, NotAdded(2, notSupported)},
    {"AddToSnapshotSet components#1 " + volumePath1, NotAdded(1, notInSet)},
    {"AddToSnapshotSet components#1 " + volumePath2, NotAdded(2, notInSet)},
    {"PrepareForBackup", Abandoning("PrepareForBackup failed")},
    {"Wait async:PrepareForBackup", [](Story &story) { AbandonAfterTheWait(story, "PrepareForBackup"); }},
    {"QueryStatus async:PrepareForBackup", [](Story &story) { AbandonAfterTheWait(story, "PrepareForBackup"); }},
    {"DoSnapshotSet", Abandoning("DoSnapshotSet failed")},
    {"Wait async:DoSnapshotSet", [](Story &story) { AbandonAfterTheWait(story, "DoSnapshotSet"); }},
    {"QueryStatus async:DoSnapshotSet", [](Story &story) { AbandonAfterTheWait(story, "DoSnapshotSet"); }},
};

const std::vector<Rule> rulesOfTheSnapshots = {
    {"GatherWriterStatus", WithoutWriters},
    {"Wait async:GatherWriterStatus",
     [](Story &story) {
         TellOfTheWait(story, "GatherWriterStatus");
         WithoutWriters(story);
     }},
    {"QueryStatus async:GatherWriterStatus",
     [](Story &story) {
         TellOfTheWait(story, "GatherWriterStatus");
         WithoutWriters(story);
     }},
    {"GetWriterStatusCount", WithoutWriters},
    {"GetWriterStatus components#1 0 ", [](Story &story) { GoOn(story, "GetWriterStatus components#1 1 "); }},
    {"GetWriterStatus components#1 1 ",
     [](Story &story) {
         GoOn(story, "FreeWriterStatus");
         Replace(story, "2 VSS writer(s) reported, 1 failed.", "2 VSS writer(s) reported, 0 failed.");
     }},
    {"GetSnapshotProperties components#1 snapshot:1", WithoutDevice(1, noProperties)},
    {"GetSnapshotProperties components#1 snapshot:2", WithoutDevice(2, noProperties)},
    {"CreateFileW " + devicePath + "1", WithoutDevice(1, noDevice)},
    {"CreateFileW " + devicePath + "2", WithoutDevice(2, noDevice)},
    {"BackupComplete",
     [](Story &story) {
         story.lines.push_back("AbortBackup components#1");
         GoOn(story, "DeleteSnapshots");
     }},
    {"Wait async:BackupComplete",
     [](Story &story) {
         TellOfTheWait(story, "BackupComplete");
         GoOn(story, "DeleteSnapshots");
     }},
    {"QueryStatus async:BackupComplete",
     [](Story &story) {
         TellOfTheWait(story, "BackupComplete");
         GoOn(story, "DeleteSnapshots");
     }},
    {"DeleteSnapshots",
     [](Story &story) {
         std::string line = DeleteWarning("0x8000FFFF");
         line.pop_back();
         Say(story, line);
         GoOn(story);
     }},
};

const std::vector<Rule> rulesOfTheImage = {
    {"CreateFileW image.kstx", Fatal("could not create output image file")},
    {"SetFilePointerEx file:image.kstx#1 208",
     [](Story &story) {
         ShiftWrites(story, {{"4194304 at 208", "4194304 at 0"}, {"1024 at 4194512", "1024 at 4194304"}});
     }},
    {"calloc", [](Story &story) { story.isAbnormal = true; }},
    {"_aligned_malloc", Fatal("out of memory allocating aligned I/O buffer", ERROR_NOT_ENOUGH_MEMORY)},
    {"SetFilePointerEx shadow:", Fatal(seekWords)},
    {"ReadFile shadow:", Fatal(readWords)},
    {"BCryptOpenAlgorithmProvider", FatalStatus("BCryptOpenAlgorithmProvider(SHA256)")},
    {"BCryptGetProperty",
     [](Story &story) { // the size stays 0, and memory of no size is refused
         story.lines.push_back("BCryptCreateHash sha256#" + std::to_string(ChunkInWork(story) + 1) +
                               " -> failed 0xC0000023");
         Die(story, "BCryptCreateHash", "NTSTATUS 0xC0000023");
     }},
    {"BCryptCreateHash", FatalStatus("BCryptCreateHash")},
    {"BCryptHashData",
     [](Story &story) {
         story.wrongHashes[ChunkInWork(story)] = Sha256Of(Bytes());
         GoOn(story);
     }},
    {"BCryptFinishHash",
     [](Story &story) {
         story.wrongHashes[ChunkInWork(story)] = {};
         GoOn(story);
     }},
    {"WriteFile file:image.kstx#1 4194304 at 208", Fatal(writeWords)},
    {"WriteFile file:image.kstx#1 1024 at 4194512", Fatal(writeWords)},
    {"SetFilePointerEx file:image.kstx#1 0",
     [](Story &story) {
         ShiftWrites(story, {{"64 at 0", "64 at 4195536"}, {"144 at 64", "144 at 4195600"}});
     }},
    {"WriteFile file:image.kstx#1 64 at 0",
     [](Story &story) {
         ShiftWrites(story, {{"144 at 64", "144 at 0"}});
     }},
    {"DeviceIoControl tracker#1 code=0x8C7D200C",
     [](Story &story) {
         Say(story, "WARNING: tracker COMMIT failed - the next capture will be a full one.");
         GoOn(story);
     }},
};

// Calls whose result nobody looks at, and without which nothing is missing.
const std::vector<Rule> rulesOfWhatIsNotLookedAt = {
    {"CloseHandle", JustGoOn},
    {"FindNextVolumeW volumes#1 260 -> failed 18", JustGoOn},
    {"FindVolumeClose", JustGoOn},
    {"FreeWriterStatus", JustGoOn},
    {"BCryptDestroyHash", JustGoOn},
    {"BCryptCloseAlgorithmProvider", JustGoOn},
    {"WriteFile file:image.kstx#1 144 at 64", JustGoOn},
};

// The one rule for a call; null, with a failure of the test, if there is not exactly one.
const Rule *RuleFor(const std::string &line)
{
    std::vector<const Rule *> found;
    for (const std::vector<Rule> *rules :
         {&rulesOfTheStart, &rulesOfTheSetUp, &rulesOfTheSnapshots, &rulesOfTheImage, &rulesOfWhatIsNotLookedAt}) {
        for (const Rule &rule : *rules) {
            // A rule for a name is none for the longer names that begin with it.
            const bool isCut = rule.call.find(' ') == std::string::npos && line.size() > rule.call.size() &&
                               line[rule.call.size()] != ' ';
            if (Begins(line, rule.call) && !isCut) {
                found.push_back(&rule);
            }
        }
    }
    EXPECT_EQ(found.size(), 1U) << "rules for " << line;
    return found.size() == 1 ? found[0] : nullptr;
}

// Calls and output as lines.
Lines LinesOf(const Machine &machine)
{
    Lines lines;
    for (const Call &call : machine.calls) {
        if (call.name != "stdout" && call.name != "stderr") {
            lines.push_back(call.text);
            continue;
        }
        for (size_t start = 0; start < call.result.size();) {
            const size_t end = std::min(call.result.find('\n', start), call.result.size());
            lines.push_back(call.name + " " + call.result.substr(start, end - start));
            start = end + 1;
        }
    }
    return lines;
}

bool CanFail(const std::string &line)
{
    static const Lines never = {"stdout",
                                "stderr",
                                "exit",
                                "GetLastError",
                                "GetTickCount64",
                                "_aligned_free",
                                "Release",
                                "CoUninitialize",
                                "SysFreeString",
                                "exit",
                                "VssFreeSnapshotPropertiesInternal"};
    const std::string name = line.substr(0, line.find(' '));
    return std::find(never.begin(), never.end(), name) == never.end();
}

// The line of a call as it is when the call fails with its usual error.
std::string AsFailed(const std::string &line)
{
    const std::string call = line.substr(0, line.find(" -> "));
    if (Begins(line, "BCrypt")) {
        return call + " -> failed 0xC0000001";
    }
    if (Begins(line, "calloc") || Begins(line, "_aligned_malloc")) {
        return call + " -> failed 8";
    }
    const bool isOnHandles = Begins(line, "CreateFileW") || Begins(line, "DeviceIoControl") ||
                             Begins(line, "CloseHandle") || Begins(line, "Find") || Begins(line, "atexit") ||
                             Begins(line, "ReadFile") || Begins(line, "WriteFile") || Begins(line, "SetFilePointerEx");
    return call + (isOnHandles ? " -> failed 1117" : " -> failed 0x8000FFFF");
}

std::string Joined(const Lines &lines)
{
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return text;
}

struct SnapshotSweep : Snapshotting {
    SnapshotSweep()
    {
        UseDisk(disk);
        machine.volumes.clear();
        AddVolume(machine, L"\\\\?\\Volume{1}\\", {{1, 0, chunkBytes}}, ChunkOf(frozen, 0));
        AddVolume(machine, L"\\\\?\\Volume{2}\\", {{1, chunkBytes, 1024}}, ChunkOf(frozen, 1));
        StartOver();
    }

    void StartOver()
    {
        UseTracker();
        StartAnew();
        Service().writers = {{L"Registry Writer"}, {L"SqlServerWriter", 9, 0x800423F4}};
        std::filesystem::remove("image.kstx");
    }

    // The image that the story's chunks and table make.
    Bytes ImageOf(const Story &story) const
    {
        ImagePlan plan = PlanOf(disk, story.epoch);
        for (uint64_t i = 0; i < 2; ++i) {
            const Bytes chunk = ChunkOf(story.isFrozen[i] ? frozen : disk, i);
            std::copy(chunk.begin(), chunk.end(), plan.disk.begin() + static_cast<std::ptrdiff_t>(i * chunkBytes));
        }
        Bytes image = BuildImage(plan);
        for (const auto &[chunk, hash] : story.wrongHashes) {
            std::copy(hash.begin(), hash.end(), image.begin() + static_cast<std::ptrdiff_t>(64 + 72 * chunk + 12));
        }
        return image;
    }

    // What the writes of the story leave in the file.
    Bytes FileOf(const Story &story) const
    {
        const Bytes image = ImageOf(story);
        Bytes file;
        for (const std::string &line : story.lines) {
            unsigned long length = 0;
            unsigned long place = 0;
            unsigned long written = 0;
            if (sscanf(line.c_str(), "WriteFile file:image.kstx#1 %lu at %lu -> %lu", &length, &place, &written) != 3) {
                continue;
            }
            const std::map<unsigned long, size_t> homes = {
                {64, 0}, {144, 64}, {chunkBytes, 208}, {1024, 208 + chunkBytes}};
            const uint8_t *start = image.data() + homes.at(length);
            file.resize(std::max<size_t>(file.size(), place + length));
            std::copy(start, start + length, file.begin() + static_cast<std::ptrdiff_t>(place));
        }
        return file;
    }

    void ExpectFile(const Story &story)
    {
        const bool isMade = Succeeds(story.lines, "CreateFileW image.kstx");
        ASSERT_EQ(FileExists("image.kstx"), isMade);
        if (!isMade) {
            return;
        }
        const Bytes file = FileOf(story);
        EXPECT_TRUE(ReadBytes("image.kstx") == file);
        Story sound = story;
        sound.wrongHashes.clear();
        Machine reader;
        const int verified = RunCommand(reader, {"verify", "--in", "image.kstx"}).exitStatus;
        EXPECT_EQ(verified, file == ImageOf(sound) ? 0 : 1);
        EXPECT_FALSE(story.exitStatus != 0 && verified == 0);
    }

    void ExpectSnapshotSet(const Story &story)
    {
        if (!HasLine(story.lines, "StartSnapshotSet components#1 -> set#1")) {
            EXPECT_TRUE(Service().sets.empty());
            return;
        }
        const bool isDeleted = Succeeds(story.lines, "DeleteSnapshots");
        const SetFate left = story.isAbnormal ? SetFate::Created : SetFate::Dropped;
        EXPECT_EQ(OnlySet().fate, isDeleted ? SetFate::Deleted : left);
        EXPECT_EQ(OnlySet().isAborted, HasLine(story.lines, "AbortBackup"));
    }

    void ExpectRun(const Story &story)
    {
        EXPECT_EQ(Joined(LinesOf(machine)), Joined(story.lines));
        EXPECT_EQ(result.abnormalEnd, story.isAbnormal) << result.abnormalText;
        EXPECT_TRUE(story.isAbnormal || result.exitStatus == story.exitStatus);
        EXPECT_EQ(result.errorText.empty(), story.exitStatus == 0);
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
        EXPECT_TRUE(story.isAbnormal || machine.leaks.empty());
        const bool isCommitted = Succeeds(story.lines, "DeviceIoControl tracker#1 code=0x8C7D200C");
        EXPECT_EQ(Commits().size(), isCommitted ? 1U : 0U);
    }

    const Bytes disk = PatternBytes(sweptBytes, 31);
    const Bytes frozen = PatternBytes(sweptBytes, 32);
};
} // namespace

TEST_F(SnapshotSweep, EveryCallThatFailsHasItsOutcome)
{
    Capture();
    const Lines live = LinesOf(machine);
    StartOver();
    CaptureWithSnapshots();
    const Lines good = LinesOf(machine);
    const Story goodStory = {good, live, 0, good};
    ExpectRun(goodStory);
    ExpectFile(goodStory);
    ExpectSnapshotSet(goodStory);
    uint32_t nth = 0;
    for (size_t k = 0; k < good.size(); ++k) {
        if (!CanFail(good[k])) {
            continue;
        }
        SCOPED_TRACE(good[k]);
        const Rule *rule = RuleFor(good[k]);
        ASSERT_NE(rule, nullptr);
        Story story = {good, live, k, Lines(good.data(), good.data() + k)};
        story.lines.push_back(AsFailed(good[k]));
        rule->tell(story);
        StartOver();
        FailAnyCall(machine, ++nth, false);
        CaptureWithSnapshots();
        EXPECT_EQ(machine.faultsFired, 1U);
        ExpectRun(story);
        ExpectSnapshotSet(story);
        ExpectFile(story);
    }
    machine.faults.clear();
    CaptureWithSnapshots();
    EXPECT_EQ(machine.fallibleCalls, nth);
    EXPECT_GT(nth, 80U);
}

// From one call on everything fails: the run ends in one of the ways that there are, and leaves nothing of the service.
TEST_F(SnapshotSweep, EveryCallFromWhichOnAllFailLeavesNothingBehind)
{
    for (uint32_t nth = 1;; ++nth) {
        SCOPED_TRACE(nth);
        StartOver();
        FailAnyCall(machine, nth, true);
        CaptureWithSnapshots();
        if (machine.faultsFired == 0) {
            EXPECT_GT(nth, 80U);
            break;
        }
        const bool isComplete = result.outputText.find(completeLine) != std::string::npos;
        EXPECT_EQ(isComplete, !result.abnormalEnd && result.exitStatus == 0);
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
        EXPECT_TRUE(result.abnormalEnd || machine.leaks.empty());
        for (const SnapshotSet &set : Service().sets) {
            EXPECT_TRUE(result.abnormalEnd || set.fate == SetFate::Deleted || set.fate == SetFate::Dropped);
        }
        EXPECT_TRUE(isComplete || Commits().empty());
    }
}
