// COM and the snapshot service: the replaced calls, and the two objects that the program gets to call.
//
// Everything goes through Answer: the call is logged, faults and the test's answers meet it, and what remains is its
// effect. What the program took of the service is kept until the next run, released or not, so that a use after its
// release is a line among the misuses and not a crash; strings and records that were freed are filled with '#'.
#include "simulator/real_calls.h"
#include "simulator/running.h"
#include "simulator/system_beneath.h"
#include "simulator/uncalled_operations.h"

#include <algorithm>
#include <cstring>
#include <list>
#include <memory>
#include <set>

namespace
{
constexpr uint32_t unexpected = 0x8000FFFFU;         // E_UNEXPECTED, of calls that a real process wouldn't make
constexpr uint32_t badArgument = 0x80070057U;        // E_INVALIDARG
constexpr uint32_t badState = 0x80042301U;           // VSS_E_BAD_STATE
constexpr uint32_t objectNotFound = 0x80042308U;     // VSS_E_OBJECT_NOT_FOUND
constexpr uint32_t volumeNotSupported = 0x8004230CU; // VSS_E_VOLUME_NOT_SUPPORTED
constexpr uint32_t setInProgress = 0x80042316U;      // VSS_E_SNAPSHOT_SET_IN_PROGRESS
constexpr uint32_t setMark = 0x5E700000;
constexpr uint32_t snapshotMark = 0x51AD0000;

struct FakeAsync;
struct FakeComponents;

// A string or a record that was given out: memory that the program has to give back.
struct Given {
    std::string name;
    std::wstring text;
    std::wstring moreText;
    bool isFreed = false;
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
std::unique_ptr<ServiceState> state;

std::string Numbered(const std::string &name)
{
    return name + "#" + std::to_string(++state->nameCounts[name]);
}

Outcome Refusal(uint32_t result)
{
    return {false, result, ""};
}

// The service; null if the machine has none.
SnapshotService *Service()
{
    std::optional<SnapshotService> &service = running->machine->snapshotService;
    return service ? &*service : nullptr;
}

ServiceAnswer AnswerTo(const std::string &callName)
{
    const SnapshotService *service = Service();
    const auto found =
        service != nullptr ? service->answers.find(callName) : std::map<std::string, ServiceAnswer>::const_iterator();
    return service != nullptr && found != service->answers.end() ? found->second : ServiceAnswer();
}

bool IsFailure(uint32_t result)
{
    return (result & 0x80000000U) != 0;
}

// A success as the log shows it: its own value where that is not 0, and what came back.
Outcome Success(uint32_t result, const std::string &given = "")
{
    const std::string value = result != 0 ? Text("0x%08X", result) : "";
    return {true, result, value + (value.empty() || given.empty() ? "" : " ") + given};
}

// The shape of every call that gives an HRESULT. effect makes of the test's answer what the program sees.
HRESULT Answer(const Call &call, const std::function<Outcome(const ServiceAnswer &answer)> &effect)
{
    const Outcome outcome = Perform(call, [&](uint64_t) {
        const ServiceAnswer answer = AnswerTo(call.name);
        return IsFailure(answer.result) ? Refusal(answer.result) : effect(answer);
    });
    return static_cast<HRESULT>(outcome.error);
}

VSS_ID MakeId(uint32_t mark, size_t number)
{
    VSS_ID id = {};
    id.Data1 = mark + static_cast<uint32_t>(number);
    id.Data4[7] = 0x4B;
    return id;
}

bool IsSame(const VSS_ID &left, const VSS_ID &right)
{
    return memcmp(&left, &right, sizeof(left)) == 0;
}

// The set or the volume behind an identifier, from 1; 0 if it is none of that kind.
size_t NumberOf(const VSS_ID &id, uint32_t mark)
{
    const size_t number = id.Data1 - mark;
    return number != 0 && number < 0x10000 && IsSame(id, MakeId(mark, number)) ? number : 0;
}

std::string NameOf(const VSS_ID &id)
{
    if (const size_t set = NumberOf(id, setMark)) {
        return "set#" + std::to_string(set);
    }
    if (const size_t volume = NumberOf(id, snapshotMark)) {
        return "snapshot:" + std::to_string(volume);
    }
    return IsSame(id, GUID_NULL) ? "GUID_NULL" : "an unknown identifier";
}

uint32_t VolumeByName(const wchar_t *name)
{
    const std::vector<NamedVolume> &volumes = running->machine->volumes;
    const auto found =
        std::find_if(volumes.begin(), volumes.end(), [&](const NamedVolume &volume) { return volume.name == name; });
    return found == volumes.end() ? 0 : static_cast<uint32_t>(found - volumes.begin()) + 1;
}

// What the call answers about that volume, which is 0 for one that there is not.
uint32_t ResultFor(uint32_t volume, const ServiceAnswer &answer, const std::string &callName)
{
    const std::map<std::string, uint32_t> *results =
        volume != 0 ? &running->machine->volumes[volume - 1].results : nullptr;
    const auto found = results != nullptr ? results->find(callName) : std::map<std::string, uint32_t>::const_iterator();
    return results != nullptr && found != results->end() ? found->second : answer.result;
}

// The memory that begins at start and is still the program's; null if there is none.
Given *FindGiven(std::list<Given> &given, const wchar_t *start, std::wstring Given::*text)
{
    const auto found =
        std::find_if(given.begin(), given.end(), [&](Given &one) { return (one.*text).data() == start; });
    return found == given.end() ? nullptr : &*found;
}

void FreeGiven(const Call &call, Given *given)
{
    if (given == nullptr || given->isFreed) {
        AddMisuse(call, "nothing to free");
        return;
    }
    given->isFreed = true;
    std::fill(given->text.begin(), given->text.end(), L'#');
    std::fill(given->moreText.begin(), given->moreText.end(), L'#');
}

// Whether the program's frames are only being unwound, which no real process would do.
bool IsProcessOver()
{
    return running->ended || std::uncaught_exceptions() > 0;
}

// Reference counting, and what no released object allows.
struct Counted {
    std::string name;
    ULONG references = 1;

