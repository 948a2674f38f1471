// What holds for the whole process, settled before anything else of the program runs: what its surroundings may have
// closed, which signals would end it, and that libcrypto takes no orders from files.
#include <csignal>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <unistd.h>

// A standard descriptor that came closed would become the next file that is opened, an image or a disk, and the lines
// of the program would be written into it.
static void OpenStandardDescriptors()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", O_RDWR) != descriptor &&
            open("/", O_PATH | O_DIRECTORY) != descriptor) {
            _exit(1); // nothing may be opened then, and there is nowhere to say so
        }
    }
}

// A reader of our lines that leaves, and a limit of file sizes, are errors of the write in question. A run goes on
// without the one and tells the other as it tells a full disk.
static void OutliveFailedWrites()
{
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
}

// A configuration may name other algorithms, or none, for what the format fixes.
static void KeepConfigurationOut()
{
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
}

// Ahead of every constructor of the program that names no rank of its own.
__attribute__((constructor(101))) static void SettleProcess()
{
    OpenStandardDescriptors();
    OutliveFailedWrites();
    KeepConfigurationOut();
}
