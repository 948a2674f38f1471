// The lookups, over the vector as the process received it, and the conversion of a disk number. On a platform whose
// long is wider than 32 bits the range is tested here, where strtol would let the value pass.
#include "cli/options.h"

#include <windows.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

std::string OptionValue(int argc, char **argv, const char *name, const char *defaultValue)
{
    for (int i = 1; i <= argc - 2; ++i) {
        if (_stricmp(argv[i], name) == 0) {
            return argv[i + 1];
        }
    }
    return defaultValue;
}

bool HasFlag(int argc, char **argv, const char *name)
{
    for (int i = 1; i <= argc - 1; ++i) {
        if (_stricmp(argv[i], name) == 0) {
            return true;
        }
    }
    return false;
}

int32_t ParseDiskNumber(const std::string &text)
{
    char *end = nullptr;
    errno = 0;
    const long value = strtol(text.c_str(), &end, 10);
    if (end == text.c_str()) {
        throw std::invalid_argument("invalid stoi argument");
    }
    if (errno == ERANGE || value < INT32_MIN || value > INT32_MAX) {
        throw std::out_of_range("stoi argument out of range");
    }
    return static_cast<int32_t>(value);
}
