// Control devices: Unix stream sockets, one connection per handle, one exchange per control call.
//
// Request: controlCode, inputLength, outputLength, the input bytes. Reply: lastError, returnedLength, the returned
// bytes. Integers are little-endian u32. A reply that claims more bytes than were asked for, or that breaks off, fails
// its call and every later one on the handle, since nobody could tell where the next reply begins.
#include "port.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// A socket's address is short; the folder goes in as an open descriptor so that its path may be of any length.
static bool FillAddress(int folder, const std::string &name, sockaddr_un *address)
{
    const std::string path = "/proc/self/fd/" + std::to_string(folder) + "/" + name;
    if (path.size() >= sizeof(address->sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    address->sun_family = AF_UNIX;
    memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

static int ConnectTo(int folder, const std::string &name)
{
    sockaddr_un address = {};
    if (!FillAddress(folder, name, &address)) {
        return -1;
    }
    const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connection < 0) {
        return -1;
    }
    int result = -1;
    do {
        result = connect(connection, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        const int error = errno;
        close(connection);
        errno = error;
        return -1;
    }
    return connection;
}

HANDLE OpenControlDevice(const std::string &folder, const std::string &name)
{
    const int folderDescriptor = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    const int connection = folderDescriptor < 0 ? -1 : ConnectTo(folderDescriptor, name);
    const int error = errno;
    if (folderDescriptor >= 0) {
        close(folderDescriptor);
    }
    if (connection < 0) {
        SetPortError(WindowsError(error));
        return INVALID_HANDLE_VALUE;
    }
    auto handle = std::make_unique<PortHandle>();
    handle->kind = HandleKind::ControlDevice;
    handle->descriptor = connection;
    return handle.release();
}

static bool SendAll(int connection, const void *data, size_t byteCount)
{
    const auto *bytes = static_cast<const uint8_t *>(data);
    while (byteCount != 0) {
        const ssize_t sent = send(connection, bytes, byteCount, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        bytes += sent;
        byteCount -= static_cast<size_t>(sent);
    }
    return true;
}

static bool ReceiveAll(int connection, void *data, size_t byteCount)
{
    auto *bytes = static_cast<uint8_t *>(data);
    while (byteCount != 0) {
        const ssize_t received = recv(connection, bytes, byteCount, 0);
        if (received < 0 && errno == EINTR) {
            continue;
        }
        if (received <= 0) {
            return false;
        }
        bytes += received;
        byteCount -= static_cast<size_t>(received);
    }
    return true;
}

static bool Exchange(int connection, const uint32_t *request, const void *input, uint32_t *reply, void *output)
{
    const uint32_t inputLength = request[1];
    const uint32_t outputLength = request[2];
    return SendAll(connection, request, 3 * sizeof(uint32_t)) && SendAll(connection, input, inputLength) &&
           ReceiveAll(connection, reply, 2 * sizeof(uint32_t)) && reply[1] <= outputLength &&
           ReceiveAll(connection, output, reply[1]);
}

BOOL ExchangeWithDevice(PortHandle *handle, DWORD controlCode, const void *input, DWORD inputLength, void *output,
                        DWORD outputLength, DWORD *bytesReturned)
{
    const uint32_t request[3] = {controlCode, inputLength, outputLength};
    uint32_t reply[2] = {0, 0};
    *bytesReturned = 0;
    if (handle->isBroken || !Exchange(handle->descriptor, request, input, reply, output)) {
        handle->isBroken = true;
        SetPortError(ERROR_IO_DEVICE);
        return FALSE;
    }
    *bytesReturned = reply[1];
    if (reply[0] != ERROR_SUCCESS) {
        SetPortError(reply[0]);
        return FALSE;
    }
    return TRUE;
}
