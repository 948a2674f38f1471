// The guard around the creation of the backup components. It catches what the port raises and nothing else: an
// exception of the language passes through, as it passes through a structured guard's callers.
#include "structured_guard.h"

#include "raised_condition.h"

bool CreateBackupComponentsGuarded(IVssBackupComponents **components, HRESULT *result)
{
    try {
        *result = CreateVssBackupComponents(components);
        return true;
    } catch (const RaisedCondition &) {
        return false;
    }
}
