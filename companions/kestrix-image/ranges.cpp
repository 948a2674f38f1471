// Stretches of a disk.
#include "kestrix-image/ranges.h"

RangeReport::RangeReport(JsonOutput &jsonOutput, bool withState) : output(jsonOutput), tellsState(withState) {}

void RangeReport::Add(uint64_t diskOffset, uint64_t lengthBytes, const char *stateOfChunk)
{
    if (stateOfChunk != state || diskOffset != end) {
        Finish();
        state = stateOfChunk;
        begin = diskOffset;
    }
    end = diskOffset + lengthBytes;
}

void RangeReport::Finish()
{
    if (state == nullptr || end == begin) {
        return;
    }
    Json item = {{"diskOffset", begin}, {"lengthBytes", end - begin}};
    if (tellsState) {
        item["state"] = state;
    }
    output.Item(item);
    if (!output.wanted) {
        PrintLine("  disk bytes " + std::to_string(begin) + " to " + std::to_string(end) + ", " +
                  SizeText(end - begin) + ": " + state);
    }
    state = nullptr;
}
