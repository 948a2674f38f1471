// The snapshot service of the machine, as a test fills it in and looks at it afterwards.
//
//     AddVolume(machine, L"\\\\?\\Volume{1}\\", {{1, MiB, 8 * MiB}}, PatternBytes(8 * MiB, 3));
//     machine.snapshotService = SnapshotService();
//     machine.snapshotService->answers["DoSnapshotSet"].end.wait = 0x80042308;
//     machine.snapshotService->writers = {{L"Registry Writer"}, {L"SqlServerWriter", 9, 0x800423F4}};
//
// Its calls stand in the log by their bare names ("SetContext", "Wait", "Release"), on objects named "components#1" and
// "async:DoSnapshotSet#1", and FailCall and FailAnyCall take them like any other call; their failures are HRESULTs and
// leave the last error alone. The service keeps order: what is called too early gets VSS_E_BAD_STATE, and what an
// operation was to bring about has come about only when its wait went well. Snapshots are of the kind that goes when
// the last reference to the backup components goes.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

constexpr uint32_t asyncPending = 0x00042309U;  // VSS_S_ASYNC_PENDING
constexpr uint32_t asyncFinished = 0x0004230AU; // VSS_S_ASYNC_FINISHED

// How an operation ends that a call began.
struct AsyncEnd {
    uint32_t wait = 0;                              // what Wait gives
    uint32_t queried = 0;                           // what QueryStatus gives
    std::optional<uint32_t> status = asyncFinished; // what QueryStatus stores; unset: nothing
};

// What a call answers.
struct ServiceAnswer {
    uint32_t result = 0;    // HRESULT; one below zero keeps the call from its effect
    bool givesNull = false; // where the call gives an object: gives null for it
    AsyncEnd end;           // of the operation that it begins
};

struct Writer {
    std::optional<std::wstring> name; // unset: a null string
    int32_t state = 1;                // a VSS_WRITER_STATE; stable unless said otherwise
    uint32_t failure = 0;             // the writer's own HRESULT
    uint32_t result = 0;              // what GetWriterStatus gives for it
};

enum class SetFate {
    Started, // there is no snapshot yet
    Created, // the snapshots exist
    Deleted, // by DeleteSnapshots
    Dropped, // with the backup components
};

struct SnapshotSet {
    std::vector<uint32_t> volumes; // numbers of Machine::volumes
    SetFate fate = SetFate::Started;
    bool isCompleted = false; // BackupComplete came to its end
    bool isAborted = false;
};

struct SnapshotService {
    std::map<std::string, ServiceAnswer> answers; // to every call of that name, COM's included
    std::optional<uint32_t> raises;               // creating the backup components raises a condition of that code ...
    bool storesBeforeRaising = false;             // ... having stored an object that nobody may use
    std::vector<Writer> writers;
    std::vector<SnapshotSet> sets; // of the latest run
};

// Whether it is a call of COM or of the service that answers with an HRESULT.
bool GivesHresult(const std::string &callName);
