// The records and rules of the image file, held against literal bytes and against numbers worked by hand.
//
// The tables of values stand just inside and just outside each limit; whole files come from a capture and are taken
// apart by code that shares nothing with the program.
#include "image/image_format.h"

#include "image/image_output.h"
#include "image/image_path.h"
#include "image/small_images.h"

#include <cstring>
#include <type_traits>

namespace
{
template <typename Record>
Bytes BytesOf(const Record &record)
{
    Bytes bytes(sizeof(record));
    memcpy(bytes.data(), &record, sizeof(record));
    return bytes;
}

template <size_t count>
void FillUpwards(uint8_t (&bytes)[count], uint8_t first)
{
    for (uint8_t &byte : bytes) {
        byte = first++;
    }
}

ImageHeader Geometry(uint64_t diskSize, uint32_t chunkSize)
{
    ImageHeader header = {};
    header.diskSize = diskSize;
    header.chunkSize = chunkSize;
    return header;
}

Bytes Trailer()
{
    return BuildTrailer("a.kstx", {1, 2, 3});
}

bool Parses(const Bytes &trailer)
{
    std::string name = "untouched";
    ImageId pin = {7};
    const bool parsed = ParseThinTrailer(trailer, &name, &pin);
    if (!parsed) {
        EXPECT_EQ(name, "untouched");
        EXPECT_EQ(pin, ImageId{7});
    }
    return parsed;
}

using ImageFormat = SmallImages;
} // namespace

TEST_F(ImageFormat, LaysOutTheHeaderIn64Bytes)
{
    ImageHeader header = {};
    memcpy(header.magic, imageMagic, 8);
    header.version = 3;
    header.diskSize = 0x0102030405060708;
    header.sectorSize = 0x11121314;
    header.chunkSize = 0x21222324;
    header.chunkCount = 0x3132333435363738;
    header.encrypted = 0x41;
    SetEpoch(header, 0xFF51525354555657);
    FillUpwards(header.salt, 0x60);
    header.kdfIterations = 0x81828384;
    const Bytes expected = {'K',  'S',  'T',  'X',  'D',  'S',  'K',  '2',  0x03, 0x00, 0x00, 0x00, 0x08,
                            0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, 0x14, 0x13, 0x12, 0x11, 0x24, 0x23,
                            0x22, 0x21, 0x38, 0x37, 0x36, 0x35, 0x34, 0x33, 0x32, 0x31, 0x41, 0x57, 0x56,
                            0x55, 0x54, 0x53, 0x52, 0x51, 0x60, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67,
                            0x68, 0x69, 0x6A, 0x6B, 0x6C, 0x6D, 0x6E, 0x6F, 0x84, 0x83, 0x82, 0x81};
    EXPECT_EQ(BytesOf(header), expected);
}

TEST_F(ImageFormat, LaysOutAnEntryIn72Bytes)
{
    ChunkEntry entry = {};
    entry.diskOffset = 0x0102030405060708;
    entry.storedLength = 0x11121314;
    FillUpwards(entry.hash, 0x20);
    FillUpwards(entry.nonce, 0x50);
    FillUpwards(entry.tag, 0x70);
    const Bytes expected = {0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, 0x14, 0x13, 0x12, 0x11, 0x20, 0x21, 0x22,
                            0x23, 0x24, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2A, 0x2B, 0x2C, 0x2D, 0x2E, 0x2F, 0x30, 0x31,
                            0x32, 0x33, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3A, 0x3B, 0x3C, 0x3D, 0x3E, 0x3F, 0x50,
                            0x51, 0x52, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5A, 0x5B, 0x70, 0x71, 0x72, 0x73,
                            0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7A, 0x7B, 0x7C, 0x7D, 0x7E, 0x7F};
    EXPECT_EQ(BytesOf(entry), expected);
}

TEST_F(ImageFormat, LaysOutTheTrailerAroundTheBasesName)
{
    ImageId pin = {};
    for (size_t i = 0; i < pin.size(); ++i) {
        pin[i] = static_cast<uint8_t>(0xC0 + i);
    }
    const Bytes expected = {'K',  'S',  'T',  'X',  'B',  'A',  'S',  'E',  0x06, 0x00, 0x00, 0x00, 'a',  '.',
                            'k',  's',  't',  'x',  0xC0, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5, 0xC6, 0xC7, 0xC8, 0xC9,
                            0xCA, 0xCB, 0xCC, 0xCD, 0xCE, 0xCF, 0xD0, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7,
                            0xD8, 0xD9, 0xDA, 0xDB, 0xDC, 0xDD, 0xDE, 0xDF, 0x36, 0x00, 0x00, 0x00};
    EXPECT_EQ(MakeThinTrailer("a.kstx", pin), expected);
    EXPECT_EQ(MakeThinTrailer(std::string(5000, 'n'), pin).size(), 5048U); // writers know no limit
}

