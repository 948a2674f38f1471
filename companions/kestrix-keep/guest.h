// Disks of virtual machines, by kestrix-vm beside this program.
#pragma once

#include "kestrix-keep/configuration.h"
#include "kestrix-keep/sidecar.h"
#include "reader/reader.h"

#include <string>
#include <vector>

// "win2022/vda".
std::string NameOfGuestDisk(const GuestDisk &guest);

// What the configuration images: the disk as it is named there, or the guest's.
std::string DiskOfJob(const Job &job);

// The arguments by which kestrix-vm gets to the guest.
std::vector<std::string> WayToGuest(const GuestDisk &guest);

// The folder of the modules that the kestrix-vm at that path takes its work from, where it looks for them: beside what
// its link leads to, or in the share folder of where it is installed.
std::string ModulesOf(const std::string &program);

struct FoundGuestDisk {
    DiskIdentity identity; // its serial is its name
    std::string file;      // on the host
    std::string format;    // as QEMU calls it
};

// Asks the kestrix-vm at that path. A fault where there is no such disk, which then names those that there are, where
// it can't be captured, or where no answer comes.
reader::Result<FoundGuestDisk> FindGuestDisk(const std::string &program, const GuestDisk &guest);
