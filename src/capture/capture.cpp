// Capture, from top to bottom: the source and its geometry, the tracker, the snapshots, the base, the header, the key,
// the image file, the chunk loop, then header and table at the front of the file.
//
// Header and table are held in memory and written last, so an image that did not reach its end has zeros where its
// header belongs. The tracker is attached before anything is frozen and queried once, after; the epoch of that query
// goes into the header and is committed only when the image is closed. The seek to the data area, the seek back and the
// two writes at the front are not looked at.
#include "capture/capture.h"

#include "capture/base_image.h"
#include "capture/capture_run.h"
#include "cli/console.h"
#include "crypto/password.h"
#include "disk/transfer.h"
#include "image/image_output.h"
#include "snapshot/snapshot_requester.h"

#include <cstdio>
#include <cstring>

static void OpenSource(CaptureRun &run)
{
    run.source = OpenDiskForRead(run.options.diskNumber);
    run.geometry = GetDiskGeometry(run.source);
    run.header.chunkSize = ChunkSizeFor(run.geometry.sectorSize);
    run.header.chunkCount = ChunkCountFor(run.geometry.diskSize, run.header.chunkSize);
    printf("Source: PhysicalDrive%d  Size: %.2f GiB  SectorSize: %u  Chunks: %llu (%u bytes each)\n",
           run.options.diskNumber, ToGiB(run.geometry.diskSize), run.geometry.sectorSize,
           static_cast<unsigned long long>(run.header.chunkCount), run.header.chunkSize);
}

// The number is asked for with snapshots too, so that a machine without C: fails either way.
static void NoteLiveSystemDisk(const CaptureOptions &options)
{
    if (SystemDiskNumber() == options.diskNumber && !options.useVss) {
        printf("NOTE: this is the currently booted system disk and -vss was not given - reading it live\n"
               "      is crash-consistent only (see the file header comment). Proceeding anyway.\n");
    }
}

static void QueryTracker(CaptureRun &run)
{
    ChangeTracker &tracker = run.tracker;
    if (tracker.attached) {
        tracker.attached = tracker.Query();
    }
    if (tracker.attached) {
        printf("Change tracker: disk %d epoch %llX%s\n", run.options.diskNumber,
               static_cast<unsigned long long>(tracker.state.header.currentEpoch),
               tracker.state.header.gap != 0 ? " (GAP - untracked write seen)" : "");
    } else {
        printf("Change tracker: not available for this disk (Tallier not loaded/attached) - image carries no epoch.\n");
    }
}

static void FillHeader(CaptureRun &run)
{
    ImageHeader &header = run.header;
    memcpy(header.magic, imageMagic, magicBytes);
    header.version = fullImageVersion | (run.options.thin ? 1U : 0U);
    header.diskSize = run.geometry.diskSize;
    header.sectorSize = run.geometry.sectorSize;
    header.encrypted = run.options.encrypt ? 1 : 0;
    if (run.tracker.attached) {
        SetEpoch(header, run.tracker.state.header.currentEpoch);
    }
}

// A chunk that no snapshot holds whole is read from the live disk, without a word.
static void ReadAndHashChunk(CaptureRun &run, ChunkEntry &entry, uint64_t offset, uint32_t length)
{
    const ShadowRange *range = run.options.useVss ? FindShadowRange(run.shadowRanges, offset, length) : nullptr;
    const HANDLE source = range != nullptr ? range->shadowHandle : run.source;
    const uint64_t position = range != nullptr ? offset - range->diskOffset : offset;
    if (!SeekTo(source, position)) {
        Fatal("SetFilePointerEx on source failed mid-capture", 0);
    }
    if (!ReadExactly(source, run.readBuffer.data, length)) {
        Fatal("ReadFile from source disk failed mid-capture - image is incomplete, do not trust it", 0);
    }
    Sha256Buffer(run.readBuffer.data, length, entry.hash);
    ++run.readCount;
}

static void StoreChunk(CaptureRun &run, ChunkEntry &entry, uint32_t length)
{
    const uint8_t *stored = run.readBuffer.data;
    if (run.options.encrypt) {
        RandomBytes(entry.nonce, nonceBytes);
        SealChunk(*run.key, run.readBuffer.data, length, entry.nonce, run.cipherBuffer.data, entry.tag);
        stored = run.cipherBuffer.data;
    }
    if (!WriteExactly(run.image, stored, length)) {
        Fatal("WriteFile to image file failed mid-capture (disk full?)", 0);
    }
}

