// The fault sweep: every kind of run is made again and again, each time with one more call failing than has yet been
// tried: once that call alone, once that call and all after it, and where it moves bytes once with half of them moved.
// Then the same over memory. How each run is to end, to the last line of its log, is what oracle.cpp tells.
//
// Whatever fails: nothing is used or closed twice, no new image that verify takes holds anything but the disk, a
// restore's target holds what was written up to the fault and nothing else that is new, and no snapshot is left to a
// process that ended by itself. Control queries are never cut short: they answer whole or not at all. On Windows one
// call in three fails. With KESTRIX_FIGURES naming a folder the counts are written to faults.tsv there.
#include "sweep/story.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

using namespace sweep;

namespace
{
#ifdef _WIN32
constexpr size_t everySoMany = 3; // calls of a run, other ones in each kind; what it is run with opens files slowly
#else
constexpr size_t everySoMany = 1;
#endif

// Counts of runs by how they ended.
struct Figures {
    size_t calls = 0;       // of the good run, that can fail
    size_t allocations = 0; // of the good run
    size_t runs = 0;
    size_t failed = 0;   // a stated line on the error stream, exit status 1
    size_t noticed = 0;  // exit status 0, with a stated line more or another stated course
    size_t spoiled = 0;  // exit status 0, as if nothing had happened, but verify refuses the image
    size_t noEffect = 0; // exit status 0, as if nothing had happened
    size_t abnormal = 0; // ended by an exception
};
std::map<std::string, Figures> figures;

// The disk that an image holds, with what it refers to; read as a stranger to the program reads it.
Bytes ContentOf(const std::string &path)
{
    const Bytes image = ReadBytes(path);
    const HeaderFields header = HeaderOf(image);
    const std::vector<EntryFields> entries = EntriesOf(image);
    const auto key = Pbkdf2Of("password", header.salt, 1);
    auto stored = image.begin() + static_cast<std::ptrdiff_t>(DataStartOf(image));
    Bytes content(header.diskSize);
    std::vector<EntryFields> references;
    for (const EntryFields &entry : entries) {
        Bytes chunk(stored, stored + entry.storedLength);
        stored += entry.storedLength;
        if (header.encrypted != 0 && entry.storedLength != 0) {
            const Bytes sealed = chunk;
            EXPECT_TRUE(Unseal(key, entry.nonce, sealed, entry.tag, &chunk)) << "chunk at " << entry.diskOffset;
        }
        std::copy(chunk.begin(), chunk.end(), content.begin() + static_cast<std::ptrdiff_t>(entry.diskOffset));
        if (entry.storedLength == 0) {
            references.push_back(entry);
        }
    }
    if (references.empty()) {
        return content;
    }
    const std::string trailer(stored, image.end());
    const Bytes base = ContentOf(trailer.substr(12, trailer.size() - 48));
    for (const EntryFields &entry : references) {
        const uint64_t length = std::min<uint64_t>(header.chunkSize, header.diskSize - entry.diskOffset);
        std::copy_n(base.data() + entry.diskOffset, length, content.data() + entry.diskOffset);
    }
    return content;
}

bool VerifyAccepts(const std::string &path)
{
    Machine reader;
    reader.mostIterations = 1;
    const RunResult verified = RunCommand(reader, {"verify", "--in", path, "--password-file", "pw"});
    return !verified.abnormalEnd && verified.exitStatus == 0;
}

struct FaultSweep : testing::TestWithParam<size_t> {
    FaultSweep() : run(PrepareRun(RunKinds()[GetParam()])) {}

    static void TearDownTestSuite();

    // Makes the run with these faults; false if none was hit.
    bool Run(const std::vector<Fault> &faults, uint32_t failingAllocation)
    {
        result = RunAnew(run, machine, faults, failingAllocation);
        return machine.faultsFired != 0 || failingAllocation != 0;
    }

    void ExpectTold(const Story &story)
    {
        Lines lines = LinesOf(machine);
        if (!story.openEnd.empty()) {
            EXPECT_EQ(result.errorText, story.openEnd);
            lines.resize(std::min(lines.size(), story.lines.size()));
        }
        EXPECT_EQ(Joined(lines), Joined(story.lines));
        EXPECT_EQ(result.abnormalEnd, story.isAbnormal) << result.abnormalText;
        EXPECT_EQ(result.abnormalText, story.isAbnormal ? "std::bad_alloc" : "");
        const int expectedStatus = story.openEnd.empty() ? story.exitStatus : 1;
        EXPECT_TRUE(story.isAbnormal || result.exitStatus == expectedStatus);
        EXPECT_EQ(result.errorText.empty(), story.isAbnormal || expectedStatus == 0);
    }

    bool HasSucceeded() const
    {
        return !result.abnormalEnd && result.exitStatus == 0;
    }

