// The table of the kinds of run, and what each of them starts from.
//
// The disks are as small as they can be: a capture's chunks are of 4 MiB, so its disk is one such chunk and a rest, or
// the rest alone; the images that are only read have small chunks and keys that are made in no time.
#include "sweep/run_kinds.h"

#include "simulator/expectations.h"

#include <algorithm>
#include <filesystem>
#include <memory>

namespace sweep
{
namespace
{
constexpr uint64_t chunkBytes = 4194304;
constexpr uint64_t restBytes = 1024;
constexpr uint32_t smallChunkBytes = 1024;
constexpr uint64_t smallDiskBytes = 7 * smallChunkBytes + 512;
constexpr uint64_t baseEpoch = 5;

const Bytes &TwoChunks()
{
    static const Bytes disk = PatternBytes(chunkBytes + restBytes, 31);
    return disk;
}

Bytes WithChange(Bytes disk, uint64_t offset)
{
    disk.at(offset) ^= 0xFF;
    return disk;
}

// Captures

// A disk that is not copied with its machine.
Disk DiskOf(const Bytes &bytes)
{
    Disk disk;
    disk.lengthBytes = bytes.size();
    const auto content = std::make_shared<const Bytes>(bytes);
    disk.fill = [content](uint64_t offset, uint8_t *buffer, uint64_t lengthBytes) {
        std::copy_n(content->data() + offset, lengthBytes, buffer);
    };
    return disk;
}

void PrepareCapture(SweptRun &run, const Bytes &disk, const std::vector<std::string> &options)
{
    run.arguments = {"capture", "--disk", "1", "--out", "out.kstx"};
    run.arguments.insert(run.arguments.end(), options.begin(), options.end());
    run.outPath = "out.kstx";
    run.content = disk;
    run.machine.disks[1] = DiskOf(disk);
    TrackerReply &reply = run.machine.tracker.emplace().reply;
    reply.currentEpoch = baseEpoch + 1;
    reply.bitmap = Bytes(8);
}

void PrepareSnapshotCapture(SweptRun &run, std::vector<std::string> options)
{
    options.insert(options.begin(), "--vss");
    PrepareCapture(run, TwoChunks(), options);
    run.frozen = PatternBytes(chunkBytes + restBytes, 32);
    const auto rest = run.frozen.begin() + chunkBytes;
    AddVolume(run.machine, L"\\\\?\\Volume{1}\\", {{1, 0, chunkBytes}}).shadow =
        DiskOf(Bytes(run.frozen.begin(), rest));
    AddVolume(run.machine, L"\\\\?\\Volume{2}\\", {{1, chunkBytes, restBytes}}).shadow =
        DiskOf(Bytes(rest, run.frozen.end()));
    run.machine.snapshotService = SnapshotService();
    run.machine.snapshotService->writers = {{L"Registry Writer"}, {L"SqlServerWriter", 9, 0x800423F4}};
}

enum class Base { Plain, Sealed, Chain };

ImagePlan BasePlan(const Bytes &disk, Base base)
{
    ImagePlan plan;
    plan.disk = disk;
    plan.epoch = baseEpoch;
    plan.encrypted = base != Base::Plain;
    plan.kdfIterations = 1;
    return plan;
}

// The base has both chunks of the disk as they were before this one changed; the tracker knows of it.
void WriteBase(SweptRun &run, Base base, uint64_t changedChunk)
{
    ImagePlan plan = BasePlan(WithChange(TwoChunks(), changedChunk * chunkBytes), base);
    if (base == Base::Chain) {
        const Bytes disk = plan.disk;
        plan.disk = WithChange(disk, chunkBytes + 1);
        WriteBytes("full.kstx", BuildImage(plan));
        plan = ThinPlan(plan, "full.kstx", disk);
        plan.salt[0] = 77;
    }
    WriteBytes("base.kstx", BuildImage(plan));
    TrackerReply &reply = run.machine.tracker->reply;
    reply.hasPreviousEpoch = 1;
    reply.previousEpoch = baseEpoch;
    MarkChanged(reply, changedChunk * chunkBytes, restBytes);
}

void PrepareCaptureOnBase(SweptRun &run, Base base, uint64_t changedChunk, std::vector<std::string> options)
{
    options.insert(options.begin(), {"--base", "base.kstx"});
    PrepareCapture(run, TwoChunks(), options);
    WriteBase(run, base, changedChunk);
}

void MakeUnproved(SweptRun &run)
{
    run.machine.tracker->reply.previousEpoch = baseEpoch - 1;
}

const std::vector<std::string> sealing = {"--encrypt", "--password-file", "pw"};
const std::vector<std::string> thin = {"--thin"};
const std::vector<std::string> thinAndSealing = {"--thin", "--encrypt", "--password-file", "pw"};

void CapturePlain(SweptRun &run)
{
    PrepareCapture(run, TwoChunks(), {});
}

void CapturePlainOneChunk(SweptRun &run)
{
    PrepareCapture(run, PatternBytes(restBytes, 5), {});
    run.machine.volumeC->extents[0].diskNumber = 1; // the system's own disk
}

void CapturePlainWithoutTracker(SweptRun &run)
{
    PrepareCapture(run, PatternBytes(restBytes, 5), {});
    run.machine.tracker.reset();
}

void CaptureSealed(SweptRun &run)
{
    PrepareCapture(run, TwoChunks(), sealing);
}

void CaptureCopied(SweptRun &run)
{
    PrepareCaptureOnBase(run, Base::Plain, 0, {});
}

void CaptureCopiedFromSealed(SweptRun &run)
{
    PrepareCaptureOnBase(run, Base::Sealed, 0, sealing);
}

void CaptureCopiedFromChain(SweptRun &run)
{
    PrepareCaptureOnBase(run, Base::Chain, 0, {"--password-file", "pw"});
}

void CaptureUnproved(SweptRun &run)
{
    PrepareCaptureOnBase(run, Base::Plain, 0, {});
    MakeUnproved(run);
}

void CaptureThin(SweptRun &run)
{
    PrepareCaptureOnBase(run, Base::Plain, 1, thin);
}

void CaptureThinSealed(SweptRun &run)
{
    PrepareCaptureOnBase(run, Base::Sealed, 1, thinAndSealing);
}

void CaptureThinOnChain(SweptRun &run)
{
    PrepareCaptureOnBase(run, Base::Chain, 1, thinAndSealing);
}

void CaptureThinUnproved(SweptRun &run)
{
    PrepareCaptureOnBase(run, Base::Plain, 1, thin);
    MakeUnproved(run);
}

void CaptureThinSealedUnproved(SweptRun &run)
{
    PrepareCaptureOnBase(run, Base::Sealed, 0, thinAndSealing);
    MakeUnproved(run);
}

void CaptureSnapshots(SweptRun &run)
{
    PrepareSnapshotCapture(run, {});
}

void CaptureSnapshotsSealed(SweptRun &run)
{
    PrepareSnapshotCapture(run, sealing);
}

void CaptureSnapshotsCopied(SweptRun &run)
{
    PrepareSnapshotCapture(run, {"--base", "base.kstx"});
    WriteBase(run, Base::Plain, 0);
}

void CaptureSnapshotsThin(SweptRun &run)
{
    PrepareSnapshotCapture(run, {"--base", "base.kstx", "--thin"});
    WriteBase(run, Base::Plain, 0);
}

// Images of eight small chunks. In a chain the first chunk lies in the full image, and each further level has one more.

enum class Seal { None, All, Odd };

void WriteChain(SweptRun &run, size_t images, Seal seal)
{
    ImagePlan plan;
    plan.chunkSize = smallChunkBytes;
    plan.kdfIterations = 1;
    plan.disk = PatternBytes(smallDiskBytes, 3);
    for (size_t level = 0; level < images; ++level) {
        if (level > 0) {
            plan = ThinPlan(plan, "level" + std::to_string(level - 1) + ".kstx",
                            WithChange(plan.disk, level * smallChunkBytes));
        }
        plan.encrypted = seal == Seal::All || (seal == Seal::Odd && level % 2 == 1);
        plan.salt[0] = static_cast<uint8_t>(100 + level);
        const bool isTop = level + 1 == images;
        WriteBytes(isTop ? "image.kstx" : "level" + std::to_string(level) + ".kstx", BuildImage(plan));
    }
    run.content = plan.disk;
}

void PrepareVerify(SweptRun &run, size_t images, Seal seal)
{
    run.arguments = {"verify", "--in", "image.kstx", "--password-file", "pw"};
    WriteChain(run, images, seal);
}

void VerifyPlain(SweptRun &run)
{
    PrepareVerify(run, 1, Seal::None);
}

void VerifySealed(SweptRun &run)
{
    PrepareVerify(run, 1, Seal::All);
}

void VerifyChain(SweptRun &run)
{
    PrepareVerify(run, 2, Seal::None);
}

void VerifySealedChain(SweptRun &run)
{
    PrepareVerify(run, 3, Seal::All);
}

void VerifyMixedChain(SweptRun &run)
{
    PrepareVerify(run, 6, Seal::Odd);
}

void PrepareRestore(SweptRun &run, size_t images, Seal seal)
{
    run.arguments = {"restore", "--in", "image.kstx", "--disk", "1", "--confirm", "YES", "--password-file", "pw"};
    WriteChain(run, images, seal);
    run.machine.disks[1].bytes = PatternBytes(smallDiskBytes, 99);
}

void RestorePlain(SweptRun &run)
{
    PrepareRestore(run, 1, Seal::None);
}

void RestoreSealed(SweptRun &run)
{
    PrepareRestore(run, 1, Seal::All);
}

void RestoreChain(SweptRun &run)
{
    PrepareRestore(run, 2, Seal::None);
}

void RestoreSealedChain(SweptRun &run)
{
    PrepareRestore(run, 3, Seal::All);
}

void RestoreMixedChainToLargerDisk(SweptRun &run)
{
    PrepareRestore(run, 4, Seal::Odd);
    run.machine.disks[1].bytes = PatternBytes(smallDiskBytes + 4096, 99);
}

void PrepareConsolidate(SweptRun &run, size_t images, Seal seal, bool isSealed)
{
    run.arguments = {"consolidate", "--in", "image.kstx", "--out", "out.kstx", "--password-file", "pw"};
    if (isSealed) {
        run.arguments.push_back("--encrypt");
    }
    run.outPath = "out.kstx";
    WriteChain(run, images, seal);
}

void ConsolidatePlain(SweptRun &run)
{
    PrepareConsolidate(run, 3, Seal::None, false);
}

void ConsolidateUnsealing(SweptRun &run)
{
    PrepareConsolidate(run, 3, Seal::All, false);
}

void ConsolidateSealing(SweptRun &run)
{
    PrepareConsolidate(run, 2, Seal::None, true);
}

void ConsolidateRekeying(SweptRun &run)
{
    PrepareConsolidate(run, 3, Seal::All, true);
}

void ConsolidateFull(SweptRun &run)
{
    PrepareConsolidate(run, 1, Seal::All, true);
}

void ListDisks(SweptRun &run)
{
    run.arguments = {"list-disks"};
    run.machine.disks[0].bytes = Bytes(restBytes);
    run.machine.disks[2].bytes = Bytes(restBytes);
    run.machine.disks[15].bytes = Bytes(restBytes);
}

Machine MachineFor(const SweptRun &run, Without without)
{
    Machine machine = run.machine;
    if (without.tracker) {
        machine.tracker.reset();
    }
    return machine;
}

void RemoveOutput(const SweptRun &run)
{
    if (!run.outPath.empty()) {
        std::filesystem::remove(run.outPath);
    }
}
} // namespace

const std::vector<RunKind> &RunKinds()
{
    static const std::vector<RunKind> kinds = {
        {"capture, plain", "CapturePlain", CapturePlain},
        {"capture, plain, one chunk of the system disk", "CapturePlainOneChunk", CapturePlainOneChunk},
        {"capture, plain, no tracker", "CapturePlainWithoutTracker", CapturePlainWithoutTracker},
        {"capture, sealed", "CaptureSealed", CaptureSealed},
        {"capture, base proved, copied", "CaptureCopied", CaptureCopied},
        {"capture, base proved, copied, both sealed", "CaptureCopiedFromSealed", CaptureCopiedFromSealed},
        {"capture, base proved, copied from a sealed chain", "CaptureCopiedFromChain", CaptureCopiedFromChain},
        {"capture, base not proved", "CaptureUnproved", CaptureUnproved},
        {"capture, thin, base proved", "CaptureThin", CaptureThin},
        {"capture, thin, base proved, both sealed", "CaptureThinSealed", CaptureThinSealed},
        {"capture, thin, on a sealed chain, proved", "CaptureThinOnChain", CaptureThinOnChain},
        {"capture, thin, base not proved", "CaptureThinUnproved", CaptureThinUnproved},
        {"capture, thin, base not proved, both sealed", "CaptureThinSealedUnproved", CaptureThinSealedUnproved},
        {"capture, snapshots", "CaptureSnapshots", CaptureSnapshots},
        {"capture, snapshots, sealed", "CaptureSnapshotsSealed", CaptureSnapshotsSealed},
        {"capture, snapshots, base proved, copied", "CaptureSnapshotsCopied", CaptureSnapshotsCopied},
        {"capture, snapshots, thin, base proved", "CaptureSnapshotsThin", CaptureSnapshotsThin},
        {"verify, full, plain", "VerifyPlain", VerifyPlain},
        {"verify, full, sealed", "VerifySealed", VerifySealed},
        {"verify, chain of 2", "VerifyChain", VerifyChain},
        {"verify, chain of 3, sealed", "VerifySealedChain", VerifySealedChain},
        {"verify, chain of 6, every other sealed", "VerifyMixedChain", VerifyMixedChain},
        {"restore, full, plain", "RestorePlain", RestorePlain},
        {"restore, full, sealed", "RestoreSealed", RestoreSealed},
        {"restore, chain of 2", "RestoreChain", RestoreChain},
        {"restore, chain of 3, sealed", "RestoreSealedChain", RestoreSealedChain},
        {"restore, chain of 4, every other sealed, to a larger disk", "RestoreMixedChain",
         RestoreMixedChainToLargerDisk},
        {"consolidate, chain of 3, plain", "ConsolidatePlain", ConsolidatePlain},
        {"consolidate, chain of 3, sealed to plain", "ConsolidateUnsealing", ConsolidateUnsealing},
        {"consolidate, chain of 2, plain to sealed", "ConsolidateSealing", ConsolidateSealing},
        {"consolidate, chain of 3, with a new key", "ConsolidateRekeying", ConsolidateRekeying},
        {"consolidate, full, with a new key", "ConsolidateFull", ConsolidateFull},
        {"list-disks", "ListDisks", ListDisks},
    };
    return kinds;
}

bool SweptRun::Has(const std::string &option) const
{
    return std::find(arguments.begin(), arguments.end(), option) != arguments.end();
}

SweptRun PrepareRun(const RunKind &kind)
{
    SweptRun run;
    WriteText("pw", "password\n");
    kind.prepare(run);
    run.machine.lastErrorAfterSuccess = spoiledError;
    run.machine.mostIterations = 1;
    LogOfGoodRun(run);
    for (const auto &file : std::filesystem::directory_iterator(std::filesystem::current_path())) {
        if (file.path().extension() == ".kstx") {
            run.entries[file.path().filename().string()] = EntriesOf(ReadBytes(file.path().filename().string()));
        }
    }
    return run;
}

RunResult RunAnew(const SweptRun &run, Machine &machine, const std::vector<Fault> &faults, uint32_t failingAllocation)
{
    machine = run.machine;
    machine.faults.assign(faults.begin(), faults.end());
    machine.failingAllocation = failingAllocation;
    RemoveOutput(run);
    return RunCommand(machine, run.arguments);
}

const Lines &LogOfGoodRun(const SweptRun &run, Without without)
{
    const auto [found, isNew] = run.goodLogs.try_emplace({without.tracker, without.snapshots});
    if (isNew) {
        Machine machine = MachineFor(run, without);
        std::vector<std::string> arguments = run.arguments;
        if (without.snapshots) {
            arguments.erase(std::remove(arguments.begin(), arguments.end(), "--vss"), arguments.end());
        }
        RemoveOutput(run);
        RunCommand(machine, arguments);
        found->second = LinesOf(machine);
    }
    return found->second;
}
} // namespace sweep
