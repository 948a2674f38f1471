// Which volumes are found on a disk, and which bytes of the disk a shadow device serves.
#include "snapshot/shadow_range.h"

#include "snapshot/snapshotting.h"

namespace
{
const std::vector<std::string> nothing;

struct VolumesOnADisk : testing::Test {
    // The volumes on disk 1, found in a run of nothing else that prints nothing and gives everything back.
    std::vector<VolumeExtent> Enumerate(uint32_t diskNumber = 1)
    {
        std::vector<VolumeExtent> found;
        const RunResult result = RunCode(machine, [&] { found = EnumerateVolumesOnDisk(diskNumber); });
        EXPECT_EQ(result.outputText + result.errorText, "");
        EXPECT_FALSE(result.abnormalEnd);
        EXPECT_EQ(machine.leaks, nothing);
        EXPECT_EQ(machine.misuses, nothing);
        return found;
    }

    Scratch scratch;
    Machine machine;
};

std::vector<std::wstring> NamesOf(const std::vector<VolumeExtent> &volumes)
{
    std::vector<std::wstring> names;
    for (const VolumeExtent &volume : volumes) {
        names.push_back(volume.volumeName);
    }
    return names;
}
} // namespace

TEST_F(VolumesOnADisk, AreEnumeratedOpenedAskedAndClosedOneByOne)
{
    AddVolume(machine, L"\\\\?\\Volume{1}\\", {{1, MiB, 2 * MiB}});
    AddVolume(machine, L"\\\\?\\Volume{2}\\", {{0, 0, MiB}});
    EXPECT_EQ(Enumerate().size(), 1U);
    EXPECT_EQ(LogText(machine),
              "FindFirstVolumeW 260 -> \\\\?\\Volume{1}\\\n"
              "CreateFileW \\\\?\\Volume{1} access=0x80000000 share=0x3 disposition=3 flags=0x0 -> volume:1#1\n"
              "DeviceIoControl volume:1#1 code=0x00560000 input=0 output=224 -> 32\n"
              "CloseHandle volume:1#1\n"
              "FindNextVolumeW volumes#1 260 -> \\\\?\\Volume{2}\\\n"
              "CreateFileW \\\\?\\Volume{2} access=0x80000000 share=0x3 disposition=3 flags=0x0 -> volume:2#1\n"
              "DeviceIoControl volume:2#1 code=0x00560000 input=0 output=224 -> 32\n"
              "CloseHandle volume:2#1\n"
              "FindNextVolumeW volumes#1 260 -> failed 18\n"
              "FindVolumeClose volumes#1\n");
    for (const Call &open : CallsOf(machine, "CreateFileW")) {
        EXPECT_EQ(Field(open, "security") + Field(open, "template"), 0U);
    }
    for (const Call &control : CallsOf(machine, "DeviceIoControl")) {
        EXPECT_EQ(Field(control, "overlapped"), 0U);
        EXPECT_EQ(Field(control, "count"), 1U);
    }
    EXPECT_EQ(CallsOf(machine, "FindNextVolumeW")[1].buffer, CallsOf(machine, "FindFirstVolumeW")[0].buffer);
}

TEST_F(VolumesOnADisk, AreToldWithTheirNameTheirDeviceAndTheirPlace)
{
    AddVolume(machine, L"\\\\?\\Volume{1}\\", {{1, 0x123456789A00, 0x1000000200}});
    const std::vector<VolumeExtent> found = Enumerate();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].volumeName, L"\\\\?\\Volume{1}\\");
    EXPECT_EQ(found[0].devicePath, L"\\\\?\\Volume{1}");
    EXPECT_EQ(found[0].diskOffset, 0x123456789A00U);
    EXPECT_EQ(found[0].diskEnd, 0x124456789C00U);
}