    // A new image is one that verify takes exactly if its header and its table went to their places and nothing in it
    // is spoiled; then it holds the disk.
    void ExpectImage(const Lines &lines, bool isSpoiled)
    {
        if (run.outPath.empty()) {
            return;
        }
        const std::string write = "WriteFile file:" + run.outPath + "#1 ";
        const std::string tableBytes = std::to_string(72 * run.entries.at(run.outPath).size());
        const bool isWritten =
            Succeeds(lines, write + "64 at 0 -> 64") && Succeeds(lines, write + tableBytes + " at 64 -> " + tableBytes);
        EXPECT_EQ(FileExists(run.outPath), Succeeds(lines, "CreateFileW " + run.outPath + " access=0x40000000"));
        const bool isAccepted = FileExists(run.outPath) && VerifyAccepts(run.outPath);
        EXPECT_EQ(isAccepted, isWritten && !isSpoiled);
        EXPECT_FALSE(isAccepted && run.Command() == "capture" && !HasSucceeded());
        if (isAccepted) {
            EXPECT_TRUE(ContentOf(run.outPath) == ExpectedContent(lines));
        }
    }

    // With snapshots, each chunk is what its source held.
    Bytes ExpectedContent(const Lines &lines) const
    {
        Bytes content = run.content;
        size_t start = 0;
        for (const std::string &line : lines) {
            if (!Begins(line, "ReadFile shadow:") && !(Begins(line, "ReadFile disk1#1 ") && !run.frozen.empty())) {
                continue;
            }
            const size_t length = static_cast<size_t>(NumberBehind(line, " -> "));
            const Bytes &source = Begins(line, "ReadFile shadow:") ? run.frozen : run.content;
            std::copy_n(source.data() + start, length, content.data() + start);
            start += length;
        }
        return content;
    }

    // The target has as many bytes of the image's disk as were written, and is as it was behind them.
    void ExpectTarget(const Lines &lines)
    {
        if (run.Command() != "restore") {
            return;
        }
        size_t written = 0;
        for (const std::string &line : lines) {
            const bool isWrite = Begins(line, "WriteFile disk1#1 ") && !IsFailed(line);
            written += isWrite ? static_cast<size_t>(NumberBehind(line, " -> ")) : 0;
        }
        Bytes expected = run.machine.disks.at(1).bytes;
        std::copy_n(run.content.data(), written, expected.data());
        EXPECT_TRUE(machine.disks.at(1).bytes == expected) << written << " bytes were written";
        EXPECT_EQ(HasSucceeded(), written == run.content.size());
    }

    void ExpectNothingLeft(const Lines &lines)
    {
        EXPECT_EQ(machine.misuses, std::vector<std::string>());
        EXPECT_TRUE(result.abnormalEnd || machine.leaks.empty()) << machine.leaks[0];
        const size_t commits = CountSuccesses(lines, "DeviceIoControl tracker#1 code=0x8C7D200C");
        EXPECT_EQ(machine.tracker ? machine.tracker->commits.size() : 0, commits);
        EXPECT_TRUE(commits == 0 || HasSucceeded());
        if (!machine.snapshotService) {
            return;
        }
        const std::vector<SnapshotSet> &sets = machine.snapshotService->sets;
        ASSERT_EQ(sets.size(), CountSuccesses(lines, "StartSnapshotSet"));
        if (!sets.empty()) {
            const bool isDeleted = Succeeds(lines, "DeleteSnapshots");
            const bool isReleased = Succeeds(lines, "Release components#1");
            const bool isCreated =
                Succeeds(lines, "QueryStatus async:DoSnapshotSet") && Succeeds(lines, "Wait async:DoSnapshotSet");
            const SetFate kept = isCreated ? SetFate::Created : SetFate::Started;
            EXPECT_EQ(sets[0].fate, isDeleted ? SetFate::Deleted : isReleased ? SetFate::Dropped : kept);
            EXPECT_EQ(sets[0].isAborted, Succeeds(lines, "AbortBackup"));
            EXPECT_TRUE(result.abnormalEnd || isDeleted || isReleased);
            EXPECT_EQ(isCreated && !result.abnormalEnd, Find(lines, "DeleteSnapshots") < lines.size());
        }
    }

    void Count(bool isSameOutput, bool isSpoiled)
    {
        Figures &kind = figures[RunKinds()[GetParam()].name];
        ++kind.runs;
        if (result.abnormalEnd) {
            ++kind.abnormal;
        } else if (result.exitStatus != 0) {
            ++kind.failed;
        } else {
            ++(isSpoiled ? kind.spoiled : !isSameOutput ? kind.noticed : kind.noEffect);
        }
    }

    // What the program prints in these lines.
    static std::string OutputIn(const Lines &lines)
    {
        std::string text;
        for (const std::string &line : lines) {
            text += IsOutput(line) ? line : "";
        }
        return text;
    }

