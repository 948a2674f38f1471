// The part of the published <oleauto.h> that Kestrix uses.
#pragma once

#include "windows.h"

typedef WCHAR *BSTR;

extern "C" {

// Releases a string that a call gave out; null is fine.
void SysFreeString(BSTR text);

} // extern "C"
