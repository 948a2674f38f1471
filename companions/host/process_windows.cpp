// The surroundings of the process: its standard streams, its arguments, its terminal. What is printed is UTF-8, on a
// console too, which gets its own code page back at the end.
#include "host/open_handle_windows.h"

#include <shellapi.h>

#include <cstdlib>

namespace host
{

static UINT codePageBefore = 0;

static void GiveCodePageBack()
{
    SetConsoleOutputCP(codePageBefore);
}

void PrepareProcess()
{
    codePageBefore = GetConsoleOutputCP();
    if (codePageBefore != 0 && codePageBefore != CP_UTF8 && SetConsoleOutputCP(CP_UTF8)) {
        atexit(GiveCodePageBack);
    }
}

// The narrow arguments that the run-time gives have been through a code page and lost what it doesn't know.
std::vector<std::string> Arguments(int, char **)
{
    std::vector<std::string> arguments;
    int count = 0;
    LPWSTR *wide = CommandLineToArgvW(GetCommandLineW(), &count);
    for (int i = 1; wide != nullptr && i < count; ++i) {
        arguments.push_back(Narrow(wide[i]));
    }
    LocalFree(wide);
    return arguments;
}

uint32_t ErrorTerminalColumns()
{
    CONSOLE_SCREEN_BUFFER_INFO screen = {};
    if (!GetConsoleScreenBufferInfo(GetStdHandle(STD_ERROR_HANDLE), &screen)) {
        return 0;
    }
    return static_cast<uint32_t>(screen.srWindow.Right - screen.srWindow.Left + 1);
}

} // namespace host
