// The law: whatever the peer of a control device's socket sends, a control call returns at most the bytes that the
// caller has room for, exactly those that the peer sent, and writes none beyond; it succeeds only on a whole reply with
// error 0; and after a reply that breaks off or claims more than was asked for, every later call on the handle fails
// with 1117.
//
// The input: how many calls are made (1 byte, its low two bits and one more), the room of each (2 bytes), and then all
// that the peer sends before it closes. What the replies are is worked out here a second time.
#include "fuzz/law.h"

#include "linux/port.h"

#include <winioctl.h>

#include <cstdlib>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

static constexpr DWORD controlCode = 0x8C7D2008;
static constexpr uint8_t untouched = 0xEE;

struct ExpectedReply {
    bool isBroken = true;
    uint32_t error = 0;
    Bytes bytes;
};

static ExpectedReply NextReply(Input &stream, uint32_t room)
{
    ExpectedReply reply;
    const bool hasHeader = stream.bytes.size() - stream.taken >= 8;
    reply.error = static_cast<uint32_t>(stream.Integer(4));
    const uint64_t length = stream.Integer(4);
    if (!hasHeader || length > room || length > stream.bytes.size() - stream.taken) {
        return reply;
    }
    reply.isBroken = false;
    reply.bytes = stream.Take(length);
    return reply;
}

static void CheckCall(HANDLE device, uint32_t room, const ExpectedReply &expected)
{
    // Of exactly that size, so that the sanitizer sees a byte beyond it.
    const std::unique_ptr<uint8_t, decltype(&free)> output(static_cast<uint8_t *>(malloc(room)), free);
    std::fill_n(output.get(), room, untouched);
    uint8_t request[8] = {1};
    DWORD returned = 0xEEEEEEEE;
    SetPortError(ERROR_SUCCESS);
    const BOOL succeeded =
        DeviceIoControl(device, controlCode, request, sizeof(request), output.get(), room, &returned, nullptr);
    const uint32_t error = expected.isBroken ? ERROR_IO_DEVICE : expected.error;
    Law((succeeded != FALSE) == (error == 0), "a call succeeds exactly on a whole reply without an error");
    Law(GetLastError() == error, "a failed call has the reply's error, a broken one 1117");
    Law(returned == expected.bytes.size(), "the count is that of the reply");
    if (!expected.isBroken) {
        Bytes whole = expected.bytes;
        whole.resize(room, untouched);
        Law(std::equal(whole.begin(), whole.end(), output.get()), "the bytes are the reply's, the others as before");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input(data, size);
    std::vector<uint32_t> rooms(input.Integer(1) % 4 + 1);
    for (uint32_t &room : rooms) {
        room = static_cast<uint32_t>(input.Integer(2));
    }
    const Bytes sent = input.Take(64 * 1024); // what a socket holds without a reader
    int ends[2];
    Law(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "a pair of sockets could be made");
    Law(send(ends[1], sent.data(), sent.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(sent.size()),
        "the peer could send");
    Law(shutdown(ends[1], SHUT_WR) == 0, "the peer could end its stream");
    auto record = std::make_unique<PortHandle>();
    record->kind = HandleKind::ControlDevice;
    record->descriptor = ends[0];
    const HANDLE device = record.release();
    Input stream(sent.data(), sent.size());
    bool isBroken = false;
    for (const uint32_t room : rooms) {
        const ExpectedReply expected = isBroken ? ExpectedReply() : NextReply(stream, room);
        isBroken = expected.isBroken;
        CheckCall(device, room, expected);
    }
    CloseHandle(device);
    close(ends[1]);
    return 0;
}
