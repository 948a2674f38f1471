// There is no snapshot service on Linux: COM comes up, the guard reports that making the backup components raised
// something, and no volume is enumerated.
#include "port.h"

#include <structured_guard.h>

#include <gtest/gtest.h>

static constexpr DWORD poison = 0xDEAD;

TEST(Snapshots, ComComesUpAndGoesDown)
{
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    EXPECT_EQ(CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_PKT_PRIVACY,
                                   RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr),
              S_OK);
    CoUninitialize();
}

TEST(Snapshots, MakingTheBackupComponentsIsRaisedAndCaught)
{
    IVssBackupComponents *components = nullptr;
    HRESULT result = S_OK;
    EXPECT_FALSE(CreateBackupComponentsGuarded(&components, &result));
    EXPECT_EQ(components, nullptr);
    EXPECT_EQ(result, S_OK);
}

TEST(Snapshots, NothingIsReleasedWithoutHarm)
{
    VSS_SNAPSHOT_PROP properties = {};
    SysFreeString(nullptr);
    VssFreeSnapshotProperties(&properties);
    EXPECT_EQ(properties.m_lSnapshotsCount, 0);
}

TEST(Snapshots, NoVolumeIsEnumerated)
{
    WCHAR name[260] = {L'x'};
    SetPortError(poison);
    EXPECT_EQ(FindFirstVolumeW(name, 260), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    SetPortError(poison);
    EXPECT_FALSE(FindNextVolumeW(INVALID_HANDLE_VALUE, name, 260));
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    SetPortError(poison);
    EXPECT_FALSE(FindVolumeClose(INVALID_HANDLE_VALUE));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(name[0], L'x');
}
