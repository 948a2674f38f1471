// The snapshot service's interfaces as Windows publishes them: a call is one through the table of an object that the
// service made, so its place in that table is all that caller and service have in common. The headers that the program
// is built with, and the simulator's service with it, must have every operation at its published place.
#include <windows.h>

#include <vss.h>
#include <vswriter.h>

#include <vsbackup.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

namespace
{
// The place of a virtual function in its object's table: a pointer to it holds the offset in bytes, plus one.
template <typename Operation>
uintptr_t PlaceOf(Operation operation)
{
    uintptr_t offset = 0;
    memcpy(&offset, &operation, sizeof offset);
    return (offset - 1) / sizeof(void *);
}
} // namespace

TEST(SnapshotInterfaces, HaveEveryOperationAtItsPublishedPlace)
{
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::AddRef), 1U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::Release), 2U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::GetWriterComponentsCount), 3U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::InitializeForBackup), 5U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::SetBackupState), 6U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::GatherWriterMetadata), 9U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::PrepareForBackup), 14U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::AbortBackup), 15U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::GatherWriterStatus), 16U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::GetWriterStatusCount), 17U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::FreeWriterStatus), 18U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::GetWriterStatus), 19U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::BackupComplete), 27U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::SetContext), 35U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::StartSnapshotSet), 36U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::AddToSnapshotSet), 37U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::DoSnapshotSet), 38U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::DeleteSnapshots), 39U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::GetSnapshotProperties), 42U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::IsVolumeSupported), 44U);
    EXPECT_EQ(PlaceOf(&IVssBackupComponents::QueryRevertStatus), 50U);

    EXPECT_EQ(PlaceOf(&IVssAsync::Release), 2U);
    EXPECT_EQ(PlaceOf(&IVssAsync::Cancel), 3U);
    EXPECT_EQ(PlaceOf(&IVssAsync::Wait), 4U);
    EXPECT_EQ(PlaceOf(&IVssAsync::QueryStatus), 5U);
}
