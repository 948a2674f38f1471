// The client of the change-tracking driver, operation by operation: the requests byte by byte, the two-step query, the
// range test at the edges of blocks and of the bitmap, the commit. Nothing of it may print or end the process.
#include "tracker/change_tracker.h"

#include "simulator/images.h"
#include "simulator/run_command.h"

#include <gtest/gtest.h>

namespace
{
constexpr DWORD attachCode = 0x8C7D2004;
constexpr DWORD queryCode = 0x8C7D2008;
constexpr DWORD commitCode = 0x8C7D200C;

struct TrackerClient : testing::Test {
    TrackerClient()
    {
        machine.tracker = Tracker();
        machine.tracker->reply.bitmap = {0x01, 0x80};
    }

    // Runs body, which must come to its end without a word.
    void Run(const std::function<void()> &body)
    {
        const RunResult result = RunCode(machine, body);
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_FALSE(result.abnormalEnd) << result.abnormalText;
        EXPECT_EQ(result.outputText, "");
        EXPECT_EQ(result.errorText, "");
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
    }

    bool OpenAndQuery()
    {
        bool queried = false;
        Run([&] {
            EXPECT_TRUE(client.Open(7));
            queried = client.Query();
        });
        return queried;
    }

    std::vector<Call> Controls(DWORD code)
    {
        std::vector<Call> found;
        for (const Call &call : CallsOf(machine, "DeviceIoControl", "tracker")) {
            if (Field(call, "code") == code) {
                found.push_back(call);
            }
        }
        return found;
    }

    Machine machine;
    ChangeTracker client;
};

struct RangeCase {
    const char *name;
    uint32_t blockShift;
    Bytes bitmap;
    uint64_t offset;
    uint64_t length;
    bool isDirty;
};

const Bytes request7 = {7, 0, 0, 0, 0, 0, 0, 0};
} // namespace

TEST_F(TrackerClient, BeginsWithNothing)
{
    EXPECT_EQ(client.handle, INVALID_HANDLE_VALUE);
    EXPECT_EQ(client.diskNumber, 0U);
    EXPECT_FALSE(client.attached);
    EXPECT_EQ(client.state.header.active, 0U);
    EXPECT_TRUE(client.state.bitmap.empty());
}

TEST_F(TrackerClient, OpensTheDeviceAloneAndAttachesTheDisk)
{
    Run([this] { EXPECT_TRUE(client.Open(7)); });
    EXPECT_TRUE(client.attached);
    EXPECT_EQ(LogText(machine),
              "CreateFileW \\\\.\\Tallier access=0xC0000000 share=0x0 disposition=3 flags=0x0 -> tracker#1\n"
              "DeviceIoControl tracker#1 code=0x8C7D2004 input=8 output=0\n");
    EXPECT_EQ(Field(CallsOf(machine, "CreateFileW")[0], "security"), 0U);
    EXPECT_EQ(Field(CallsOf(machine, "CreateFileW")[0], "template"), 0U);
}

TEST_F(TrackerClient, NamesTheDiskInEveryRequest)
{
    Run([this] {
        client.Open(0x81020304);
        client.Query();
        client.Commit();
    });
    const Bytes request = {4, 3, 2, 0x81, 0, 0, 0, 0};
    for (const Call &call : CallsOf(machine, "DeviceIoControl")) {
        EXPECT_EQ(Bytes(call.input.begin(), call.input.begin() + 8), request);
        EXPECT_EQ(call.input.size(), Field(call, "code") == commitCode ? 16U : 8U);
        EXPECT_EQ(Field(call, "count"), 1U);
        EXPECT_EQ(Field(call, "overlapped"), 0U);
    }
    EXPECT_EQ(Controls(attachCode)[0].buffer, nullptr);
    EXPECT_EQ(Controls(commitCode)[0].buffer, nullptr);
    EXPECT_EQ(CountCalls(machine, "DeviceIoControl"), 4U);
}

TEST_F(TrackerClient, IsNotAttachedWithoutTheDevice)
{
    machine.tracker.reset();
    Run([this] { EXPECT_FALSE(client.Open(7)); });
    EXPECT_FALSE(client.attached);
    EXPECT_EQ(client.diskNumber, 7U);
    EXPECT_EQ(client.handle, INVALID_HANDLE_VALUE);
    EXPECT_EQ(CountCalls(machine, "DeviceIoControl"), 0U);
}

TEST_F(TrackerClient, IsNotAttachedWhenTheOpenIsRefused)
{
    machine.tracker->openError = ERROR_ACCESS_DENIED;
    Run([this] { EXPECT_FALSE(client.Open(7)); });
    EXPECT_FALSE(client.attached);
    EXPECT_EQ(client.handle, INVALID_HANDLE_VALUE);
}

