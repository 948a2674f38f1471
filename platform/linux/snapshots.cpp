// There is no snapshot service on this platform. COM comes up, and making the backup components raises what binding a
// missing library raises, so that a capture says so and reads live; what lies behind that point answers as a machine
// with nothing in it.
//
// Calls held here: CoInitializeEx, CoInitializeSecurity, CoUninitialize, SysFreeString, CreateVssBackupComponents,
// VssFreeSnapshotProperties, FindFirstVolumeW, FindNextVolumeW, FindVolumeClose.
#include "port.h"
#include "raised_condition.h"

#include <vss.h>
#include <vswriter.h>

#include <vsbackup.h>

extern "C" HRESULT CoInitializeEx(LPVOID, DWORD)
{
    return S_OK;
}

extern "C" HRESULT CoInitializeSecurity(PSECURITY_DESCRIPTOR, LONG, SOLE_AUTHENTICATION_SERVICE *, void *, DWORD, DWORD,
                                        void *, DWORD, void *)
{
    return S_OK;
}

extern "C" void CoUninitialize(void) {}

// No call of this platform gives such a string out.
extern "C" void SysFreeString(BSTR) {}

extern "C" HRESULT CreateVssBackupComponentsInternal(IVssBackupComponents **)
{
    throw RaisedCondition{moduleNotFoundCondition};
}

extern "C" void VssFreeSnapshotPropertiesInternal(VSS_SNAPSHOT_PROP *) {}

extern "C" HANDLE FindFirstVolumeW(LPWSTR, DWORD)
{
    SetPortError(ERROR_NOT_SUPPORTED);
    return INVALID_HANDLE_VALUE;
}

extern "C" BOOL FindNextVolumeW(HANDLE, LPWSTR, DWORD)
{
    SetPortError(ERROR_NOT_SUPPORTED);
    return FALSE;
}

extern "C" BOOL FindVolumeClose(HANDLE)
{
    SetPortError(ERROR_INVALID_HANDLE);
    return FALSE;
}
