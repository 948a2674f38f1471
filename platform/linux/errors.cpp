// The last error, and the one place that turns a system error into a Windows number.
//
// Calls held here: GetLastError.
#include "port.h"

#include <cerrno>
#include <sys/stat.h>

static constexpr DWORD notReady = 21; // ERROR_NOT_READY

static thread_local DWORD lastError = ERROR_SUCCESS;

void SetPortError(DWORD error)
{
    lastError = error;
}

extern "C" DWORD GetLastError(void)
{
    return lastError;
}

DWORD WindowsError(int systemError)
{
    switch (systemError) {
    case 0:
        return ERROR_SUCCESS;
    case ENOENT:
    case ENXIO:
    case ENODEV:
    case ECONNREFUSED:
        return ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
    case ENAMETOOLONG:
    case ELOOP:
        return ERROR_PATH_NOT_FOUND;
    case EMFILE:
    case ENFILE:
        return ERROR_TOO_MANY_OPEN_FILES;
    case EACCES:
    case EPERM:
    case EISDIR:
        return ERROR_ACCESS_DENIED;
    case EBADF:
        return ERROR_INVALID_HANDLE;
    case ENOMEM:
        return ERROR_NOT_ENOUGH_MEMORY;
    case EROFS:
        return ERROR_WRITE_PROTECT;
    case EBUSY:
    case ETXTBSY:
    case EWOULDBLOCK:
        return ERROR_SHARING_VIOLATION;
    case ENOMEDIUM:
        return notReady;
    case EOPNOTSUPP:
    case ENOSYS:
    case ENOLCK:
    case ENOTTY:
        return ERROR_NOT_SUPPORTED;
    case EEXIST:
        return ERROR_FILE_EXISTS;
    case EINVAL:
    case EFAULT:
        return ERROR_INVALID_PARAMETER;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return ERROR_DISK_FULL;
    default:
        return ERROR_IO_DEVICE;
    }
}

DWORD WindowsErrorOfPath(int systemError, const std::string &path)
{
    if (systemError != ENOENT) {
        return WindowsError(systemError);
    }
    const size_t separator = path.find_last_of('/');
    if (separator == std::string::npos || separator == 0) {
        return path.empty() ? ERROR_PATH_NOT_FOUND : ERROR_FILE_NOT_FOUND;
    }
    struct stat parent = {};
    const bool parentIsFolder = stat(path.substr(0, separator).c_str(), &parent) == 0 && S_ISDIR(parent.st_mode);
    return parentIsFolder ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

DWORD WindowsErrorOfTransfer(int systemError, bool isWrite)
{
    switch (systemError) {
    case EBADF: // the handle is open, but not in this direction
        return ERROR_ACCESS_DENIED;
    case ENODATA: // what the block layer says of a bad sector
    case EILSEQ:
    case EBADMSG: // checksums that don't hold
        return isWrite ? ERROR_IO_DEVICE : ERROR_CRC;
    case ENXIO:
    case ENODEV: // the device went away
        return ERROR_IO_DEVICE;
    default:
        return WindowsError(systemError);
    }
}