static void CaptureChunk(CaptureRun &run, uint64_t i, uint64_t offset, uint32_t length)
{
    ChunkEntry &entry = run.table[i];
    entry.diskOffset = offset;
    entry.storedLength = length;
    const ChunkShortcut shortcut = TakeFromBase(run, i, offset, length);
    if (shortcut == ChunkShortcut::Reference) {
        return;
    }
    if (shortcut == ChunkShortcut::Read) {
        ReadAndHashChunk(run, entry, offset, length);
        if (ReferToBase(run, i)) {
            return;
        }
    }
    StoreChunk(run, entry, length);
}

static void CaptureChunks(CaptureRun &run)
{
    const ULONGLONG startTicks = GetTickCount64();
    for (uint64_t i = 0; i < run.header.chunkCount; ++i) {
        const uint64_t offset = i * run.header.chunkSize;
        const uint32_t length = ChunkLength(run.header, i);
        CaptureChunk(run, i, offset, length);
        if (IsProgressDue(i, run.header.chunkCount)) {
            PrintProgress(offset + length, run.geometry.diskSize, startTicks);
        }
    }
    printf("\n");
}

static void CommitEpoch(CaptureRun &run)
{
    if (run.tracker.attached && !run.tracker.Commit()) {
        printf("WARNING: tracker COMMIT failed - the next capture will be a full one.\n");
    }
}

static void PrintResult(const CaptureRun &run)
{
    const char *outPath = run.options.outPath.c_str();
    const uint64_t chunkCount = run.header.chunkCount;
    if (run.options.thin) {
        printf("Capture complete (thin): %s  (stored %llu of %llu chunks, %llu are references to the base; read from "
               "disk: %llu)\n",
               outPath, static_cast<unsigned long long>(chunkCount - run.referenceCount),
               static_cast<unsigned long long>(chunkCount), static_cast<unsigned long long>(run.referenceCount),
               static_cast<unsigned long long>(run.readCount));
    } else if (run.trackerProved) {
        printf("Capture complete: %s (Read from disk: %llu, Copied from base: %llu chunks)\n", outPath,
               static_cast<unsigned long long>(run.readCount), static_cast<unsigned long long>(run.copiedCount));
    } else {
        printf("Capture complete: %s\n", outPath);
    }
}

static void ReleaseRun(CaptureRun &run)
{
    run.cipherBuffer = AlignedBuffer();
    run.readBuffer = AlignedBuffer();
    run.table = ChunkTable();
    run.key.reset();
    run.shadowRanges.clear();
    if (run.tracker.handle != INVALID_HANDLE_VALUE) {
        CloseHandle(run.tracker.handle);
    }
}

void Capture(const CaptureOptions &options)
{
    CaptureRun run(options);
    OpenSource(run);
    NoteLiveSystemDisk(options);
    run.tracker.Open(static_cast<uint32_t>(options.diskNumber));
    if (options.useVss) {
        run.shadowRanges = OpenSnapshots(static_cast<uint32_t>(options.diskNumber));
    }
    QueryTracker(run);
    if (options.thin && options.basePath.empty()) {
        Fatal("--thin needs --base", 0);
    }
    PrepareBase(run);
    FillHeader(run);
    if (options.encrypt) {
        MakeKeyOfNewImage(run.header, options.passwordFile, run.key);
    }
    run.image = CreateImageFile(options.outPath, CREATE_ALWAYS);
    run.table = ChunkTable(run.header.chunkCount);
    SeekTo(run.image, DataStart(run.header.chunkCount));
    run.readBuffer = AlignedBuffer(run.header.chunkSize, run.geometry.sectorSize);
    run.cipherBuffer = AlignedBuffer(run.header.chunkSize, run.geometry.sectorSize);
    CaptureChunks(run);
    WriteTrailer(run);
    WriteHeaderAndTable(run.image, run.header, run.table);
    CloseHandle(run.image);
    CloseHandle(run.source);
    ReleaseBase(run);
    if (options.useVss) {
        CloseSnapshots(true);
    }
    CommitEpoch(run);
    PrintResult(run);
    ReleaseRun(run);
}
