// The record of the backup in progress. There is one in the process, with static storage, because the exit hook has to
// reach it; it is empty when the process starts, and again when CloseSnapshots has run, but for the hook's own mark.
#pragma once

#include <windows.h>

#include <vss.h>
#include <vswriter.h>

#include <vsbackup.h>

#include <vector>

struct SnapshotRequester {
    IVssBackupComponents *components; // owned; null when there is none
    VSS_ID snapshotSetId;
    std::vector<HANDLE> shadowHandles; // the owner of the shadow devices' handles
    bool comInitialized;
    bool snapshotsCreated; // from the finished freeze on: there is something to complete or abort, and to delete
    bool exitHookRegistered;
};

extern SnapshotRequester snapshotRequester;