    // Whether the program may call the object now.
    bool IsUsable(const Call &call) const
    {
        if (references == 0) {
            AddMisuse(call, "released before");
        } else if (state->comDepth == 0) {
            AddMisuse(call, "COM is not up");
        }
        return references != 0;
    }

    HRESULT AnswerIfUsable(const Call &call, const std::function<Outcome(const ServiceAnswer &answer)> &effect)
    {
        if (IsProcessOver()) {
            return static_cast<HRESULT>(unexpected);
        }
        return Answer(
            call, [&](const ServiceAnswer &answer) { return IsUsable(call) ? effect(answer) : Refusal(unexpected); });
    }

    ULONG ReleaseReference(const std::function<void()> &atTheLast)
    {
        const Call call = MakeCall("Release", name);
        if (IsProcessOver()) {
            return 0;
        }
        Perform(call, [&](uint64_t) {
            if (IsUsable(call) && --references == 0) {
                atTheLast();
            }
            return Success(0, std::to_string(references));
        });
        return references;
    }
};

// The classes say what the program calls and no more; the rest of the published interfaces stands in
// uncalled_operations.h.
struct FakeAsync final : Counted, AsyncToComplete {
    AsyncEnd end;
    std::function<void()> completion; // what the operation brings about
    bool isOver = false;

    HRESULT Wait(DWORD milliseconds) override
    {
        const InSimulator inside;
        Call call = MakeCall("Wait", name, Text("0x%08X", Unsigned(milliseconds)));
        call.fields["milliseconds"] = milliseconds;
        return AnswerIfUsable(call, [&](const ServiceAnswer &) {
            if (IsFailure(end.wait)) {
                return Refusal(end.wait);
            }
            if (!isOver && end.status == asyncFinished) {
                completion();
            }
            isOver = true;
            return Success(end.wait);
        });
    }

    HRESULT QueryStatus(HRESULT *result, INT *reserved) override
    {
        const InSimulator inside;
        const uint32_t preset = static_cast<uint32_t>(*result);
        Call call = MakeCall("QueryStatus", name,
                             Text("preset=0x%08X reserved=%s", preset, reserved == nullptr ? "null" : "something"));
        call.fields = {{"preset", preset}, {"reserved", reserved != nullptr}};
        return AnswerIfUsable(call, [&](const ServiceAnswer &) -> Outcome {
            const std::optional<uint32_t> status = isOver || IsFailure(end.wait) ? end.status : asyncPending;
            if (status) {
                *result = static_cast<HRESULT>(*status);
            }
            if (IsFailure(end.queried)) {
                return Refusal(end.queried);
            }
            return Success(end.queried, status ? Text("0x%08X", *status) : "nothing");
        });
    }

