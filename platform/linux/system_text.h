// What the kernel shows in files, links and folders, as text.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

// The first line of the file at path, without its end; empty if it can't be read.
std::string ReadLine(const std::string &path);

// Where the link at path leads, as it stands there; empty if it is no link.
std::string ReadLink(const std::string &path);

// path without links and detours; empty if nothing is there.
std::string RealPath(const std::string &path);

// The names in a folder that don't begin with a dot, sorted, in *names. False if the folder can't be read to its end.
bool ListFolder(const std::string &path, std::vector<std::string> *names);

// MAJOR:MINOR, as sysfs names devices.
std::string DeviceNumberText(dev_t device);
