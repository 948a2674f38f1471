// One sentence for each.
#include "kestrix-image/bad_chunks.h"

#include <algorithm>

using reader::Chain;
using reader::ChunkFault;

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

void ReportBadChunks(JsonOutput &output, const Chain &chain, const reader::Verdicts &verdicts)
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

bool LooksLikeAnotherPassword(const reader::Verdicts &verdicts)
{
    return !verdicts.hasOpenedSeal &&
           std::any_of(verdicts.faults.begin(), verdicts.faults.end(),
                       [](const ChunkFault &fault) { return fault.cause == reader::ChunkCause::Seal; });
}
