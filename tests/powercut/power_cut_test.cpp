// A power cut at any moment of a capture or a consolidation, and verify and restore on what it leaves.
//
// The law: verify accepts exactly the complete image, and restore writes the disk's bytes from it. What verify refuses
// once it has come to the chunks, restore doesn't finish, and each chunk that it wrote until then is the disk's; that
// is tried on one such state in 16.
//
// The states: each prefix of the writes, cut at every 4 KiB; for the last 16 units of 4 KiB each of their 65,536
// subsets; for the last 16 writes each subset of them, whole; and every unit of the file missing by itself. All of them
// twice, with the file as long as the writes in it reach, and, where that is shorter, with its final length. Stretches
// of zeros on the disk, as long as a unit, make states that lack writes and are complete all the same. An ordinary run
// takes one subset in 5 of files of few and small chunks and one in 61 of the others, more than 100,000 states in all,
// and on Windows and with sanitizers one in 601; with KESTRIX_CRASH_STATES=whole in the environment it takes every one,
// and their numbers must be those counted by hand below. If KESTRIX_FIGURES names a folder, the counts go into
// crash_states.tsv there.
#include "powercut/crash_states.h"
#include "simulator/run_command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>

namespace
{
using Arguments = std::vector<std::string>;

constexpr char path[] = "image.kstx";
constexpr size_t subsetUnits = 16; // as many writes, too
#if defined(_WIN32) || defined(__SANITIZE_ADDRESS__)
constexpr size_t manySubsets = 601; // strides of an ordinary run; what these are run with is slow
constexpr size_t fewSubsets = 601;
#else
constexpr size_t manySubsets = 5;
constexpr size_t fewSubsets = 61;
#endif
constexpr size_t restoresOfRefused = 16;
constexpr uint8_t untouched = 0xEE;

// A run whose writes are cut short, and what comes of it, counted by hand.
struct Cut {
    const char *kind;
    Arguments arguments;
    std::vector<Bytes> disks; // the one that the image is to hold, and the one that was in an older image
    uint64_t chunkBytes;
    size_t stride;
    size_t writes;
    size_t units;
    size_t states;   // of the whole: prefixes and subsets of units
    size_t accepted; // likewise
    size_t missing;  // whole writes, by subsets, and single units
    size_t missingAccepted;
};

struct Counts {
    size_t states = 0;
    size_t accepted = 0;
    size_t restored = 0;
    size_t refusedAtChunks = 0;
};

bool IsWhole()
{
    const char *wanted = getenv("KESTRIX_CRASH_STATES");
    return wanted != nullptr && std::string(wanted) == "whole";
}

// The binary number whose Gray code has all of these bits set.
size_t PlaceOfAllBits(size_t bits)
{
    size_t place = 0;
    for (size_t bit = 0; bit < bits; ++bit) {
        place = (place << 1) | ((bit & 1) == 0 ? 1U : 0U);
    }
    return place;
}

// Every state of the units, each once: so many of them from the first on, and subsets of the last ones in an order in
// which neighbours differ by a unit. The complete file is among them whatever the stride.
void ForEachKept(size_t unitCount, size_t stride, const std::function<void(const Kept &kept)> &look)
{
    const size_t varied = std::min(unitCount, subsetUnits);
    const size_t settled = unitCount - varied;
    Kept kept(unitCount);
    for (size_t i = 0; i < settled; ++i) {
        look(kept);
        kept[i] = true;
    }
    for (size_t place = PlaceOfAllBits(varied) % stride; place < size_t{1} << varied; place += stride) {
        const size_t subset = place ^ (place >> 1);
        for (size_t bit = 0; bit < varied; ++bit) {
            kept[settled + bit] = (subset >> bit & 1) != 0;
        }
        look(kept);
    }
}

// Every subset of the last writes, whole, in such an order too, and behind them the file without any one of its units.
void ForEachMissing(const std::vector<Write> &units, size_t stride, const std::function<void(const Kept &kept)> &look)
{
    const size_t writeCount = units.back().number + 1;
    const size_t varied = std::min(writeCount, subsetUnits);
    const size_t settled = writeCount - varied;
    Kept kept(units.size());
    const size_t step = varied < subsetUnits ? 1 : stride;
    for (size_t place = PlaceOfAllBits(varied) % step; place < size_t{1} << varied; place += step) {
        const size_t subset = place ^ (place >> 1);
        for (size_t i = 0; i < units.size(); ++i) {
            kept[i] = units[i].number < settled || (subset >> (units[i].number - settled) & 1) != 0;
        }
        look(kept);
    }
    kept.assign(units.size(), true);
    for (size_t i = 0; i < units.size(); ++i) {
        kept[i] = false;
        look(kept);
        kept[i] = true;
    }
}

// One kind of cut: the file, the machine that looks at it, and what was found so far.
struct Examination {
    const Cut &cut;
    Machine &machine;
    StateFile file;
    std::vector<Bytes> images; // the complete one, and the older one if there was one
    Counts counts;
    std::vector<Bytes> restoredContents;

