// The system beneath the simulator where that is Windows.
//
// A condition is raised as the system raises one, so that the program's structured guard is what catches it. The
// strings are made here, because the link loses the unwind records of the language library's own: an allocation that
// fails in one of its functions would throw through a frame that nobody can unwind.
#include "simulator/system_beneath.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

template class std::basic_string<char>;
template class std::basic_string<wchar_t>;

int OpenCapture(const char *name)
{
    static unsigned opened = 0;
    const std::string file =
        "kestrix-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++opened) + "-" + name;
    const std::string path = (std::filesystem::temp_directory_path() / file).string();
    return _open(path.c_str(), _O_RDWR | _O_CREAT | _O_EXCL | _O_BINARY | _O_TEMPORARY | _O_NOINHERIT,
                 _S_IREAD | _S_IWRITE);
}

std::filesystem::path FileNamed(const std::string &bytes)
{
    std::wstring name;
    for (const char byte : bytes) {
        name.push_back(static_cast<wchar_t>(static_cast<signed char>(byte)));
    }
    return name;
}

// Asks for each number that a handle of a small process can have: not every system counts them.
size_t OpenDescriptors()
{
    size_t count = 0;
    for (uintptr_t number = 4; number < 4096; number += 4) {
        DWORD flags = 0;
        count += GetHandleInformation(reinterpret_cast<HANDLE>(number), &flags) ? 1 : 0;
    }
    return count;
}

void RaiseCondition(uint32_t code)
{
    RaiseException(code, 0, 0, nullptr);
    abort(); // a handler asked to go on after all
}

uint32_t ConditionRaisedBy(const std::function<void()> &body)
{
    uint32_t code = 0;
    __try {
        body();
    } __except (code = GetExceptionCode(), EXCEPTION_EXECUTE_HANDLER) {
    }
    return code;
}
