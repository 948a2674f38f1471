// Verify walks the table of the image it was given, and only that one: stored chunks are read here in file order
// without a seek, references go down the chain through FetchChunk, where a fault is fatal and not counted.
//
// A sealed chunk passes two tests, its tag and then the digest of its plaintext, but counts once. A stored chunk that
// is not as long as the chunk it stands for fails the first test it meets: it can't be what the disk held.
#include "operations/verify.h"

#include "cli/console.h"
#include "disk/physical_disk.h"
#include "image/image_file.h"

#include <cstdio>

struct VerifyRun {
    ImageFile image;
    AlignedBuffer readBuffer;
    ZeroedArray<uint8_t> plainBuffer;
    uint64_t failures = 0;
};

// False if a sealed chunk did not open: such a chunk is done with, its progress included.
static bool VerifyStoredChunk(VerifyRun &run, uint64_t i)
{
    const ChunkEntry &entry = run.image.table[i];
    const auto diskOffset = static_cast<unsigned long long>(entry.diskOffset);
    const uint8_t *plain = run.readBuffer.data;
    if (!ReadNextStoredChunk(run.image, entry.storedLength, run.readBuffer.data, run.readBuffer.size)) {
        Fatal("could not read chunk data - image is truncated", 0);
    }
    if (run.image.header.encrypted != 0) {
        plain = run.plainBuffer.data();
        if (!OpenStoredChunk(run.image, i, run.readBuffer.data, run.plainBuffer.data())) {
            printf("\n  chunk %zu (disk offset %llu): AUTHENTICATION FAILED (corrupt or tampered)\n",
                   static_cast<size_t>(i), diskOffset);
            ++run.failures;
            return false;
        }
    }
    if (!MatchesRecordedHash(run.image, i, plain)) {
        printf("\n  chunk %zu (disk offset %llu): HASH MISMATCH\n", static_cast<size_t>(i), diskOffset);
        ++run.failures;
    }
    return true;
}

static void VerifyChunks(VerifyRun &run)
{
    const ULONGLONG startTicks = GetTickCount64();
    if (run.image.base != nullptr) {
        printf("  thin image: chain continues with %s\n", run.image.baseName.c_str());
    }
    for (uint64_t i = 0; i < run.image.table.size(); ++i) {
        const ChunkEntry &entry = run.image.table[i];
        uint64_t done = entry.diskOffset;
        if (IsReference(entry)) {
            FetchChunk(run.image, i, run.plainBuffer.data());
            done += ChunkLength(run.image.header, i);
        } else {
            if (!VerifyStoredChunk(run, i)) {
                continue;
            }
            done += entry.storedLength;
        }
        if (IsProgressDue(i, run.image.table.size())) {
            PrintProgress(done, run.image.header.diskSize, startTicks);
        }
    }
    printf("\n");
}

void VerifyImage(const std::string &path, const std::string &passwordFile)
{
    VerifyRun run;
    run.image = OpenImage(path, passwordFile, 0);
    const ImageHeader &header = run.image.header;
    const auto chunkCount = static_cast<unsigned long long>(header.chunkCount);
    printf("Verifying %s  (%llu chunks, %.2f GiB source disk)\n", path.c_str(), chunkCount, ToGiB(header.diskSize));
    run.readBuffer = AlignedBuffer(header.chunkSize, 64);
    run.plainBuffer = ZeroedArray<uint8_t>(header.chunkSize);
    VerifyChunks(run);
    CloseHandle(run.image.file);
    if (run.failures != 0) {
        fprintf(stderr, "Verify FAILED - %llu of %llu chunks did not match. Do not trust this image for restore.\n",
                static_cast<unsigned long long>(run.failures), chunkCount);
        EndWithFailure();
    }
    printf("Verify OK - all %llu chunks match their recorded hash.\n", chunkCount);
}
