// A run's log as lines that can be edited into the log of another run: a call as the simulator logged it, or output
// behind "stdout " or "stderr ", a line of it with its end of line.
//
// Whoever edits need not mind what follows from the edit: Settle puts the numbers of handles, the positions in files
// and the last errors right.
#pragma once

#include "simulator/machine.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sweep
{
using Lines = std::vector<std::string>;

Lines LinesOf(const Machine &machine);
std::string Joined(const Lines &lines);

bool Begins(const std::string &line, const std::string &start);
bool Holds(const std::string &line, const std::string &text);
bool IsOutput(const std::string &line);
bool IsFailed(const std::string &line);
std::string Name(const std::string &line);   // of the call: its first word
std::string Object(const std::string &line); // its second word
// The number behind this word of a line; -1 if there is none.
int64_t NumberBehind(const std::string &line, const std::string &word);

// The place of the first line from index on that begins so; the number of lines if there is none.
size_t Find(const Lines &lines, const std::string &start, size_t index = 0);
// The place of the call before the line at index, output aside; the number of lines if there is none.
size_t CallBefore(const Lines &lines, size_t index);
// A call is among the lines that begins so, and it did not fail.
bool Succeeds(const Lines &lines, const std::string &start);
size_t CountSuccesses(const Lines &lines, const std::string &start);
// Puts by in the place of the first text of each line that holds it.
void Replace(Lines &lines, const std::string &text, const std::string &by);

// Output on "stdout" or "stderr", behind the last line.
void AddOutput(Lines &lines, const std::string &stream, const std::string &text);

// Whether a fault could hit the call, and the line of a call that one did hit: with its usual error, or as a transfer
// of half the bytes that it moved. A call that moved less than two bytes has no short form, which is then empty.
bool CanFail(const std::string &line);
std::string AsFailed(const std::string &line);
std::string AsShort(const std::string &line);

// Handles are numbered in the order of their making, transfers begin where the one before or a seek left the position,
// and a last error that is asked for is that of the calls before it, in the log and in what is printed of it.
void Settle(Lines &lines);
} // namespace sweep
