// One feeder, workers with a handle and a buffer each, one place for what they find.
#include "kestrix-image/audit.h"

#include <algorithm>

using reader::Chain;
using reader::ChunkFault;

ChunkFeeder::ChunkFeeder(const Chain &chainToFeed, std::optional<uint8_t> onlyLevel) : chain(chainToFeed)
{
    if (onlyLevel) {
        levels = {*onlyLevel};
        return;
    }
    levels = {reader::storedNowhere};
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
    constexpr size_t mostFaults = 255;
    const std::lock_guard<std::mutex> lock(mutex);
    const auto isSame = [&fault](const ChunkFault &known) {
        return known.cause == fault.cause && known.level == fault.level && known.systemSays == fault.systemSays;
    };
    size_t index = static_cast<size_t>(std::find_if(faults.begin(), faults.end(), isSame) - faults.begin());
    if (index == faults.size() && faults.size() == mostFaults) {
        index = mostFaults - 1; // so many kinds have no other reader than the first of them
    } else if (index == faults.size()) {
        faults.push_back(fault);
    }
    ofChunk[chunk] = static_cast<uint8_t>(index + 1);
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
            bytes += reader::LengthOfChunk(chain.Header(), i);
        }
    }
    return bytes;
}

std::optional<reader::Fault> ReadChunks(const CommonOptions &common, ChunkFeeder &feeder, Progress &progress,
                                        Verdicts &verdicts, const ReadOne &readOne,
                                        const std::function<bool()> &wantsMore)
{
    return reader::OnThreads(common.threads, [&] {
        reader::ChunkReader reader(feeder.chain);
        uint64_t chunk = 0;
        while ((!wantsMore || wantsMore()) && feeder.Next(&chunk)) {
            if (const std::optional<ChunkFault> fault = readOne(reader, chunk)) {
                verdicts.Record(chunk, *fault);
            }
            progress.Add(reader::LengthOfChunk(feeder.chain.Header(), chunk));
        }
    });
}

// ---- Telling of bad chunks ----

const char *CauseName(reader::ChunkCause cause)
{
    switch (cause) {
    case reader::ChunkCause::NotStored:
        return "notStored";
    case reader::ChunkCause::OtherDigest:
        return "otherDigest";
    case reader::ChunkCause::WrongPlace:
        return "wrongPlace";
    case reader::ChunkCause::WrongLength:
        return "wrongLength";
    case reader::ChunkCause::CutOff:
        return "cutOff";
    case reader::ChunkCause::Unreadable:
        return "unreadable";
    case reader::ChunkCause::Seal:
        return "seal";
    case reader::ChunkCause::Digest:
        return "digest";
    }
    return "";
}

Json BadChunkJson(const Chain &chain, uint64_t chunk, const ChunkFault &fault)
{
    return {{"file", chain.images[fault.level].facts.path},
            {"chunk", chunk},
            {"diskOffset", chunk * chain.Header().chunkSize},
            {"lengthBytes", reader::LengthOfChunk(chain.Header(), chunk)},
            {"cause", CauseName(fault.cause)},
            {"says", reader::CauseText(fault)}};
}

std::string BadChunkLine(const Chain &chain, uint64_t chunk, const ChunkFault &fault)
{
    const uint64_t begin = chunk * chain.Header().chunkSize;
    const uint64_t end = begin + reader::LengthOfChunk(chain.Header(), chunk);
    return "  chunk " + std::to_string(chunk) + ", disk bytes " + std::to_string(begin) + " to " + std::to_string(end) +
           ", in " + chain.images[fault.level].facts.path + ": " + reader::CauseText(fault);
}

void ReportBadChunks(JsonOutput &output, const Chain &chain, const Verdicts &verdicts)
{
    for (uint64_t i = 0; i < chain.ChunkCount(); ++i) {
        const ChunkFault *fault = verdicts.FaultOf(i);
        if (fault != nullptr && output.wanted) {
            output.Item(BadChunkJson(chain, i, *fault));
        } else if (fault != nullptr) {
            PrintLine(BadChunkLine(chain, i, *fault));
        }
    }
}
