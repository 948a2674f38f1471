#include "simulator/snapshot_objects.h"

#include <algorithm>
#include <cstring>
#include <exception>

namespace
{
constexpr uint32_t badArgument = 0x80070057U;        // E_INVALIDARG
constexpr uint32_t badState = 0x80042301U;           // VSS_E_BAD_STATE
constexpr uint32_t objectNotFound = 0x80042308U;     // VSS_E_OBJECT_NOT_FOUND
constexpr uint32_t volumeNotSupported = 0x8004230CU; // VSS_E_VOLUME_NOT_SUPPORTED
constexpr uint32_t setInProgress = 0x80042316U;      // VSS_E_SNAPSHOT_SET_IN_PROGRESS
constexpr uint32_t setMark = 0x5E700000;
constexpr uint32_t snapshotMark = 0x51AD0000;

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

// Whether the program's frames are only being unwound, which no real process would do.
bool IsProcessOver()
{
    return running->ended || std::uncaught_exceptions() > 0;
}
} // namespace

bool Counted::IsUsable(const Call &call) const
{
    if (references == 0) {
        AddMisuse(call, "released before");
    } else if (serviceState->comDepth == 0) {
        AddMisuse(call, "COM is not up");
    }
    return references != 0;
}

HRESULT Counted::AnswerIfUsable(const Call &call, const std::function<Outcome(const ServiceAnswer &answer)> &effect)
{
    if (IsProcessOver()) {
        return static_cast<HRESULT>(unexpected);
    }
    return Answer(call,
                  [&](const ServiceAnswer &answer) { return IsUsable(call) ? effect(answer) : Refusal(unexpected); });
}

ULONG Counted::ReleaseReference(const std::function<void()> &atTheLast)
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

HRESULT FakeAsync::Wait(DWORD milliseconds)
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

HRESULT FakeAsync::QueryStatus(HRESULT *result, INT *reserved)
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

ULONG FakeAsync::Release()
{
    const InSimulator inside;
    return ReleaseReference([] {});
}

SnapshotSet *FakeComponents::Set() const
{
    return setNumber != 0 ? &Service()->sets[setNumber - 1] : nullptr;
}

bool FakeComponents::HasSetOf(SetFate fate) const
{
    return setNumber != 0 && Set()->fate == fate;
}

HRESULT FakeComponents::Step(const Call &call, bool isInOrder, const std::function<void()> &effect)
{
    return AnswerIfUsable(call, [&](const ServiceAnswer &answer) {
        if (!isInOrder) {
            return Refusal(badState);
        }
        effect();
        return Success(answer.result);
    });
}

HRESULT FakeComponents::Begin(const char *callName, IVssAsync **async, bool isInOrder,
                              const std::function<void()> &completion)
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
        begun = serviceState->operations.emplace_back(std::make_unique<FakeAsync>()).get();
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

HRESULT FakeComponents::InitializeForBackup(BSTR document)
{
    const InSimulator inside;
    const Call call = MakeCall("InitializeForBackup", name, document == nullptr ? "null" : "a document");
    return Step(call, !isInitialized, [&] { isInitialized = true; });
}

HRESULT FakeComponents::SetBackupState(ServiceFlag selectComponents, ServiceFlag bootableSystemState,
                                       VSS_BACKUP_TYPE backupType, ServiceFlag partialFileSupport)
{
    const InSimulator inside;
    const Call call = MakeCall("SetBackupState", name,
                               Text("selectComponents=%d bootableSystemState=%d type=%d partialFileSupport=%d",
                                    selectComponents, bootableSystemState, backupType, partialFileSupport));
    return Step(call, isInitialized, [&] { isStateSet = true; });
}

HRESULT FakeComponents::GatherWriterMetadata(IVssAsync **async)
{
    return Begin("GatherWriterMetadata", async, isContextSet && isStateSet, [&] { isMetadataGathered = true; });
}

HRESULT FakeComponents::PrepareForBackup(IVssAsync **async)
{
    return Begin("PrepareForBackup", async, HasSetOf(SetFate::Started), [&] { isPrepared = true; });
}

