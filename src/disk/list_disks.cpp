// Opens each disk in turn, asks its facts and prints them.
//
// The open asks for no unbuffered access and may fail for any reason: without rights the list is simply empty. The
// system disk's number is asked anew for every disk listed, so a machine without C: ends at the first disk that opens.
#include "disk/list_disks.h"

#include "cli/console.h"
#include "disk/physical_disk.h"

#include <cstdio>

static constexpr int32_t listedDisks = 16;

static void ListDisk(int32_t diskNumber)
{
    const HANDLE disk = OpenPhysicalDrive(diskNumber, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, 0);
    if (disk == INVALID_HANDLE_VALUE) {
        return;
    }
    const DiskGeometry geometry = GetDiskGeometry(disk);
    const char *marker = diskNumber == SystemDiskNumber() ? "   <- currently booted system disk" : "";
    printf("PhysicalDrive%-2d  %8.2f GiB  sector %u bytes%s\n", diskNumber, ToGiB(geometry.diskSize),
           geometry.sectorSize, marker);
    CloseHandle(disk);
}

void ListDisks()
{
    for (int32_t diskNumber = 0; diskNumber < listedDisks; ++diskNumber) {
        ListDisk(diskNumber);
    }
}
