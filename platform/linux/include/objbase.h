// The part of the published <objbase.h> that Kestrix uses. On this platform COM comes up and goes down with nothing
// behind it: there is no object to be had.
#pragma once

#include "winerror.h"

typedef struct _GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
} GUID;

constexpr GUID GUID_NULL = {};

typedef void *PSECURITY_DESCRIPTOR;
typedef struct tagSOLE_AUTHENTICATION_SERVICE SOLE_AUTHENTICATION_SERVICE;

#define COINIT_MULTITHREADED 0U
#define RPC_C_AUTHN_LEVEL_PKT_PRIVACY 6U
#define RPC_C_IMP_LEVEL_IMPERSONATE 3U
#define EOAC_NONE 0U

struct IUnknown {
    virtual ULONG Release() = 0;

protected:
    ~IUnknown() = default;
};

extern "C" {

HRESULT CoInitializeEx(LPVOID reserved, DWORD model);
HRESULT CoInitializeSecurity(PSECURITY_DESCRIPTOR descriptor, LONG serviceCount, SOLE_AUTHENTICATION_SERVICE *services,
                             void *reserved1, DWORD authenticationLevel, DWORD impersonationLevel,
                             void *authenticationList, DWORD capabilities, void *reserved3);
void CoUninitialize(void);

} // extern "C"
