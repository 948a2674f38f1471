// Windows moves the backup table of a GPT by itself when it takes the disk into use.
#include "host/host.h"

namespace host
{

std::string WhyNoBackupGptMove()
{
    return "Windows does that by itself when it takes the disk into use";
}

Trouble MoveBackupGpt(const HeldDisk &)
{
    return WhyNoBackupGptMove();
}

} // namespace host