    ULONG Release() override
    {
        const InSimulator inside;
        return ReleaseReference([] {});
    }
};

struct FakeComponents final : Counted, ComponentsToComplete {
    bool isInitialized = false;
    bool isContextSet = false;
    bool isStateSet = false;
    bool isMetadataGathered = false;
    bool isPrepared = false;
    bool isWriterStatusGathered = false;
    size_t setNumber = 0; // of SnapshotService::sets, from 1; 0: none was started

    SnapshotSet *Set() const
    {
        return setNumber != 0 ? &Service()->sets[setNumber - 1] : nullptr;
    }

    bool HasSetOf(SetFate fate) const
    {
        return setNumber != 0 && Set()->fate == fate;
    }

    // A call that succeeds in the right state and brings that about.
    HRESULT Step(const Call &call, bool isInOrder, const std::function<void()> &effect)
    {
        return AnswerIfUsable(call, [&](const ServiceAnswer &answer) {
            if (!isInOrder) {
                return Refusal(badState);
            }
            effect();
            return Success(answer.result);
        });
    }

    // A call that begins an operation.
    HRESULT Begin(const char *callName, IVssAsync **async, bool isInOrder, const std::function<void()> &completion)
    {
        const InSimulator inside;
        Call call = MakeCall(callName, name);
        call.fields["preset"] = *async != nullptr;
        FakeAsync *begun = nullptr;
        ServiceAnswer given;
        const HRESULT result = AnswerIfUsable(call, [&](const ServiceAnswer &answer) {
            given = answer;
            if (!isInOrder) {
                return Refusal(badState);
            }
            if (answer.givesNull) {
                return Success(answer.result, "null");
            }
            begun = state->operations.emplace_back(std::make_unique<FakeAsync>()).get();
            begun->name = Numbered(std::string("async:") + callName);
            begun->end = answer.end;
            begun->completion = completion;
            return Success(answer.result, begun->name);
        });
        if (SUCCEEDED(result)) {
            *async = begun;
        } else if (begun != nullptr) {
            begun->references = 0;
        }
        return result;
    }

    HRESULT InitializeForBackup(BSTR document) override
    {
        const InSimulator inside;
        const Call call = MakeCall("InitializeForBackup", name, document == nullptr ? "null" : "a document");
        return Step(call, !isInitialized, [&] { isInitialized = true; });
    }

    HRESULT SetBackupState(ServiceFlag selectComponents, ServiceFlag bootableSystemState, VSS_BACKUP_TYPE backupType,
                           ServiceFlag partialFileSupport) override
    {
        const InSimulator inside;
        const Call call = MakeCall("SetBackupState", name,
                                   Text("selectComponents=%d bootableSystemState=%d type=%d partialFileSupport=%d",
                                        selectComponents, bootableSystemState, backupType, partialFileSupport));
        return Step(call, isInitialized, [&] { isStateSet = true; });
    }

    HRESULT GatherWriterMetadata(IVssAsync **async) override
    {
        return Begin("GatherWriterMetadata", async, isContextSet && isStateSet, [&] { isMetadataGathered = true; });
    }

    HRESULT PrepareForBackup(IVssAsync **async) override
    {
        return Begin("PrepareForBackup", async, HasSetOf(SetFate::Started), [&] { isPrepared = true; });
    }

    HRESULT AbortBackup() override
    {
        const InSimulator inside;
        return Step(MakeCall("AbortBackup", name), isInitialized, [&] {
            if (SnapshotSet *set = Set()) {
                set->isAborted = true;
            }
        });
    }

    HRESULT GatherWriterStatus(IVssAsync **async) override
    {
        return Begin("GatherWriterStatus", async, isMetadataGathered, [&] { isWriterStatusGathered = true; });
    }

    HRESULT GetWriterStatusCount(UINT *writers) override
    {
        const InSimulator inside;
        const Call call = MakeCall("GetWriterStatusCount", name, Text("preset=%u", *writers));
        return AnswerIfUsable(call, [&](const ServiceAnswer &answer) {
            if (!isWriterStatusGathered) {
                return Refusal(badState);
            }
            *writers = static_cast<UINT>(Service()->writers.size());
            return Success(answer.result, std::to_string(*writers));
        });
    }

