// The part of the published <winerror.h> that Kestrix uses: HRESULT, judged by its sign.
#pragma once

#include "windows.h"

typedef LONG HRESULT;

#define SUCCEEDED(result) ((result) >= 0)
#define FAILED(result) ((result) < 0)

#define S_OK (static_cast<HRESULT>(0))
#define S_FALSE (static_cast<HRESULT>(1))
#define E_FAIL (static_cast<HRESULT>(0x80004005U))
#define RPC_E_TOO_LATE (static_cast<HRESULT>(0x80010119U))
