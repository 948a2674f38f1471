// What the parts of the simulator share while a run goes on; no test includes it.
#pragma once

#include "simulator/machine.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

// The end of the simulated process by exit; thrown through the program's frames.
struct ProcessExit {
    int status;
};

// The end of the simulated process by the run-time itself, as at an invalid parameter.
struct ProcessAbort {
    std::string text;
};

enum class Kind { Disk, Volume, Search, Tracker, File, Provider, Hash, Key, Stream, Block };

// Something that the program holds. The program knows streams and blocks by their real address and everything else by a
// token of the simulator's, which is never used twice.
struct Object {
    Kind kind;
    std::string name;
    void *real = nullptr; // of the platform beneath; null for what is the machine's own
    bool open = true;
    bool isOutside = false; // came from outside of the run, and stays when the run is over
    DWORD access = 0;
    DWORD share = 0;
    DWORD flags = 0;
    uint64_t position = 0; // of disks and files; of a search the volumes that it has told
    uint32_t diskNumber = 0;
    uint32_t volumeNumber = 0; // of a volume, and of a disk that is a volume's shadow device: from 1; 0: neither, or C:
    std::vector<uint8_t> memory; // what cryptography asks its caller to lend it, lent by the simulator instead
};

struct Running {
    Machine *machine = nullptr;
    std::map<void *, Object> objects;
    std::map<std::string, uint32_t> nameCounts; // how many objects of that name there were
    std::vector<void (*)()> exitHooks;
    bool ended = false; // the process is over; what its frames still do in unwinding no real process would do
    uint32_t queries = 0;
};

extern Running *running;          // null outside of a run
extern int simulatorDepth;        // above 0 while the simulator's own code, or the platform under it, is at work
extern std::string scratchFolder; // with its separator; empty when there is none

// Marks a stretch of code as the simulator's own: calls that it makes pass on without a trace.
struct InSimulator {
    InSimulator()
    {
        ++simulatorDepth;
    }
    ~InSimulator()
    {
        --simulatorDepth;
    }
    InSimulator(const InSimulator &) = delete;
    InSimulator &operator=(const InSimulator &) = delete;
};

enum class Mode {
    PassOn, // no run, or a call of the simulator's own: the real platform serves it
    Live,   // the program's call: logged, and subject to faults
    Dead    // a call from frames that a real process would not unwind: only real resources are given back
};
Mode CurrentMode();

// What came of a call's effect.
struct Outcome {
    bool succeeded = true;
    uint32_t error = 0;
    std::string result; // for the log
};

// A call under its name, on an object, with its arguments as the log shows them.
Call MakeCall(const char *name, const std::string &object = "", const std::string &arguments = "");

// Logs the call, lets its effect happen as far as the faults allow, and gives what the program is to see. The effect
// gets the number of bytes that it may move. The last error follows unless the call gives a status or can't fail.
Outcome Perform(Call call, const std::function<Outcome(uint64_t limit)> &effect);
// True if name is filter, or begins with it and goes on with '#' or ':'; an empty filter takes every name.
bool IsNamed(const std::string &name, const std::string &filter);
bool IsCryptography(const std::string &callName);
void AddMisuse(const Call &call, const std::string &what);

// A new object under a name with its number, "disk1#2"; the token is the key to give to the program.
void *AddObject(Object object, void *key = nullptr);
Object *FindObject(void *key); // null if there never was one in this run, or it was a stream or block that is gone
// Closes it, with what is real about it; a token is remembered as closed. False if that failed or it was closed before.
bool ReleaseObject(void *key);
bool IsToken(const void *key); // made by AddObject in this run or an earlier one
void ReleaseEverything();      // that the run itself made

void RunExitHooks(); // the last registered first

// The program's two streams, caught below stdio. Between the first call and the last, LogOutput moves what was printed
// since the time before into the log.
void BeginStreams();
void LogOutput();
void EndStreams(std::string *outputText, std::string *errorText);

// The path as it goes into the log: without the scratch folder, and then with slashes.
std::string StablePath(const std::string &path);
std::string Narrow(const wchar_t *text); // unit by unit
uint64_t AlignmentOf(const void *buffer);
std::string Text(const char *format, ...) __attribute__((format(printf, 1, 2)));
// A DWORD or a LONG for Text: of that width on every system, but not everywhere of the type that %u and %d take.
constexpr unsigned Unsigned(DWORD value)
{
    return static_cast<unsigned>(value);
}
constexpr int Signed(LONG value)
{
    return static_cast<int>(value);
}

// The devices of the machine, as the replaced calls see them.
bool IsDevicePath(const std::string &path);
std::string DeviceObjectName(const std::string &path); // "disk1", "volume:C", "tracker", or the path itself
Outcome OpenDevice(const std::string &path, DWORD access, DWORD share, DWORD disposition, DWORD flags, void **token);
Outcome ReadDisk(Object &disk, void *buffer, uint64_t length, uint64_t limit, DWORD *moved);
Outcome WriteDisk(Object &disk, const void *buffer, uint64_t length, uint64_t limit, DWORD *moved);
Outcome ControlDevice(Object &device, DWORD code, const std::vector<uint8_t> &input, uint8_t *output,
                      uint64_t outputLength, uint64_t limit, DWORD *moved);

// The search for volumes: the name of the next one goes into nameUnits units at name.
Outcome BeginVolumeSearch(wchar_t *name, DWORD nameUnits, void **token);
Outcome ContinueVolumeSearch(Object &search, wchar_t *name, DWORD nameUnits);

// COM and the snapshot service, in place before a run's first call. Their end counts what was not given back.
void BeginService(Machine &machine);
void EndService();
bool HasShadow(uint32_t volumeNumber); // there is a snapshot of it at this moment
