// The base step, the chunk shortcut, the reference test, the trailer and the release.
//
// The tracker's proof is lost for the first reason that holds, and for good: a base without it still serves a thin run
// by comparing hashes, while a full run goes on as if it had no base and closes the file at once, so that the new image
// may even replace it.
#include "capture/base_image.h"

#include "cli/console.h"
#include "disk/transfer.h"
#include "image/image_path.h"

#include <cstdio>
#include <cstring>

static void CheckGeometry(const CaptureRun &run)
{
    const ImageHeader &base = run.baseImage.header;
    if (base.diskSize != run.geometry.diskSize || base.sectorSize != run.geometry.sectorSize) {
        Fatal("--base image geometry does not match source disk", 0);
    }
    if (base.chunkSize != run.header.chunkSize || base.chunkCount != run.header.chunkCount) {
        Fatal("--base image chunking parameters do not match", 0);
    }
}

// Why the tracker can't prove what changed since the base; null if it can.
static const char *ReasonNotProved(const ChangeTracker &tracker, uint64_t baseEpoch)
{
    const TrackerStateHeader &state = tracker.state.header;
    if (!tracker.attached) {
        return "no change tracker for this disk";
    }
    if (baseEpoch == 0) {
        return "base image has no epoch (captured without the tracker)";
    }
    if (state.hasPreviousEpoch == 0) {
        return "driver holds no previous epoch (reboot/reload since the base image)";
    }
    if (state.previousEpoch != baseEpoch) {
        return "base image is not the most recent committed image";
    }
    if (state.secondaryGap != 0 || state.gap != 0) {
        return "tracker saw an untracked write (gap) since the base image";
    }
    return nullptr;
}

static void LoseProof(CaptureRun &run, const char *reason)
{
    run.trackerProved = false;
    if (run.options.thin) {
        printf("  --base: cannot prove what changed (%s) - reading every chunk and comparing hashes with the base (no "
               "driver needed; slower to read, still a small file).\n",
               reason);
        return;
    }
    printf("  --base: cannot prove what changed (%s) - doing a FULL capture (correct, just slower).\n", reason);
    CloseHandle(run.baseImage.file);
    run.baseImage.file = INVALID_HANDLE_VALUE;
}

// A thin image finds its base by the bare name in its own folder, and must not overwrite it.
static void CheckThinPaths(const CaptureOptions &options)
{
    const auto [baseFull, outFull] = ResolvePaths(options.basePath, options.outPath);
    if (_stricmp(ParentFolder(baseFull).c_str(), ParentFolder(outFull).c_str()) != 0) {
        Fatal("--thin: the image and its --base must be in the same folder", 0);
    }
    if (_stricmp(baseFull.c_str(), outFull.c_str()) == 0) {
        Fatal("--thin: --out must differ from --base", 0);
    }
}

void PrepareBase(CaptureRun &run)
{
    const CaptureOptions &options = run.options;
    run.trackerProved = !options.basePath.empty();
    if (!run.trackerProved) {
        return;
    }
    printf("Incremental mode: base image %s\n", options.basePath.c_str());
    run.baseImage = OpenImage(options.basePath, options.passwordFile, 0);
    CheckGeometry(run);
    const uint64_t baseEpoch = EpochOf(run.baseImage.header);
    const char *reason = ReasonNotProved(run.tracker, baseEpoch);
    if (reason == nullptr) {
        printf("  --base: base epoch %llX matches tracker; unchanged chunks will be copied from the base image.\n",
               static_cast<unsigned long long>(baseEpoch));
    } else {
        LoseProof(run, reason);
    }
    if (options.thin) {
        CheckThinPaths(options);
    }
}

ChunkShortcut TakeFromBase(CaptureRun &run, uint64_t i, uint64_t offset, uint32_t length)
{
    if (!run.trackerProved || run.tracker.IsRangeDirty(offset, length)) {
        return ChunkShortcut::Read;
    }
    ChunkEntry &entry = run.table[i];
    const ChunkEntry &baseEntry = run.baseImage.table[i];
    if (run.options.thin) {
        memcpy(entry.hash, baseEntry.hash, digestBytes);
        entry.storedLength = 0;
        ++run.referenceCount;
        return ChunkShortcut::Reference;
    }
    FetchChunk(run.baseImage, i, run.readBuffer.data);
    memcpy(entry.hash, baseEntry.hash, digestBytes);
    ++run.copiedCount;
    return ChunkShortcut::Fetched;
}

bool ReferToBase(CaptureRun &run, uint64_t i)
{
    ChunkEntry &entry = run.table[i];
    if (!run.options.thin || memcmp(entry.hash, run.baseImage.table[i].hash, digestBytes) != 0) {
        return false;
    }
    entry.storedLength = 0;
    ++run.referenceCount;
    return true;
}

void WriteTrailer(const CaptureRun &run)
{
    if (!run.options.thin) {
        return;
    }
    const std::vector<uint8_t> trailer = MakeThinTrailer(BareFileName(run.options.basePath), run.baseImage.imageId);
    if (!WriteExactly(run.image, trailer.data(), static_cast<DWORD>(trailer.size()))) {
        Fatal("could not write thin image trailer", 0);
    }
}

void ReleaseBase(const CaptureRun &run)
{
    if (run.trackerProved || run.options.thin) {
        CloseHandle(run.baseImage.file);
    }
}
