// The law: whatever the change tracker answers, a capture on it ends with an image that holds, chunk for chunk, the
// base's bytes where the answer proves that nothing changed, and the disk's bytes everywhere else; with that epoch, and
// with a commit of that epoch, if and only if the tracker answered. What proves it is worked out here a second time.
// Only an answer that claims a bitmap beyond the machine's 4 MiB of memory may end the program abnormally.
//
// The input: flags; the base's epoch (8 bytes); a place on the disk and a length (8 and 2) that are tested against the
// bitmap on their own; then one or two answers, each the fields of its record, the length of
// the bitmap that is really there (2), and that bitmap. The disk is a single chunk of 4 KiB that differs from the base.
#include "fuzz/law.h"
#include "simulator/run_command.h"

#include "tracker/change_tracker.h"

static constexpr uint64_t diskBytes = 4096;
static constexpr uint64_t machineBytes = 4 * MiB; // as much as a capture asks for at once
static constexpr uint64_t epochMask = (uint64_t{1} << 56) - 1;
static constexpr uint32_t recordBytes = 48;

struct TrackerInput {
    bool thin = false;
    bool hasBase = false;
    bool equalDisk = false; // the disk holds what the base holds
    uint64_t baseEpoch = 0; // 56 bits
    uint64_t rangeOffset = 0;
    uint64_t rangeLength = 0;
    Tracker tracker;
};

// What the program has to make of the two answers.
struct Expected {
    bool outOfMemory = false;
    bool attached = false;
    TrackerReply state;
    Bytes bitmap; // of the first answer's length, with what the second one filled of it
};

static TrackerReply TakeReply(Input &input)
{
    TrackerReply reply;
    reply.active = static_cast<uint32_t>(input.Integer(4));
    reply.hasPreviousEpoch = static_cast<uint32_t>(input.Integer(4));
    reply.previousEpoch = input.Integer(8);
    reply.currentEpoch = input.Integer(8);
    reply.secondaryGap = static_cast<uint32_t>(input.Integer(4));
    reply.gap = static_cast<uint32_t>(input.Integer(4));
    reply.trackedExtent = input.Integer(8);
    reply.blockShift = static_cast<uint32_t>(input.Integer(4));
    reply.bitmapBytes = static_cast<uint32_t>(input.Integer(4));
    reply.bitmap = input.Take(input.Integer(2));
    return reply;
}

static TrackerInput TakeTrackerInput(Input &input)
{
    TrackerInput taken;
    const uint64_t flags = input.Integer(1);
    taken.thin = (flags & 1) != 0;
    taken.hasBase = (flags & 2) != 0;
    taken.equalDisk = (flags & 4) != 0;
    taken.tracker.attachError = (flags & 8) != 0 ? 5 : 0;
    taken.tracker.queryError = (flags & 16) != 0 ? 1 : 0;
    taken.tracker.commitError = (flags & 32) != 0 ? 87 : 0;
    taken.baseEpoch = input.Integer(8) & epochMask;
    taken.rangeOffset = input.Integer(8);
    taken.rangeLength = input.Integer(2) % 4096 + 1;
    taken.tracker.reply = TakeReply(input);
    if ((flags & 64) != 0) {
        taken.tracker.laterReply = TakeReply(input);
    }
    return taken;
}

static Expected Expect(const Tracker &tracker)
{
    Expected expected;
    const TrackerReply &first = tracker.reply;
    const bool usable = tracker.attachError == 0 && tracker.queryError == 0 && first.active != 0 &&
                        first.trackedExtent != 0 && *first.bitmapBytes <= UINT32_MAX - recordBytes;
    expected.state = tracker.laterReply.value_or(first);
    expected.outOfMemory = usable && *first.bitmapBytes + recordBytes > machineBytes;
    expected.attached = usable && expected.state.bitmap.size() <= *first.bitmapBytes;
    if (expected.attached && !expected.outOfMemory) {
        expected.bitmap = expected.state.bitmap;
        expected.bitmap.resize(*first.bitmapBytes);
    }
    return expected;
}

static bool IsProvedClean(const Expected &expected, uint64_t offset, uint64_t length)
{
    if (expected.state.blockShift > 63) {
        return false;
    }
    for (uint64_t byte = offset; byte < offset + length; ++byte) {
        const uint64_t block = byte >> expected.state.blockShift;
        if (block / 8 >= expected.bitmap.size() || (expected.bitmap[block / 8] >> block % 8) % 2 != 0) {
            return false;
        }
    }
    return true;
}

