// Ordinary files where Linux has something of its own to say: other processes, rights, mounts, limits, what is neither
// file nor folder, names of bytes, and the arguments that the port refuses because the program never passes them.
#include "linux_test_machine.h"
#include "port.h"
#include "test_files.h"

#include <winioctl.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

static constexpr DWORD poison = 0xDEAD;

struct LinuxFilesTest : testing::Test {
    std::string Path(const std::string &name = "file") const
    {
        return folder.File(name);
    }

    ScratchFolder folder;
};

// The error number of a failed open; 0 if it did not fail.
static DWORD ErrorOf(HANDLE handle)
{
    const DWORD error = GetLastError();
    if (handle != INVALID_HANDLE_VALUE) {
        CloseHandle(handle);
        return ERROR_SUCCESS;
    }
    return error;
}

static DWORD ErrorOfReading(const std::string &path)
{
    SetPortError(poison);
    return ErrorOf(OpenToRead(path));
}

static DWORD ErrorOfWriting(const std::string &path, DWORD disposition = CREATE_ALWAYS)
{
    SetPortError(poison);
    return ErrorOf(OpenToWrite(path, disposition));
}

// ---- Other processes ----

TEST_F(LinuxFilesTest, AReaderKeepsWritersOfOtherProcessesOut)
{
    WriteBytes(Path(), "content");
    const OwnedHandle reader(OpenToRead(Path()));
    EXPECT_EQ(ResultOfChild([&] { return ErrorOfWriting(Path()); }), 32);
    EXPECT_EQ(ResultOfChild([&] { return ErrorOfReading(Path()); }), 0);
    EXPECT_EQ(BytesOf(Path()), "content");
}

TEST_F(LinuxFilesTest, AWriterKeepsEverybodyOfOtherProcessesOut)
{
    const OwnedHandle writer(OpenToWrite(Path(), CREATE_NEW));
    EXPECT_EQ(WriteSome(writer.handle, "content"), 7U);
    EXPECT_EQ(ResultOfChild([&] { return ErrorOfWriting(Path()); }), 32);
    EXPECT_EQ(ResultOfChild([&] { return ErrorOfReading(Path()); }), 32);
    EXPECT_EQ(BytesOf(Path()), "content");
}

TEST_F(LinuxFilesTest, AProcessThatEndsKeepsNobodyOut)
{
    EXPECT_EQ(ResultOfChild([&] { return OpenToWrite(Path(), CREATE_NEW) == INVALID_HANDLE_VALUE ? 1U : 0U; }), 0);
    EXPECT_EQ(ErrorOfWriting(Path()), ERROR_SUCCESS);
}

TEST_F(LinuxFilesTest, HandlesAreNotLeftToOtherPrograms)
{
    WriteBytes(Path(), "content");
    const OwnedHandle reader(OpenToRead(Path()));
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry.path(), gone) == Path()) {
            EXPECT_EQ(std::system(("test ! -e /proc/self/fd/" + entry.path().filename().string()).c_str()), 0);
            return;
        }
    }
    FAIL() << "no descriptor of the file";
}

// ---- Rights, mounts and limits ----

TEST_F(LinuxFilesTest, WithoutPermissionAccessIsDenied)
{
    WriteBytes(Path(), "content");
    ASSERT_EQ(chmod(Path().c_str(), 0600), 0);
    ASSERT_EQ(chmod(folder.path.c_str(), 0755), 0);
    if (geteuid() != 0) {
        ASSERT_EQ(chmod(Path().c_str(), 0), 0);
        ASSERT_EQ(chmod(folder.path.c_str(), 0555), 0);
    }
    EXPECT_EQ(ResultOfChildWithoutRights([&] { return ErrorOfReading(Path()); }), 5);
    EXPECT_EQ(ResultOfChildWithoutRights([&] { return ErrorOfWriting(Path()); }), 5);
    EXPECT_EQ(ResultOfChildWithoutRights([&] { return ErrorOfWriting(Path("new"), CREATE_NEW); }), 5);
    ASSERT_EQ(chmod(folder.path.c_str(), 0755), 0);
    EXPECT_FALSE(std::filesystem::exists(Path("new")));
}

TEST_F(LinuxFilesTest, AReadOnlyMountIsWriteProtected)
{
    const Mount tmpfs("none", folder.path, "tmpfs");
    WriteBytes(Path(), "content");
    tmpfs.MakeReadOnly();
    EXPECT_EQ(ErrorOfWriting(Path()), ERROR_WRITE_PROTECT);
    EXPECT_EQ(ErrorOfWriting(Path("new")), ERROR_WRITE_PROTECT);
    EXPECT_EQ(ErrorOfWriting(Path("new"), CREATE_NEW), ERROR_WRITE_PROTECT);
    EXPECT_EQ(ErrorOfReading(Path()), ERROR_SUCCESS);
    EXPECT_EQ(BytesOf(Path()), "content");
}

