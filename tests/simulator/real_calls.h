// How the simulator stands between the program and the platform at link time.
//
// The link turns every use of NAME into REPLACEMENT(NAME), which the simulator defines, and REAL(NAME) into the
// platform's own: on Linux the linker's wrapping of symbols does both, on Windows what windows_libraries.cmake
// arranges. The list of names stands in replaced_calls.txt.
#pragma once

#include <windows.h>

#include <bcrypt.h>

#include <vss.h>
#include <vswriter.h>

#include <vsbackup.h>

#include <cstdio>
#include <cstdlib>

#define REPLACEMENT(name) __wrap_##name
#define REAL(name) __real_##name

extern "C" {
decltype(CreateFileW) REAL(CreateFileW);
decltype(ReadFile) REAL(ReadFile);
decltype(WriteFile) REAL(WriteFile);
decltype(SetFilePointerEx) REAL(SetFilePointerEx);
decltype(GetFileSizeEx) REAL(GetFileSizeEx);
decltype(GetFileAttributesA) REAL(GetFileAttributesA);
decltype(CloseHandle) REAL(CloseHandle);
decltype(DeviceIoControl) REAL(DeviceIoControl);
decltype(GetLastError) REAL(GetLastError);
decltype(GetTickCount64) REAL(GetTickCount64);
decltype(FindFirstVolumeW) REAL(FindFirstVolumeW);
decltype(FindNextVolumeW) REAL(FindNextVolumeW);
decltype(FindVolumeClose) REAL(FindVolumeClose);
decltype(CoInitializeEx) REAL(CoInitializeEx);
decltype(CoInitializeSecurity) REAL(CoInitializeSecurity);
decltype(CoUninitialize) REAL(CoUninitialize);
decltype(SysFreeString) REAL(SysFreeString);
decltype(CreateVssBackupComponentsInternal) REAL(CreateVssBackupComponentsInternal);
decltype(VssFreeSnapshotPropertiesInternal) REAL(VssFreeSnapshotPropertiesInternal);
decltype(BCryptOpenAlgorithmProvider) REAL(BCryptOpenAlgorithmProvider);
decltype(BCryptCloseAlgorithmProvider) REAL(BCryptCloseAlgorithmProvider);
decltype(BCryptSetProperty) REAL(BCryptSetProperty);
decltype(BCryptGetProperty) REAL(BCryptGetProperty);
decltype(BCryptCreateHash) REAL(BCryptCreateHash);
decltype(BCryptHashData) REAL(BCryptHashData);
decltype(BCryptFinishHash) REAL(BCryptFinishHash);
decltype(BCryptDestroyHash) REAL(BCryptDestroyHash);
decltype(BCryptDeriveKeyPBKDF2) REAL(BCryptDeriveKeyPBKDF2);
decltype(BCryptGenerateSymmetricKey) REAL(BCryptGenerateSymmetricKey);
decltype(BCryptDestroyKey) REAL(BCryptDestroyKey);
decltype(BCryptEncrypt) REAL(BCryptEncrypt);
decltype(BCryptDecrypt) REAL(BCryptDecrypt);
decltype(BCryptGenRandom) REAL(BCryptGenRandom);
decltype(_aligned_malloc) REAL(_aligned_malloc);
decltype(_aligned_free) REAL(_aligned_free);
decltype(_fullpath) REAL(_fullpath);
decltype(fopen_s) REAL(fopen_s);
decltype(fread) REAL(fread);
decltype(fclose) REAL(fclose);
decltype(calloc) REAL(calloc);
decltype(atexit) REAL(atexit);
[[noreturn]] void REAL(exit)(int status);
}