TEST_F(TrackerClient, KeepsTheDeviceOpenWhenTheAttachIsRefused)
{
    machine.tracker->attachError = ERROR_NOT_SUPPORTED;
    Run([this] { EXPECT_FALSE(client.Open(7)); });
    EXPECT_FALSE(client.attached);
    EXPECT_NE(client.handle, INVALID_HANDLE_VALUE);
    EXPECT_EQ(CountCalls(machine, "CloseHandle"), 0U);
}

TEST_F(TrackerClient, AsksForTheHeaderFirstAndThenForBoth)
{
    EXPECT_TRUE(OpenAndQuery());
    const std::vector<Call> queries = Controls(queryCode);
    ASSERT_EQ(queries.size(), 2U);
    EXPECT_EQ(Field(queries[0], "outputLength"), 48U);
    EXPECT_TRUE(queries[0].failed);
    EXPECT_EQ(Field(queries[1], "outputLength"), 50U);
    EXPECT_EQ(queries[0].input, request7);
    EXPECT_EQ(queries[1].input, request7);
    EXPECT_NE(queries[0].buffer, queries[1].buffer);
}

TEST_F(TrackerClient, StoresEveryFieldOfTheReply)
{
    machine.tracker->reply = {1, 2, 0x0303030303030303, 0x8404040404040404, 5, 6, 0x0707070707070707, 8, {}, {9, 10}};
    EXPECT_TRUE(OpenAndQuery());
    const TrackerStateHeader &header = client.state.header;
    EXPECT_EQ(header.active, 1U);
    EXPECT_EQ(header.hasPreviousEpoch, 2U);
    EXPECT_EQ(header.previousEpoch, 0x0303030303030303U);
    EXPECT_EQ(header.currentEpoch, 0x8404040404040404U);
    EXPECT_EQ(header.secondaryGap, 5U);
    EXPECT_EQ(header.gap, 6U);
    EXPECT_EQ(header.trackedExtent, 0x0707070707070707U);
    EXPECT_EQ(header.blockShift, 8U);
    EXPECT_EQ(header.bitmapBytes, 2U);
    EXPECT_EQ(client.state.bitmap, (Bytes{9, 10}));
}

TEST_F(TrackerClient, LooksAtTheFirstReplysBytesAndNotAtItsResult)
{
    Fault &fault = FailControl(machine, queryCode, 1, ERROR_IO_DEVICE);
    fault.afterEffect = true;
    machine.tracker->reply.bitmap = {};
    EXPECT_TRUE(OpenAndQuery());
    EXPECT_EQ(Controls(queryCode).size(), 2U);
}

TEST_F(TrackerClient, GivesUpWhenTheFirstCallWritesNothing)
{
    machine.tracker->queryError = ERROR_IO_DEVICE;
    EXPECT_FALSE(OpenAndQuery());
    EXPECT_EQ(Controls(queryCode).size(), 1U);
}

TEST_F(TrackerClient, ClearsTheFirstRecordAndSendsASecondZeroed)
{
    std::vector<bool> areZero;
    machine.onCall = [&areZero](Machine &, const Call &call) {
        if (call.name == "DeviceIoControl" && Field(call, "code") == queryCode) {
            const uint8_t *bytes = static_cast<const uint8_t *>(call.buffer);
            areZero.push_back(Bytes(bytes, bytes + Field(call, "outputLength")) == Bytes(Field(call, "outputLength")));
        }
    };
    EXPECT_TRUE(OpenAndQuery());
    EXPECT_EQ(areZero, (std::vector<bool>{true, true}));
}

TEST_F(TrackerClient, GivesUpAfterTheFirstCallOnADiskWithoutTracking)
{
    machine.tracker->reply.active = 0;
    EXPECT_FALSE(OpenAndQuery());
    EXPECT_EQ(Controls(queryCode).size(), 1U);
    machine.tracker->reply.active = 1;
    machine.tracker->reply.trackedExtent = 0;
    EXPECT_FALSE(OpenAndQuery());
    EXPECT_EQ(Controls(queryCode).size(), 1U);
}

TEST_F(TrackerClient, TakesAnyValueButZeroForTracking)
{
    machine.tracker->reply.active = 0x80000000;
    machine.tracker->reply.trackedExtent = 0x100000000;
    EXPECT_TRUE(OpenAndQuery());
}