    const Bytes &RestoredDisk()
    {
        return machine.disks[2].bytes;
    }

    RunResult Restore()
    {
        machine.disks[2].bytes.assign(cut.disks[0].size(), untouched);
        return RunCommand(machine,
                          {"restore", "--in", path, "--disk", "2", "--confirm", "YES", "--password-file", "pw"});
    }

    // Each chunk that was written is one of the disk's.
    bool WroteOnlyChunksOfTheDisk()
    {
        const Bytes &written = RestoredDisk();
        for (uint64_t start = 0; start < written.size(); start += cut.chunkBytes) {
            const auto first = written.begin() + static_cast<std::ptrdiff_t>(start);
            const auto last = first + static_cast<std::ptrdiff_t>(std::min(cut.chunkBytes, written.size() - start));
            const auto isOn = [&](const Bytes &disk) {
                return std::equal(first, last, disk.begin() + static_cast<std::ptrdiff_t>(start));
            };
            if (!std::all_of(first, last, [](uint8_t byte) { return byte == untouched; }) &&
                std::none_of(cut.disks.begin(), cut.disks.end(), isOn)) {
                return false;
            }
        }
        return true;
    }

    bool IsComplete() const
    {
        return file.lengthBytes == file.content.size() && std::count(images.begin(), images.end(), file.content) != 0;
    }

    void CheckAccepted()
    {
        ++counts.accepted;
        if (std::count(restoredContents.begin(), restoredContents.end(), file.content) != 0) {
            return;
        }
        const RunResult restored = Restore();
        EXPECT_EQ(restored.exitStatus, 0) << restored.errorText;
        EXPECT_EQ(std::count(cut.disks.begin(), cut.disks.end(), RestoredDisk()), 1);
        restoredContents.push_back(file.content);
        ++counts.restored;
    }

    void CheckRefused(const RunResult &verified)
    {
        EXPECT_EQ(verified.exitStatus, 1);
        EXPECT_FALSE(verified.abnormalEnd) << verified.abnormalText;
        const bool cameToChunks = !verified.outputText.empty();
        if (cameToChunks && counts.refusedAtChunks++ % restoresOfRefused == 0) {
            EXPECT_EQ(Restore().exitStatus, 1);
            EXPECT_TRUE(WroteOnlyChunksOfTheDisk());
        }
    }

    void CheckState(const Kept &kept, uint64_t lengthBytes)
    {
        if (testing::Test::HasFailure()) {
            return; // one broken state is told of, not thousands
        }
        Show(file, kept, lengthBytes);
        ++counts.states;
        const RunResult verified = RunCommand(machine, {"verify", "--in", path, "--password-file", "pw"});
        const bool isAccepted = verified.exitStatus == 0 && !verified.abnormalEnd;
        EXPECT_EQ(isAccepted, IsComplete());
        if (isAccepted) {
            CheckAccepted();
        } else {
            CheckRefused(verified);
        }
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << Described(kept) << "verify printed: " << verified.outputText << verified.errorText;
        }
    }

    std::string Described(const Kept &kept) const
    {
        std::string text = "a file of " + std::to_string(file.lengthBytes) + " bytes without";
        for (size_t i = 0; i < kept.size(); ++i) {
            const Write &unit = file.units[i];
            text += kept[i] ? "" : " " + std::to_string(unit.bytes.size()) + "@" + std::to_string(unit.offset);
        }
        return text + "\n";
    }

    // Each state as long as its writes reach, and then each that is shorter than the complete file at that length.
    void CheckStates(const std::function<void(const std::function<void(const Kept &kept)> &look)> &forEach)
    {
        const uint64_t finalLength = file.ground.size();
        forEach([&](const Kept &kept) { CheckState(kept, LengthOf(file.units, kept)); });
        forEach([&](const Kept &kept) {
            if (LengthOf(file.units, kept) != finalLength) {
                CheckState(kept, finalLength);
            }
        });
    }
};