TEST_F(ImageFormat, TakesATrailerWhoseMagicAndLengthsFit)
{
    std::string name;
    ImageId pin = {};
    ASSERT_TRUE(ParseThinTrailer(Trailer(), &name, &pin));
    EXPECT_EQ(name, "a.kstx");
    EXPECT_EQ(pin, (ImageId{1, 2, 3}));
    EXPECT_TRUE(Parses(BuildTrailer("x", {}))); // 49 bytes, the shortest
    EXPECT_TRUE(Parses(BuildTrailer(std::string(4048, 'n'), {})));
}

TEST_F(ImageFormat, RefusesATrailerWithAnotherMagicOrLength)
{
    for (size_t i = 0; i < 8; ++i) {
        Bytes trailer = Trailer();
        trailer[i] ^= 0x20;
        EXPECT_FALSE(Parses(trailer)) << i;
    }
    for (const uint32_t nameLength : {0U, 5U, 7U, 54U, 0xFFFFFFD6U, 0xFFFFFFFFU}) {
        Bytes trailer = Trailer();
        StoreInteger(trailer, 8, nameLength, 4);
        EXPECT_FALSE(Parses(trailer)) << nameLength;
    }
    EXPECT_FALSE(Parses(BuildTrailer("", {}))); // 48 bytes
}

TEST_F(ImageFormat, CutsADiskIntoChunksOfWholeSectors)
{
    const struct {
        uint32_t sectorSize;
        uint32_t chunkSize;
    } rows[] = {{512, 4194304}, {1024, 4194304}, {2048, 4194304}, {4096, 4194304}, {4194304, 4194304}, {520, 4194320},
                {528, 4194432}, {4160, 4197440}, {3, 4194306},    {1, 4194304},    {8388608, 8388608}};
    for (const auto &row : rows) {
        EXPECT_EQ(ChunkSizeFor(row.sectorSize), row.chunkSize) << row.sectorSize;
        EXPECT_EQ(row.chunkSize % row.sectorSize, 0U);
    }
}

TEST_F(ImageFormat, CountsAShortLastChunk)
{
    const struct {
        uint64_t diskSize;
        uint32_t chunkSize;
        uint64_t count;
    } rows[] = {{10485760, 4194304, 3}, {4194304, 4194304, 1},
                {4194305, 4194304, 2},  {8388607, 4194304, 2},
                {1, 4194304, 1},        {500107862016, 4194304, 119236},
                {520, 4194320, 1},      {1ULL << 50, 4194304, 1ULL << 28}};
    for (const auto &row : rows) {
        EXPECT_EQ(ChunkCountFor(row.diskSize, row.chunkSize), row.count) << row.diskSize;
    }
}

TEST_F(ImageFormat, GivesEveryChunkItsLength)
{
    const ImageHeader tenMebibytes = Geometry(10485760, 4194304);
    EXPECT_EQ(ChunkLength(tenMebibytes, 0), 4194304U);
    EXPECT_EQ(ChunkLength(tenMebibytes, 1), 4194304U);
    EXPECT_EQ(ChunkLength(tenMebibytes, 2), 2097152U);
    EXPECT_EQ(ChunkLength(Geometry(8388608, 4194304), 1), 4194304U);
    EXPECT_EQ(ChunkLength(Geometry(4194305, 4194304), 1), 1U);
    // Beyond 32 bits of offset, chunk 2000 of a disk that ends 513 bytes into it.
    EXPECT_EQ(ChunkLength(Geometry(2000ULL * 4194304 + 513, 4194304), 2000), 513U);
    EXPECT_EQ(ChunkLength(Geometry(2000ULL * 4194304 + 513, 4194304), 1999), 4194304U);
    EXPECT_EQ(ChunkLength(Geometry(0xFFFFFFFFFFFFFFFF, 0xFFFFFFFF), 0), 0xFFFFFFFFU);
}