TEST_F(LinuxFilesTest, AWriteThatFillsTheDiskTellsHowFarItCame)
{
    const Mount tmpfs("none", folder.path, "tmpfs", "size=64k");
    const OwnedHandle file(OpenToWrite(Path(), CREATE_NEW));
    const std::string content = SeededBytes(256 * 1024, 1);
    DWORD written = 0xEEEEEEEE;
    SetPortError(poison);
    EXPECT_FALSE(WriteFile(file.handle, content.data(), static_cast<DWORD>(content.size()), &written, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
    EXPECT_GT(written, 0U);
    EXPECT_LE(written, 65536U);
    EXPECT_EQ(BytesOf(Path()), content.substr(0, written));
}

TEST_F(LinuxFilesTest, TooManyOpenFilesAreTold)
{
    WriteBytes(Path(), "content");
    const auto withoutRoom = [&](const std::function<DWORD()> &open) {
        return ResultOfChild([&] {
            const rlimit none = {0, 0};
            return setrlimit(RLIMIT_NOFILE, &none) == 0 ? open() : 255;
        });
    };
    EXPECT_EQ(withoutRoom([&] { return ErrorOfReading(Path()); }), 4);
    EXPECT_EQ(withoutRoom([&] { return ErrorOfWriting(Path()); }), 4);
    EXPECT_EQ(withoutRoom([&] { return ErrorOfWriting(Path("new"), CREATE_NEW); }), 4);
    EXPECT_EQ(BytesOf(Path()), "content");
}

TEST_F(LinuxFilesTest, ARunningProgramIsInUse)
{
    const std::string program = Path("sleep");
    std::filesystem::copy_file("/bin/sleep", program);
    const pid_t child = fork();
    if (child == 0) {
        execl(program.c_str(), "sleep", "20", nullptr);
        _exit(1);
    }
    const std::string link = "/proc/" + std::to_string(child) + "/exe";
    std::error_code gone;
    for (int triesLeft = 500; triesLeft > 0 && std::filesystem::read_symlink(link, gone) != program; --triesLeft) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(ErrorOfWriting(program), ERROR_SHARING_VIOLATION);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(BytesOf(program), BytesOf("/bin/sleep"));
}

TEST_F(LinuxFilesTest, BytesThatCannotBeReadAreAnIoFault)
{
    // A process has nothing at address 0, which is the only unreadable byte that needs no broken disk.
    const OwnedHandle memory(OpenToRead("/proc/self/mem"));
    char byte = 0;
    DWORD moved = 1;
    SetPortError(poison);
    EXPECT_FALSE(ReadFile(memory.handle, &byte, 1, &moved, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(moved, 0U);
}

// ---- What is neither file nor folder, and links ----

TEST_F(LinuxFilesTest, APipeIsRefusedAtOnce)
{
    ASSERT_EQ(mkfifo(Path().c_str(), 0666), 0);
    EXPECT_EQ(ResultOfChild([&] { return ErrorOfReading(Path()); }), 5);
    EXPECT_EQ(ResultOfChild([&] { return ErrorOfWriting(Path()); }), 5);
    EXPECT_EQ(ResultOfChild([&] { return ErrorOfWriting(Path(), CREATE_NEW); }), 80);
}

TEST_F(LinuxFilesTest, ADeviceIsNoFile)
{
    EXPECT_EQ(ErrorOfReading("/dev/null"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(ErrorOfWriting("/dev/null"), ERROR_ACCESS_DENIED);
}

TEST_F(LinuxFilesTest, ALinkStandsForItsFile)
{
    WriteBytes(Path("target"), "content");
    std::filesystem::create_symlink("target", Path());
    const OwnedHandle reader(OpenToRead(Path()));
    EXPECT_EQ(ReadSome(reader.handle, 7), "content");
    EXPECT_EQ(ErrorOfWriting(Path("target")), ERROR_SHARING_VIOLATION);
}

TEST_F(LinuxFilesTest, AFileIsMadeWhereADanglingLinkPoints)
{
    std::filesystem::create_symlink("target", Path());
    EXPECT_EQ(ErrorOfReading(Path()), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(ErrorOfWriting(Path(), CREATE_NEW), ERROR_FILE_EXISTS);
    EXPECT_FALSE(std::filesystem::exists(Path("target")));
    SetPortError(poison);
    {
        const OwnedHandle made(OpenToWrite(Path(), CREATE_ALWAYS));
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    }
    EXPECT_TRUE(std::filesystem::is_regular_file(Path("target")));
    EXPECT_EQ(std::filesystem::status(Path("target")).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(LinuxFilesTest, LinksInACircleLeadNowhere)
{
    std::filesystem::create_symlink("file", Path());
    EXPECT_EQ(ErrorOfReading(Path()), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(ErrorOfWriting(Path()), ERROR_PATH_NOT_FOUND);
}

// ---- Names ----

TEST_F(LinuxFilesTest, EachByteOfANameCounts)
{
    std::string every;
    for (int byte = 1; byte < 256; ++byte) {
        if (byte != '/') {
            every.push_back(static_cast<char>(byte));
        }
    }
    const std::string path = Path(every);
    {
        const OwnedHandle file(OpenToWrite(path, CREATE_NEW));
        EXPECT_EQ(WriteSome(file.handle, "content"), 7U);
    }
    EXPECT_EQ(BytesOf(path), "content");
    EXPECT_EQ(GetFileAttributesA(path.c_str()), FILE_ATTRIBUTE_NORMAL);
    const OwnedHandle file(OpenToRead(path));
}

TEST_F(LinuxFilesTest, ABackslashIsNoSeparator)
{
    const OwnedHandle file(OpenToWrite(Path("a\\b"), CREATE_NEW));
    EXPECT_TRUE(std::filesystem::exists(Path("a\\b")));
}

TEST_F(LinuxFilesTest, APathMayBeAsLongAsTheSystemTakes)
{
    std::string path = folder.path;
    while (path.size() + 201 < PATH_MAX - 10) {
        path += "/" + std::string(200, 'f');
        std::filesystem::create_directory(path);
    }
    path += "/" + std::string(PATH_MAX - path.size() - 2, 'f');
    ASSERT_EQ(path.size(), size_t{PATH_MAX - 1});
    EXPECT_EQ(ErrorOfWriting(path, CREATE_NEW), ERROR_SUCCESS);
    EXPECT_EQ(ErrorOfReading(path), ERROR_SUCCESS);
    EXPECT_EQ(ErrorOfReading(path + "f"), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(ErrorOfReading(Path(std::string(256, 'f'))), ERROR_PATH_NOT_FOUND);
}

TEST_F(LinuxFilesTest, AFullPathKeepsLinksAndBytesAndAClosingSeparator)
{
    std::filesystem::create_directory_symlink("elsewhere", Path("link"));
    const struct {
        std::string path;
        std::string full;
    } cases[] = {
        {Path("link") + "/x", Path("link") + "/x"},
        {Path("link") + "/../x", Path("x")},
        {Path("\xC3\xA4\xFF\\x"), Path("\xC3\xA4\xFF\\x")},
        {Path("a//b/./"), Path("a/b/")},
        {"/", "/"},
        {"//", "/"},
        {"/..", "/"},
        {"/a/..", "/"},
    };
    for (const auto &known : cases) {
        char full[_MAX_PATH];
        ASSERT_NE(_fullpath(full, known.path.c_str(), sizeof(full)), nullptr) << known.path;
        EXPECT_EQ(std::string(full), known.full);
    }
}

TEST_F(LinuxFilesTest, ThereIsNoFullPathInAFolderThatIsGone)
{
    EXPECT_EQ(ResultOfChild([&]() -> DWORD {
                  char full[_MAX_PATH];
                  std::filesystem::create_directory(Path("gone"));
                  std::filesystem::current_path(Path("gone"));
                  std::filesystem::remove(Path("gone"));
                  return _fullpath(full, "x", sizeof(full)) == nullptr ? 0 : 1;
              }),
              0);
}

// ---- Arguments that the program never passes ----

TEST_F(LinuxFilesTest, OnlyTheProgramsOwnWaysOfOpeningAFileAreTaken)
{
    WriteBytes(Path(), "content");
    constexpr DWORD noBuffering = FILE_FLAG_NO_BUFFERING;
    const struct {
        DWORD access;
        DWORD share;
        DWORD disposition;
        DWORD flags;
    } requests[] = {
        {GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL},
        {GENERIC_READ, 0, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL},
        {GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL},
        {GENERIC_READ, FILE_SHARE_READ, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL},
        {GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0},
        {GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL | noBuffering},
        {GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL},
        {GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL},
        {GENERIC_WRITE, 0, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL},
        {GENERIC_WRITE, 0, 4, FILE_ATTRIBUTE_NORMAL},
        {GENERIC_WRITE, 0, CREATE_ALWAYS, 0},
        {GENERIC_WRITE, FILE_SHARE_READ, CREATE_NEW, FILE_ATTRIBUTE_NORMAL},
        {GENERIC_WRITE, 0, CREATE_NEW, FILE_ATTRIBUTE_NORMAL | noBuffering},
    };
    for (const auto &request : requests) {
        SetPortError(poison);
        EXPECT_EQ(ErrorOf(CreateFileW(Widen(Path()).c_str(), request.access, request.share, nullptr,
                                      request.disposition, request.flags, nullptr)),
                  ERROR_INVALID_PARAMETER)
            << std::hex << request.access << " " << request.share << " " << request.disposition << " " << request.flags;
    }
    EXPECT_EQ(BytesOf(Path()), "content");
}

TEST_F(LinuxFilesTest, PointersThatTheProgramNeverPassesAreRefused)
{
    WriteBytes(Path(), "content");
    const std::wstring path = Widen(Path());
    char block[64] = {};
    const auto expectRefused = [](bool result, const char *what) {
        EXPECT_FALSE(result) << what;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER) << what;
        SetPortError(poison);
    };
    const auto opens = [&](LPSECURITY_ATTRIBUTES security, HANDLE templateFile) {
        return CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, security, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                           templateFile) != INVALID_HANDLE_VALUE;
    };
    const OwnedHandle file(OpenToRead(Path()));
    const auto overlapped = reinterpret_cast<LPOVERLAPPED>(block);
    DWORD moved = 0;
    LARGE_INTEGER position = {};
    SetPortError(poison);
    expectRefused(opens(reinterpret_cast<LPSECURITY_ATTRIBUTES>(block), nullptr), "security attributes");
    expectRefused(opens(nullptr, file.handle), "a template");
    expectRefused(ReadFile(file.handle, block, 1, nullptr, nullptr) != FALSE, "a read without a count");
    expectRefused(ReadFile(file.handle, block, 1, &moved, overlapped) != FALSE, "an overlapped read");
    expectRefused(WriteFile(file.handle, block, 1, nullptr, nullptr) != FALSE, "a write without a count");
    expectRefused(WriteFile(file.handle, block, 1, &moved, overlapped) != FALSE, "an overlapped write");
    expectRefused(SetFilePointerEx(file.handle, position, &position, FILE_BEGIN) != FALSE, "a new position");
    expectRefused(SetFilePointerEx(file.handle, position, nullptr, 1) != FALSE, "another method");
    expectRefused(DeviceIoControl(file.handle, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, block, 8, &moved, nullptr) !=
                      FALSE,
                  "a control code for a file");
}

TEST_F(LinuxFilesTest, ClosingWhatIsNoHandleFails)
{
    for (const HANDLE handle : {HANDLE{nullptr}, INVALID_HANDLE_VALUE}) {
        SetPortError(poison);
        EXPECT_FALSE(CloseHandle(handle));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
}

// ---- The numbers of errors ----

TEST(ErrorNumbers, AreThoseOfTheSameFaultOnWindows)
{
    const struct {
        int systemError;
        DWORD number;
    } cases[] = {
        {0, 0},       {ENOENT, 2},   {ENXIO, 2},        {ENODEV, 2},   {ENOMEDIUM, 21},   {EOPNOTSUPP, 50},
        {ENOSYS, 50}, {EFAULT, 87},  {ECONNREFUSED, 2}, {ENOTDIR, 3},  {ENAMETOOLONG, 3}, {ELOOP, 3},
        {EMFILE, 4},  {ENFILE, 4},   {EACCES, 5},       {EPERM, 5},    {EISDIR, 5},       {EBADF, 6},
        {ENOMEM, 8},  {EROFS, 19},   {EBUSY, 32},       {ETXTBSY, 32}, {EWOULDBLOCK, 32}, {ENOLCK, 50},
        {ENOTTY, 50}, {EEXIST, 80},  {EINVAL, 87},      {ENOSPC, 112}, {EDQUOT, 112},     {EFBIG, 112},
        {EIO, 1117},  {EPIPE, 1117},
    };
    for (const auto &known : cases) {
        EXPECT_EQ(WindowsError(known.systemError), known.number) << known.systemError;
    }
}

TEST(ErrorNumbers, OfTransfersTellABadSectorFromADeviceThatFails)
{
    const struct {
        int systemError;
        DWORD reading;
        DWORD writing;
    } cases[] = {
        {EIO, 1117, 1117},  {ENODATA, 23, 1117}, {EILSEQ, 23, 1117},   {EBADMSG, 23, 1117}, {EBADF, 5, 5},
        {ENOSPC, 112, 112}, {ENXIO, 1117, 1117}, {ENODEV, 1117, 1117}, {ENOMEDIUM, 21, 21}, {ETIMEDOUT, 1117, 1117},
    };
    for (const auto &known : cases) {
        EXPECT_EQ(WindowsErrorOfTransfer(known.systemError, false), known.reading) << known.systemError;
        EXPECT_EQ(WindowsErrorOfTransfer(known.systemError, true), known.writing) << known.systemError;
    }
}

TEST(ErrorNumbers, BelongToTheirThread)
{
    SetPortError(poison);
    DWORD other = poison;
    std::thread([&] {
        other = GetLastError();
        SetPortError(ERROR_CRC);
    }).join();
    EXPECT_EQ(other, ERROR_SUCCESS);
    EXPECT_EQ(GetLastError(), poison);
}
