// What the system's loader reads before the program's first instruction, where the linker has no option for it: the
// libraries of the import list, and theirs, come from the system folder alone. A file of such a name beside the program
// would run with its rights otherwise.
#include <windows.h>

#include <cstddef>
#include <cstdint>

// As long as today's linkers make it. What follows the part that the headers know concerns guards, and is zero.
struct LoadConfiguration {
    IMAGE_LOAD_CONFIG_DIRECTORY64 known;
    uint8_t guards[0x140 - sizeof(IMAGE_LOAD_CONFIG_DIRECTORY64)];
};

// The headers call the field by the name that it had before it got its meaning, DependentLoadFlags.
static_assert(offsetof(IMAGE_LOAD_CONFIG_DIRECTORY64, Reserved1) == 0x4E);

static constexpr LoadConfiguration SystemFolderAlone()
{
    LoadConfiguration configuration = {};
    configuration.known.Size = sizeof configuration;
    configuration.known.Reserved1 = LOAD_LIBRARY_SEARCH_SYSTEM32;
    return configuration;
}

// The linker knows it by this name.
extern "C" const LoadConfiguration _load_config_used;
constexpr LoadConfiguration _load_config_used = SystemFolderAlone();