TEST_F(ImageFormat, BeginsTheDataBehindTheTable)
{
    EXPECT_EQ(DataStart(0), 64U);
    EXPECT_EQ(DataStart(3), 280U);
    EXPECT_EQ(DataStart(59652324), 4294967392ULL);
}

TEST_F(ImageFormat, KeepsTheLow56BitsOfAnEpoch)
{
    const struct {
        uint64_t epoch;
        uint64_t kept;
    } rows[] = {{0, 0},
                {1, 1},
                {0x00FFFFFFFFFFFFFF, 0x00FFFFFFFFFFFFFF},
                {0x0100000000000000, 0},
                {0xAB12345678ABCDEF, 0x0012345678ABCDEF}};
    for (const auto &row : rows) {
        ImageHeader header = {};
        memset(header.epoch, 0xEE, sizeof(header.epoch));
        SetEpoch(header, row.epoch);
        EXPECT_EQ(EpochOf(header), row.kept);
        EXPECT_EQ(LoadInteger(BytesOf(header), 37, 7), row.kept);
        EXPECT_EQ(BytesOf(header)[36], 0);
        EXPECT_EQ(BytesOf(header)[44], 0);
    }
}

TEST_F(ImageFormat, TakesTheIdentityFromHeaderAndTableAlone)
{
    const Bytes image = BuildImage(FullPlan());
    ImageHeader header = {};
    memcpy(&header, image.data(), 64);
    ChunkTable table(3);
    memcpy(table.data(), image.data() + 64, 3 * 72);
    ImageId identity = {};
    RunCode(machine, [&] { identity = ImageIdOf(header, table); });
    EXPECT_EQ(identity, Sha256Of(Bytes(image.data(), image.data() + 280)));
    EXPECT_EQ(LogOf(machine, {"BCryptHashData"}), "BCryptHashData hash#1 280\n"); // in one contiguous sequence
    FailCall(machine, "BCryptCreateHash", 1, failedStatus);
    ExpectFatal(RunCode(machine, [&] { ImageIdOf(header, table); }), "FATAL: BCryptCreateHash (NTSTATUS 0xC0000001)\n");
}

TEST_F(ImageFormat, LeavesAnEmptyTableWhereOneWasMovedFrom)
{
    ChunkTable first(3);
    ChunkTable second(std::move(first));
    EXPECT_EQ(first.size(), 0U);
    first = std::move(second);
    EXPECT_EQ(second.size(), 0U);
    EXPECT_EQ(first.size(), 3U);
}

// Some run-times give nothing where nothing is asked for, which would look like a lack of memory.
TEST_F(ImageFormat, AsksForMemoryForATableOfNoEntriesToo)
{
    RunCode(machine, [] {
        const ChunkTable table(0);
        const void *volatile block = table.data(); // a block that nobody looks at may be left out by the compiler
        EXPECT_NE(block, nullptr);
        EXPECT_EQ(table.size(), 0U);
    });
    ASSERT_EQ(CountCalls(machine, "calloc"), 1U);
    EXPECT_EQ(Field(CallsOf(machine, "calloc").at(0), "count"), 1U);
}

TEST_F(ImageFormat, SplitsPathsAtBothSeparatorsAndNoColon)
{
    const struct {
        const char *path;
        const char *folder;
        const char *name;
    } rows[] = {{"a.kstx", "", "a.kstx"},
                {"f/a.kstx", "f/", "a.kstx"},
                {"f\\a.kstx", "f\\", "a.kstx"},
                {"/a", "/", "a"},
                {"f/g\\h/a", "f/g\\h/", "a"},
                {"f/g\\a", "f/g\\", "a"},
                {"C:a.kstx", "", "C:a.kstx"},
                {"C:\\f\\a", "C:\\f\\", "a"},
                {"f g/a b", "f g/", "a b"},
                {"f/", "f/", ""},
                {"", "", ""},
                {"../a", "../", "a"},
                {"f//a", "f//", "a"}};
    for (const auto &row : rows) {
        EXPECT_EQ(ParentFolder(row.path), row.folder) << row.path;
        EXPECT_EQ(BareFileName(row.path), row.name) << row.path;
    }
}

TEST_F(ImageFormat, WidensAPathByteByByteWithItsSign)
{
    EXPECT_EQ(WidenPath("C:\\a b/z~"), L"C:\\a b/z~");
    EXPECT_EQ(WidenPath(""), L"");
    const std::wstring wide = WidenPath("\xC3\xA4\x7F\x80\xFF");
    ASSERT_EQ(wide.size(), 5U);
    const int expected[] = {-61, -92, 127, -128, -1};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(wide[i], static_cast<wchar_t>(expected[i]));
    }
}

