// Disks told apart: the card of each, and which one a name means.
//
// A name is a disk's number as kestrix list-disks prints it, serial:… or wwn:… with what the disk itself is called, or,
// on Linux, a path below /dev/disk. A name that fits no disk, or more than one, names none.
#pragma once

#include "host/host.h"
#include "reader/reader.h"
#include "report/report.h"

#include <string>
#include <vector>

// Lines for a person.
std::vector<std::string> DiskCard(const host::DiskFacts &disk);

// One object, in the form that docs/kestrix-keep.schema.json has for it. What is not known is null.
Json DiskJson(const host::DiskFacts &disk);

// The one disk that name means. The fault says what was asked for, and whether no disk fits it or which ones do. A path
// below /dev/disk is followed at this moment; nothing else is looked at but the list.
reader::Result<host::DiskFacts> FindDisk(const std::vector<host::DiskFacts> &disks, const std::string &name);

// As FindDisk for a path that leads to that device.
reader::Result<host::DiskFacts> FindDiskOfDevice(const std::vector<host::DiskFacts> &disks, const std::string &path,
                                                 const host::DeviceAt &device);

// Lines for whoever named no disk of these: the cards of all.
std::vector<std::string> DiskCards(const std::vector<host::DiskFacts> &disks);

// False if a later list has another disk in the place of the one of an earlier list, as far as the two can be told
// apart: by number, node, serial, WWN and length, and by what the system gave it when it arrived.
bool IsSameDisk(const host::DiskFacts &earlier, const host::DiskFacts &later);