TEST_F(VolumesOnADisk, LoseOneTrailingBackslashAndNoMore)
{
    const std::wstring longest = L"\\\\?\\Volume{" + std::wstring(247, L'x') + L"}";
    ASSERT_EQ(longest.size(), 259U);
    const std::vector<std::pair<std::wstring, std::wstring>> names = {
        {L"\\\\?\\Volume{none}", L"\\\\?\\Volume{none}"},
        {L"\\\\?\\Volume{one}\\", L"\\\\?\\Volume{one}"},
        {L"\\\\?\\Volume{two}\\\\", L"\\\\?\\Volume{two}\\"},
        {longest, longest},
    };
    for (const auto &[name, path] : names) {
        AddVolume(machine, name, {{1, 0, MiB}});
    }
    const std::vector<VolumeExtent> found = Enumerate();
    ASSERT_EQ(found.size(), names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(found[i].volumeName, names[i].first);
        EXPECT_EQ(found[i].devicePath, names[i].second);
    }
}

TEST_F(VolumesOnADisk, MayHaveANameOfNothing)
{
    AddVolume(machine, L"", {{1, 0, MiB}});
    AddVolume(machine, L"\\", {{1, 0, MiB}});
    AddVolume(machine, L"\\\\?\\Volume{1}\\", {{1, 0, MiB}});
    EXPECT_EQ(NamesOf(Enumerate()), std::vector<std::wstring>{L"\\\\?\\Volume{1}\\"});
    EXPECT_EQ(CallsOf(machine, "CreateFileW").size(), 3U);
}

TEST_F(VolumesOnADisk, AreLeftOutUnlessTheyLieThereInOnePiece)
{
    const std::vector<Extent> nine(9, Extent{1, 0, MiB});
    const std::vector<Extent> ten(10, Extent{1, 0, MiB});
    AddVolume(machine, L"first\\", {{1, 0, MiB}});
    AddVolume(machine, L"two here\\", {{1, 0, MiB}, {1, 2 * MiB, MiB}});
    AddVolume(machine, L"spanned\\", {{1, 0, MiB}, {2, 0, MiB}});
    AddVolume(machine, L"spanned from there\\", {{2, 0, MiB}, {1, 0, MiB}});
    AddVolume(machine, L"nine\\", nine);
    AddVolume(machine, L"ten\\", ten);
    AddVolume(machine, L"none\\", {});
    AddVolume(machine, L"elsewhere\\", {{2, 0, MiB}});
    AddVolume(machine, L"refused\\", {{1, 0, MiB}}).volume.openError = ERROR_ACCESS_DENIED;
    AddVolume(machine, L"silent\\", {{1, 0, MiB}}).volume.extentsError = ERROR_NOT_SUPPORTED;
    AddVolume(machine, L"last\\", {{1, 9 * MiB, MiB}});
    EXPECT_EQ(NamesOf(Enumerate()), (std::vector<std::wstring>{L"first\\", L"last\\"}));
    EXPECT_EQ(CountCalls(machine, "CloseHandle"), 10U); // each that opened
    EXPECT_EQ(NamesOf(Enumerate(2)), std::vector<std::wstring>{L"elsewhere\\"});
}

TEST_F(VolumesOnADisk, MayBeTheDiskOfTheHighestNumber)
{
    AddVolume(machine, L"high\\", {{0xFFFFFFFF, 0, MiB}});
    AddVolume(machine, L"zero\\", {{0, 0, MiB}});
    EXPECT_EQ(NamesOf(Enumerate(0xFFFFFFFF)), std::vector<std::wstring>{L"high\\"});
    EXPECT_EQ(NamesOf(Enumerate(0)), std::vector<std::wstring>{L"zero\\"});
}

TEST_F(VolumesOnADisk, AreAskedWithABufferOfZerosEachTime)
{
    AddVolume(machine, L"first\\", {{1, 0, MiB}});
    AddVolume(machine, L"second\\", {{1, MiB, MiB}});
    ShortenCall(machine, "DeviceIoControl", 2, 0); // a success that writes nothing
    size_t asked = 0;
    machine.onCall = [&](Machine &, const Call &call) {
        if (call.name == "DeviceIoControl") {
            ++asked;
            const uint8_t *output = static_cast<const uint8_t *>(call.buffer);
            EXPECT_EQ(Bytes(output, output + 224), Bytes(224));
        }
    };
    EXPECT_EQ(NamesOf(Enumerate()), std::vector<std::wstring>{L"first\\"});
    EXPECT_EQ(asked, 2U);
}

