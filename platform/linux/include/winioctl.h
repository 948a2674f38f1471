// The part of the published <winioctl.h> that Kestrix uses: the disk and volume control codes and their records.
#pragma once

#include "windows.h"

#define METHOD_BUFFERED 0U
#define FILE_ANY_ACCESS 0U
#define CTL_CODE(deviceType, function, method, access)                                                                 \
    ((static_cast<DWORD>(deviceType) << 16) | (static_cast<DWORD>(access) << 14) |                                     \
     (static_cast<DWORD>(function) << 2) | static_cast<DWORD>(method))

#define IOCTL_DISK_GET_LENGTH_INFO 0x0007405CU
#define IOCTL_DISK_GET_DRIVE_GEOMETRY_EX 0x000700A0U
#define IOCTL_DISK_UPDATE_PROPERTIES 0x00070140U
#define IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS 0x00560000U

typedef struct _GET_LENGTH_INFORMATION {
    LARGE_INTEGER Length;
} GET_LENGTH_INFORMATION;

typedef int MEDIA_TYPE;

typedef struct _DISK_GEOMETRY {
    LARGE_INTEGER Cylinders;
    MEDIA_TYPE MediaType;
    DWORD TracksPerCylinder;
    DWORD SectorsPerTrack;
    DWORD BytesPerSector;
} DISK_GEOMETRY;

typedef struct _DISK_GEOMETRY_EX {
    DISK_GEOMETRY Geometry;
    LARGE_INTEGER DiskSize;
    BYTE Data[1];
} DISK_GEOMETRY_EX;

typedef struct _DISK_EXTENT {
    DWORD DiskNumber;
    LARGE_INTEGER StartingOffset;
    LARGE_INTEGER ExtentLength;
} DISK_EXTENT;

typedef struct _VOLUME_DISK_EXTENTS {
    DWORD NumberOfDiskExtents;
    DISK_EXTENT Extents[1];
} VOLUME_DISK_EXTENTS;

static_assert(sizeof(GET_LENGTH_INFORMATION) == 8, "the published size");
static_assert(sizeof(DISK_GEOMETRY_EX) == 40, "the published size");
static_assert(sizeof(DISK_EXTENT) == 24, "the published size");
static_assert(sizeof(VOLUME_DISK_EXTENTS) == 32, "the published size");
