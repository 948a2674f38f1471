// The end of a run that breaks a law, and input taken apart.
//
// While the simulator runs a command, standard error is a file in memory. Reports therefore go to a copy of it that is
// made before the first run, those of the sanitizers too.
#include "fuzz/law.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

extern "C" __attribute__((weak)) void __sanitizer_set_report_fd(void *descriptor);

static int CopyErrorStream()
{
    const int copy = dup(STDERR_FILENO);
    if (__sanitizer_set_report_fd != nullptr) {
        __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<intptr_t>(copy)));
    }
    return copy;
}

static const int reports = CopyErrorStream();

void Law(bool holds, const char *law, const std::string &details)
{
    if (holds) {
        return;
    }
    const std::string text = std::string("The law is broken: ") + law + "\n" + details + "\n";
    if (write(reports, text.data(), text.size()) < 0) {
        _exit(2);
    }
    abort();
}

uint64_t Input::Integer(size_t width)
{
    uint64_t value = 0;
    const Bytes taken = Take(width);
    for (size_t i = 0; i < taken.size(); ++i) {
        value |= static_cast<uint64_t>(taken[i]) << (8 * i);
    }
    return value;
}

Bytes Input::Take(size_t count)
{
    const auto first = bytes.begin() + static_cast<ptrdiff_t>(taken);
    count = std::min(count, bytes.size() - taken);
    taken += count;
    return Bytes(first, first + static_cast<ptrdiff_t>(count));
}

Bytes Input::Rest()
{
    return Take(bytes.size() - taken);
}