    // The run with the call at that place damaged.
    void SweepCall(size_t place, uint32_t nth, Damage damage, bool forGood)
    {
        const Lines &good = LogOfGoodRun(run);
        SCOPED_TRACE(good[place] + (damage == Damage::Short ? ", cut short" : forGood ? ", and all after it" : ""));
        Machine faults;
        Fault &fault = FailAnyCall(faults, nth, forGood);
        if (damage == Damage::Short) {
            fault.transferBytes = static_cast<uint64_t>(NumberBehind(AsShort(good[place]), " -> "));
        }
        const Story story = TellStory(run, place, damage, forGood);
        ASSERT_TRUE(Run({fault}, 0));
        ExpectTold(story);
        const Lines lines = LinesOf(machine);
        ExpectImage(lines, story.isSpoiled);
        ExpectTarget(lines);
        ExpectNothingLeft(lines);
        Count(OutputIn(lines) == OutputIn(good), story.isSpoiled);
    }

    Scratch scratch;
    SweptRun run;
    Machine machine; // of the latest run
    RunResult result;
};

void FaultSweep::TearDownTestSuite()
{
    size_t runs = 0;
    size_t sweptKinds = 0;
    for (const auto &[name, kind] : figures) {
        runs += kind.runs;
        sweptKinds += kind.calls != 0 ? 1 : 0;
    }
    std::cout << runs << " faults injected in " << figures.size() << " kinds of run\n";
    if (sweptKinds == RunKinds().size()) { // no filter was at work
        EXPECT_GT(runs, 10000U / everySoMany);
    }
    const char *folder = getenv("KESTRIX_FIGURES");
    if (folder == nullptr) {
        return;
    }
    std::ofstream file(std::string(folder) + "/faults.tsv");
    file << "kind of run\tcalls swept\tallocations swept\truns\tthe call's failure line\tthe call's notice\tno image, "
            "unnoticed\tno effect\t"
            "abnormal end\n";
    for (const RunKind &kind : RunKinds()) {
        const Figures &counted = figures[kind.name];
        file << kind.name << '\t' << counted.calls << '\t' << counted.allocations << '\t' << counted.runs << '\t'
             << counted.failed << '\t' << counted.noticed << '\t' << counted.spoiled << '\t' << counted.noEffect << '\t'
             << counted.abnormal << '\n';
    }
    file.close();
    EXPECT_TRUE(file.good()) << "cannot write faults.tsv in " << folder;
}
} // namespace

TEST_P(FaultSweep, EveryCallThatFailsHasItsStatedEnding)
{
    const Lines &good = LogOfGoodRun(run);
    uint32_t nth = 0;
    for (size_t place = 0; place < good.size(); ++place) {
        if (!CanFail(good[place])) {
            continue;
        }
        ++nth;
        if ((nth + GetParam()) % everySoMany != 0) {
            continue;
        }
        SweepCall(place, nth, Damage::Failed, false);
        SweepCall(place, nth, Damage::Failed, true);
        if (!AsShort(good[place]).empty()) {
            SweepCall(place, nth, Damage::Short, false);
        }
    }
    Machine faults;
    EXPECT_FALSE(Run({FailAnyCall(faults, nth + 1, true)}, 0));
    EXPECT_EQ(machine.fallibleCalls, nth);
    EXPECT_EQ(result.exitStatus, 0);
    Story undamaged(run);
    undamaged.lines = good;
    ExpectTold(undamaged);
    ExpectImage(good, false);
    ExpectTarget(good);
    ExpectNothingLeft(good);
    figures[RunKinds()[GetParam()].name].calls = nth;
}

TEST_P(FaultSweep, EveryAllocationThatFailsEndsTheProcess)
{
    const Lines &good = LogOfGoodRun(run);
    Run({}, 0);
    const uint32_t allocations = machine.allocations;
    for (uint32_t nth = 1; nth <= allocations; ++nth) {
        SCOPED_TRACE(nth);
        Run({}, nth);
        const Lines lines = LinesOf(machine);
        EXPECT_TRUE(result.abnormalEnd);
        EXPECT_EQ(result.abnormalText, "std::bad_alloc");
        EXPECT_EQ(result.errorText, "");
        EXPECT_EQ(Joined(lines), Joined(good).substr(0, Joined(lines).size()));
        ExpectImage(lines, false);
        ExpectTarget(lines);
        ExpectNothingLeft(lines);
        Count(false, false);
    }
    figures[RunKinds()[GetParam()].name].allocations = allocations;
}

INSTANTIATE_TEST_SUITE_P(Of, FaultSweep, testing::Range<size_t>(0, RunKinds().size()),
                         [](const testing::TestParamInfo<size_t> &info) {
                             return std::string(RunKinds()[info.param].testName);
                         });
