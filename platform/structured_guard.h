// The one place where a condition that the platform raises during a call is caught: making the backup components, whose
// library is bound at that call and may not be there.
#pragma once

#include <windows.h>

#include <vss.h>
#include <vswriter.h>

#include <vsbackup.h>

// Calls CreateVssBackupComponents and stores its result. False if anything was raised meanwhile; *components and
// *result are then as the call left them.
bool CreateBackupComponentsGuarded(IVssBackupComponents **components, HRESULT *result);
