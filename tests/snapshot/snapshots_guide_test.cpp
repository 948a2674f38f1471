// The example in docs/snapshots.md is what its command prints: the machine behind it has two volumes in one piece on
// the disk, one across two disks, and three writers of which one failed.
#include "snapshot/snapshotting.h"

#include <sstream>

namespace
{
// The first block of console text in the guide.
std::string ExampleOf(const std::string &guide)
{
    const std::string fence = "```console\n";
    const size_t start = guide.find(fence) + fence.size();
    return guide.substr(start, guide.find("```", start) - start);
}

// What a console shows of the output in the end: a line that was written over shows its last form.
std::string AsShown(const std::string &output)
{
    std::istringstream lines(output);
    std::string shown;
    for (std::string line; std::getline(lines, line);) {
        line.erase(0, line.rfind('\r') + 1);
        line.erase(line.find_last_not_of(' ') + 1);
        shown += line + "\n";
    }
    return shown;
}

std::vector<std::string> WordsOf(const std::string &commandLine)
{
    std::istringstream stream(commandLine);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}
} // namespace

TEST(SnapshotsGuide, ShowsWhatACapturePrints)
{
    const Scratch scratch;
    Machine machine = MachineWithDisk(1, PatternBytes(40 * MiB, 1));
    const Bytes shadow1 = PatternBytes(20 * MiB, 2);
    const Bytes shadow2 = PatternBytes(18 * MiB, 3);
    AddVolume(machine, L"\\\\?\\Volume{5c1f7a52-93d6-4c0e-8a57-1f0e6d2b9c11}\\", {{1, MiB, 20 * MiB}}, shadow1);
    AddVolume(machine, L"\\\\?\\Volume{77d0c2f4-1e02-4f83-9d3b-0a4b8e5c6d33}\\", {{1, 39 * MiB, MiB}, {2, 0, MiB}});
    AddVolume(machine, L"\\\\?\\Volume{e0b64d3f-27aa-4b8c-b1c9-6f3d58a07e42}\\", {{1, 21 * MiB, 18 * MiB}}, shadow2);
    machine.snapshotService = SnapshotService();
    machine.snapshotService->writers = {{L"Registry Writer"}, {L"SqlServerWriter", 8, 0x800423F4}, {L"WMI Writer"}};
    machine.ticksPerCall = 250;
    const std::string example = ExampleOf(
        std::string(reinterpret_cast<const char *>(ReadBytes(KESTRIX_GUIDE).data()), ReadBytes(KESTRIX_GUIDE).size()));
    const size_t firstEnd = example.find('\n');
    std::vector<std::string> words = WordsOf(example.substr(0, firstEnd));
    ASSERT_GE(words.size(), 3U);
    EXPECT_EQ(words[0] + words[1], "$kestrix");
    words.erase(words.begin(), words.begin() + 2);
    const RunResult result = RunCommand(machine, words);
    EXPECT_EQ(AsShown(result.outputText), example.substr(firstEnd + 1));
    EXPECT_EQ(result.errorText, "");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(machine.leaks, std::vector<std::string>());
    EXPECT_GT(CountCalls(machine, "ReadFile", "shadow"), 0U);
}