    HRESULT FreeWriterStatus() override
    {
        const InSimulator inside;
        return Step(MakeCall("FreeWriterStatus", name), isWriterStatusGathered,
                    [&] { isWriterStatusGathered = false; });
    }

    HRESULT GetWriterStatus(UINT writer, VSS_ID *instance, VSS_ID *writerId, BSTR *writerName,
                            VSS_WRITER_STATE *writerState, HRESULT *failure) override
    {
        const InSimulator inside;
        const Call call = MakeCall("GetWriterStatus", name,
                                   Text("%u preset=%s,0x%08X", writer, *writerName == nullptr ? "null" : "something",
                                        static_cast<uint32_t>(*failure)));
        Given *given = nullptr;
        const HRESULT result = AnswerIfUsable(call, [&](const ServiceAnswer &answer) {
            const std::vector<Writer> &writers = Service()->writers;
            if (!isWriterStatusGathered || writer >= writers.size()) {
                return Refusal(isWriterStatusGathered ? objectNotFound : badState);
            }
            const Writer &asked = writers[writer];
            if (IsFailure(asked.result)) {
                return Refusal(asked.result);
            }
            const std::string stringName = "string:" + std::to_string(writer);
            if (asked.name) {
                given = &state->strings.emplace_back(Given{Numbered(stringName), *asked.name, L"", false});
            }
            return Success(answer.result != 0 ? answer.result : asked.result,
                           Text("%s state=%d failure=0x%08X", given != nullptr ? given->name.c_str() : "null",
                                asked.state, asked.failure));
        });
        if (SUCCEEDED(result)) {
            const Writer &asked = Service()->writers[writer];
            *instance = MakeId(0x11570000, writer + 1);
            *writerId = MakeId(0x17E20000, writer + 1);
            *writerName = given != nullptr ? given->text.data() : nullptr;
            *writerState = static_cast<VSS_WRITER_STATE>(asked.state);
            *failure = static_cast<HRESULT>(asked.failure);
        } else if (given != nullptr) {
            given->isFreed = true;
        }
        return result;
    }

    HRESULT BackupComplete(IVssAsync **async) override
    {
        return Begin("BackupComplete", async, HasSetOf(SetFate::Created), [&] { Set()->isCompleted = true; });
    }

    HRESULT SetContext(LONG context) override
    {
        const InSimulator inside;
        return Step(MakeCall("SetContext", name, std::to_string(context)), isInitialized, [&] { isContextSet = true; });
    }

    HRESULT StartSnapshotSet(VSS_ID *snapshotSetId) override
    {
        const InSimulator inside;
        VSS_ID made = GUID_NULL;
        const HRESULT result = AnswerIfUsable(MakeCall("StartSnapshotSet", name), [&](const ServiceAnswer &answer) {
            if (!isMetadataGathered || setNumber != 0) {
                return Refusal(setNumber != 0 ? setInProgress : badState);
            }
            Service()->sets.emplace_back();
            setNumber = Service()->sets.size();
            made = MakeId(setMark, setNumber);
            return Success(answer.result, NameOf(made));
        });
        if (SUCCEEDED(result)) {
            *snapshotSetId = made;
        }
        return result;
    }

    HRESULT AddToSnapshotSet(VSS_PWSZ volumeName, VSS_ID providerId, VSS_ID *snapshotId) override
    {
        const InSimulator inside;
        const Call call = MakeCall("AddToSnapshotSet", name,
                                   Narrow(volumeName) + " " + NameOf(providerId) + " preset=" + NameOf(*snapshotId));
        VSS_ID made = GUID_NULL;
        const HRESULT result = AnswerIfUsable(call, [&](const ServiceAnswer &answer) {
            const uint32_t volume = VolumeByName(volumeName);
            if (!HasSetOf(SetFate::Started)) {
                return Refusal(badState);
            }
            if (volume == 0 || !running->machine->volumes[volume - 1].isSupported) {
                return Refusal(volume == 0 ? objectNotFound : volumeNotSupported);
            }
            const uint32_t wanted = ResultFor(volume, answer, call.name);
            if (IsFailure(wanted)) {
                return Refusal(wanted);
            }
            Set()->volumes.push_back(volume);
            made = MakeId(snapshotMark, volume);
            return Success(wanted, NameOf(made));
        });
        if (SUCCEEDED(result)) {
            *snapshotId = made;
        }
        return result;
    }

