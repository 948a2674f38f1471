// Control devices: sockets in the devices folder, with a small server behind each that says exactly the bytes of the
// test.
#include "devices_folder.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

static constexpr DWORD controlCode = 0x8C7D2008;
static constexpr DWORD untouched = 0xEEEEEEEE;

// A socket that listens at folder/name; the folder's path may be of any length.
static int Listen(const std::string &folder, const std::string &name, int backlog)
{
    const int folderDescriptor = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    const std::string path = "/proc/self/fd/" + std::to_string(folderDescriptor) + "/" + name;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0) << strerror(errno);
    EXPECT_EQ(listen(listener, backlog), 0);
    close(folderDescriptor);
    return listener;
}

// The next connection, or -1, and a failed test, if none comes.
static int Accept(int listener)
{
    pollfd waiting = {listener, POLLIN, 0};
    const bool came = poll(&waiting, 1, 10000) == 1;
    EXPECT_TRUE(came) << "no connection came";
    return came ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

// Everything that arrives until byteCount bytes are there or the other end closes.
static std::string Receive(int connection, size_t byteCount)
{
    std::string bytes(byteCount, '\0');
    const ssize_t received = recv(connection, bytes.data(), byteCount, MSG_WAITALL);
    bytes.resize(received < 0 ? 0 : static_cast<size_t>(received));
    return bytes;
}

static void Say(int connection, const std::string &bytes)
{
    EXPECT_EQ(send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

static std::string Number(uint32_t value)
{
    std::string bytes;
    for (int i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<char>(value >> (8 * i)));
    }
    return bytes;
}

// Serves the connections one after the other until as many as were announced have come; serve gets the connection and
// its number from 0.
struct Server {
    Server(const std::string &folder, const std::function<void(int, int)> &serve, int connectionCount = 1)
        : listener(Listen(folder, "Tallier", 8))
    {
        sigset_t alarm;
        sigset_t before;
        sigemptyset(&alarm);
        sigaddset(&alarm, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &alarm, &before); // the timers of these tests are for the client
        thread = std::thread([this, serve, connectionCount] {
            for (int i = 0; i < connectionCount; ++i) {
                const int connection = Accept(listener);
                if (connection < 0) {
                    return;
                }
                serve(connection, i);
                close(connection);
            }
        });
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    ~Server()
    {
        WaitForEnd();
        close(listener);
    }

    void WaitForEnd()
    {
        if (thread.joinable()) {
            thread.join();
        }
    }

    int listener;
    std::thread thread;
};

struct ControlDeviceTest : DevicesTest {
    static HANDLE Open()
    {
        return OpenDevice("Tallier", GENERIC_READ | GENERIC_WRITE, 0, 0);
    }

    // One exchange with the given input and room for outputLength bytes.
    BOOL Control(HANDLE device, const std::string &input, DWORD outputLength)
    {
        std::string copy = input;
        output.assign(outputLength + 1, '\xEE'); // one more, which has to stay as it is
        moved = untouched;
        SetPortError(poison);
        const BOOL result = DeviceIoControl(device, controlCode, copy.data(), static_cast<DWORD>(copy.size()),
                                            outputLength == 0 ? nullptr : output.data(), outputLength, &moved, nullptr);
        EXPECT_EQ(output.back(), '\xEE');
        output.pop_back();
        return result;
    }

    std::string output;
    DWORD moved = 0;
};

TEST_F(ControlDeviceTest, AnExchangeCarriesTheseBytes)
{
    std::string request;
    const Server server(folder, [&](int connection, int) {
        request = Receive(connection, 12 + 5);
        Say(connection, Number(0) + Number(3) + "xyz");
    });
    const OwnedHandle device(Open());
    EXPECT_TRUE(Control(device.handle, "input", 7));
    EXPECT_EQ(moved, 3U);
    EXPECT_EQ(output, "xyz\xEE\xEE\xEE\xEE");
    EXPECT_EQ(GetLastError(), poison);
    EXPECT_EQ(request, std::string("\x08\x20\x7D\x8C\x05\0\0\0\x07\0\0\0input", 17));
}

TEST_F(ControlDeviceTest, AnExchangeMayCarryNothing)
{
    std::string request;
    const Server server(folder, [&](int connection, int) {
        request = Receive(connection, 12);
        Say(connection, Number(0) + Number(0));
    });
    const OwnedHandle device(Open());
    SetPortError(poison);
    EXPECT_TRUE(DeviceIoControl(device.handle, controlCode, nullptr, 0, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(request, std::string("\x08\x20\x7D\x8C\0\0\0\0\0\0\0\0", 12));
}

TEST_F(ControlDeviceTest, OneConnectionCarriesManyExchanges)
{
    const Server server(folder, [&](int connection, int) {
        for (uint32_t i = 0; i < 100; ++i) {
            Receive(connection, 12 + 8);
            Say(connection, Number(0) + Number(4) + Number(i));
        }
    });
    const OwnedHandle device(Open());
    for (uint32_t i = 0; i < 100; ++i) {
        ASSERT_TRUE(Control(device.handle, "12345678", 4));
        ASSERT_EQ(output, Number(i));
    }
}

TEST_F(ControlDeviceTest, LargeExchangesArriveWhole)
{
    const std::string input = SeededBytes(3 * 1024 * 1024, 1);
    const std::string answer = SeededBytes(5 * 1024 * 1024, 2);
    std::string request;
    const Server server(folder, [&](int connection, int) {
        request = Receive(connection, 12 + input.size());
        Say(connection, Number(0) + Number(static_cast<uint32_t>(answer.size())) + answer);
    });
    const OwnedHandle device(Open());
    EXPECT_TRUE(Control(device.handle, input, static_cast<DWORD>(answer.size())));
    EXPECT_TRUE(request.substr(12) == input);
    EXPECT_TRUE(output == answer);
}

TEST_F(ControlDeviceTest, AnErrorComesWithItsBytes)
{
    const Server server(folder, [&](int connection, int) {
        Receive(connection, 12 + 8);
        Say(connection, Number(234) + Number(4) + "data");
        Receive(connection, 12 + 8);
        Say(connection, Number(0xFFFFFFFF) + Number(0));
        Receive(connection, 12 + 8);
        Say(connection, Number(0) + Number(4) + "more");
    });
    const OwnedHandle device(Open());
    EXPECT_FALSE(Control(device.handle, "12345678", 4));
    EXPECT_EQ(GetLastError(), 234U);
    EXPECT_EQ(moved, 4U);
    EXPECT_EQ(output, "data");
    EXPECT_FALSE(Control(device.handle, "12345678", 4));
    EXPECT_EQ(GetLastError(), 0xFFFFFFFFU);
    EXPECT_EQ(moved, 0U);
    EXPECT_TRUE(Control(device.handle, "12345678", 4));
    EXPECT_EQ(output, "more");
}

TEST_F(ControlDeviceTest, AReplyThatIsTooLongBreaksTheConnection)
{
    bool askedAgain = true;
    Server server(folder, [&](int connection, int) {
        Receive(connection, 12 + 8);
        Say(connection, Number(0) + Number(5) + "12345");
        askedAgain = !Receive(connection, 1).empty();
    });
    {
        const OwnedHandle device(Open());
        EXPECT_FALSE(Control(device.handle, "12345678", 4));
        EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
        EXPECT_EQ(moved, 0U);
        EXPECT_EQ(output, "\xEE\xEE\xEE\xEE");
        EXPECT_FALSE(Control(device.handle, "12345678", 8));
        EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
        EXPECT_EQ(moved, 0U);
    }
    server.WaitForEnd();
    EXPECT_FALSE(askedAgain);
}

TEST_F(ControlDeviceTest, AReplyThatBreaksOffFailsTheCallAndEveryLaterOne)
{
    const std::string replies[] = {"", Number(0), Number(0) + "\x04", Number(0) + Number(4) + "dat"};
    for (const std::string &reply : replies) {
        {
            Server server(folder, [&](int connection, int) {
                Receive(connection, 12 + 8);
                Say(connection, reply);
            });
            const OwnedHandle device(Open());
            EXPECT_FALSE(Control(device.handle, "12345678", 4)) << reply.size();
            EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE) << reply.size();
            EXPECT_EQ(moved, 0U) << reply.size();
            server.WaitForEnd();
            EXPECT_FALSE(Control(device.handle, "12345678", 4)) << reply.size();
            EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE) << reply.size();
        }
        std::filesystem::remove(Device("Tallier"));
    }
}

TEST_F(ControlDeviceTest, ADeviceThatHangsUpDoesNotEndTheProgram)
{
    Server server(folder, [](int, int) {});
    const OwnedHandle device(Open());
    server.WaitForEnd();
    EXPECT_FALSE(Control(device.handle, "12345678", 4));
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
}

TEST_F(ControlDeviceTest, ASlowReplyArrivesPieceByPiece)
{
    const Server server(folder, [&](int connection, int) {
        Receive(connection, 12 + 8);
        for (const char byte : Number(0) + Number(10) + "0123456789") {
            Say(connection, std::string(1, byte));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    const OwnedHandle device(Open());
    EXPECT_TRUE(Control(device.handle, "12345678", 10));
    EXPECT_EQ(output, "0123456789");
}

TEST_F(ControlDeviceTest, SignalsDoNotDisturbAnExchange)
{
    const std::string input = SeededBytes(4 * 1024 * 1024, 3);
    std::string request;
    const Server server(folder, [&](int connection, int) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        request = Receive(connection, 12 + input.size());
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        Say(connection, Number(0) + Number(4));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        Say(connection, "data");
    });
    const OwnedHandle device(Open());
    const Interruptions interruptions;
    EXPECT_TRUE(Control(device.handle, input, 4)) << GetLastError();
    EXPECT_EQ(output, "data");
    EXPECT_GT(Interruptions::Count(), 5);
    EXPECT_TRUE(request.substr(12) == input);
}

TEST_F(ControlDeviceTest, SignalsDoNotDisturbAnOpenThatHasToWait)
{
    const int listener = Listen(folder, "Tallier", 0);
    const OwnedHandle first(Open()); // all that the listener lets wait
    std::thread acceptor([listener] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        close(Accept(listener));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        close(Accept(listener));
    });
    {
        const Interruptions interruptions;
        EXPECT_EQ(ErrorOf(Open()), ERROR_SUCCESS);
        EXPECT_GT(Interruptions::Count(), 5);
    }
    acceptor.join();
    close(listener);
}

TEST_F(ControlDeviceTest, EachHandleHasAConnectionOfItsOwn)
{
    const Server server(
        folder,
        [](int connection, int number) {
            Receive(connection, 12 + 8);
            Say(connection, Number(0) + Number(1) + std::string(1, static_cast<char>('a' + number)));
        },
        2);
    const OwnedHandle one(Open());
    const OwnedHandle other(Open());
    EXPECT_TRUE(Control(one.handle, "12345678", 1));
    EXPECT_EQ(output, "a");
    EXPECT_TRUE(Control(other.handle, "12345678", 1));
    EXPECT_EQ(output, "b");
}

TEST_F(ControlDeviceTest, TheFoldersPathMayBeLong)
{
    const ScratchFolder scratch;
    const std::string deep = scratch.File(std::string(200, 'd'));
    std::filesystem::create_directory(deep);
    const Server server(deep, [](int connection, int) {
        Receive(connection, 12 + 8);
        Say(connection, Number(0) + Number(4) + "data");
    });
    const ::Device device = FindDeviceInFolder(deep, "Tallier");
    ASSERT_EQ(device.kind, DeviceKind::ControlDevice);
    const OwnedHandle opened(OpenControlDevice(device.folder, device.name));
    EXPECT_TRUE(Control(opened.handle, "12345678", 4));
    EXPECT_EQ(output, "data");
}

TEST_F(ControlDeviceTest, WithoutASocketOrAServerThereIsNoDevice)
{
    EXPECT_EQ(ErrorOf(Open()), ERROR_FILE_NOT_FOUND);
    WriteBytes(Device("Tallier"), "");
    EXPECT_EQ(ErrorOf(Open()), ERROR_FILE_NOT_FOUND);
    std::filesystem::remove(Device("Tallier"));
    close(Listen(folder, "Tallier", 1));
    ASSERT_TRUE(std::filesystem::is_socket(Device("Tallier")));
    EXPECT_EQ(ErrorOf(Open()), ERROR_FILE_NOT_FOUND);
}

TEST_F(ControlDeviceTest, ASocketElsewhereIsNoDevice)
{
    std::filesystem::create_directory(Device("inner"));
    const int listener = Listen(Device("inner"), "Tallier", 8);
    for (const char *name : {"inner/Tallier", "inner/../inner/Tallier", "./inner/Tallier"}) {
        EXPECT_EQ(ErrorOf(OpenDevice(name, GENERIC_READ | GENERIC_WRITE, 0, 0)), ERROR_FILE_NOT_FOUND) << name;
    }
    close(listener);
}

TEST_F(ControlDeviceTest, IsOpenedInTheProgramsOwnWayAlone)
{
    const int listener = Listen(folder, "Tallier", 1);
    const struct {
        DWORD access;
        DWORD share;
        DWORD flags;
    } requests[] = {
        {GENERIC_READ, 0, 0},
        {GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, 0},
        {GENERIC_READ | GENERIC_WRITE, 0, FILE_ATTRIBUTE_NORMAL},
    };
    for (const auto &request : requests) {
        EXPECT_EQ(ErrorOf(OpenDevice("Tallier", request.access, request.share, request.flags)),
                  ERROR_INVALID_PARAMETER);
    }
    close(listener);
}

TEST_F(ControlDeviceTest, TransfersNothingOutsideOfExchanges)
{
    const Server server(folder, [](int, int) {});
    const OwnedHandle device(Open());
    char byte = 0;
    DWORD transferred = 0;
    SetPortError(poison);
    EXPECT_FALSE(ReadFile(device.handle, &byte, 1, &transferred, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    SetPortError(poison);
    EXPECT_FALSE(WriteFile(device.handle, &byte, 1, &transferred, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}
