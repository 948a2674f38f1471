// COM and the snapshot service: the replaced calls, and what the service answers.
//
// Everything goes through Answer: the call is logged, faults and the test's answers meet it, and what remains is its
// effect. The objects that the program gets to call stand in snapshot_objects.cpp.
#include "simulator/real_calls.h"
#include "simulator/snapshot_objects.h"
#include "simulator/system_beneath.h"

#include <algorithm>
#include <set>

std::unique_ptr<ServiceState> serviceState;

namespace
{
ServiceAnswer AnswerTo(const std::string &callName)
{
    const SnapshotService *service = Service();
    const auto found =
        service != nullptr ? service->answers.find(callName) : std::map<std::string, ServiceAnswer>::const_iterator();
    return service != nullptr && found != service->answers.end() ? found->second : ServiceAnswer();
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
    FakeComponents *made = serviceState->components.emplace_back(std::make_unique<FakeComponents>()).get();
    made->name = Numbered("components");
    *components = made;
    return Success(answer.result, made->name);
}
} // namespace

std::string Numbered(const std::string &name)
{
    return name + "#" + std::to_string(++serviceState->nameCounts[name]);
}

SnapshotService *Service()
{
    std::optional<SnapshotService> &service = running->machine->snapshotService;
    return service ? &*service : nullptr;
}

Outcome Refusal(uint32_t result)
{
    return {false, result, ""};
}

bool IsFailure(uint32_t result)
{
    return (result & 0x80000000U) != 0;
}

Outcome Success(uint32_t result, const std::string &given)
{
    const std::string value = result != 0 ? Text("0x%08X", result) : "";
    return {true, result, value + (value.empty() || given.empty() ? "" : " ") + given};
}

HRESULT Answer(const Call &call, const std::function<Outcome(const ServiceAnswer &answer)> &effect)
{
    const Outcome outcome = Perform(call, [&](uint64_t) {
        const ServiceAnswer answer = AnswerTo(call.name);
        return IsFailure(answer.result) ? Refusal(answer.result) : effect(answer);
    });
    return static_cast<HRESULT>(outcome.error);
}

void BeginService(Machine &machine)
{
    serviceState = std::make_unique<ServiceState>();
    if (machine.snapshotService) {
        machine.snapshotService->sets.clear();
    }
}

void EndService()
{
    std::vector<std::string> &leaks = running->machine->leaks;
    for (const auto &components : serviceState->components) {
        if (components->references != 0) {
            leaks.push_back(components->name);
        }
    }
    for (const auto &operation : serviceState->operations) {
        if (operation->references != 0) {
            leaks.push_back(operation->name);
        }
    }
    for (const std::list<Given> *given : {&serviceState->strings, &serviceState->records}) {
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
    leaks.insert(leaks.end(), serviceState->comDepth, "COM");
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
    serviceState->comDepth += SUCCEEDED(result) ? 1 : 0;
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
        if (serviceState->comDepth == 0) {
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
        if (serviceState->comDepth == 0) {
            AddMisuse(call, "COM is not up");
            return Outcome();
        }
        --serviceState->comDepth;
        for (const auto &components : serviceState->components) {
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
    Given *given = FindGiven(serviceState->strings, text, &Given::text);
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
                serviceState->components.back()->references = 0; // so that any use of it shows
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
    Given *given = FindGiven(serviceState->records, properties->m_pwszOriginalVolumeName, &Given::text);
    const Call call = MakeCall("VssFreeSnapshotPropertiesInternal", given != nullptr ? given->name : "nothing");
    Perform(call, [&](uint64_t) {
        FreeGiven(call, given);
        *properties = {};
        return Outcome();
    });
}
} // extern "C"
