// Consolidate: the rules on paths, the source, the new header and key, the chunks, header and table last, the verify.
//
// Every chunk comes through FetchChunk, which has checked it at every level, so its digest is carried over and not made
// anew; no unchecked byte reaches the new image. Epoch, salt and iteration count never come from the source. The
// creation itself refuses a file that appeared since the rules were tested. As in a capture the seeks and the two
// writes at the front are not looked at: the closing verify reads the file as anyone would.
#include "operations/consolidate.h"

#include "cli/console.h"
#include "crypto/password.h"
#include "disk/transfer.h"
#include "image/image_file.h"
#include "image/image_output.h"
#include "image/image_path.h"
#include "operations/verify.h"

#include <cstdio>
#include <cstring>
#include <optional>

struct ConsolidateRun {
    ImageFile source;
    HANDLE output = INVALID_HANDLE_VALUE;
    ImageHeader header = {};
    ChunkTable table;
    std::optional<GcmKey> newKey; // present exactly when the output is sealed
    ZeroedArray<uint8_t> plainBuffer;
    ZeroedArray<uint8_t> sealedBuffer;
};

static void CheckPaths(const std::string &inPath, const std::string &outPath)
{
    const auto [inFull, outFull] = ResolvePaths(inPath, outPath);
    if (_stricmp(inFull.c_str(), outFull.c_str()) == 0) {
        Fatal("--out must differ from --in", 0);
    }
    if (GetFileAttributesA(outFull.c_str()) != INVALID_FILE_ATTRIBUTES) {
        Fatal("--out already exists - refusing to overwrite an image", 0);
    }
}

static ImageHeader NewHeader(const ImageHeader &source, bool encrypt)
{
    ImageHeader header = {};
    memcpy(header.magic, source.magic, magicBytes);
    header.version = fullImageVersion;
    header.diskSize = source.diskSize;
    header.sectorSize = source.sectorSize;
    header.chunkSize = source.chunkSize;
    header.chunkCount = source.chunkCount;
    header.encrypted = encrypt ? 1 : 0;
    return header;
}

static void MakeNewKey(ConsolidateRun &run, const std::string &passwordFile)
{
    if (passwordFile.empty()) {
        Fatal("--encrypt needs --password-file", 0);
    }
    MakeKeyOfNewImage(run.header, passwordFile, run.newKey);
}

static void ConsolidateChunk(ConsolidateRun &run, uint64_t i, uint32_t length)
{
    FetchChunk(run.source, i, run.plainBuffer.data());
    const ChunkEntry &sourceEntry = run.source.table[i];
    ChunkEntry entry = {};
    entry.diskOffset = sourceEntry.diskOffset;
    entry.storedLength = length;
    memcpy(entry.hash, sourceEntry.hash, digestBytes);
    const uint8_t *stored = run.plainBuffer.data();
    if (run.newKey) {
        RandomBytes(entry.nonce, nonceBytes);
        SealChunk(*run.newKey, run.plainBuffer.data(), length, entry.nonce, run.sealedBuffer.data(), entry.tag);
        stored = run.sealedBuffer.data();
    }
    if (!WriteExactly(run.output, stored, length)) {
        Fatal("WriteFile failed while consolidating (disk full?)", 0);
    }
    run.table[i] = entry;
}

static void ConsolidateChunks(ConsolidateRun &run)
{
    const ULONGLONG startTicks = GetTickCount64();
    for (uint64_t i = 0; i < run.table.size(); ++i) {
        const uint32_t length = ChunkLength(run.header, i);
        ConsolidateChunk(run, i, length);
        if (IsProgressDue(i, run.table.size())) {
            PrintProgress(length + run.table[i].diskOffset, run.header.diskSize, startTicks);
        }
    }
    printf("\n");
}

void ConsolidateImage(const std::string &inPath, const std::string &outPath, const std::string &passwordFile,
                      bool encrypt)
{
    CheckPaths(inPath, outPath);
    ConsolidateRun run;
    run.source = OpenImage(inPath, passwordFile, 0);
    run.header = NewHeader(run.source.header, encrypt);
    if (encrypt) {
        MakeNewKey(run, passwordFile);
    }
    run.output = CreateImageFile(outPath, CREATE_NEW);
    run.table = ChunkTable(run.header.chunkCount);
    SeekTo(run.output, DataStart(run.header.chunkCount));
    run.plainBuffer = ZeroedArray<uint8_t>(run.header.chunkSize);
    run.sealedBuffer = ZeroedArray<uint8_t>(run.header.chunkSize);
    ConsolidateChunks(run);
    WriteHeaderAndTable(run.output, run.header, run.table);
    CloseHandle(run.output);
    CloseHandle(run.source.file);
    printf("Consolidated: %s (self-contained full image, verifying...)\n", outPath.c_str());
    VerifyImage(outPath, encrypt ? passwordFile : std::string());
}