// Noise with zeros in these stretches.
Bytes DiskWithZeros(uint64_t lengthBytes, uint32_t seed, const std::vector<std::pair<uint64_t, uint64_t>> &stretches)
{
    Bytes disk = PatternBytes(lengthBytes, seed);
    for (const auto &[start, length] : stretches) {
        std::fill_n(disk.begin() + static_cast<std::ptrdiff_t>(start), length, uint8_t{0});
    }
    return disk;
}

struct PowerCut : testing::Test {
    PowerCut()
    {
        WriteText("pw", "password\n");
        machine.mostIterations = 1;
        machine.disks[1].refusesUnaligned = false;
        machine.disks[2].refusesUnaligned = false;
    }

    static void TearDownTestSuite()
    {
        const bool areAllKinds = std::count(figures.begin(), figures.end(), '\n') == 12; // no filter was at work
        EXPECT_TRUE(allStates > 100000 || !areAllKinds || manySubsets == fewSubsets) << allStates;
        const char *folder = getenv("KESTRIX_FIGURES");
        if (folder != nullptr) {
            std::ofstream file(std::string(folder) + "/crash_states.tsv", std::ios::binary);
            file << "kind\twrites\tunits\tstates\taccepted\trestored\n" << figures;
        }
    }

    // Runs the command once, and then looks at every state that a cut of it may leave. Where nothing was written, the
    // older image's bytes show if there are any.
    void Examine(const Cut &cut, const Bytes &olderImage = {})
    {
        WriteLog log;
        machine.disks[1].bytes = cut.disks[0];
        LogWrites(machine, path, &log);
        const RunResult run = RunCommand(machine, cut.arguments);
        machine.onCall = nullptr;
        ASSERT_EQ(run.exitStatus, 0) << run.errorText;
        ASSERT_EQ(log.writes.size(), cut.writes);
        EXPECT_EQ(log.lengthBefore, 0U);
        EXPECT_EQ(log.writes[cut.writes - 2].offset, 0U) << "the header comes after all data";
        EXPECT_EQ(log.writes[cut.writes - 1].offset, 64U) << "the table comes last";

        const Bytes complete = ReadBytes(path);
        const StateFile file = MakeStateFile(path, CutToBlocks(log.writes), olderImage);
        Examination examination = {cut, machine, file, {complete, olderImage}, {}, {}};
        const size_t unitCount = file.units.size();
        Show(examination.file, Kept(unitCount, true), complete.size());
        ASSERT_TRUE(ReadBytes(path) == complete) << "the log of the writes is not what is in the file";
        const std::vector<Write> &units = examination.file.units;
        const size_t stride = IsWhole() ? 1 : cut.stride;
        examination.CheckStates([&](const auto &look) { ForEachKept(unitCount, stride, look); });
        const Counts inOrder = examination.counts;
        examination.CheckStates([&](const auto &look) { ForEachMissing(units, stride, look); });

        const Counts &counts = examination.counts;
        EXPECT_EQ(unitCount, cut.units);
        if (stride == 1) {
            EXPECT_EQ(inOrder.states, cut.states);
            EXPECT_EQ(inOrder.accepted, cut.accepted);
            EXPECT_EQ(counts.states - inOrder.states, cut.missing);
            EXPECT_EQ(counts.accepted - inOrder.accepted, cut.missingAccepted);
        } else {
            EXPECT_GE(inOrder.states, (size_t{1} << subsetUnits) / cut.stride);
            EXPECT_GE(inOrder.accepted, 1U);
            const bool areMany = cut.writes >= subsetUnits;
            const size_t subsets = areMany ? (size_t{1} << subsetUnits) / cut.stride : size_t{1} << cut.writes;
            EXPECT_GE(counts.states - inOrder.states, unitCount + subsets);
        }
        allStates += counts.states;
        figures += std::string(cut.kind) + "\t" + std::to_string(log.writes.size()) + "\t" + std::to_string(unitCount) +
                   "\t" + std::to_string(counts.states) + "\t" + std::to_string(counts.accepted) + "\t" +
                   std::to_string(counts.restored) + "\n";
    }

    static Arguments CaptureArguments(const Arguments &options = {})
    {
        Arguments arguments = {"capture", "--disk", "1", "--out", path};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }

    static Arguments ConsolidateArguments(const Arguments &options = {})
    {
        Arguments arguments = {"consolidate", "--in", "thin.kstx", "--out", path};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }

