// What a test on Linux can set up around the port: child processes, mounts and loop devices. Mounts are the test
// program's own: it runs in a mount namespace that nobody else sees and that goes with it, whatever happens. Loop
// devices and mounts need root; without it these fail the test and say so.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>

// Runs body in a child process and gives its result, 0 to 255; -1 if the child ended otherwise. No thread may run.
int ResultOfChild(const std::function<DWORD()> &body);

// The same in a child that has no more rights than anybody.
int ResultOfChildWithoutRights(const std::function<DWORD()> &body);

// The folder that the test program lies in, which is on a real file system.
std::string ProgramFolder();

// Waits for a moment until path is there, or until it is not.
bool ComesToBe(const std::string &path, bool isThere);

// A file system mounted on folder until the record goes. type, options and flags are those of mount(8) and mount(2).
struct Mount {
    Mount(const std::string &source, const std::string &folder, const char *type, const char *options = "",
          unsigned long flags = 0);
    ~Mount();
    Mount(const Mount &) = delete;
    Mount &operator=(const Mount &) = delete;

    void MakeReadOnly() const;

    std::string folder;
};

// A loop device over file, which goes when nobody uses it any more.
struct LoopDevice {
    explicit LoopDevice(const std::string &file, uint32_t sectorBytes = 512, bool isReadOnly = false);
    ~LoopDevice();
    LoopDevice(const LoopDevice &) = delete;
    LoopDevice &operator=(const LoopDevice &) = delete;

    // Tells the kernel of a first partition, which no table holds, and gives its node.
    std::string AddPartition(long long beginBytes, long long lengthBytes) const;

    // A figure of the kernel's statistics of the device, counted from 1: the third is sectors of 512 bytes read, the
    // seventh such sectors written, the sixteenth how often its cache was emptied.
    uint64_t Statistic(int field) const;

    // The number that the kernel gave to the device when it came.
    uint64_t Sequence() const;

    // Makes the file, and the device with it, so many bytes long.
    void Resize(uint64_t lengthBytes) const;

    std::string path;
    std::string backing;
    int descriptor = -1;
};

// From here on this process gets error from the system call, and from no other; false where that can't be had.
bool RefuseSystemCall(long number, int error);

// The same where the system call's argument of that index, from 0, is value.
bool RefuseArgument(long number, size_t index, uint32_t value, int error);

// Signals this thread every few milliseconds, without restarting what they interrupt, until the record goes.
struct Interruptions {
    Interruptions();
    ~Interruptions();
    Interruptions(const Interruptions &) = delete;
    Interruptions &operator=(const Interruptions &) = delete;

    static int Count();
};