    HRESULT DoSnapshotSet(IVssAsync **async) override
    {
        const bool isInOrder = isPrepared && HasSetOf(SetFate::Started) && !Set()->volumes.empty();
        return Begin("DoSnapshotSet", async, isInOrder, [&] { Set()->fate = SetFate::Created; });
    }

    HRESULT DeleteSnapshots(VSS_ID sourceId, VSS_OBJECT_TYPE sourceType, BOOL forceDelete, LONG *deleted,
                            VSS_ID *nondeletedId) override
    {
        const InSimulator inside;
        const Call call = MakeCall("DeleteSnapshots", name,
                                   NameOf(sourceId) +
                                       Text(" type=%d force=%d preset=%d,", sourceType, forceDelete, Signed(*deleted)) +
                                       NameOf(*nondeletedId));
        return AnswerIfUsable(call, [&](const ServiceAnswer &answer) {
            const size_t number = NumberOf(sourceId, setMark);
            if (sourceType != VSS_OBJECT_SNAPSHOT_SET) {
                return Refusal(badArgument);
            }
            if (number == 0 || number > Service()->sets.size() ||
                Service()->sets[number - 1].fate != SetFate::Created) {
                return Refusal(objectNotFound);
            }
            SnapshotSet &set = Service()->sets[number - 1];
            for (const auto &[key, object] : running->objects) {
                const bool isOpenShadow = object.open && object.kind == Kind::Disk && object.volumeNumber != 0;
                if (isOpenShadow) {
                    AddMisuse(call, object.name + " is still open");
                }
            }
            set.fate = SetFate::Deleted;
            *deleted = static_cast<LONG>(set.volumes.size());
            *nondeletedId = GUID_NULL;
            return Success(answer.result, std::to_string(*deleted));
        });
    }

    HRESULT GetSnapshotProperties(VSS_ID snapshotId, VSS_SNAPSHOT_PROP *properties) override
    {
        const InSimulator inside;
        const VSS_SNAPSHOT_PROP zeroed = {};
        const bool isZeroed = memcmp(properties, &zeroed, sizeof(zeroed)) == 0;
        const Call call = MakeCall("GetSnapshotProperties", name,
                                   NameOf(snapshotId) + " preset=" + (isZeroed ? "zeroed" : "something"));
        Given *given = nullptr;
        const uint32_t volume = static_cast<uint32_t>(NumberOf(snapshotId, snapshotMark));
        const HRESULT result = AnswerIfUsable(call, [&](const ServiceAnswer &answer) {
            if (volume == 0 || !HasShadow(volume)) {
                return Refusal(objectNotFound);
            }
            const uint32_t wanted = ResultFor(volume, answer, call.name);
            if (IsFailure(wanted)) {
                return Refusal(wanted);
            }
            const NamedVolume &shown = running->machine->volumes[volume - 1];
            given = &state->records.emplace_back();
            given->name = Numbered("properties:" + std::to_string(volume));
            given->text = shown.name;
            given->moreText = shown.shadowName.value_or(L"");
            return Success(wanted, given->name);
        });
        if (SUCCEEDED(result)) {
            const bool hasShadowName = running->machine->volumes[volume - 1].shadowName.has_value();
            properties->m_SnapshotId = snapshotId;
            properties->m_SnapshotSetId = MakeId(setMark, setNumber);
            properties->m_lSnapshotsCount = static_cast<LONG>(Set()->volumes.size());
            properties->m_pwszOriginalVolumeName = given->text.data();
            properties->m_pwszSnapshotDeviceObject = hasShadowName ? given->moreText.data() : nullptr;
        } else if (given != nullptr) {
            given->isFreed = true;
        }
        return result;
    }

    HRESULT IsVolumeSupported(VSS_ID providerId, VSS_PWSZ volumeName, BOOL *supported) override
    {
        const InSimulator inside;
        const Call call = MakeCall("IsVolumeSupported", name,
                                   NameOf(providerId) + " " + Narrow(volumeName) + Text(" preset=%d", *supported));
        return AnswerIfUsable(call, [&](const ServiceAnswer &answer) {
            const uint32_t volume = VolumeByName(volumeName);
            if (volume == 0) {
                return Refusal(objectNotFound);
            }
            const uint32_t wanted = ResultFor(volume, answer, call.name);
            if (IsFailure(wanted)) {
                return Refusal(wanted);
            }
            *supported = running->machine->volumes[volume - 1].isSupported ? TRUE : FALSE;
            return Success(wanted, std::to_string(*supported));
        });
    }