    // base.kstx and thin.kstx of the disk, every third chunk in the base alone; keys are made in no time.
    static void WriteChain(const Bytes &disk, uint32_t chunkBytes, bool isSealed)
    {
        ImagePlan base;
        base.disk = PatternBytes(disk.size(), 50);
        for (uint64_t start = 0; start < disk.size(); start += 3 * chunkBytes) {
            const auto place = static_cast<std::ptrdiff_t>(start);
            std::copy_n(disk.begin() + place, std::min<uint64_t>(chunkBytes, disk.size() - start),
                        base.disk.begin() + place);
        }
        base.chunkSize = chunkBytes;
        base.encrypted = isSealed;
        base.kdfIterations = 1;
        ImagePlan thin = ThinPlan(base, "base.kstx", disk);
        thin.salt[0] = 77;
        WriteBytes("base.kstx", BuildImage(base));
        WriteBytes("thin.kstx", BuildImage(thin));
    }

    // A full image of an older disk of that length as base.kstx.
    static void WriteBase(const Bytes &disk)
    {
        ImagePlan base;
        base.disk = disk;
        WriteBytes("base.kstx", BuildImage(base));
    }

    Scratch scratch;
    Machine machine;
    static std::string figures;
    static size_t allStates;
};

std::string PowerCut::figures;
size_t PowerCut::allStates = 0;

// A disk of one chunk that gives an image of 15 units of data from offset 136 on, with header and table 17. Units 5, 6
// and 15 of the data hold zeros only.
Bytes SmallDisk()
{
    return DiskWithZeros(56 * KiB, 1, {{3960 + 3 * 4096, 2 * 4096}, {3960 + 13 * 4096, 136}});
}
} // namespace

// States: prefix 0 twice; 65,536 subsets, and the half without the file's end again with the final length. Accepted: 4
// with any of units 5 and 6 of the data, and as many with the final length and without unit 15. Missing: 8 subsets of
// the writes and 17 single units, and 4 and 1 again that lack the end; accepted are the whole, no unit 5, no unit 6,
// and no unit 15 with the final length. The others are counted in the same way.
TEST_F(PowerCut, InAFullCaptureLeavesNoWrongImage)
{
    Examine({"full capture", CaptureArguments(), {SmallDisk()}, 4 * MiB, manySubsets, 3, 17, 98306, 8, 30, 4});
}

// Sealed zeros are noise: the complete file alone is accepted.
TEST_F(PowerCut, InASealedCaptureLeavesNoWrongImage)
{
    const Arguments arguments = CaptureArguments({"--encrypt", "--password-file", "pw"});
    Examine({"sealed capture", arguments, {SmallDisk()}, 4 * MiB, manySubsets, 3, 17, 98306, 1, 30, 1});
}

// The data ends 30 bytes ahead of a block, which cuts the trailer of 57 bytes in two: 14 units of data, 18 in all.
TEST_F(PowerCut, InAThinCaptureLeavesNoWrongImage)
{
    const Bytes disk = DiskWithZeros(14 * 4096 - 30 - 136, 1, {{3960 + 3 * 4096, 2 * 4096}});
    WriteBase(PatternBytes(disk.size(), 2));
    const Arguments arguments = CaptureArguments({"--base", "base.kstx", "--thin"});
    Examine({"thin capture", arguments, {disk}, 4 * MiB, manySubsets, 4, 18, 98308, 4, 43, 3});
}

// Trailer, header and table, each in a unit: 8 subsets, and the 4 without the trailer again.
TEST_F(PowerCut, InAThinCaptureOfAnUnchangedDiskLeavesNoWrongImage)
{
    WriteBase(SmallDisk());
    const Arguments arguments = CaptureArguments({"--base", "base.kstx", "--thin"});
    Examine({"thin capture, nothing changed", arguments, {SmallDisk()}, 4 * MiB, 1, 3, 3, 12, 1, 16, 1});
}

// 4 MiB from offset 208 on are 1,025 units, 40 KiB behind them 11. The prefixes of 1,022 units are looked at twice.
TEST_F(PowerCut, InACaptureOfTwoChunksLeavesNoWrongImage)
{
    const Bytes disk = PatternBytes(4 * MiB + 40 * KiB, 1);
    Examine({"full capture, two chunks", CaptureArguments(), {disk}, 4 * MiB, fewSubsets, 4, 1038, 100348, 1, 1063, 1});
}

