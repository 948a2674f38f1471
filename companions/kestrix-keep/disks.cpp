// disks: the card of each disk, so that one can be told from another.
#include "kestrix-keep/commands.h"
#include "kestrix-keep/disk_cards.h"

static void PrintCards(const std::vector<host::DiskFacts> &disks)
{
    for (const host::DiskFacts &disk : disks) {
        for (const std::string &line : DiskCard(disk)) {
            PrintLine(line);
        }
    }
    if (disks.empty()) {
        PrintLine("this machine has no disk that can be seen");
    }
}

int Disks(const KeepOptions &common)
{
    std::vector<host::DiskFacts> disks;
    const host::Trouble trouble = host::ListDisks(&disks);
    JsonOutput output(common.json);
    output.BeginList("disks");
    for (const host::DiskFacts &disk : disks) {
        output.Item(DiskJson(disk));
    }
    output.End();
    output.Member("fault", trouble ? Json(*trouble) : Json(nullptr));
    if (trouble && !common.json) {
        PrintFault(*trouble);
    } else if (!common.json) {
        PrintCards(disks);
    }
    return trouble ? exitFailed : exitWell;
}
