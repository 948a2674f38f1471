// The surroundings of the process: its standard streams, its signals, its arguments, its terminal.
#include "host/host.h"

#include <csignal>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace host
{

void PrepareProcess()
{
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0) {
            // In the direction that nobody uses, so that what is printed to a stream that was closed is an error.
            open("/dev/null", descriptor == 0 ? O_WRONLY : O_RDONLY);
        }
    }
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
}

std::vector<std::string> Arguments(int argc, char **argv)
{
    return {argv + (argc > 0 ? 1 : 0), argv + argc};
}

uint32_t ErrorTerminalColumns()
{
    winsize size = {};
    if (isatty(STDERR_FILENO) == 0) {
        return 0;
    }
    constexpr uint32_t usualColumns = 80;
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : usualColumns;
}

} // namespace host