// The first chunk is the base's. 13 units of data, the trailer behind them in one.
TEST_F(PowerCut, InAThinCaptureOfTwoChunksLeavesNoWrongImage)
{
    const Bytes disk = PatternBytes(4 * MiB + 48 * KiB, 1);
    Bytes older = disk;
    older.back() ^= 0xFF;
    WriteBase(older);
    const Arguments arguments = CaptureArguments({"--base", "base.kstx", "--thin"});
    Examine({"thin capture, two chunks", arguments, {disk}, 4 * MiB, fewSubsets, 4, 16, 98304, 1, 41, 1});
}

// 7 chunks from offset 568 on, each in two units. The third holds zeros only, and so does the last unit.
TEST_F(PowerCut, InAConsolidationLeavesNoWrongImage)
{
    const Bytes disk = DiskWithZeros(7 * 4096, 1, {{2 * 4096, 4096}, {6 * 4096 + 3528, 568}});
    WriteChain(disk, 4096, false);
    Examine({"consolidation", ConsolidateArguments(), {disk}, 4096, manySubsets, 9, 16, 98304, 8, 785, 5});
}

TEST_F(PowerCut, InASealedConsolidationLeavesNoWrongImage)
{
    const Bytes disk = PatternBytes(7 * 4096, 1);
    WriteChain(disk, 4096, true);
    const Arguments arguments = ConsolidateArguments({"--encrypt", "--password-file", "pw"});
    Examine({"consolidation, sealed anew", arguments, {disk}, 4096, manySubsets, 9, 16, 98304, 1, 785, 1});
}

// The table of 170 entries ends at 12,304, so that its fourth and last unit is the tag of the last entry: zeros in a
// plain image. 10 of the 170 chunks lie across the edge of a block, 10 whole chunks are among the last 16 units, and of
// those one and the last hold zeros only. The prefixes of 169 units are looked at twice.
TEST_F(PowerCut, InAConsolidationWithALongTableLeavesNoWrongImage)
{
    const Bytes disk = DiskWithZeros(170 * 256, 1, {{165 * 256, 256}, {169 * 256, 256}});
    WriteChain(disk, 256, false);
    Examine(
        {"consolidation, long table", ConsolidateArguments(), {disk}, 256, fewSubsets, 172, 185, 98642, 8, 98490, 7});
}

// The table of 113 entries ends at 8,200: the last 8 bytes of the last tag are a unit of their own. 12 chunks lie
// across the edge of a block.
TEST_F(PowerCut, InASealedConsolidationWithALongTableLeavesNoWrongImage)
{
    const Bytes disk = PatternBytes(113 * 448, 1);
    WriteChain(disk, 448, true);
    const Arguments arguments = ConsolidateArguments({"--encrypt", "--password-file", "pw"});
    Examine(
        {"consolidation, long table, sealed anew", arguments, {disk}, 448, fewSubsets, 115, 129, 98530, 1, 98434, 1});
}

// The worst that can become of replacing an image: the bytes of the older one show wherever nothing was written, as if
// the file had never been emptied. Either disk comes out of it, and no mixture. 6 units of data, 8 in all. Both plain
// headers are the same: the new image is accepted with either, and the old one too once the file is as long.
TEST_F(PowerCut, InACaptureOverAnOlderImageLeavesOneOfTheTwo)
{
    const std::vector<Bytes> disks = {PatternBytes(20 * KiB, 1), PatternBytes(20 * KiB, 2)};
    ImagePlan older;
    older.disk = disks[1];
    WriteBytes(path, BuildImage(older));
    Examine({"capture over an older image", CaptureArguments(), disks, 4 * MiB, 1, 3, 8, 384, 4, 21, 5},
            BuildImage(older));
}

TEST_F(PowerCut, InASealedCaptureOverAnOlderImageLeavesOneOfTheTwo)
{
    const std::vector<Bytes> disks = {PatternBytes(20 * KiB, 1), PatternBytes(20 * KiB, 2)};
    ImagePlan older;
    older.disk = disks[1];
    older.encrypted = true;
    older.kdfIterations = 1;
    WriteBytes(path, BuildImage(older));
    const Arguments arguments = CaptureArguments({"--encrypt", "--password-file", "pw"});
    Examine({"sealed capture over an older image", arguments, disks, 4 * MiB, 1, 3, 8, 384, 2, 21, 2},
            BuildImage(older));
}
