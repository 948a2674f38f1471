// Bad chunks, told one by one.
#pragma once

#include "reader/audit.h"
#include "report/report.h"

// A bad chunk as an item of a JSON list, and as a line.
Json BadChunkJson(const reader::Chain &chain, uint64_t chunk, const reader::ChunkFault &fault);
std::string BadChunkLine(const reader::Chain &chain, uint64_t chunk, const reader::ChunkFault &fault);
const char *CauseName(reader::ChunkCause cause);

// Prints all of them, as members of the list that is open in output, or as lines.
void ReportBadChunks(JsonOutput &output, const reader::Chain &chain, const reader::Verdicts &verdicts);

// Whether seals were found broken, and of all that were read none opened: a wrong password looks like that.
bool LooksLikeAnotherPassword(const reader::Verdicts &verdicts);
constexpr char anotherPasswordText[] = "no sealed chunk opens: perhaps the password is another";
