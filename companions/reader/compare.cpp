// One counter hands out the chunks; each thread reads through a handle and a buffer of its own.
#include "reader/compare.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>

namespace reader
{

uint64_t Comparison::Count(ChunkState state) const
{
    return static_cast<uint64_t>(std::count(states.begin(), states.end(), state));
}

namespace
{

struct CompareRun {
    const ImageFile &image;
    const ComparedSource &compared;
    const ReadWatch &watch;
    Comparison comparison = {};
    std::mutex mutex = {}; // over what the system says
    std::atomic<uint64_t> next = 0;
    std::atomic<bool> isSourceTaken = false;
};

} // namespace

static ChunkState CompareChunk(CompareRun &run, const host::Source &source, uint8_t *buffer, size_t bufferBytes,
                               uint64_t chunk)
{
    const ImageHeader &header = run.image.facts.header;
    const uint64_t begin = chunk * header.chunkSize;
    const uint32_t length = LengthOfChunk(header, chunk);
    if (!LiesOnDisk(header, chunk)) {
        return ChunkState::Differs; // no disk has a place for it
    }
    if (begin > source.sizeBytes || length > source.sizeBytes - begin) {
        return ChunkState::Missing;
    }
    host::Digesting digesting;
    for (uint64_t done = 0; done < length;) {
        const size_t piece = std::min<uint64_t>(bufferBytes, length - done);
        if (const host::Trouble trouble = host::ReadAt(source, begin + done, buffer, piece)) {
            const std::lock_guard<std::mutex> lock(run.mutex);
            run.comparison.systemSays = *trouble;
            return ChunkState::Unreadable;
        }
        digesting.Add(buffer, piece);
        done += piece;
    }
    const host::Digest digest = digesting.Finish();
    return memcmp(digest.data(), run.image.table[chunk].hash, digest.size()) == 0 ? ChunkState::Equal
                                                                                  : ChunkState::Differs;
}

// One thread's part. The first one to come takes the handle that there is.
static void CompareChunks(CompareRun &run)
{
    host::Source own;
    const bool takesFirst = !run.isSourceTaken.exchange(true);
    if (!takesFirst && run.compared.openAgain(&own)) {
        return;
    }
    const host::Source &source = takesFirst ? run.compared.source : own;
    const ImageHeader &header = run.image.facts.header;
    std::vector<ChunkState> &states = run.comparison.states;
    const size_t bufferBytes = std::clamp<size_t>(header.chunkSize, 4096, largestBuffer);
    const host::Pages buffer = host::MakePages(bufferBytes);
    const auto wantsMore = [&run] { return !run.watch.wantsMore || run.watch.wantsMore(); };
    for (uint64_t chunk = run.next++; chunk < states.size() && wantsMore(); chunk = run.next++) {
        states[chunk] = CompareChunk(run, source, buffer.get(), bufferBytes, chunk);
        run.watch.onBytes(LengthOfChunk(header, chunk));
    }
}

Result<Comparison> CompareWithDisk(const ImageFile &image, const ComparedSource &compared, uint32_t threads,
                                   const ReadWatch &watch)
{
    CompareRun run = {image, compared, watch};
    run.comparison.states.resize(image.table.size(), ChunkState::Unreadable);
    if (const std::optional<Fault> fault = OnThreads(threads, [&run] { CompareChunks(run); })) {
        return *fault;
    }
    return std::move(run.comparison);
}

} // namespace reader
