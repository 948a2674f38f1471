// The two entry points of VSSAPI.DLL that the program calls, bound at each call and from the system folder alone. The
// program starts where there is no such library, and a file of that name beside it is never run with its rights.
//
// Where the library or the entry is missing, the code is raised that a late binding by the linker would raise. That
// binding is not used: lld's has no unwind data, so whether what it raises reaches the structured guard hangs on what
// the argument registers happen to hold.
#include <windows.h>

#include <vss.h>
#include <vswriter.h>

#include <vsbackup.h>

static constexpr DWORD moduleNotFound = 0xC06D007E;
static constexpr DWORD procedureNotFound = 0xC06D007F;

// The library stays loaded once it was found.
static void *EntryPoint(const char *name)
{
    const HMODULE library = LoadLibraryExW(L"VSSAPI.DLL", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (library == nullptr) {
        RaiseException(moduleNotFound, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    }
    const FARPROC entry = GetProcAddress(library, name);
    if (entry == nullptr) {
        RaiseException(procedureNotFound, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    }
    return reinterpret_cast<void *>(entry);
}

HRESULT STDAPICALLTYPE CreateVssBackupComponentsInternal(IVssBackupComponents **components)
{
    const auto entry =
        reinterpret_cast<decltype(&CreateVssBackupComponentsInternal)>(EntryPoint("CreateVssBackupComponentsInternal"));
    return entry(components);
}

void APIENTRY VssFreeSnapshotPropertiesInternal(VSS_SNAPSHOT_PROP *properties)
{
    const auto entry =
        reinterpret_cast<decltype(&VssFreeSnapshotPropertiesInternal)>(EntryPoint("VssFreeSnapshotPropertiesInternal"));
    entry(properties);
}