HRESULT FakeComponents::AbortBackup()
{
    const InSimulator inside;
    return Step(MakeCall("AbortBackup", name), isInitialized, [&] {
        if (SnapshotSet *set = Set()) {
            set->isAborted = true;
        }
    });
}

HRESULT FakeComponents::GatherWriterStatus(IVssAsync **async)
{
    return Begin("GatherWriterStatus", async, isMetadataGathered, [&] { isWriterStatusGathered = true; });
}

HRESULT FakeComponents::GetWriterStatusCount(UINT *writers)
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

HRESULT FakeComponents::FreeWriterStatus()
{
    const InSimulator inside;
    return Step(MakeCall("FreeWriterStatus", name), isWriterStatusGathered, [&] { isWriterStatusGathered = false; });
}

HRESULT FakeComponents::GetWriterStatus(UINT writer, VSS_ID *instance, VSS_ID *writerId, BSTR *writerName,
                                        VSS_WRITER_STATE *writerState, HRESULT *failure)
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
            given = &serviceState->strings.emplace_back(Given{Numbered(stringName), *asked.name, L"", false});
        }
        return Success(answer.result != 0 ? answer.result : asked.result,
                       Text("%s state=%d failure=0x%08X", given != nullptr ? given->name.c_str() : "null", asked.state,
                            asked.failure));
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

HRESULT FakeComponents::BackupComplete(IVssAsync **async)
{
    return Begin("BackupComplete", async, HasSetOf(SetFate::Created), [&] { Set()->isCompleted = true; });
}

HRESULT FakeComponents::SetContext(LONG context)
{
    const InSimulator inside;
    return Step(MakeCall("SetContext", name, std::to_string(context)), isInitialized, [&] { isContextSet = true; });
}

HRESULT FakeComponents::StartSnapshotSet(VSS_ID *snapshotSetId)
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

HRESULT FakeComponents::AddToSnapshotSet(VSS_PWSZ volumeName, VSS_ID providerId, VSS_ID *snapshotId)
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

HRESULT FakeComponents::DoSnapshotSet(IVssAsync **async)
{
    const bool isInOrder = isPrepared && HasSetOf(SetFate::Started) && !Set()->volumes.empty();
    return Begin("DoSnapshotSet", async, isInOrder, [&] { Set()->fate = SetFate::Created; });
}

HRESULT FakeComponents::DeleteSnapshots(VSS_ID sourceId, VSS_OBJECT_TYPE sourceType, BOOL forceDelete, LONG *deleted,
                                        VSS_ID *nondeletedId)
{
    const InSimulator inside;
    const Call call =
        MakeCall("DeleteSnapshots", name,
                 NameOf(sourceId) + Text(" type=%d force=%d preset=%d,", sourceType, forceDelete, Signed(*deleted)) +
                     NameOf(*nondeletedId));
    return AnswerIfUsable(call, [&](const ServiceAnswer &answer) {
        const size_t number = NumberOf(sourceId, setMark);
        if (sourceType != VSS_OBJECT_SNAPSHOT_SET) {
            return Refusal(badArgument);
        }
        if (number == 0 || number > Service()->sets.size() || Service()->sets[number - 1].fate != SetFate::Created) {
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

HRESULT FakeComponents::GetSnapshotProperties(VSS_ID snapshotId, VSS_SNAPSHOT_PROP *properties)
{
    const InSimulator inside;
    const VSS_SNAPSHOT_PROP zeroed = {};
    const bool isZeroed = memcmp(properties, &zeroed, sizeof(zeroed)) == 0;
    const Call call =
        MakeCall("GetSnapshotProperties", name, NameOf(snapshotId) + " preset=" + (isZeroed ? "zeroed" : "something"));
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
        given = &serviceState->records.emplace_back();
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

HRESULT FakeComponents::IsVolumeSupported(VSS_ID providerId, VSS_PWSZ volumeName, BOOL *supported)
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

ULONG FakeComponents::Release()
{
    const InSimulator inside;
    return ReleaseReference([&] {
        SnapshotSet *set = Set();
        if (set != nullptr && set->fate != SetFate::Deleted) {
            set->fate = SetFate::Dropped;
        }
    });
}
