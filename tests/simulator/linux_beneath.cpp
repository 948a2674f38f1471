// The system beneath the simulator where that is Linux.
#include "simulator/system_beneath.h"

#include "linux/raised_condition.h"

#include <sys/mman.h>

int OpenCapture(const char *name)
{
    return memfd_create(name, MFD_CLOEXEC);
}

std::filesystem::path FileNamed(const std::string &bytes)
{
    return bytes;
}

size_t OpenDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(all, std::filesystem::directory_iterator()));
}

void RaiseCondition(uint32_t code)
{
    throw RaisedCondition{code};
}

uint32_t ConditionRaisedBy(const std::function<void()> &body)
{
    try {
        body();
    } catch (const RaisedCondition &raised) {
        return raised.code;
    }
    return 0;
}