static void CheckRange(const TrackerInput &taken, const Expected &expected)
{
    if (taken.rangeOffset > UINT64_MAX - taken.rangeLength) {
        return; // no such place on any disk
    }
    Machine machine;
    machine.memoryBytes = machineBytes;
    machine.tracker = taken.tracker;
    RunCode(machine, [&] {
        ChangeTracker tracker;
        const bool answered = tracker.Open(1) && tracker.Query();
        Law(answered == expected.attached, "an answer is taken exactly when it is one");
        Law(!answered || tracker.IsRangeDirty(taken.rangeOffset, taken.rangeLength) !=
                             IsProvedClean(expected, taken.rangeOffset, taken.rangeLength),
            "a range is clean only if all of its blocks are");
    });
}

static Bytes ExpectedChunk(const TrackerInput &taken, const Expected &expected, const Bytes &base, const Bytes &disk)
{
    const TrackerReply &state = expected.state;
    const bool counts = taken.hasBase && expected.attached && taken.baseEpoch != 0 && state.hasPreviousEpoch != 0 &&
                        state.previousEpoch == taken.baseEpoch && state.gap == 0 && state.secondaryGap == 0;
    return counts && IsProvedClean(expected, 0, diskBytes) ? base : disk;
}

static void CheckImage(const TrackerInput &taken, const Expected &expected, const Bytes &base, const Bytes &disk)
{
    const Bytes image = ReadBytes("image.kstx");
    const Bytes chunk = ExpectedChunk(taken, expected, base, disk);
    Law(HeaderOf(image).epoch == (expected.attached ? expected.state.currentEpoch & epochMask : 0),
        "the image has the epoch of the answer");
    const EntryFields entry = EntriesOf(image).at(0);
    Law(entry.hash == Sha256Of(chunk), "the chunk is the base's where that is proved, else the disk's");
    const bool isReference = taken.thin && chunk == base;
    Law(entry.storedLength == (isReference ? 0 : diskBytes), "a thin image stores what the base has not");
    const auto stored = image.begin() + static_cast<ptrdiff_t>(DataStartOf(image));
    Law(isReference || Bytes(stored, stored + static_cast<ptrdiff_t>(diskBytes)) == chunk, "it stores these bytes");
}

static void CheckCapture(const TrackerInput &taken, const Expected &expected)
{
    ImagePlan plan;
    plan.disk = PatternBytes(diskBytes, 1);
    plan.epoch = taken.baseEpoch;
    WriteBytes("base.kstx", BuildImage(plan));
    const Bytes disk = PatternBytes(diskBytes, taken.equalDisk ? 1 : 2);
    Machine machine = MachineWithDisk(1, disk);
    machine.memoryBytes = machineBytes;
    machine.tracker = taken.tracker;
    std::vector<std::string> arguments = {"capture", "--disk", "1", "--out", "image.kstx"};
    if (taken.hasBase) {
        arguments.insert(arguments.end(), {"--base", "base.kstx"});
    }
    if (taken.thin) {
        arguments.push_back("--thin");
    }
    const RunResult result = RunCommand(machine, arguments);
    Law(machine.misuses.empty(), "nothing is closed twice or used when closed");
    Law(result.abnormalEnd == expected.outOfMemory, "only want of memory ends a capture abnormally",
        result.abnormalText);
    if (expected.outOfMemory) {
        return;
    }
    const bool isRefused = taken.thin && !taken.hasBase;
    Law(result.exitStatus == (isRefused ? 1 : 0), "a capture ends well whatever the tracker says", result.errorText);
    const bool commits = expected.attached && !isRefused && taken.tracker.commitError == 0;
    const std::vector<uint64_t> epochs(commits ? 1 : 0, expected.state.currentEpoch);
    Law(machine.tracker->commits == epochs, "the epoch of the answer is committed, and no other");
    if (!isRefused) {
        CheckImage(taken, expected, plan.disk, disk);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Scratch scratch;
    Input input(data, size);
    const TrackerInput taken = TakeTrackerInput(input);
    const Expected expected = Expect(taken.tracker);
    CheckRange(taken, expected);
    CheckCapture(taken, expected);
    return 0;
}
