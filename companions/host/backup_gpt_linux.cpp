// sfdisk moves the backup table; this program writes no disk itself.
#include "host/host.h"

namespace host
{

std::string WhyNoBackupGptMove()
{
    const std::string program = ProgramOfSystem("sfdisk");
    if (program.empty()) {
        return "there is no sfdisk here to move it";
    }
    const Trouble trouble = CheckTrusted(program);
    return trouble ? program + " is not run: " + *trouble : "";
}

Trouble MoveBackupGpt(const HeldDisk &held)
{
    const std::string disk = FolderOf(held.program) + "devices/PhysicalDrive" + std::to_string(held.number);
    std::string said;
    ProgramEnd end;
    if (Trouble trouble = RunProgram(
            {{ProgramOfSystem("sfdisk"), "--relocate", "gpt-bak-std", disk}, {}, {}},
            [&said](const std::string &piece) { said += piece; }, &end)) {
        return trouble;
    }
    if (end.wasEnded) {
        return "sfdisk was ended before it was done";
    }
    return end.exitStatus == 0 ? Trouble() : "sfdisk says: " + said;
}

} // namespace host
