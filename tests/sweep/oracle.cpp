// The oracle of the fault sweep: for each call that can fail, what it was made for and what its failure leads to.
//
// The tables are to be read as sentences: in these commands, this call, made for that, ends so. Each call has exactly
// one rule.
#include "sweep/endings.h"

#include <gtest/gtest.h>

namespace sweep
{
namespace
{
struct Rule {
    std::string commands; // those that it is for; empty: all
    std::string call;     // what the failing line begins with, to the end of a word
    std::string purpose;  // as PurposeOf gives it; empty: any
    Tell tell;
};

std::string PurposeOfWrite(const Story &story, const std::string &output)
{
    const std::string front = "SetFilePointerEx " + output + " 0";
    const size_t seek = Find(story.good, front, story.k);
    if (seek < story.good.size()) {
        const bool isLast = Find(story.good, "WriteFile", story.k + 1) > seek;
        return isLast && story.run.Has("--thin") ? "trailer" : "chunk";
    }
    return Begins(story.good[CallBefore(story.good, story.k)], front) ? "header" : "table";
}

std::string PurposeOfSeek(const Story &story, const std::string &output)
{
    const std::string &line = story.good[story.k];
    if (Object(line) == output) {
        return NumberBehind(line, "#1 ") == 0 ? "front" : "data area";
    }
    const std::string &before = story.good[CallBefore(story.good, story.k)];
    if (Begins(before, "calloc ")) {
        return "fetched chunk";
    }
    if (Begins(before, "GetFileSizeEx ")) {
        return "trailer's length";
    }
    return Begins(before, "ReadFile " + Object(line) + " 4 ") ? "trailer" : "way back";
}

// What the program makes the call for, where its name and its object leave that open.
std::string PurposeOf(const Story &story)
{
    const std::string &line = story.good[story.k];
    const std::string output = "file:" + story.run.outPath + "#1";
    if (Begins(line, "ReadFile ")) {
        return PurposeOfRead(story.good, story.k);
    }
    if (Begins(line, "BCryptHashData ") || Begins(line, "BCryptFinishHash ") || Begins(line, "BCryptDecrypt ")) {
        return PurposeOfRead(story.good, LastRead(story));
    }
    if (Begins(line, "CreateFileW ") && !Begins(line, "CreateFileW \\\\")) {
        return Holds(line, "access=0x80000000") ? "image to read" : "image to write";
    }
    if (Begins(line, "WriteFile " + output)) {
        return PurposeOfWrite(story, output);
    }
    return Begins(line, "SetFilePointerEx file:") ? PurposeOfSeek(story, output) : "";
}

const std::vector<Rule> rulesOfDevices = {
    {"capture", "CreateFileW \\\\.\\PhysicalDrive1", "",
     Fatal("could not open source disk for raw read (run as Administrator?)")},
    {"restore", "CreateFileW \\\\.\\PhysicalDrive1", "", UnopenedTarget},
    {"list-disks", "CreateFileW \\\\.\\PhysicalDrive", "", UnlistedDisk},
    {"", "DeviceIoControl disk code=0x0007405C", "", Fatal("IOCTL_DISK_GET_LENGTH_INFO failed")},
    {"", "DeviceIoControl disk code=0x000700A0", "", Fatal("IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed")},
    {"restore", "DeviceIoControl disk code=0x00070140", "", GoOn},
    {"", "CreateFileW \\\\.\\C:", "", Fatal("could not open C: to determine the system disk number")},
    {"", "DeviceIoControl volume:C", "", UnknownSystemDisk},
    {"capture", "SetFilePointerEx disk", "", Fatal("SetFilePointerEx on source failed mid-capture")},
    {"capture", "SetFilePointerEx shadow", "", Fatal("SetFilePointerEx on source failed mid-capture")},
    {"capture", "ReadFile", "chunk of the disk",
     Fatal("ReadFile from source disk failed mid-capture - image is incomplete, do not trust it")},
    // The chunks lie one behind the other on the disk, and the write before has left the position at the next.
    {"restore", "SetFilePointerEx disk", "", GoOn},
    {"restore", "WriteFile disk", "",
     Fatal("WriteFile to target disk failed mid-restore - target disk left partially written, do not boot it yet")},
    {"", "CloseHandle", "", GoOn},
};

const std::vector<Rule> rulesOfReading = {
    {"", "CreateFileW", "image to read", MissingImage},
    {"", "ReadFile", "header", Fatal("could not read image header - file is truncated or not a .kstx image")},
    {"", "ReadFile", "table", Fatal("could not read chunk table - image is truncated")},
    {"", "GetFileSizeEx", "", Fatal("thin image has no valid trailer - file is truncated")},
    {"", "SetFilePointerEx file", "trailer's length", Fatal("thin image has no valid trailer - file is truncated")},
    {"", "ReadFile", "trailer's length", Fatal("thin image has no valid trailer - file is truncated")},
    {"", "SetFilePointerEx file", "trailer", Fatal("could not read thin image trailer")},
    {"", "ReadFile", "trailer", Fatal("could not read thin image trailer")},
    {"", "GetFileAttributesA", "", MissingBase},
    {"", "SetFilePointerEx file", "way back", WayBack},
    {"", "SetFilePointerEx file", "fetched chunk", Fatal("could not read chunk data from image (truncated?)")},
    {"", "ReadFile", "fetched chunk", Fatal("could not read chunk data from image (truncated?)")},
    {"verify consolidate", "ReadFile", "next chunk", Fatal("could not read chunk data - image is truncated")},
    {"restore", "ReadFile", "next chunk",
     Fatal("could not read chunk data from image - restore aborted, target disk left partially written")},
    {"", "_fullpath", "", Fatal("could not resolve image paths")},
};

const std::vector<Rule> rulesOfWriting = {
    {"", "CreateFileW", "image to write", Fatal("could not create output image file")},
    {"", "SetFilePointerEx file", "data area", SpoiledImage("could not read chunk data - image is truncated")},
    {"capture", "WriteFile", "chunk", Fatal("WriteFile to image file failed mid-capture (disk full?)")},
    {"consolidate", "WriteFile", "chunk", Fatal("WriteFile failed while consolidating (disk full?)")},
    {"", "WriteFile", "trailer", Fatal("could not write thin image trailer")},
    {"", "SetFilePointerEx file", "front", SpoiledImage("not a recognized Kestrix image (bad magic/version)")},
    {"", "WriteFile", "header", SpoiledHeader},
    {"", "WriteFile", "table", SpoiledImage("image has a thin chunk but no base image")},
};

const std::vector<Rule> rulesOfMemory = {
    {"", "calloc", "", OutOfMemory},
    {"", "_aligned_malloc", "", Fatal("out of memory allocating aligned I/O buffer")},
};

const std::vector<Rule> rulesOfCryptography = {
    {"", "fopen_s", "", Fatal("could not open password file")},
    {"", "fread", "", PasswordPart},
    {"", "fclose", "", GoOn},
    {"", "BCryptOpenAlgorithmProvider SHA256 flags=0x0", "", FatalStatus("BCryptOpenAlgorithmProvider(SHA256)")},
    {"", "BCryptOpenAlgorithmProvider SHA256 flags=0x8", "", FatalStatus("BCryptOpenAlgorithmProvider(HMAC-SHA256)")},
    {"", "BCryptOpenAlgorithmProvider AES", "", FatalStatus("BCryptOpenAlgorithmProvider(AES)")},
    {"", "BCryptOpenAlgorithmProvider RNG", "", FatalStatus("BCryptOpenAlgorithmProvider(RNG)")},
    {"", "BCryptCloseAlgorithmProvider", "", GoOn},
    {"", "BCryptGetProperty sha256", "", RefusedMemory("BCryptCreateHash")},
    {"", "BCryptGetProperty aes", "", RefusedMemory("BCryptGenerateSymmetricKey")},
    {"", "BCryptSetProperty", "", FatalStatus("BCryptSetProperty(GCM)")},
    {"", "BCryptCreateHash", "", FatalStatus("BCryptCreateHash")},
    {"", "BCryptDestroyHash", "", GoOn},
    {"", "BCryptHashData", "table", WrongImageId},
    {"", "BCryptFinishHash", "table", WrongImageId},
    {"", "BCryptHashData", "fetched chunk", WrongFetchedDigest},
    {"", "BCryptFinishHash", "fetched chunk", WrongFetchedDigest},
    {"verify consolidate", "BCryptHashData", "next chunk", WrongVerifiedDigest},
    {"verify consolidate", "BCryptFinishHash", "next chunk", WrongVerifiedDigest},
    {"restore", "BCryptHashData", "next chunk", WrongRestoredDigest},
    {"restore", "BCryptFinishHash", "next chunk", WrongRestoredDigest},
    {"capture", "BCryptHashData", "chunk of the disk", WrongCapturedDigest},
    {"capture", "BCryptFinishHash", "chunk of the disk", WrongCapturedDigest},
    {"", "BCryptDeriveKeyPBKDF2", "", FatalStatus("BCryptDeriveKeyPBKDF2")},
    {"", "BCryptGenerateSymmetricKey", "", FatalStatus("BCryptGenerateSymmetricKey")},
    {"", "BCryptDestroyKey", "", GoOn},
    {"", "BCryptEncrypt", "", FatalStatus("BCryptEncrypt")},
    {"", "BCryptDecrypt", "fetched chunk", Fatal("chunk failed authentication (corrupt or tampered image)")},
    {"verify consolidate", "BCryptDecrypt", "next chunk", WrongVerifiedTag},
    {"restore", "BCryptDecrypt", "next chunk", WrongRestoredTag},
    {"", "BCryptGenRandom", "", FatalStatus("BCryptGenRandom")},
};

const std::vector<Rule> rulesOfTheTracker = {
    {"capture", "CreateFileW \\\\.\\Tallier", "", WithoutTracker},
    {"capture", "DeviceIoControl tracker#1 code=0x8C7D2004", "", WithoutTracker},
    {"capture", "DeviceIoControl tracker#1 code=0x8C7D2008", "", WithoutTracker},
    {"capture", "DeviceIoControl tracker#1 code=0x8C7D200C", "", UncommittedEpoch},
};

const std::string shadowDevice = "CreateFileW \\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy";

const std::vector<Rule> rulesOfSnapshots = {
    {"capture", "atexit", "", WithoutExitHook},
    {"capture", "CoInitializeEx", "", Abandoning("CoInitializeEx failed")},
    {"capture", "CoInitializeSecurity", "", Abandoning("CoInitializeSecurity failed")},
    {"capture", "CreateVssBackupComponentsInternal", "",
     Abandoning("VSS is not available here (CreateVssBackupComponents)")},
    {"capture", "InitializeForBackup", "", Abandoning("InitializeForBackup failed")},
    {"capture", "SetContext", "", Abandoning("SetContext failed")},
    {"capture", "SetBackupState", "", Abandoning("SetBackupState failed")},
    {"capture", "GatherWriterMetadata", "", Abandoning("GatherWriterMetadata failed")},
    {"capture", "Wait async:GatherWriterMetadata", "", AbandonAfterTheWait("GatherWriterMetadata")},
    {"capture", "QueryStatus async:GatherWriterMetadata", "", AbandonAfterTheWait("GatherWriterMetadata")},
    {"capture", "StartSnapshotSet", "", Abandoning("StartSnapshotSet failed")},
    {"capture", "FindFirstVolumeW", "", WithoutVolumes},
    {"capture", "FindNextVolumeW volumes#1 260 -> \\\\?\\Volume{2}\\", "", UnfoundVolume},
    {"capture", "FindNextVolumeW volumes#1 260 -> failed 18", "", GoOn},
    {"capture", "FindVolumeClose", "", GoOn},
    {"capture", "CreateFileW \\\\?\\Volume{1}", "", UnopenedVolume(1)},
    {"capture", "CreateFileW \\\\?\\Volume{2}", "", UnopenedVolume(2)},
    {"capture", "DeviceIoControl volume:1#1", "", UnlocatedVolume(1)},
    {"capture", "DeviceIoControl volume:2#1", "", UnlocatedVolume(2)},
    {"capture", "IsVolumeSupported components#1 GUID_NULL \\\\?\\Volume{1}", "", UnsupportedVolume(1)},
    {"capture", "IsVolumeSupported components#1 GUID_NULL \\\\?\\Volume{2}", "", UnsupportedVolume(2)},
    {"capture", "AddToSnapshotSet components#1 \\\\?\\Volume{1}", "", UnaddedVolume(1)},
    {"capture", "AddToSnapshotSet components#1 \\\\?\\Volume{2}", "", UnaddedVolume(2)},
    {"capture", "PrepareForBackup", "", Abandoning("PrepareForBackup failed")},
    {"capture", "Wait async:PrepareForBackup", "", AbandonAfterTheWait("PrepareForBackup")},
    {"capture", "QueryStatus async:PrepareForBackup", "", AbandonAfterTheWait("PrepareForBackup")},
    {"capture", "DoSnapshotSet", "", Abandoning("DoSnapshotSet failed")},
    {"capture", "Wait async:DoSnapshotSet", "", AbandonAfterTheWait("DoSnapshotSet")},
    {"capture", "QueryStatus async:DoSnapshotSet", "", AbandonAfterTheWait("DoSnapshotSet")},
    {"capture", "GatherWriterStatus", "", WithoutWriters},
    {"capture", "Wait async:GatherWriterStatus", "", ToldWait("GetSnapshotProperties")},
    {"capture", "QueryStatus async:GatherWriterStatus", "", ToldWait("GetSnapshotProperties")},
    {"capture", "GetWriterStatusCount", "", WithoutWriters},
    {"capture", "GetWriterStatus components#1 0 ", "", WithoutFirstWriter},
    {"capture", "GetWriterStatus components#1 1 ", "", WithoutSecondWriter},
    {"capture", "FreeWriterStatus", "", GoOn},
    {"capture", "GetSnapshotProperties components#1 snapshot:1", "", WithoutProperties(1)},
    {"capture", "GetSnapshotProperties components#1 snapshot:2", "", WithoutProperties(2)},
    {"capture", shadowDevice + "1", "", WithoutShadowDevice(1)},
    {"capture", shadowDevice + "2", "", WithoutShadowDevice(2)},
    {"capture", "BackupComplete", "", AbortedBackup},
    {"capture", "Wait async:BackupComplete", "", ToldWait("DeleteSnapshots")},
    {"capture", "QueryStatus async:BackupComplete", "", ToldWait("DeleteSnapshots")},
    {"capture", "AbortBackup", "", GoOn},
    {"capture", "DeleteSnapshots", "", UndeletedSnapshots},
};

// The line with "disk" for the handle of any disk.
std::string Generalized(const std::string &line)
{
    const std::string handle = Object(line);
    const bool isDisk = Begins(handle, "disk") && Holds(handle, "#");
    return isDisk ? Name(line) + " disk" + line.substr(line.find(handle) + handle.size()) : line;
}

bool IsForCall(const Rule &rule, const std::string &line)
{
    const bool endsWord = rule.call.size() >= line.size() || rule.call.back() == ' ' ||
                          std::string(" #:}\\").find(line[rule.call.size()]) != std::string::npos ||
                          isdigit(line[rule.call.size()]) != 0;
    return Begins(line, rule.call) && endsWord;
}
// Null, with a failure of the test, if there is not exactly one rule.
const Tell *RuleFor(const Story &story)
{
    const std::string &line = story.good[story.k];
    const std::string purpose = PurposeOf(story);
    std::vector<const Rule *> found;
    for (const std::vector<Rule> *rules : {&rulesOfDevices, &rulesOfReading, &rulesOfWriting, &rulesOfMemory,
                                           &rulesOfCryptography, &rulesOfTheTracker, &rulesOfSnapshots}) {
        for (const Rule &rule : *rules) {
            const bool isForCommand = rule.commands.empty() || Holds(rule.commands, story.run.Command());
            const bool isForPurpose = rule.purpose.empty() || rule.purpose == purpose;
            if (isForCommand && isForPurpose && IsForCall(rule, Generalized(line))) {
                found.push_back(&rule);
            }
        }
    }
    EXPECT_EQ(found.size(), 1U) << "rules for " << line << " (" << purpose << ")";
    return found.size() == 1 ? &found[0]->tell : nullptr;
}
} // namespace

Story TellStory(const SweptRun &run, size_t k, Damage damage, bool forGood)
{
    Story story(run);
    story.lines = LogOfGoodRun(run);
    for (; k < story.lines.size(); ++k) {
        if (!CanFail(story.lines[k])) {
            continue;
        }
        story.good = std::move(story.lines);
        story.k = k;
        story.lines.assign(story.good.data(), story.good.data() + k);
        story.lines.push_back(damage == Damage::Failed ? AsFailed(story.good[k]) : AsShort(story.good[k]));
        const Tell *tell = RuleFor(story);
        if (tell == nullptr) {
            return story;
        }
        (*tell)(story);
        Settle(story.lines);
        if (!forGood || story.isAbnormal) {
            break;
        }
    }
    return story;
}
} // namespace sweep