TEST_F(ImageFormat, CreatesAnImageAloneAndWritesNothingYet)
{
    for (const DWORD disposition : {DWORD{CREATE_ALWAYS}, DWORD{CREATE_NEW}}) {
        RunCode(machine, [disposition] { CloseHandle(CreateImageFile("new.kstx", disposition)); });
        EXPECT_EQ(StepsOf(machine), "CreateFileW new.kstx access=0x40000000 share=0x0 disposition=" +
                                        std::to_string(disposition) + " flags=0x80\nCloseHandle file:new.kstx#1\n");
        std::remove("new.kstx");
    }
    FailCall(machine, "CreateFileW", 1, ERROR_ACCESS_DENIED);
    ExpectFatal(RunCode(machine, [] { CreateImageFile("new.kstx", CREATE_NEW); }),
                FatalLine("could not create output image file", 5));
}

TEST_F(ImageFormat, WritesHeaderAndTableToTheFrontOfTheFile)
{
    ImageHeader header = {};
    memcpy(header.magic, imageMagic, 8);
    ChunkTable table(2);
    table[1].diskOffset = 0x1122;
    RunCode(machine, [&] {
        const HANDLE file = CreateImageFile("new.kstx", CREATE_NEW);
        machine.calls.clear();
        WriteHeaderAndTable(file, header, table);
    });
    EXPECT_EQ(StepsOf(machine), "SetFilePointerEx file:new.kstx#1 0\nWriteFile file:new.kstx#1 64 at 0\n"
                                "WriteFile file:new.kstx#1 144 at 64\n");
    const Bytes file = ReadBytes("new.kstx");
    EXPECT_EQ(file.size(), 208U);
    EXPECT_EQ(Bytes(file.data(), file.data() + 64), BytesOf(header));
    EXPECT_EQ(Bytes(file.data() + 136, file.data() + 208), BytesOf(table[1]));
}

TEST_F(ImageFormat, LooksAtNoResultOfPuttingHeaderAndTableInPlace)
{
    for (const char *call : {"SetFilePointerEx", "WriteFile"}) {
        std::remove("new.kstx");
        machine.faults.clear();
        FailCall(machine, call, 1, ERROR_DISK_FULL).forGood = true;
        const RunResult result = RunCode(machine, [] {
            const HANDLE file = CreateImageFile("new.kstx", CREATE_NEW);
            WriteHeaderAndTable(file, ImageHeader(), ChunkTable(2));
        });
        EXPECT_EQ(result.exitStatus, 0) << call;
        EXPECT_EQ(result.errorText + result.outputText, "");
        EXPECT_EQ(machine.faultsFired, call[0] == 'S' ? 1U : 2U);
        EXPECT_EQ(CountCalls(machine, "WriteFile"), 2U);
    }
}

TEST_F(ImageFormat, GivesACaptureOfTenMebibytesTheStatedSizes)
{
    machine.disks[1].bytes = PatternBytes(10 * MiB, 8);
    ASSERT_EQ(RunCommand(machine, {"capture", "--disk", "1", "--out", "a.kstx"}).exitStatus, 0);
    const Bytes full = ReadBytes("a.kstx");
    ImagePlan plan;
    plan.disk = machine.disks[1].bytes;
    EXPECT_EQ(full, BuildImage(plan));
    EXPECT_EQ(full.size(), 10486040U);
    ExpectOpens("a.kstx", "", [](ImageFile &image) {
        EXPECT_EQ(image.chunkOffsets, (std::vector<uint64_t>{280, 4194584, 8388888}));
        EXPECT_EQ(uint32_t{image.table[2].storedLength}, 2097152U);
    });

    machine.disks[1].bytes[5] ^= 1;
    machine.disks[1].bytes[10 * MiB - 1] ^= 1;
    ASSERT_EQ(
        RunCommand(machine, {"capture", "--disk", "1", "--out", "b.kstx", "--base", "a.kstx", "--thin"}).exitStatus, 0);
    EXPECT_EQ(ReadBytes("b.kstx"), BuildImage(ThinPlan(plan, "a.kstx", machine.disks[1].bytes)));
    EXPECT_EQ(ReadBytes("b.kstx").size(), 6291790U);
    ExpectOpens("b.kstx", "", [](ImageFile &image) {
        EXPECT_EQ(image.chunkOffsets, (std::vector<uint64_t>{280, 4194584, 4194584}));
    });
}

