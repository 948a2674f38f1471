// The part of the published <vss.h> that Kestrix uses: identifiers, states and records of the Volume Shadow Copy
// Service.
#pragma once

#include "objbase.h"
#include "oleauto.h"

typedef GUID VSS_ID;
typedef WCHAR *VSS_PWSZ;
typedef LONGLONG VSS_TIMESTAMP;

#define VSS_S_ASYNC_FINISHED (static_cast<HRESULT>(0x0004230AU))
#define VSS_E_OBJECT_NOT_FOUND (static_cast<HRESULT>(0x80042308U))

enum VSS_OBJECT_TYPE { VSS_OBJECT_SNAPSHOT_SET = 2 };
enum VSS_SNAPSHOT_CONTEXT { VSS_CTX_BACKUP = 0 };
enum VSS_BACKUP_TYPE { VSS_BT_COPY = 5 };
enum VSS_SNAPSHOT_STATE { VSS_SS_UNKNOWN = 0 };

enum VSS_WRITER_STATE {
    VSS_WS_UNKNOWN = 0,
    VSS_WS_STABLE = 1,
    VSS_WS_WAITING_FOR_FREEZE = 2,
    VSS_WS_WAITING_FOR_THAW = 3,
    VSS_WS_WAITING_FOR_POST_SNAPSHOT = 4,
    VSS_WS_WAITING_FOR_BACKUP_COMPLETE = 5,
    VSS_WS_FAILED_AT_IDENTIFY = 6,
    VSS_WS_FAILED_AT_PREPARE_BACKUP = 7,
    VSS_WS_FAILED_AT_PREPARE_SNAPSHOT = 8,
    VSS_WS_FAILED_AT_FREEZE = 9,
    VSS_WS_FAILED_AT_THAW = 10,
    VSS_WS_FAILED_AT_POST_SNAPSHOT = 11,
    VSS_WS_FAILED_AT_BACKUP_COMPLETE = 12,
    VSS_WS_FAILED_AT_PRE_RESTORE = 13,
    VSS_WS_FAILED_AT_POST_RESTORE = 14,
    VSS_WS_FAILED_AT_BACKUPSHUTDOWN = 15,
    VSS_WS_COUNT = 16,
};

typedef struct _VSS_SNAPSHOT_PROP {
    VSS_ID m_SnapshotId;
    VSS_ID m_SnapshotSetId;
    LONG m_lSnapshotsCount;
    VSS_PWSZ m_pwszSnapshotDeviceObject;
    VSS_PWSZ m_pwszOriginalVolumeName;
    VSS_PWSZ m_pwszOriginatingMachine;
    VSS_PWSZ m_pwszServiceMachine;
    VSS_PWSZ m_pwszExposedName;
    VSS_PWSZ m_pwszExposedPath;
    VSS_ID m_ProviderId;
    LONG m_lSnapshotAttributes;
    VSS_TIMESTAMP m_tsCreationTimestamp;
    VSS_SNAPSHOT_STATE m_eStatus;
} VSS_SNAPSHOT_PROP;

struct IVssAsync : IUnknown {
    virtual HRESULT Wait(DWORD milliseconds) = 0;
    virtual HRESULT QueryStatus(HRESULT *result, INT *reserved) = 0;

protected:
    ~IVssAsync() = default;
};
