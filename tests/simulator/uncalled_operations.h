// The snapshot service's interfaces for the fakes to complete: with every operation that the program never calls
// already there. On Windows the published interfaces are used as they stand, so that a call goes through their real
// layout; a call of one of these operations is a misuse. On Linux the interfaces have no such operations.
#pragma once

#include "simulator/running.h"

#include <windows.h>

#include <vss.h>
#include <vswriter.h>

#include <vsbackup.h>

#ifdef _WIN32

using ServiceFlag = boolean;

inline HRESULT Uncalled(const char *name)
{
    const InSimulator inside;
    if (running != nullptr) {
        AddMisuse(MakeCall(name), "no operation of the simulated service");
    }
    return E_NOTIMPL;
}

// clang-format off
#define UNCALLED(name, ...) HRESULT STDMETHODCALLTYPE name(__VA_ARGS__) override { return Uncalled(#name); }
#define UNCALLED_REFERENCES                                                                                            \
    UNCALLED(QueryInterface, REFIID, void **)                                                                          \
    ULONG STDMETHODCALLTYPE AddRef() override { Uncalled("AddRef"); return 0; }

struct AsyncToComplete : IVssAsync {
    UNCALLED_REFERENCES
    UNCALLED(Cancel, void)
};

struct ComponentsToComplete : IVssBackupComponents {
    UNCALLED_REFERENCES
    UNCALLED(GetWriterComponentsCount, UINT *)
    UNCALLED(GetWriterComponents, UINT, IVssWriterComponentsExt **)
    UNCALLED(InitializeForRestore, BSTR)
    UNCALLED(SetRestoreState, VSS_RESTORE_TYPE)
    UNCALLED(GetWriterMetadataCount, UINT *)
    UNCALLED(GetWriterMetadata, UINT, VSS_ID *, IVssExamineWriterMetadata **)
    UNCALLED(FreeWriterMetadata, void)
    UNCALLED(AddComponent, VSS_ID, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR)
    UNCALLED(SetBackupSucceeded, VSS_ID, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, boolean)
    UNCALLED(SetBackupOptions, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR)
    UNCALLED(SetSelectedForRestore, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, boolean)
    UNCALLED(SetRestoreOptions, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR)
    UNCALLED(SetAdditionalRestores, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, boolean)
    UNCALLED(SetPreviousBackupStamp, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR)
    UNCALLED(SaveAsXML, BSTR *)
    UNCALLED(AddAlternativeLocationMapping, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR, boolean,
             LPCWSTR)
    UNCALLED(AddRestoreSubcomponent, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR, boolean)
    UNCALLED(SetFileRestoreStatus, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, VSS_FILE_RESTORE_STATUS)
    UNCALLED(AddNewTarget, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR, boolean, LPCWSTR)
    UNCALLED(SetRangesFilePath, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, UINT, LPCWSTR)
    UNCALLED(PreRestore, IVssAsync **)
    UNCALLED(PostRestore, IVssAsync **)
    UNCALLED(ImportSnapshots, IVssAsync **)
    UNCALLED(BreakSnapshotSet, VSS_ID)
    UNCALLED(Query, VSS_ID, VSS_OBJECT_TYPE, VSS_OBJECT_TYPE, IVssEnumObject **)
    UNCALLED(DisableWriterClasses, const VSS_ID *, UINT)
    UNCALLED(EnableWriterClasses, const VSS_ID *, UINT)
    UNCALLED(DisableWriterInstances, const VSS_ID *, UINT)
    UNCALLED(ExposeSnapshot, VSS_ID, VSS_PWSZ, LONG, VSS_PWSZ, VSS_PWSZ *)
    UNCALLED(RevertToSnapshot, VSS_ID, WINBOOL)
    UNCALLED(QueryRevertStatus, VSS_PWSZ, IVssAsync **)
};
// clang-format on

#undef UNCALLED_REFERENCES
#undef UNCALLED

#else

using ServiceFlag = bool;
using AsyncToComplete = IVssAsync;
using ComponentsToComplete = IVssBackupComponents;

#endif