TEST_F(TrackerClient, KeepsItsStateWhenALaterQueryFails)
{
    EXPECT_TRUE(OpenAndQuery());
    machine.tracker->reply.currentEpoch = 99;
    machine.tracker->reply.bitmap = {1, 2, 3};
    FailControl(machine, queryCode, 2, ERROR_IO_DEVICE).afterEffect = true;
    EXPECT_FALSE(OpenAndQuery());
    EXPECT_EQ(client.state.header.currentEpoch, 1U);
    EXPECT_EQ(client.state.bitmap, (Bytes{0x01, 0x80}));
    machine.faults.clear();
    machine.tracker->reply.active = 0;
    EXPECT_FALSE(OpenAndQuery());
    EXPECT_EQ(client.state.header.currentEpoch, 1U);
}

TEST_F(TrackerClient, TakesTheBitmapsLengthFromTheFirstReplyAndAllElseFromTheSecond)
{
    TrackerReply later;
    later.active = 0; // looked at in the first reply alone
    later.trackedExtent = 0;
    later.hasPreviousEpoch = 1;
    later.previousEpoch = 41;
    later.currentEpoch = 42;
    later.blockShift = 12;
    later.bitmapBytes = 77;
    later.bitmap = {0xAA, 0xBB};
    machine.tracker->laterReply = later;
    EXPECT_TRUE(OpenAndQuery());
    EXPECT_EQ(client.state.header.previousEpoch, 41U);
    EXPECT_EQ(client.state.header.currentEpoch, 42U);
    EXPECT_EQ(client.state.header.blockShift, 12U);
    EXPECT_EQ(client.state.header.bitmapBytes, 77U);
    EXPECT_EQ(client.state.bitmap, (Bytes{0xAA, 0xBB}));
}

TEST_F(TrackerClient, ReadsBlocksAsCleanThatTheSecondReplyLeftOut)
{
    machine.tracker->reply.blockShift = 12;
    machine.tracker->reply.bitmap = {0xFF, 0xFF, 0xFF, 0xFF};
    FailControl(machine, queryCode, 2, 0).transferBytes = 49;
    EXPECT_TRUE(OpenAndQuery());
    EXPECT_EQ(client.state.bitmap, (Bytes{0xFF, 0, 0, 0}));
    EXPECT_TRUE(client.IsRangeDirty(7 << 12, 1 << 12));
    EXPECT_FALSE(client.IsRangeDirty(8 << 12, 1 << 12));
    EXPECT_TRUE(client.IsRangeDirty(32 << 12, 1 << 12));
}

TEST_F(TrackerClient, WithoutABitmapTakesEveryRangeForDirty)
{
    machine.tracker->reply.bitmap = {};
    EXPECT_TRUE(OpenAndQuery());
    EXPECT_EQ(Field(Controls(queryCode)[1], "outputLength"), 48U);
    EXPECT_TRUE(client.state.bitmap.empty());
    EXPECT_TRUE(client.IsRangeDirty(0, 1));
    EXPECT_TRUE(client.IsRangeDirty(GiB, 4 * MiB));
}

TEST_F(TrackerClient, HasNoAnswerToABitmapThatMemoryCanNotTake)
{
    machine.memoryBytes = MiB;
    for (const uint32_t bitmapBytes : {0x200000U, 0xFFFFFFCFU}) { // the latter is the longest that a reply can hold
        machine.tracker->reply.bitmapBytes = bitmapBytes;
        const RunResult result = RunCode(machine, [this] {
            client.Open(7);
            client.Query();
        });
        EXPECT_TRUE(result.abnormalEnd) << bitmapBytes;
        EXPECT_EQ(Controls(queryCode).size(), 1U);
    }
}

// A reply's length is told in 32 bits; one of 4 GiB would come as a part of itself.
TEST_F(TrackerClient, GivesUpAfterTheFirstCallOnABitmapThatNoReplyHolds)
{
    machine.memoryBytes = MiB;
    for (const uint32_t bitmapBytes : {0xFFFFFFD0U, 0xFFFFFFFFU}) {
        machine.tracker->reply.bitmapBytes = bitmapBytes;
        EXPECT_FALSE(OpenAndQuery());
        EXPECT_EQ(Controls(queryCode).size(), 1U);
    }
}

