// The two objects of the snapshot service that the program gets to call, what it has been given, and what the service
// holds of both until the next run: released or not, so that a use after its release is a line among the misuses and
// not a crash. Strings and records that were freed are filled with '#'.
#pragma once

#include "simulator/running.h"
#include "simulator/uncalled_operations.h"

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

constexpr uint32_t unexpected = 0x8000FFFFU; // E_UNEXPECTED, of calls that a real process wouldn't make

// A string or a record that was given out: memory that the program has to give back.
struct Given {
    std::string name;
    std::wstring text;
    std::wstring moreText;
    bool isFreed = false;
};

// Reference counting, and what no released object allows.
struct Counted {
    std::string name;
    ULONG references = 1;

    // Whether the program may call the object now.
    bool IsUsable(const Call &call) const;

    HRESULT AnswerIfUsable(const Call &call, const std::function<Outcome(const ServiceAnswer &answer)> &effect);

    ULONG ReleaseReference(const std::function<void()> &atTheLast);
};

// The classes say what the program calls and no more; the rest of the published interfaces stands in
// uncalled_operations.h.
struct FakeAsync final : Counted, AsyncToComplete {
    AsyncEnd end;
    std::function<void()> completion; // what the operation brings about
    bool isOver = false;

    HRESULT Wait(DWORD milliseconds) override;
    HRESULT QueryStatus(HRESULT *result, INT *reserved) override;
    ULONG Release() override;
};

struct FakeComponents final : Counted, ComponentsToComplete {
    bool isInitialized = false;
    bool isContextSet = false;
    bool isStateSet = false;
    bool isMetadataGathered = false;
    bool isPrepared = false;
    bool isWriterStatusGathered = false;
    size_t setNumber = 0; // of SnapshotService::sets, from 1; 0: none was started

    SnapshotSet *Set() const;

    bool HasSetOf(SetFate fate) const;

    // A call that succeeds in the right state and brings that about.
    HRESULT Step(const Call &call, bool isInOrder, const std::function<void()> &effect);

    // A call that begins an operation.
    HRESULT Begin(const char *callName, IVssAsync **async, bool isInOrder, const std::function<void()> &completion);

    HRESULT InitializeForBackup(BSTR document) override;
    HRESULT SetBackupState(ServiceFlag selectComponents, ServiceFlag bootableSystemState, VSS_BACKUP_TYPE backupType,
                           ServiceFlag partialFileSupport) override;
    HRESULT GatherWriterMetadata(IVssAsync **async) override;
    HRESULT PrepareForBackup(IVssAsync **async) override;
    HRESULT AbortBackup() override;
    HRESULT GatherWriterStatus(IVssAsync **async) override;
    HRESULT GetWriterStatusCount(UINT *writers) override;
    HRESULT FreeWriterStatus() override;
    HRESULT GetWriterStatus(UINT writer, VSS_ID *instance, VSS_ID *writerId, BSTR *writerName,
                            VSS_WRITER_STATE *writerState, HRESULT *failure) override;
    HRESULT BackupComplete(IVssAsync **async) override;
    HRESULT SetContext(LONG context) override;
    HRESULT StartSnapshotSet(VSS_ID *snapshotSetId) override;
    HRESULT AddToSnapshotSet(VSS_PWSZ volumeName, VSS_ID providerId, VSS_ID *snapshotId) override;
    HRESULT DoSnapshotSet(IVssAsync **async) override;
    HRESULT DeleteSnapshots(VSS_ID sourceId, VSS_OBJECT_TYPE sourceType, BOOL forceDelete, LONG *deleted,
                            VSS_ID *nondeletedId) override;
    HRESULT GetSnapshotProperties(VSS_ID snapshotId, VSS_SNAPSHOT_PROP *properties) override;
    HRESULT IsVolumeSupported(VSS_ID providerId, VSS_PWSZ volumeName, BOOL *supported) override;
    ULONG Release() override;
};

// What the service holds for one run.
struct ServiceState {
    uint32_t comDepth = 0;
    std::list<std::unique_ptr<FakeComponents>> components;
    std::list<std::unique_ptr<FakeAsync>> operations;
    std::list<Given> strings;
    std::list<Given> records;
    std::map<std::string, uint32_t> nameCounts;
};
extern std::unique_ptr<ServiceState> serviceState; // from the first run's beginning on

std::string Numbered(const std::string &name); // with how many there are of that name
SnapshotService *Service();                    // null if the machine has none

Outcome Refusal(uint32_t result);
// A success as the log shows it: its own value where that is not 0, and what came back.
Outcome Success(uint32_t result, const std::string &given = "");
// The shape of every call that gives an HRESULT. effect makes of the test's answer what the program sees.
HRESULT Answer(const Call &call, const std::function<Outcome(const ServiceAnswer &answer)> &effect);
bool IsFailure(uint32_t result); // below zero as an HRESULT
