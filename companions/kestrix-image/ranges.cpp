// Stretches of a disk.
#include "kestrix-image/ranges.h"

RangeReport::RangeReport(JsonOutput &jsonOutput) : output(jsonOutput) {}

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
    output.Item({{"diskOffset", begin}, {"lengthBytes", end - begin}, {"state", state}});
    if (!output.wanted) {
        PrintLine("  disk bytes " + std::to_string(begin) + " to " + std::to_string(end) + ", " +
                  SizeText(end - begin) + ": " + state);
    }
    state = nullptr;
}