TEST_F(TrackerClient, TestsRangesByTheBlocksThatTheyTouch)
{
    const RangeCase cases[] = {
        {"chunk 2 of 4 MiB has blocks 8 to 11: all clear", 20, {0xFF, 0xF0}, 8 * MiB, 4 * MiB, false},
        {"the first of them set", 20, {0x00, 0x01}, 8 * MiB, 4 * MiB, true},
        {"the last of them set", 20, {0x00, 0x08}, 8 * MiB, 4 * MiB, true},
        {"the one in front set", 20, {0x80, 0x00}, 8 * MiB, 4 * MiB, false},
        {"lowest bit first", 20, {0x01}, 0, 1, true},
        {"highest bit last", 20, {0x80}, 7 * MiB, MiB, true},
        {"the last byte of a block", 20, {0xFD}, 2 * MiB - 1, 1, false},
        {"one byte into the next block", 20, {0xFD}, 2 * MiB - 1, 2, true},
        {"inside of one clear block", 20, {0xFD}, MiB + 512, 512, false},
        {"inside of one set block", 20, {0x02}, MiB + 512, 512, true},
        {"up to the bitmap's end", 20, {0x00}, 4 * MiB, 4 * MiB, false},
        {"a byte beyond the bitmap's end", 20, {0x00}, 4 * MiB, 4 * MiB + 1, true},
        {"wholly beyond the bitmap's end", 20, {0x00}, 8 * MiB, 1, true},
        {"a block larger than the range, clear", 23, {0xFE}, 4 * MiB, 4 * MiB, false},
        {"a block larger than the range, set", 23, {0x01}, 4 * MiB, 4 * MiB, true},
        {"blocks of one byte", 0, {0x10}, 4, 1, true},
        {"blocks of one byte, beside it", 0, {0x10}, 5, 3, false},
        {"one block for the lower half of everything", 63, {0x02}, 0, 0x8000000000000000, false},
        {"the block of the upper half", 63, {0x02}, 0x8000000000000000, 1, true},
        {"an offset above 32 bits", 32, {0x00, 0x02}, 0x900000000, 0x1000, true},
        {"an offset above 32 bits, beside it", 32, {0x00, 0x02}, 0xA00000000, 0x1000, false},
        {"a range that ends before it begins", 20, {0xFF}, 0xFFFFFFFFFFFFFFFF, 2, false},
    };
    for (const RangeCase &one : cases) {
        client.state.header.blockShift = one.blockShift;
        client.state.bitmap = one.bitmap;
        EXPECT_EQ(client.IsRangeDirty(one.offset, one.length), one.isDirty) << one.name;
    }
}

TEST_F(TrackerClient, ProvesNothingByBlocksOfNoPossibleSize)
{
    client.state.bitmap = {0x00};
    for (const uint32_t shift : {64U, 84U, 0xFFFFFFFFU}) {
        client.state.header.blockShift = shift;
        EXPECT_TRUE(client.IsRangeDirty(0, 1)) << shift;
        EXPECT_TRUE(client.IsRangeDirty(0, 512)) << shift;
    }
}

TEST_F(TrackerClient, CommitsAllBitsOfItsOwnQuerysEpoch)
{
    machine.tracker->reply.currentEpoch = 0xF102030405060708;
    Run([this] {
        client.Open(7);
        client.Query();
        machine.tracker->reply.currentEpoch = 9; // the driver has moved on
        EXPECT_TRUE(client.Commit());
    });
    const std::vector<Call> commits = Controls(commitCode);
    ASSERT_EQ(commits.size(), 1U);
    EXPECT_EQ(commits[0].input, (Bytes{7, 0, 0, 0, 0, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 0xF1}));
    EXPECT_EQ(Field(commits[0], "outputLength"), 0U);
    EXPECT_EQ(machine.tracker->commits, std::vector<uint64_t>{0xF102030405060708});
}

TEST_F(TrackerClient, TellsARefusedCommit)
{
    machine.tracker->commitError = ERROR_IO_DEVICE;
    Run([this] {
        client.Open(7);
        client.Query();
        EXPECT_FALSE(client.Commit());
    });
    EXPECT_EQ(Controls(commitCode).size(), 1U);
}

TEST_F(TrackerClient, IsNoneOfTheOtherCommands)
{
    const Scratch scratch;
    ImagePlan plan;
    plan.disk = PatternBytes(4096, 1);
    plan.epoch = 1;
    WriteBytes("image.kstx", BuildImage(plan));
    machine.disks[1].bytes = Bytes(4096);
    const std::vector<std::vector<std::string>> commands = {
        {"list-disks"},
        {"verify", "--in", "image.kstx"},
        {"restore", "--in", "image.kstx", "--disk", "1", "--confirm", "YES"},
        {"consolidate", "--in", "image.kstx", "--out", "new.kstx"},
    };
    for (const std::vector<std::string> &command : commands) {
        EXPECT_EQ(RunCommand(machine, command).exitStatus, 0) << command[0];
        EXPECT_EQ(CountCalls(machine, "CreateFileW", "tracker"), 0U) << command[0];
    }
}
