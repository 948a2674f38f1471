// The endings that a capture's tracker and its snapshots have, none of which ends the run: it goes on with less.
#include "sweep/endings.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace sweep
{
// The tracker

static size_t TrackerLine(const Lines &lines)
{
    return Find(lines, "stdout Change tracker: ");
}

// The capture is one without a tracker from here on; a handle to it is still closed.
void WithoutTracker(Story &story)
{
    const size_t query = Find(story.good, "DeviceIoControl tracker#1 code=0x8C7D2008");
    const size_t firstQuery = std::min(query, TrackerLine(story.good));
    for (size_t i = story.k + 1; i < firstQuery; ++i) {
        if (!Holds(story.good[i], "tracker#1")) {
            Append(story, story.good, i, i + 1);
        }
    }
    const bool isLive = !story.run.Has("--vss") || IsAbandoned(story.good);
    Lines rest = LogOfGoodRun(story.run, {true, isLive});
    Lines good = story.good;
    for (Lines *lines : {&rest, &good}) {
        lines->resize(Find(*lines, "exit hook"));
    }
    const size_t behindClose = good.size() - std::min(Find(good, "CloseHandle tracker#1") + 1, good.size());
    Append(story, rest, TrackerLine(rest), rest.size() - behindClose);
    if (Succeeds(story.lines, "CreateFileW \\\\.\\Tallier")) {
        story.lines.push_back("CloseHandle tracker#1");
    }
    Append(story, rest, rest.size() - behindClose, rest.size());
    if (Succeeds(story.lines, "atexit")) {
        story.lines.push_back("exit hook hook#1");
    }
}

void UncommittedEpoch(Story &story)
{
    Say(story, "WARNING: tracker COMMIT failed - the next capture will be a full one.\n");
    GoOn(story);
}

// Snapshots

void WithoutExitHook(Story &story)
{
    GoOnWithout(story, [](const std::string &line) { return Begins(line, "exit hook"); });
}

// Everything is let go, and the rest is a capture without snapshots.
static void Abandon(Story &story, const std::string &labelAndValue)
{
    Say(story, "  --vss: " + labelAndValue + " - reading live instead (crash-consistent only).\n");
    const Lines before = story.lines;
    if (Succeeds(before, "CreateVssBackupComponentsInternal")) {
        story.lines.push_back("Release components#1 -> 0");
    }
    if (Succeeds(before, "CoInitializeEx")) {
        story.lines.push_back("CoUninitialize");
    }
    const bool isTracked = Succeeds(before, "DeviceIoControl tracker#1 code=0x8C7D2004");
    const Lines &live = LogOfGoodRun(story.run, {!isTracked, true});
    Append(story, live, std::min(Find(live, "DeviceIoControl tracker#1 code=0x8C7D2008"), TrackerLine(live)),
           live.size());
    if (!isTracked && Succeeds(before, "CreateFileW \\\\.\\Tallier")) {
        story.lines.push_back("CloseHandle tracker#1");
    }
    if (Succeeds(before, "atexit")) {
        story.lines.push_back("exit hook hook#1");
    }
}

Tell Abandoning(const std::string &label)
{
    return [=](Story &story) { Abandon(story, label + " (0x8000FFFF)"); };
}

// The wait for an operation fails, or the question how it went: its figures are told.
static void TellOfTheWait(Story &story)
{
    const std::string handle = Object(story.good[story.k]);
    const std::string operation = handle.substr(6, handle.find('#') - 6);
    const bool isWait = Name(story.good[story.k]) == "Wait";
    if (isWait) {
        story.lines.push_back("QueryStatus " + handle + " preset=0x80004005 reserved=null -> 0x00042309");
    }
    const std::string wait = Succeeds(story.lines, "Wait " + handle) ? "0x00000000" : "0x8000FFFF";
    story.lines.push_back("Release " + handle + " -> 0");
    Say(story, "    " + operation + " did not complete successfully (wait=" + wait +
                   ", status=" + (isWait ? "0x00042309" : "0x80004005") + ")\n");
}

Tell AbandonAfterTheWait(const std::string &operation)
{
    return [=](Story &story) {
        TellOfTheWait(story);
        Abandon(story, operation + " failed (0x00000000)");
    };
}

// That volume's chunk comes from the disk instead, at its own place.
static void ReadLive(Story &story, int volume)
{
    const std::string shadow = "shadow:" + std::to_string(volume) + "#1 ";
    const std::string place = volume == 1 ? "0" : "4194304";
    const std::string length = volume == 1 ? "4194304" : "1024";
    Replace(story.lines, "SetFilePointerEx " + shadow + "0", "SetFilePointerEx disk1#1 " + place);
    Replace(story.lines, "ReadFile " + shadow + length, "ReadFile disk1#1 " + length);
    Count(story.lines, "  --vss: ", -1, " volume(s) snapshotted");
}

static bool IsOnDevice(const std::string &line, int volume)
{
    const std::string number = std::to_string(volume);
    return Holds(line, "snapshot:" + number) || Holds(line, "properties:" + number) ||
           Holds(line, "HarddiskVolumeShadowCopy" + number) || Begins(line, "CloseHandle shadow:" + number);
}

static std::string VolumePath(int volume)
{
    return "\\\\?\\Volume{" + std::to_string(volume) + "}";
}

// The volume's snapshot has no device.
static void WithoutDevice(Story &story, int volume, const std::string &text)
{
    Say(story, text);
    GoOnWithout(story, [&](const std::string &line) { return IsOnDevice(line, volume); });
    ReadLive(story, volume);
}

Tell WithoutProperties(int volume)
{
    return [=](Story &story) {
        WithoutDevice(story, volume,
                      "  --vss: GetSnapshotProperties failed for " + VolumePath(volume) +
                          " (0x8000FFFF) - read live.\n");
    };
}

Tell WithoutShadowDevice(int volume)
{
    return [=](Story &story) {
        story.lines.push_back("GetLastError -> 1117");
        WithoutDevice(story, volume,
                      "  --vss: could not open shadow device \\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy" +
                          std::to_string(volume) + " (GetLastError=1117) - read live.\n");
    };
}

void WithoutVolumes(Story &story)
{
    Abandon(story, "no volume on this disk could be snapshotted (0x00000001)");
}

// As if the volume were not there, but for the lines about it that are kept. Without any volume there is no snapshot.
static void WithoutVolume(Story &story, int volume, const std::string &kept)
{
    const std::string number = std::to_string(volume);
    const bool isOnly = !Holds(Joined(story.good), "stdout   --vss: snapshotting volume " + VolumePath(3 - volume));
    GoOnWithout(story, [&](const std::string &line) {
        const bool isAbout = Holds(line, "Volume{" + number + "}") || Holds(line, "volume:" + number);
        return (isAbout && !Begins(line, kept) && !Begins(line, "FindNextVolumeW")) || IsOnDevice(line, volume);
    });
    if (isOnly) {
        story.lines.resize(Find(story.lines, "stdout   --vss: asking writers"));
        WithoutVolumes(story);
        return;
    }
    Count(story.lines, "preset=0,GUID_NULL -> ", -1, "");
    ReadLive(story, volume);
}

Tell UnopenedVolume(int volume)
{
    return [=](Story &story) { WithoutVolume(story, volume, "nothing"); };
}

Tell UnlocatedVolume(int volume)
{
    return [=](Story &story) { WithoutVolume(story, volume, "CloseHandle volume:"); };
}

Tell UnsupportedVolume(int volume)
{
    return [=](Story &story) {
        Say(story, "  --vss: volume " + VolumePath(volume) +
                       " can't be snapshotted (removable/unsupported) - it will be read live.\n");
        WithoutVolume(story, volume, "nothing");
    };
}

Tell UnaddedVolume(int volume)
{
    return [=](Story &story) {
        Say(story,
            "  --vss: could not add volume " + VolumePath(volume) + " to the snapshot set (0x8000FFFF) - read live.\n");
        WithoutVolume(story, volume, "nothing");
    };
}

// The second volume is not found; the search ends there.
void UnfoundVolume(Story &story)
{
    WithoutVolume(story, 2, "nothing");
    const size_t secondEnd = Find(story.lines, "FindNextVolumeW volumes#1 260 -> failed 18");
    ASSERT_LT(secondEnd, story.lines.size());
    story.lines.erase(story.lines.begin() + static_cast<std::ptrdiff_t>(secondEnd));
}

void WithoutWriters(Story &story)
{
    GoOnFrom(story, "GetSnapshotProperties");
}

void WithoutFirstWriter(Story &story)
{
    GoOnFrom(story, "GetWriterStatus components#1 1 ");
}

void WithoutSecondWriter(Story &story)
{
    GoOnFrom(story, "FreeWriterStatus");
    Count(story.lines, "reported, ", -1, " failed.");
}

void AbortedBackup(Story &story)
{
    story.lines.push_back("AbortBackup components#1");
    GoOnFrom(story, "DeleteSnapshots");
}

void UndeletedSnapshots(Story &story)
{
    Say(story, "  --vss: WARNING: could not delete the snapshot set (0x8000FFFF) - it is still listed under "
               "Win32_ShadowCopy and must be removed by hand.\n");
    GoOn(story);
}

Tell ToldWait(const std::string &next)
{
    return [=](Story &story) {
        TellOfTheWait(story);
        GoOnFrom(story, next);
    };
}
} // namespace sweep
