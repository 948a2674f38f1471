// A library that has no entries and says when it runs. It stands where the snapshot library is looked for.
#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE library, DWORD reason, void *reserved)
{
    static_cast<void>(library);
    static_cast<void>(reserved);
    if (reason == DLL_PROCESS_ATTACH) {
        const char text[] = "planted library\r\n";
        DWORD written = 0;
        WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text, sizeof text - 1, &written, nullptr);
    }
    return TRUE;
}
