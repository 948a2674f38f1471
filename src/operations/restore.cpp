// Restore: the ladder of refusals, then the write, chunk by chunk.
//
// The system disk is refused before the image is looked at, even when confirmed; the whole chain and the password file
// have been through before the target is opened. A chunk goes where its entry says. A sealed chunk is taken at its
// tag's word and written from the ordinary buffer it was opened into, a plain one is hashed; either must be as long as
// the chunk it stands for, or it would drag along what the buffer held before. The results of the seeks and of the
// final request to re-read the partition table are not looked at.
#include "operations/restore.h"

#include "cli/console.h"
#include "disk/physical_disk.h"
#include "disk/transfer.h"
#include "image/image_file.h"

#include <winioctl.h>

#include <algorithm>
#include <cstdio>

static constexpr uint32_t leastAlignment = 4096;

struct RestoreRun {
    ImageFile image;
    HANDLE target = INVALID_HANDLE_VALUE;
    AlignedBuffer readBuffer;
    ZeroedArray<uint8_t> plainBuffer;
};

static void RefuseSystemDisk(int32_t diskNumber)
{
    if (SystemDiskNumber() == diskNumber) {
        fprintf(stderr,
                "Refusing: PhysicalDrive%d is the disk this copy of Windows is currently running from.\n"
                "A live raw write to your own booted system disk cannot be made safe - boot from\n"
                "separate media (Windows Recovery/PE) and run kestrix restore from there instead.\n",
                diskNumber);
        EndWithFailure();
    }
}

static void RefuseUnconfirmed(bool confirmed)
{
    if (!confirmed) {
        fprintf(stderr, "Refusing: restore is destructive (overwrites the ENTIRE target disk). Pass --confirm YES.\n");
        EndWithFailure();
    }
}

static void CompareSizes(int32_t diskNumber, uint64_t targetSize, uint64_t diskSize)
{
    if (targetSize < diskSize) {
        fprintf(stderr, "Refusing: target disk %d is %.2f GiB, smaller than the image's %.2f GiB source.\n", diskNumber,
                ToGiB(targetSize), ToGiB(diskSize));
        EndWithFailure();
    }
    if (targetSize > diskSize) {
        printf("NOTE: target disk is larger than the image's source disk. The restored GPT's backup\n"
               "      header (stored at the end of the ORIGINAL disk size) will sit before the end of\n"
               "      this larger disk - Windows generally repairs this automatically on next boot/\n"
               "      diskpart rescan, but treat the extra space as unallocated until you've confirmed\n"
               "      that repair happened. This is a known limitation of restoring to a differently\n"
               "      sized disk, not specific to this tool.\n");
    }
}

// The checked plaintext of stored chunk i, in one of the two buffers.
static const uint8_t *ReadStoredChunk(RestoreRun &run, uint64_t i)
{
    if (!ReadNextStoredChunk(run.image, run.image.table[i].storedLength, run.readBuffer.data, run.readBuffer.size)) {
        Fatal("could not read chunk data from image - restore aborted, target disk left partially written", 0);
    }
    if (run.image.header.encrypted != 0) {
        if (!OpenStoredChunk(run.image, i, run.readBuffer.data, run.plainBuffer.data())) {
            fprintf(stderr,
                    "\nFATAL: chunk %zu failed authentication (corrupt/tampered image) - restore aborted, target disk "
                    "left partially written.\n",
                    static_cast<size_t>(i));
            EndWithFailure();
        }
        return run.plainBuffer.data();
    }
    if (!MatchesRecordedHash(run.image, i, run.readBuffer.data)) {
        fprintf(stderr,
                "\nFATAL: chunk %zu hash mismatch (corrupt image) - restore aborted, target disk left partially "
                "written.\n",
                static_cast<size_t>(i));
        EndWithFailure();
    }
    return run.readBuffer.data;
}

static void WriteChunk(HANDLE target, uint64_t diskOffset, const uint8_t *source, uint32_t length)
{
    SeekTo(target, diskOffset);
    if (!WriteExactly(target, source, length)) {
        Fatal("WriteFile to target disk failed mid-restore - target disk left partially written, do not boot it yet",
              0);
    }
}

static void RestoreChunks(RestoreRun &run)
{
    const ULONGLONG startTicks = GetTickCount64();
    for (uint64_t i = 0; i < run.image.table.size(); ++i) {
        const ChunkEntry &entry = run.image.table[i];
        const uint32_t length = ChunkLength(run.image.header, i);
        const uint8_t *source = run.readBuffer.data;
        if (IsReference(entry)) {
            FetchChunk(run.image, i, run.readBuffer.data);
        } else {
            source = ReadStoredChunk(run, i);
        }
        WriteChunk(run.target, entry.diskOffset, source, length);
        if (IsProgressDue(i, run.image.table.size())) {
            // A reference adds nothing to the figure shown, so a run that ends in one stops a chunk short of 100 %.
            PrintProgress(entry.diskOffset + entry.storedLength, run.image.header.diskSize, startTicks);
        }
    }
    printf("\n");
}

void RestoreImage(const std::string &path, int32_t diskNumber, bool confirmed, const std::string &passwordFile)
{
    RefuseSystemDisk(diskNumber);
    RefuseUnconfirmed(confirmed);
    RestoreRun run;
    run.image = OpenImage(path, passwordFile, 0);
    const ImageHeader &header = run.image.header;
    run.target = OpenDiskForWrite(diskNumber);
    const DiskGeometry target = GetDiskGeometry(run.target);
    CompareSizes(diskNumber, target.diskSize, header.diskSize);

    printf("Restoring %s -> PhysicalDrive%d (%llu chunks, %.2f GiB)\n", path.c_str(), diskNumber,
           static_cast<unsigned long long>(header.chunkCount), ToGiB(header.diskSize));
    run.readBuffer = AlignedBuffer(header.chunkSize, std::max(target.sectorSize, leastAlignment));
    run.plainBuffer = ZeroedArray<uint8_t>(header.chunkSize);
    RestoreChunks(run);
    DeviceIoControl(run.target, IOCTL_DISK_UPDATE_PROPERTIES, nullptr, 0, nullptr, 0, nullptr, nullptr);
    CloseHandle(run.target);
    CloseHandle(run.image.file);
    printf("Restore complete. Run 'diskpart > rescan' (or reboot) before relying on the target disk.\n");
}
