// The endings of every command, but for what concerns the tracker and snapshots.
//
// An ending is told in lines of the log. What it needs to know of the run, such as the chunk in work or the image that
// is being opened, it finds in the lines before the failing call.
#include "sweep/endings.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace sweep
{
// Going on

void Say(Story &story, const std::string &text)
{
    AddOutput(story.lines, "stdout", text);
}

void Append(Story &story, const Lines &lines, size_t from, size_t to)
{
    for (size_t i = from; i < std::min(to, lines.size()); ++i) {
        if (IsOutput(lines[i])) {
            AddOutput(story.lines, Name(lines[i]), lines[i].substr(7));
        } else {
            story.lines.push_back(lines[i]);
        }
    }
}

void GoOnFrom(Story &story, const std::string &start)
{
    Append(story, story.good, Find(story.good, start, story.k + 1), story.good.size());
}

void GoOn(Story &story)
{
    GoOnFrom(story, "");
}

void GoOnWithout(Story &story, const std::function<bool(const std::string &line)> &without)
{
    for (size_t i = story.k + 1; i < story.good.size(); ++i) {
        if (!without(story.good[i])) {
            Append(story, story.good, i, i + 1);
        }
    }
}

void Count(Lines &lines, const std::string &before, int step, const std::string &behind)
{
    for (std::string &line : lines) {
        const int64_t number = NumberBehind(line, before);
        if (number >= 0 && Holds(line, before + std::to_string(number) + behind)) {
            Replace(lines, before + std::to_string(number) + behind, before + std::to_string(number + step) + behind);
            return;
        }
    }
}

// Ending

bool IsAbandoned(const Lines &lines)
{
    return Holds(Joined(lines), " - reading live instead (crash-consistent only).");
}

// What the exit hook has to take down at this point of the run.
static void EndByHook(Story &story)
{
    const Lines before = story.lines;
    story.lines.push_back("exit hook hook#1");
    if (IsAbandoned(before)) {
        return;
    }
    for (const char *volume : {"1", "2"}) {
        if (Succeeds(before, std::string("CreateFileW \\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy") + volume)) {
            story.lines.push_back(std::string("CloseHandle shadow:") + volume + "#1");
        }
    }
    const size_t snapshots = CountSuccesses(before, "AddToSnapshotSet ");
    story.lines.insert(story.lines.end(), {"AbortBackup components#1",
                                           "DeleteSnapshots components#1 set#1 type=2 force=1 preset=0,GUID_NULL -> " +
                                               std::to_string(snapshots),
                                           "Release components#1 -> 0", "CoUninitialize"});
}

static void Exit(Story &story)
{
    story.lines.push_back("exit 1");
    story.exitStatus = 1;
    story.openEnd.clear();
    if (Succeeds(story.lines, "atexit")) {
        EndByHook(story);
    }
}

void EndWith(Story &story, const std::string &errorText)
{
    AddOutput(story.lines, "stderr", errorText);
    Exit(story);
}

void DieOf(Story &story, const std::string &message)
{
    story.lines.push_back("GetLastError -> 0"); // Settle knows the number
    EndWith(story, "FATAL: " + message + " (GetLastError=0)\n");
}

void DieAfterWords(Story &story, const std::string &words, const std::string &message)
{
    AddOutput(story.lines, "stderr", words);
    DieOf(story, message);
}

Tell Fatal(const std::string &message)
{
    return [=](Story &story) { DieOf(story, message); };
}

Tell FatalStatus(const std::string &message)
{
    return [=](Story &story) {
        const std::string status = story.lines.back().substr(story.lines.back().rfind("0x"));
        EndWith(story, "FATAL: " + message + " (NTSTATUS " + status + ")\n");
    };
}

void OutOfMemory(Story &story)
{
    story.isAbnormal = true;
    story.openEnd.clear();
}

// Reading an image

size_t LastRead(const Story &story)
{
    size_t place = story.k;
    while (place > 0 && Name(story.good[place]) != "ReadFile") {
        --place;
    }
    return place;
}

std::string PurposeOfRead(const Lines &lines, size_t place)
{
    const std::string &read = lines[place];
    if (!Begins(Object(read), "file:")) {
        return "chunk of the disk";
    }
    if (NumberBehind(read, Object(read) + " ") == 64 && NumberBehind(read, " at ") == 0) {
        return "header";
    }
    if (NumberBehind(read, " at ") == 64) {
        return "table";
    }
    const size_t seek = CallBefore(lines, place);
    if (Name(lines[seek]) != "SetFilePointerEx" || Object(lines[seek]) != Object(read)) {
        return "next chunk";
    }
    const std::string beforeSeek = Name(lines[CallBefore(lines, seek)]);
    if (beforeSeek == "calloc") {
        return "fetched chunk";
    }
    return beforeSeek == "GetFileSizeEx" ? "trailer's length" : "trailer";
}

std::string ParentOf(const Story &story, const std::string &handle)
{
    std::string parent;
    for (const std::string &line : story.good) {
        if (!Begins(line, "CreateFileW ") || !Holds(line, "access=0x80000000") || !Holds(line, " -> file:")) {
            continue;
        }
        const std::string opened = line.substr(line.rfind(' ') + 1);
        if (opened == handle) {
            break;
        }
        parent = opened;
    }
    const bool isReadAfterIt = Begins(handle, "file:" + story.run.outPath + "#");
    return story.run.outPath.empty() || !isReadAfterIt ? parent : "";
}

static std::string NameOfFile(const std::string &handle)
{
    return handle.substr(5, handle.find('#') - 5);
}

// Which chunk the read at that place is for: reads in file order meet the stored chunks in the order of the table.
static size_t ChunkOfRead(const Story &story, size_t place)
{
    const std::string handle = Object(story.good[place]);
    size_t reads = 0;
    for (size_t i = 0; i < place; ++i) {
        const bool isRead = Name(story.good[i]) == "ReadFile" && Object(story.good[i]) == handle;
        reads += isRead && PurposeOfRead(story.good, i) == "next chunk" ? 1 : 0;
    }
    const std::vector<EntryFields> &entries = story.run.entries.at(NameOfFile(handle));
    for (size_t chunk = 0; chunk < entries.size(); ++chunk) {
        if (entries[chunk].storedLength != 0 && reads-- == 0) {
            return chunk;
        }
    }
    ADD_FAILURE() << "no chunk is left for " << story.good[place];
    return 0;
}

// Up to the end of the digest that is in work.
static void GoOnToEndOfDigest(Story &story)
{
    const size_t end = Find(story.good, "BCryptCloseAlgorithmProvider sha256#", story.k + 1);
    Append(story, story.good, story.k + 1, end + 1);
}

// A wrong digest of header and table is found where the base is compared with its pin, behind the opening of all that
// the base rests on; a capture compares nothing and pins its base by what it has.
void WrongImageId(Story &story)
{
    const std::string handle = Object(story.good[LastRead(story)]);
    const std::string parent = ParentOf(story, handle);
    const size_t end = Find(story.good, "SetFilePointerEx " + parent + " 0", story.k + 1);
    if (parent.empty()) {
        story.isSpoiled = story.run.Has("--thin") || story.isSpoiled;
        GoOn(story);
    } else if (end == story.good.size()) {
        GoOn(story); // it did not get that far
    } else {
        Append(story, story.good, story.k + 1, end);
        DieAfterWords(story,
                      "Base image " + NameOfFile(handle) +
                          " is not the one this image was made against (it was modified or replaced).\n",
                      "base image does not match the one pinned in the thin image");
    }
}

void WrongFetchedDigest(Story &story)
{
    GoOnToEndOfDigest(story);
    DieOf(story, "chunk failed its hash check (corrupt image or base)");
}

// Verify counts one more chunk that does not match, and ends with exit status 1.
static void CountMismatch(Story &story)
{
    const size_t verdict = Find(story.lines, "stderr Verify FAILED");
    if (verdict < story.lines.size()) {
        const int64_t failures = NumberBehind(story.lines[verdict], "Verify FAILED - ");
        Replace(story.lines, "FAILED - " + std::to_string(failures), "FAILED - " + std::to_string(failures + 1));
        return;
    }
    const size_t good = Find(story.lines, "stdout Verify OK - all ");
    if (good < story.lines.size()) {
        const int64_t chunks = NumberBehind(story.lines[good], "all ");
        story.lines.resize(good);
        EndWith(story, "Verify FAILED - 1 of " + std::to_string(chunks) +
                           " chunks did not match. Do not trust this image for restore.\n");
    }
}

static std::string FindingOf(const Story &story, size_t chunk, const std::string &finding)
{
    const EntryFields &entry = story.run.entries.at(NameOfFile(Object(story.good[LastRead(story)]))).at(chunk);
    return "\n  chunk " + std::to_string(chunk) + " (disk offset " + std::to_string(entry.diskOffset) + "): " + finding;
}

void WrongVerifiedDigest(Story &story)
{
    const std::string finding = FindingOf(story, ChunkOfRead(story, LastRead(story)), "HASH MISMATCH\n");
    if (Holds(Joined(story.good), finding.substr(1))) { // said already of what failed before, in this digest
        GoOn(story);
        return;
    }
    GoOnToEndOfDigest(story);
    Say(story, finding);
    Append(story, story.good, Find(story.good, "BCryptCloseAlgorithmProvider sha256#", story.k + 1) + 1,
           story.good.size());
    CountMismatch(story);
}

// The chunk is done with: no digest is made of it, and no progress is shown behind it.
void WrongVerifiedTag(Story &story)
{
    Say(story, FindingOf(story, ChunkOfRead(story, LastRead(story)), "AUTHENTICATION FAILED (corrupt or tampered)\n"));
    size_t next = Find(story.good, "BCryptCloseAlgorithmProvider sha256#", story.k + 1) + 1;
    if (next < story.good.size() && Begins(story.good[next], "GetTickCount64")) {
        const bool isLast = story.good[next + 1].back() == '\n';
        Say(story, isLast ? "\n" : "");
        next += 2;
    }
    Append(story, story.good, next, story.good.size());
    CountMismatch(story);
}

static void StopRestore(Story &story, const std::string &what)
{
    EndWith(story, "\nFATAL: chunk " + std::to_string(ChunkOfRead(story, LastRead(story))) + what +
                       " - restore aborted, target disk left partially written.\n");
}

void WrongRestoredDigest(Story &story)
{
    GoOnToEndOfDigest(story);
    StopRestore(story, " hash mismatch (corrupt image)");
}

void WrongRestoredTag(Story &story)
{
    StopRestore(story, " failed authentication (corrupt/tampered image)");
}

// The stored chunks of the image that was named are read from the start of the file instead: none of them matches, and
// a restore ends at the first.
static void ReadFromTheWrongPlace(Story &story)
{
    const bool isVerify = story.run.Command() == "verify";
    const std::string handle = Object(story.good[story.k]);
    GoOn(story);
    if (!isVerify && story.run.Command() != "restore") {
        return; // every chunk is fetched, which seeks on its own
    }
    for (size_t i = story.k + 1; i < story.lines.size(); ++i) {
        const bool isRead = Name(story.lines[i]) == "ReadFile" && Object(story.lines[i]) == handle;
        if (!isRead || PurposeOfRead(story.lines, i) != "next chunk") {
            continue;
        }
        Story next(story.run);
        next.good = story.lines;
        const bool isSealed = Name(story.lines[i + 1]) == "BCryptDecrypt";
        next.k = isSealed ? i + 1 : Find(story.lines, "BCryptFinishHash", i);
        next.lines.assign(story.lines.data(), story.lines.data() + next.k + 1);
        next.exitStatus = story.exitStatus;
        if (isSealed) {
            next.lines.back() += " -> failed 0xC000A002"; // STATUS_AUTH_TAG_MISMATCH
        }
        if (isVerify) {
            (isSealed ? WrongVerifiedTag : WrongVerifiedDigest)(next);
        } else {
            (isSealed ? WrongRestoredTag : WrongRestoredDigest)(next);
        }
        story.lines = next.lines;
        story.exitStatus = next.exitStatus;
    }
}

// The memory for the hash or the key gets no size, and the platform refuses it.
Tell RefusedMemory(const std::string &call)
{
    return [=](Story &story) {
        const std::string next = story.good[story.k + 1];
        story.lines.push_back(next.substr(0, next.find(" -> ")) + " -> failed 0xC0000023"); // STATUS_BUFFER_TOO_SMALL
        FatalStatus(call)(story);
    };
}

// Reading the password: what is not there counts as the end, and only an empty password is refused.
void PasswordPart(Story &story)
{
    const std::string &read = story.good[story.k];
    const bool isFirst = Name(story.good[story.k - 1]) == "fopen_s";
    if (!isFirst) {
        GoOn(story);
    } else if (IsFailed(story.lines.back())) {
        Append(story, story.good, Find(story.good, "fclose", story.k), Find(story.good, "fclose", story.k) + 1);
        DieOf(story, "password file is empty");
    } else {
        const int64_t left = NumberBehind(read, " -> ") - NumberBehind(story.lines.back(), " -> ");
        story.lines.push_back(read.substr(0, read.find(" -> ")) + " -> " + std::to_string(left));
        GoOn(story);
    }
}

void MissingImage(Story &story)
{
    DieAfterWords(story, "could not open image file: " + Object(story.good[story.k]) + "\n",
                  "could not open image file");
}

// A consolidation asks first for its output, which shall not be there.
void MissingBase(Story &story)
{
    const std::string path = Object(story.good[story.k]);
    if (path == story.run.outPath) {
        GoOn(story);
        return;
    }
    DieAfterWords(story,
                  "This is a thin (incremental) image; its base image is missing: " + path +
                      "\nKeep every image of a chain in the same folder.\n",
                  "base image of a thin image not found");
}

// The first of a chain goes back to its data area, over the start of the file, when its base is open; the others are
// only fetched from.
void WayBack(Story &story)
{
    const bool isToStart = NumberBehind(story.good[story.k], "#1 ") == 0;
    const bool isOfFirst = ParentOf(story, Object(story.good[story.k])).empty();
    isToStart || !isOfFirst ? GoOn(story) : ReadFromTheWrongPlace(story);
}

// Writing an image

// The chunk counts as changed, so a thin image stores it where it would have referred to the base.
void WrongCapturedDigest(Story &story)
{
    story.isSpoiled = true;
    GoOnToEndOfDigest(story);
    const size_t next = Find(story.good, "BCryptCloseAlgorithmProvider sha256#", story.k + 1) + 1;
    const bool isStored = Begins(story.good[next], "WriteFile") || Holds(story.good[next], "Provider RNG");
    if (isStored || !story.run.Has("--thin")) {
        Append(story, story.good, next, story.good.size());
        return;
    }
    const std::string length = std::to_string(NumberBehind(story.good[LastRead(story)], " -> "));
    if (story.run.Has("--encrypt")) {
        const size_t key = Find(story.good, "BCryptGenerateSymmetricKey");
        ASSERT_LT(key, story.good.size());
        const Lines &all = story.good;
        const auto own = std::find_if(all.rbegin(), all.rend(), [](const std::string &line) {
            return Begins(line, "BCryptGenerateSymmetricKey");
        });
        story.lines.insert(story.lines.end(), {"BCryptOpenAlgorithmProvider RNG flags=0x0 -> rng#1000",
                                               "BCryptGenRandom rng#1000 12", "BCryptCloseAlgorithmProvider rng#1000",
                                               "BCryptEncrypt " + own->substr(own->rfind(' ') + 1) + " " + length});
    }
    const std::string handle = "file:" + story.run.outPath + "#1";
    story.lines.push_back("WriteFile " + handle + " " + length + " at 0 -> " + length);
    Append(story, story.good, next, story.good.size());
    Count(story.lines, "(stored ", 1, " of ");
    Count(story.lines, " chunks, ", -1, " are references");
}

Tell SpoiledImage(const std::string &verdict)
{
    return [=](Story &story) {
        story.isSpoiled = true;
        GoOn(story);
        if (story.run.Command() == "consolidate") {
            const size_t reader = Find(story.lines, "CreateFileW " + story.run.outPath + " access=0x80000000");
            story.lines.resize(std::min(reader + 1, story.lines.size()));
            story.openEnd = "FATAL: " + verdict + " (GetLastError=4711)\n";
        }
    };
}

// Half a header is magic, version and sizes, and then the table makes the rest of it.
void SpoiledHeader(Story &story)
{
    const bool isHalf = !IsFailed(story.lines.back());
    SpoiledImage(isHalf ? "could not read chunk data - image is truncated"
                        : "not a recognized Kestrix image (bad magic/version)")(story);
}

// Disks

void UnopenedTarget(Story &story)
{
    story.lines.push_back("GetLastError -> 1117");
    EndWith(story, "Could not open disk 1 exclusively for writing (GetLastError=1117).\n"
                   "This almost always means a volume on it is still mounted/in use.\n"
                   "Take it offline first: diskpart > select disk 1 > offline disk\n");
}

// The volume is closed first, which may spoil the number.
void UnknownSystemDisk(Story &story)
{
    story.lines.push_back(story.good[story.k + 1]);
    DieOf(story, "IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed");
}

// A disk that does not open is not listed; most of those asked for are not there anyway.
void UnlistedDisk(Story &story)
{
    if (IsFailed(story.good[story.k])) {
        GoOn(story);
        return;
    }
    const size_t end = Find(story.good, "CloseHandle disk", story.k);
    Append(story, story.good, end + 1, story.good.size());
}
} // namespace sweep