TEST_F(ImageFormat, PutsTheTrailerBehindTheTableOfAThinImageInWhichNothingChanged)
{
    machine.disks[1].bytes = PatternBytes(1024, 8);
    RunCommand(machine, {"capture", "--disk", "1", "--out", "a.kstx"});
    ASSERT_EQ(
        RunCommand(machine, {"capture", "--disk", "1", "--out", "b.kstx", "--base", "./a.kstx", "--thin"}).exitStatus,
        0);
    const Bytes thin = ReadBytes("b.kstx");
    EXPECT_EQ(thin.size(), 64U + 72 + 54);
    EXPECT_EQ(Bytes(thin.data() + 136, thin.data() + 144), (Bytes{'K', 'S', 'T', 'X', 'B', 'A', 'S', 'E'}));
    EXPECT_EQ(EntriesOf(thin)[0].hash, Sha256Of(machine.disks[1].bytes));
    EXPECT_EQ(EntriesOf(thin)[0].nonce, (std::array<uint8_t, 12>{}));
    EXPECT_EQ(EntriesOf(thin)[0].tag, (std::array<uint8_t, 16>{}));
}

TEST_F(ImageFormat, WritesABaseNameWithAColonThatNoReaderTakes)
{
    machine.disks[1].bytes = PatternBytes(1024, 8);
    RunCommand(machine, {"capture", "--disk", "1", "--out", "C:a.kstx"});
    ASSERT_EQ(
        RunCommand(machine, {"capture", "--disk", "1", "--out", "C:b.kstx", "--base", "C:a.kstx", "--thin"}).exitStatus,
        0);
    ExpectFatal(Open("C:b.kstx"), FatalLine("thin image trailer names a base outside its folder - refusing"));
}

TEST_F(ImageFormat, GivesTwoPlainImagesOfAnUnchangedDiskOneIdentityAndEncryptedOnesTwo)
{
    machine.disks[1].bytes = PatternBytes(1024, 8);
    std::vector<std::string> arguments = {"capture", "--disk", "1", "--out", "a.kstx"};
    RunCommand(machine, arguments);
    arguments[4] = "b.kstx";
    RunCommand(machine, arguments);
    EXPECT_EQ(ImageIdOf(ReadBytes("a.kstx")), ImageIdOf(ReadBytes("b.kstx")));
    RunCommand(machine, {"consolidate", "--in", "a.kstx", "--out", "c.kstx"});
    EXPECT_EQ(ImageIdOf(ReadBytes("c.kstx")), ImageIdOf(ReadBytes("a.kstx")));
    arguments.insert(arguments.end(), {"--encrypt", "--password-file", "pw.txt"});
    RunCommand(machine, arguments);
    const auto first = ImageIdOf(ReadBytes("b.kstx"));
    RunCommand(machine, arguments);
    EXPECT_NE(ImageIdOf(ReadBytes("b.kstx")), first);
}

TEST_F(ImageFormat, LetsNoReaderTakeAnUnfinishedFileForAnImage)
{
    const ImagePlan plan = FullPlan();
    Write("base.kstx", plan);
    Bytes unfinished = BuildImage(plan);
    WriteBytes("created.kstx", {});
    ExpectFatal(Open("created.kstx"),
                FatalLine("could not read image header - file is truncated or not a .kstx image"));
    std::fill_n(unfinished.begin(), smallDataStart, 0);
    WriteBytes("filling.kstx", unfinished);
    ExpectFatal(Open("filling.kstx"), FatalLine("not a recognized Kestrix image (bad magic/version)"));

    Bytes headed = BuildImage(plan);
    std::fill_n(headed.begin() + 64, 3 * 72, 0);
    WriteBytes("headed.kstx", headed);
    ExpectOpens("headed.kstx");
    Fetch("headed.kstx", 0);
    ExpectFatal(fetchResult, FatalLine("image has a thin chunk but no base image"));
    Bytes thin = BuildImage(PlanOn(plan, "base.kstx", {1}));
    std::fill_n(thin.begin() + 64, 3 * 72, 0);
    WriteBytes("thin.kstx", thin);
    ExpectOpens("thin.kstx");
    Fetch("thin.kstx", 0);
    ExpectFatal(fetchResult, FatalLine("chunk failed its hash check (corrupt image or base)"));
}
