// What the tests of snapshots share: the machine of the capture tests with a snapshot service and two volumes, the
// lines of a good snapshot capture piece by piece, and looks at what is left of the service when a run is over.
//
// The second volume lies in front of the first and holds the whole of the tiny disk, so the order of enumeration is not
// the order on the disk, and the image shows by its bytes whether the disk or the second volume's shadow was read.
#pragma once

#include "capture/capturing.h"

const std::string completeLine = "Capture complete: image.kstx\n";
const std::string gatheringLine = "  --vss: gathering writer metadata...\n";
const std::string addedLine1 = "  --vss: snapshotting volume \\\\?\\Volume{1} (disk offset 1073741824, 3.50 GiB) ...\n";
const std::string addedLine2 = "  --vss: snapshotting volume \\\\?\\Volume{2} (disk offset 0, 0.00 GiB) ...\n";
const std::string freezingLine = "  --vss: asking writers to prepare and freeze...\n";
const std::string noWritersLine = "  --vss: 0 VSS writer(s) reported, 0 failed.\n";

// Everything up to the writers' line of a run in which both volumes are snapshotted.
const std::string frozenLines = gatheringLine + addedLine1 + addedLine2 + freezingLine;

inline std::string SummaryLine(int volumes)
{
    return "  --vss: " + std::to_string(volumes) +
           " volume(s) snapshotted via IVssBackupComponents; anything outside those ranges (partition tables, "
           "unpartitioned space) reads live.\n";
}

inline std::string AbandonLine(const std::string &labelAndValue)
{
    return "  --vss: " + labelAndValue + " - reading live instead (crash-consistent only).\n";
}

inline std::string DeleteWarning(const std::string &value)
{
    return "  --vss: WARNING: could not delete the snapshot set (" + value +
           ") - it is still listed under Win32_ShadowCopy and must be removed by hand.\n";
}

// line with the volume's path in place of VOLUME, and with its shadow device's in place of DEVICE.
inline std::string LineOf(std::string line, int volume)
{
    const std::string number = std::to_string(volume);
    const std::vector<std::pair<std::string, std::string>> paths = {
        {"VOLUME", "\\\\?\\Volume{" + number + "}"},
        {"DEVICE", "\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy" + number},
    };
    for (const auto &[placeholder, path] : paths) {
        const size_t place = line.find(placeholder);
        if (place != std::string::npos) {
            line.replace(place, placeholder.size(), path);
        }
    }
    return line;
}

// True for the calls of COM and of the snapshot service, of enumeration, and those on volumes and shadow devices.
inline bool IsOfSnapshots(const Call &call)
{
    static const std::vector<std::string> others = {
        "CoUninitialize",  "SysFreeString",   "Release", "FindFirstVolumeW",
        "FindNextVolumeW", "FindVolumeClose", "atexit",  "VssFreeSnapshotPropertiesInternal",
        "exit hook",
    };
    const bool isOnVolume = call.object.compare(0, 7, "volume:") == 0 && call.object.compare(0, 8, "volume:C") != 0;
    return GivesHresult(call.name) || std::find(others.begin(), others.end(), call.name) != others.end() ||
           isOnVolume || call.object.compare(0, 7, "shadow:") == 0;
}

struct Snapshotting : Capturing {
    Snapshotting()
    {
        AddVolume(machine, L"\\\\?\\Volume{1}\\", {{1, GiB, 3 * GiB + 512 * MiB}});
        AddVolume(machine, L"\\\\?\\Volume{2}\\", {{1, 0, tinyDiskBytes}}, ShadowOfTinyDisk());
        machine.snapshotService = SnapshotService();
    }

    static const Bytes &ShadowOfTinyDisk()
    {
        static const Bytes bytes = PatternBytes(tinyDiskBytes, 99);
        return bytes;
    }

    SnapshotService &Service()
    {
        return *machine.snapshotService;
    }

    ServiceAnswer &AnswerOf(const std::string &call)
    {
        return Service().answers[call];
    }

    // Everything that an earlier run of the same test had arranged is gone.
    void StartAnew()
    {
        machine.faults.clear();
        machine.snapshotService = SnapshotService();
        for (NamedVolume &volume : machine.volumes) {
            volume.isSupported = true;
            volume.results.clear();
            volume.volume.openError = 0;
            volume.shadow.openError = 0;
        }
    }

    const RunResult &CaptureWithSnapshots(const std::vector<std::string> &options = {})
    {
        std::vector<std::string> all = {"--vss"};
        all.insert(all.end(), options.begin(), options.end());
        return Capture(all);
    }

    // A capture of the tiny disk that ended well with these lines about snapshots, endLines printed as it ended, and
    // took its only chunk from there.
    void ExpectCapture(const std::string &snapshotLines, const Bytes &source, const std::string &endLines = "")
    {
        ExpectSuccess(tinySource + snapshotLines + noTrackerLine + tinyProgress + endLines + completeLine);
        EXPECT_EQ(machine.leaks, std::vector<std::string>());
        EXPECT_TRUE(ReadBytes("image.kstx") == BuildImage(PlanOf(source)));
    }

    void ExpectLive(const std::string &snapshotLines, const std::string &endLines = "")
    {
        ExpectCapture(snapshotLines, TinyDisk(), endLines);
    }

    void ExpectFromShadow(const std::string &snapshotLines, const std::string &endLines = "")
    {
        ExpectCapture(snapshotLines, ShadowOfTinyDisk(), endLines);
    }

    // What was called to take everything down, in its order.
    std::string EndSequence() const
    {
        return LogText(machine, [](const Call &call) {
            const bool isRelease = call.name == "Release" && call.object == "components#1";
            const bool isShadow = call.name == "CloseHandle" && call.object.compare(0, 7, "shadow:") == 0;
            return isRelease || isShadow || call.name == "BackupComplete" || call.name == "AbortBackup" ||
                   call.name == "DeleteSnapshots" || call.name == "CoUninitialize" || call.name == "exit hook";
        });
    }

    // The one set of the run: what became of it.
    const SnapshotSet &OnlySet()
    {
        EXPECT_EQ(Service().sets.size(), 1U);
        return Service().sets.at(0);
    }
};