    ULONG Release() override
    {
        const InSimulator inside;
        return ReleaseReference([&] {
            SnapshotSet *set = Set();
            if (set != nullptr && set->fate != SetFate::Deleted) {
                set->fate = SetFate::Dropped;
            }
        });
    }
};

const char *NullOr(const void *pointer)
{
    return pointer == nullptr ? "null" : "something";
}

// What creating the backup components raises on this machine, if anything.
std::optional<uint32_t> RaisedAtCreation()
{
    return Service() != nullptr ? Service()->raises : std::optional<uint32_t>(libraryIsMissing);
}

Outcome CreateComponents(const ServiceAnswer &answer, IVssBackupComponents **components)
{
    if (answer.givesNull) {
        *components = nullptr;
        return Success(answer.result, "null");
    }
    FakeComponents *made = state->components.emplace_back(std::make_unique<FakeComponents>()).get();
    made->name = Numbered("components");
    *components = made;
    return Success(answer.result, made->name);
}
} // namespace

void BeginService(Machine &machine)
{
    state = std::make_unique<ServiceState>();
    if (machine.snapshotService) {
        machine.snapshotService->sets.clear();
    }
}

void EndService()
{
    std::vector<std::string> &leaks = running->machine->leaks;
    for (const auto &components : state->components) {
        if (components->references != 0) {
            leaks.push_back(components->name);
        }
    }
    for (const auto &operation : state->operations) {
        if (operation->references != 0) {
            leaks.push_back(operation->name);
        }
    }
    for (const std::list<Given> *given : {&state->strings, &state->records}) {
        for (const Given &one : *given) {
            if (!one.isFreed) {
                leaks.push_back(one.name);
            }
        }
    }
    for (const auto &[key, object] : running->objects) {
        const bool isOfSnapshots = object.kind == Kind::Search || object.volumeNumber != 0;
        if (object.open && isOfSnapshots) {
            leaks.push_back(object.name);
        }
    }
    leaks.insert(leaks.end(), state->comDepth, "COM");
}

bool GivesHresult(const std::string &callName)
{
    static const std::set<std::string> names = {"CoInitializeEx",
                                                "CoInitializeSecurity",
                                                "CreateVssBackupComponentsInternal",
                                                "InitializeForBackup",
                                                "SetBackupState",
                                                "GatherWriterMetadata",
                                                "PrepareForBackup",
                                                "AbortBackup",
                                                "GatherWriterStatus",
                                                "GetWriterStatusCount",
                                                "FreeWriterStatus",
                                                "GetWriterStatus",
                                                "BackupComplete",
                                                "SetContext",
                                                "StartSnapshotSet",
                                                "AddToSnapshotSet",
                                                "DoSnapshotSet",
                                                "DeleteSnapshots",
                                                "GetSnapshotProperties",
                                                "IsVolumeSupported",
                                                "Wait",
                                                "QueryStatus"};
    return names.count(callName) != 0;
}

bool HasShadow(uint32_t volumeNumber)
{
    const SnapshotService *service = Service();
    return service != nullptr && std::any_of(service->sets.begin(), service->sets.end(), [&](const SnapshotSet &set) {
               const bool holdsVolume = std::count(set.volumes.begin(), set.volumes.end(), volumeNumber) != 0;
               return set.fate == SetFate::Created && holdsVolume;
           });
}

extern "C" {

HRESULT REPLACEMENT(CoInitializeEx)(LPVOID reserved, DWORD model)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead ? static_cast<HRESULT>(unexpected) : REAL(CoInitializeEx)(reserved, model);
    }
    const InSimulator inside;
    const HRESULT result =
        Answer(MakeCall("CoInitializeEx", "", Text("%s model=%u", NullOr(reserved), Unsigned(model))),
               [](const ServiceAnswer &answer) { return Success(answer.result); });
    state->comDepth += SUCCEEDED(result) ? 1 : 0;
    return result;
}

