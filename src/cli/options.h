// Looking options up in the argument vector. There is no parser: every lookup scans the whole vector, so order does not
// matter, unknown arguments are ignored, and the value of one option is still looked at as a name by every other scan.
#pragma once

#include <cstdint>
#include <string>

// The argument behind the first one equal to name, letter case aside, or defaultValue. The scan stops one short: an
// option that stands last on the line has no value and counts as absent.
std::string OptionValue(int argc, char **argv, const char *name, const char *defaultValue);

// True if any argument equals name, letter case aside; the last one counts too.
bool HasFlag(int argc, char **argv, const char *name);

// The decimal number that text begins with, as stoi reads it: leading white space and a sign are taken, what follows
// the digits is ignored. Throws std::invalid_argument without a digit and std::out_of_range beyond 32 signed bits;
// nobody catches either, and that abnormal end is the answer to a malformed disk number.
int32_t ParseDiskNumber(const std::string &text);
