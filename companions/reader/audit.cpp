// One feeder, workers with a handle and a buffer each, one place for what they find.
#include "reader/audit.h"

#include <algorithm>

namespace reader
{

ChunkFeeder::ChunkFeeder(const Chain &chainToFeed, std::optional<uint8_t> onlyLevel) : chain(chainToFeed)
{
    if (onlyLevel) {
        levels = {*onlyLevel};
        return;
    }
    levels = {storedNowhere};
    for (size_t level = 0; level < chain.images.size(); ++level) {
        levels.push_back(static_cast<uint8_t>(level));
    }
}

bool ChunkFeeder::Next(uint64_t *chunk)
{
    const std::lock_guard<std::mutex> lock(mutex);
    while (!levels.empty()) {
        const auto begin = chain.storedIn.begin();
        const auto found = std::find(begin + static_cast<ptrdiff_t>(next), chain.storedIn.end(), levels.back());
        if (found != chain.storedIn.end()) {
            *chunk = static_cast<uint64_t>(found - begin);
            next = *chunk + 1;
            return true;
        }
        levels.pop_back();
        next = 0;
    }
    return false;
}

Verdicts::Verdicts(uint64_t chunkCount) : ofChunk(static_cast<size_t>(chunkCount)) {}

void Verdicts::Record(uint64_t chunk, const ChunkFault &fault)
{
    constexpr size_t mostWithWords = 1000; // files and causes make no more than half as many
    const std::lock_guard<std::mutex> lock(mutex);
    const auto isSame = [&](const ChunkFault &known) {
        return known.cause == fault.cause && known.level == fault.level &&
               (known.systemSays == fault.systemSays || faults.size() >= mostWithWords);
    };
    const auto index = static_cast<size_t>(std::find_if(faults.begin(), faults.end(), isSame) - faults.begin());
    if (index == faults.size()) {
        faults.push_back(fault);
    }
    ofChunk[chunk] = static_cast<uint16_t>(index + 1);
}

void Verdicts::Clear(uint64_t chunk)
{
    ofChunk[chunk] = 0;
}

const ChunkFault *Verdicts::FaultOf(uint64_t chunk) const
{
    return ofChunk[chunk] == 0 ? nullptr : &faults[ofChunk[chunk] - 1U];
}

uint64_t Verdicts::CountBad() const
{
    return ofChunk.size() - static_cast<uint64_t>(std::count(ofChunk.begin(), ofChunk.end(), 0));
}

uint64_t BytesToRead(const Chain &chain, std::optional<uint8_t> onlyLevel)
{
    uint64_t bytes = 0;
    for (uint64_t i = 0; i < chain.ChunkCount(); ++i) {
        if (!onlyLevel || chain.storedIn[i] == *onlyLevel) {
            bytes += LengthOfChunk(chain.Header(), i);
        }
    }
    return bytes;
}

uint64_t BytesRead(const Chain &chain, std::optional<uint8_t> onlyLevel, const Verdicts &verdicts)
{
    uint64_t bytes = 0;
    for (uint64_t i = 0; i < chain.ChunkCount(); ++i) {
        const ChunkFault *fault = verdicts.FaultOf(i);
        const bool isRead = fault == nullptr || fault->cause == ChunkCause::WrongPlace ||
                            fault->cause == ChunkCause::Seal || fault->cause == ChunkCause::Digest;
        if (isRead && (!onlyLevel || chain.storedIn[i] == *onlyLevel)) {
            bytes += LengthOfChunk(chain.Header(), i);
        }
    }
    return bytes;
}

std::optional<Fault> GoneMedium(const Chain &chain, const Verdicts &verdicts)
{
    std::vector<bool> isGone(chain.images.size());
    const ChunkFault *last = nullptr;
    for (uint64_t i = 0; i < chain.ChunkCount(); ++i) {
        const ChunkFault *fault = verdicts.FaultOf(i);
        if (fault == nullptr) {
            continue;
        }
        if (fault->cause != ChunkCause::Unreadable ||
            (!isGone[fault->level] && !host::IsGone(chain.images[fault->level].source))) {
            return {};
        }
        isGone[fault->level] = true;
        last = fault;
    }
    if (last == nullptr) {
        return {};
    }
    return Fault{FaultKind::Unavailable,
                 chain.images[last->level].facts.path + ": it can't be read any more: " + last->systemSays};
}

// Whether the chunk's seal was opened, whatever was found behind it.
static bool HasOpenedSeal(const Chain &chain, uint64_t chunk, const std::optional<ChunkFault> &fault)
{
    const uint8_t level = chain.storedIn[chunk];
    return level != storedNowhere && IsSealed(chain.images[level].facts.header) &&
           (!fault || fault->cause == ChunkCause::WrongPlace || fault->cause == ChunkCause::Digest);
}

std::optional<Fault> ReadChunks(uint32_t threads, ChunkFeeder &feeder, Verdicts &verdicts, const ReadOne &readOne,
                                const ReadWatch &watch)
{
    return OnThreads(threads, [&] {
        ChunkReader reader(feeder.chain);
        uint64_t chunk = 0;
        while ((!watch.wantsMore || watch.wantsMore()) && feeder.Next(&chunk)) {
            const std::optional<ChunkFault> fault = readOne(reader, chunk);
            if (fault) {
                verdicts.Record(chunk, *fault);
            }
            if (HasOpenedSeal(feeder.chain, chunk, fault)) {
                verdicts.hasOpenedSeal = true;
            }
            watch.onBytes(LengthOfChunk(feeder.chain.Header(), chunk));
        }
    });
}

} // namespace reader
