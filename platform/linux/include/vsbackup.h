// The part of the published <vsbackup.h> that Kestrix uses: the requester's interface, those of its operations that are
// called, in their published order.
#pragma once

#include "vswriter.h"

struct IVssBackupComponents : IUnknown {
    virtual HRESULT InitializeForBackup(BSTR document) = 0;
    virtual HRESULT SetBackupState(bool selectComponents, bool bootableSystemState, VSS_BACKUP_TYPE backupType,
                                   bool partialFileSupport) = 0;
    virtual HRESULT GatherWriterMetadata(IVssAsync **async) = 0;
    virtual HRESULT PrepareForBackup(IVssAsync **async) = 0;
    virtual HRESULT AbortBackup() = 0;
    virtual HRESULT GatherWriterStatus(IVssAsync **async) = 0;
    virtual HRESULT GetWriterStatusCount(UINT *writers) = 0;
    virtual HRESULT FreeWriterStatus() = 0;
    virtual HRESULT GetWriterStatus(UINT writer, VSS_ID *instance, VSS_ID *writerId, BSTR *name,
                                    VSS_WRITER_STATE *state, HRESULT *failure) = 0;
    virtual HRESULT BackupComplete(IVssAsync **async) = 0;
    virtual HRESULT SetContext(LONG context) = 0;
    virtual HRESULT StartSnapshotSet(VSS_ID *snapshotSetId) = 0;
    virtual HRESULT AddToSnapshotSet(VSS_PWSZ volumeName, VSS_ID providerId, VSS_ID *snapshotId) = 0;
    virtual HRESULT DoSnapshotSet(IVssAsync **async) = 0;
    virtual HRESULT DeleteSnapshots(VSS_ID sourceId, VSS_OBJECT_TYPE sourceType, BOOL forceDelete, LONG *deleted,
                                    VSS_ID *nondeletedId) = 0;
    virtual HRESULT GetSnapshotProperties(VSS_ID snapshotId, VSS_SNAPSHOT_PROP *properties) = 0;
    virtual HRESULT IsVolumeSupported(VSS_ID providerId, VSS_PWSZ volumeName, BOOL *supported) = 0;

protected:
    ~IVssBackupComponents() = default;
};

extern "C" {

HRESULT CreateVssBackupComponentsInternal(IVssBackupComponents **components);
void VssFreeSnapshotPropertiesInternal(VSS_SNAPSHOT_PROP *properties);

} // extern "C"

inline HRESULT CreateVssBackupComponents(IVssBackupComponents **components)
{
    return CreateVssBackupComponentsInternal(components);
}

inline void VssFreeSnapshotProperties(VSS_SNAPSHOT_PROP *properties)
{
    VssFreeSnapshotPropertiesInternal(properties);
}
