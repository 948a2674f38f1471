// The program on a machine whose disk 1 is a file: kestrix_on_files DISK COMMAND [OPTION...].
//
// These are the program's own objects on the simulated machine, with ordinary files for images, so that an image goes
// from a disk to a disk also where the system has no disk to give. The file holds the disk's bytes before the run and
// after it. DISK - is a machine that refuses its caller: disks 0 and 1 are there and open for nobody. Prints both
// streams of the run and ends with its exit status; 3 after an abnormal end, as the language run-time of Windows does.
#include "simulator/images.h"
#include "simulator/run_command.h"

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc < 3) {
        fputs("usage: kestrix_on_files DISK COMMAND [OPTION...]\n", stderr);
        return 2;
    }
    const std::string file = argv[1];
    const bool refuses = file == "-";
    Machine machine = MachineWithDisk(1, refuses ? Bytes(4096) : ReadBytes(file));
    if (refuses) {
        machine.disks[0] = machine.disks[1];
        for (auto &[number, disk] : machine.disks) {
            disk.openError = ERROR_ACCESS_DENIED;
        }
    }
    const RunResult result = RunCommand(machine, {argv + 2, argv + argc});
    fputs(result.outputText.c_str(), stdout);
    fputs((result.errorText + result.abnormalText).c_str(), stderr);
    if (!refuses) {
        WriteBytes(file, machine.disks.at(1).bytes);
    }
    return result.abnormalEnd ? 3 : result.exitStatus;
}
