// A head, a line for the run as a whole, and a line for each block.
#include "kestrix-image/map.h"

#include <cinttypes>
#include <cstdio>

void MapText::EndBlock()
{
    if (endBytes != blockBegin) {
        char line[80];
        snprintf(line, sizeof(line), "0x%08" PRIX64 "  0x%08" PRIX64 "  %c\n", blockBegin, endBytes - blockBegin,
                 blockStatus);
        lines += line;
    }
    blockBegin = endBytes;
}

void MapText::Add(uint64_t lengthBytes, char status)
{
    if (status != blockStatus) {
        EndBlock();
        blockStatus = status;
    }
    isWhole = isWhole && status == '+';
    endBytes += lengthBytes;
}

std::string MapText::Finish()
{
    EndBlock();
    char position[80];
    snprintf(position, sizeof(position), "0x%08" PRIX64 "     %c               1\n", isWhole ? endBytes : 0,
             isWhole ? '+' : '?');
    return std::string("# Mapfile. Created by kestrix-image\n# current_pos  current_status  current_pass\n") +
           position + "#      pos        size  status\n" + lines;
}