TEST_F(VolumesOnADisk, AreNoneWhereTheSearchDoesNotBegin)
{
    EXPECT_TRUE(Enumerate().empty());
    EXPECT_EQ(LogText(machine), "FindFirstVolumeW 260 -> failed 18\n");
    AddVolume(machine, L"first\\", {{1, 0, MiB}});
    FailCall(machine, "FindFirstVolumeW", 1, ERROR_ACCESS_DENIED);
    EXPECT_TRUE(Enumerate().empty());
    EXPECT_EQ(LogText(machine), "FindFirstVolumeW 260 -> failed 5\n");
}

TEST_F(VolumesOnADisk, EndWhereTheSearchEndsForWhateverReason)
{
    AddVolume(machine, L"first\\", {{1, 0, MiB}});
    AddVolume(machine, L"second\\", {{1, MiB, MiB}});
    AddVolume(machine, L"third\\", {{1, 2 * MiB, MiB}});
    FailCall(machine, "FindNextVolumeW", 2, ERROR_IO_DEVICE);
    EXPECT_EQ(NamesOf(Enumerate()), (std::vector<std::wstring>{L"first\\", L"second\\"}));
    EXPECT_EQ(CountCalls(machine, "FindNextVolumeW"), 2U);
    EXPECT_EQ(CountCalls(machine, "FindVolumeClose", "volumes#1"), 1U);
}

TEST_F(VolumesOnADisk, AreUnharmedByACloseThatFails)
{
    AddVolume(machine, L"first\\", {{1, 0, MiB}});
    FailCall(machine, "CloseHandle", 1, ERROR_INVALID_HANDLE);
    FailCall(machine, "FindVolumeClose", 1, ERROR_INVALID_HANDLE);
    EXPECT_EQ(Enumerate().size(), 1U);
    EXPECT_EQ(machine.faultsFired, 2U);
}

namespace
{
struct LookupCase {
    const char *name;
    uint64_t offset;
    uint64_t length;
    int range; // -1: none
};
} // namespace

TEST(ShadowRanges, HoldTheChunksThatLieInThemWhole)
{
    const std::vector<ShadowRange> ranges = {
        {1000, 2000, nullptr}, {2000, 2500, nullptr}, {4000, 5000, nullptr}, {4500, 9000, nullptr}};
    const std::vector<LookupCase> cases = {
        {"a range to the byte", 1000, 1000, 0},
        {"its first byte", 1000, 1, 0},
        {"its last byte", 1999, 1, 0},
        {"one byte before its start", 999, 500, -1},
        {"one byte behind its end", 1500, 501, -1},
        {"up to its end", 1500, 500, 0},
        {"from its end on", 2000, 500, 1},
        {"across two that touch", 1900, 200, -1},
        {"all of two that touch", 1000, 1500, -1},
        {"between two", 3000, 100, -1},
        {"in front of all", 0, 100, -1},
        {"behind all", 9000, 1, -1},
        {"around one", 3999, 6000, -1},
        {"in two, of which the first counts", 4500, 500, 2},
        {"in the second alone", 4500, 501, 3},
    };
    for (const LookupCase &one : cases) {
        const ShadowRange *found = FindShadowRange(ranges, one.offset, one.length);
        const ShadowRange *expected = one.range < 0 ? nullptr : &ranges[static_cast<size_t>(one.range)];
        EXPECT_EQ(found, expected) << one.name;
    }
}

TEST(ShadowRanges, OfAnEmptyListHoldNothing)
{
    EXPECT_EQ(FindShadowRange({}, 0, 0), nullptr);
}

TEST(ShadowRanges, GoUpToTheLargestDisk)
{
    const std::vector<ShadowRange> ranges = {{0xFFFFFFFF00000000, 0xFFFFFFFFFFFFFFFF, nullptr}};
    EXPECT_EQ(FindShadowRange(ranges, 0xFFFFFFFFFFFFFF00, 0xFF), ranges.data());
    EXPECT_EQ(FindShadowRange(ranges, 0xFFFFFFFEFFFFFFFF, 2), nullptr);
}
