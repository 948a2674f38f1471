// The guard around the creation of the backup components: the late binding of VSSAPI.DLL happens inside this call, and
// where the library is missing the binding raises a structured exception. Everything raised counts alike.
#include "structured_guard.h"

bool CreateBackupComponentsGuarded(IVssBackupComponents **components, HRESULT *result)
{
    __try {
        *result = CreateVssBackupComponents(components);
        return true;
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return false;
    }
}