HRESULT REPLACEMENT(CoInitializeSecurity)(PSECURITY_DESCRIPTOR descriptor, LONG serviceCount,
                                          SOLE_AUTHENTICATION_SERVICE *services, void *reserved1,
                                          DWORD authenticationLevel, DWORD impersonationLevel, void *authenticationList,
                                          DWORD capabilities, void *reserved3)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead
                   ? static_cast<HRESULT>(unexpected)
                   : REAL(CoInitializeSecurity)(descriptor, serviceCount, services, reserved1, authenticationLevel,
                                                impersonationLevel, authenticationList, capabilities, reserved3);
    }
    const InSimulator inside;
    const Call call = MakeCall("CoInitializeSecurity", "",
                               Text("descriptor=%s services=%d,%s reserved=%s,%s authentication=%u impersonation=%u "
                                    "list=%s capabilities=%u",
                                    NullOr(descriptor), Signed(serviceCount), NullOr(services), NullOr(reserved1),
                                    NullOr(reserved3), Unsigned(authenticationLevel), Unsigned(impersonationLevel),
                                    NullOr(authenticationList), Unsigned(capabilities)));
    return Answer(call, [&](const ServiceAnswer &answer) {
        if (state->comDepth == 0) {
            AddMisuse(call, "COM is not up");
        }
        return Success(answer.result);
    });
}

void REPLACEMENT(CoUninitialize)(void)
{
    if (CurrentMode() != Mode::Live) {
        if (CurrentMode() == Mode::PassOn) {
            REAL(CoUninitialize)();
        }
        return;
    }
    const InSimulator inside;
    const Call call = MakeCall("CoUninitialize");
    Perform(call, [&](uint64_t) {
        if (state->comDepth == 0) {
            AddMisuse(call, "COM is not up");
            return Outcome();
        }
        --state->comDepth;
        for (const auto &components : state->components) {
            if (components->references != 0) {
                AddMisuse(call, components->name + " is still held");
            }
        }
        return Outcome();
    });
}

void REPLACEMENT(SysFreeString)(BSTR text)
{
    if (CurrentMode() != Mode::Live) {
        if (CurrentMode() == Mode::PassOn) {
            REAL(SysFreeString)(text);
        }
        return;
    }
    const InSimulator inside;
    Given *given = FindGiven(state->strings, text, &Given::text);
    const Call call = MakeCall("SysFreeString", given != nullptr ? given->name : text == nullptr ? "null" : "nothing");
    Perform(call, [&](uint64_t) {
        if (text != nullptr) {
            FreeGiven(call, given);
        }
        return Outcome();
    });
}

HRESULT REPLACEMENT(CreateVssBackupComponentsInternal)(IVssBackupComponents **components)
{
    if (CurrentMode() != Mode::Live) {
        return CurrentMode() == Mode::Dead ? static_cast<HRESULT>(unexpected)
                                           : REAL(CreateVssBackupComponentsInternal)(components);
    }
    HRESULT result = S_OK;
    std::optional<uint32_t> raised;
    {
        const InSimulator inside;
        const Call call =
            MakeCall("CreateVssBackupComponentsInternal", "", "preset=" + std::string(NullOr(*components)));
        result = Answer(call, [&](const ServiceAnswer &answer) -> Outcome {
            raised = RaisedAtCreation();
            if (!raised) {
                return CreateComponents(answer, components);
            }
            if (Service() != nullptr && Service()->storesBeforeRaising) {
                CreateComponents(answer, components);
                state->components.back()->references = 0; // so that any use of it shows
            }
            return Refusal(*raised);
        });
    }
    if (raised) {
        RaiseCondition(*raised);
    }
    if (FAILED(result)) {
        *components = nullptr;
    }
    return result;
}

void REPLACEMENT(VssFreeSnapshotPropertiesInternal)(VSS_SNAPSHOT_PROP *properties)
{
    if (CurrentMode() != Mode::Live) {
        if (CurrentMode() == Mode::PassOn) {
            REAL(VssFreeSnapshotPropertiesInternal)(properties);
        }
        return;
    }
    const InSimulator inside;
    Given *given = FindGiven(state->records, properties->m_pwszOriginalVolumeName, &Given::text);
    const Call call = MakeCall("VssFreeSnapshotPropertiesInternal", given != nullptr ? given->name : "nothing");
    Perform(call, [&](uint64_t) {
        FreeGiven(call, given);
        *properties = {};
        return Outcome();
    });
}
} // extern "C"
