// What goes wrong in a capture: the words, the number and the exit status of each failure, what it leaves behind, and
// the results that must not be looked at.
#include "capture/capturing.h"

namespace
{
struct CaptureFailure : Capturing {
    CaptureFailure()
    {
        UseTracker();
    }

    // A run that got as far as the chunk loop ends so, without a commit and with a file that is no image.
    void ExpectUnfinished(const std::string &progress, const std::string &errorText)
    {
        ExpectFatal(threeChunkSource + "Change tracker: disk 1 epoch 6\n" + progress, errorText);
        EXPECT_TRUE(Commits().empty());
        EXPECT_EQ(CountCalls(machine, "CloseHandle", "file:image.kstx"), 0U);
        ExpectNoImage();
    }

    void ExpectNoImage()
    {
        const Bytes file = ReadBytes("image.kstx");
        const Bytes front(file.data(), file.data() + std::min<size_t>(file.size(), 280));
        EXPECT_EQ(front, Bytes(front.size()));
        Machine reader;
        const RunResult verified = RunCommand(reader, {"verify", "--in", "image.kstx"});
        EXPECT_EQ(verified.exitStatus, 1);
        const std::string expected = file.empty()
                                         ? "could not read image header - file is truncated or not a .kstx image"
                                         : "not a recognized Kestrix image (bad magic/version)";
        EXPECT_NE(verified.errorText.find("FATAL: " + expected), std::string::npos) << verified.errorText;
    }
};

struct LoopFault {
    const char *name;
    std::function<void(Machine &machine)> arrange;
    bool isInFirstChunk;
    const char *errorText;
};

const char readMessage[] =
    "FATAL: ReadFile from source disk failed mid-capture - image is incomplete, do not trust it ";
const char writeMessage[] = "FATAL: WriteFile to image file failed mid-capture (disk full?) ";

Fault &On(const char *object, Fault &fault)
{
    fault.object = object;
    return fault;
}
} // namespace

TEST_F(CaptureFailure, InTheChunkLoopLeavesNoImageAndNoCommit)
{
    const std::string seekError = "FATAL: SetFilePointerEx on source failed mid-capture (GetLastError=87)\n";
    const std::string readError = std::string(readMessage) + "(GetLastError=23)\n";
    const std::string shortRead = std::string(readMessage) + "(GetLastError=4711)\n";
    const std::string writeError = std::string(writeMessage) + "(GetLastError=112)\n";
    const std::string shortWrite = std::string(writeMessage) + "(GetLastError=4711)\n";
    const std::vector<LoopFault> faults = {
        {"first seek", [](Machine &m) { On("disk1", FailCall(m, "SetFilePointerEx", 1, 87)); }, true,
         seekError.c_str()},
        {"second seek", [](Machine &m) { On("disk1", FailCall(m, "SetFilePointerEx", 2, 87)); }, false,
         seekError.c_str()},
        {"first read", [](Machine &m) { On("disk1", FailCall(m, "ReadFile", 1, 23)); }, true, readError.c_str()},
        {"second read", [](Machine &m) { On("disk1", FailCall(m, "ReadFile", 2, 23)); }, false, readError.c_str()},
        {"second read a sector short", [](Machine &m) { On("disk1", ShortenCall(m, "ReadFile", 2, 4193792)); }, false,
         shortRead.c_str()},
        {"second read empty", [](Machine &m) { On("disk1", ShortenCall(m, "ReadFile", 2, 0)); }, false,
         shortRead.c_str()},
        {"last read short", [](Machine &m) { m.disks[1].bytes.resize(threeChunkBytes - 512); }, false,
         shortRead.c_str()},
        {"first write", [](Machine &m) { On("file", FailCall(m, "WriteFile", 1, 112)); }, true, writeError.c_str()},
        {"second write", [](Machine &m) { On("file", FailCall(m, "WriteFile", 2, 112)); }, false, writeError.c_str()},
        {"third write a byte short", [](Machine &m) { On("file", ShortenCall(m, "WriteFile", 3, 1535)); }, false,
         shortWrite.c_str()},
    };
    for (const LoopFault &one : faults) {
        SCOPED_TRACE(one.name);
        UseTracker();
        UseDisk(ThreeChunkDisk());
        machine.disks[1].lengthBytes = threeChunkBytes;
        machine.faults.clear();
        one.arrange(machine);
        Capture();
        ExpectUnfinished(one.isInFirstChunk ? "" : "\r   49.99%  4 / 8 MiB  (0.0 MiB/s)   ", one.errorText);
    }
}

TEST_F(CaptureFailure, ForWantOfEitherBufferComesAfterTheFileIsMade)
{
    for (const uint32_t nth : {1U, 2U}) {
        machine.faults.clear();
        UseTracker();
        UseDisk(ThreeChunkDisk());
        FailCall(machine, "_aligned_malloc", nth, ERROR_NOT_ENOUGH_MEMORY);
        Capture();
        ExpectUnfinished("", "FATAL: out of memory allocating aligned I/O buffer (GetLastError=8)\n");
        EXPECT_EQ(ReadBytes("image.kstx").size(), 0U);
    }
}

TEST_F(CaptureFailure, ToMakeTheFileIsFatalBeforeAnyRead)
{
    On("file", FailCall(machine, "CreateFileW", 1, ERROR_ACCESS_DENIED));
    Capture();
    ExpectFatal(tinySource + "Change tracker: disk 1 epoch 6\n",
                "FATAL: could not create output image file (GetLastError=5)\n");
    EXPECT_EQ(CountCalls(machine, "ReadFile") + CountCalls(machine, "_aligned_malloc"), 0U);
    EXPECT_FALSE(FileExists("image.kstx"));
    EXPECT_TRUE(Commits().empty());
}

TEST_F(CaptureFailure, ToMakeTheFileInAFolderThatIsNotThereShowsTheSystemsNumber)
{
    Capture({}, "nowhere/image.kstx");
    ExpectFatal(tinySource + "Change tracker: disk 1 epoch 6\n",
                "FATAL: could not create output image file (GetLastError=3)\n");
}

TEST_F(CaptureFailure, ToOpenTheSourceComesFirstOfAll)
{
    machine.disks[1].openError = ERROR_ACCESS_DENIED;
    machine.volumeC.reset();
    Capture({"--thin", "--encrypt", "--password-file", "missing.txt"});
    ExpectFatal("", "FATAL: could not open source disk for raw read (run as Administrator?) (GetLastError=5)\n");
    EXPECT_EQ(LogText(machine), "CreateFileW \\\\.\\PhysicalDrive1 access=0x80000000 share=0x3 disposition=3 "
                                "flags=0x20000000 -> failed 5\nGetLastError -> 5\nexit 1\n");
}

TEST_F(CaptureFailure, OfTheSourcesQueriesComesBeforeTheSourceLine)
{
    machine.disks[1].geometryError = ERROR_NOT_SUPPORTED;
    Capture();
    ExpectFatal("", "FATAL: IOCTL_DISK_GET_DRIVE_GEOMETRY_EX failed (GetLastError=50)\n");
    machine.disks[1].lengthError = ERROR_CRC;
    Capture();
    ExpectFatal("", "FATAL: IOCTL_DISK_GET_LENGTH_INFO failed (GetLastError=23)\n");
}

TEST_F(CaptureFailure, OfTheSystemDisksNumberComesBeforeTheTracker)
{
    machine.volumeC->extentsError = ERROR_NOT_SUPPORTED;
    Capture();
    ExpectFatal(tinySource, "FATAL: IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS on C: failed (GetLastError=4711)\n");
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "tracker"), 0U);
}

TEST_F(CaptureFailure, OfThinWithoutABaseComesBehindTheTrackersLine)
{
    Capture({"--thin", "--encrypt", "--password-file", "missing.txt"});
    ExpectFatal(tinySource + "Change tracker: disk 1 epoch 6\n", "FATAL: --thin needs --base (GetLastError=4711)\n");
    EXPECT_FALSE(FileExists("image.kstx"));
    EXPECT_EQ(CountCalls(machine, "BCryptGenRandom"), 0U);
    EXPECT_TRUE(Commits().empty());
}

TEST_F(CaptureFailure, OfThePasswordFileLeavesNoFileBehind)
{
    Capture({"--encrypt", "--password-file", "missing.txt"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.outputText, tinySource + "Change tracker: disk 1 epoch 6\n");
    EXPECT_EQ(result.errorText.substr(0, 42), "FATAL: could not open password file (GetLa");
    EXPECT_FALSE(FileExists("image.kstx"));
    WriteText("pw.txt", "\r\n\n");
    Capture({"--encrypt", "--password-file", "pw.txt"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.errorText.substr(0, 38), "FATAL: password file is empty (GetLast");
    EXPECT_FALSE(FileExists("image.kstx"));
}

TEST_F(CaptureFailure, OfASealComesInTheLoop)
{
    WriteText("pw.txt", "password");
    FailCall(machine, "BCryptEncrypt", 1, 0xC000000DU);
    Capture({"--encrypt", "--password-file", "pw.txt"});
    ExpectFatal(tinySource + "Change tracker: disk 1 epoch 6\n", "FATAL: BCryptEncrypt (NTSTATUS 0xC000000D)\n");
    EXPECT_EQ(CountCalls(machine, "WriteFile"), 0U);
    ExpectNoImage();
}

// Nobody looks at the two seeks of the image, the two writes at its front or at any close; only the file tells.
TEST_F(CaptureFailure, AtTheFrontOfTheImageGoesUnnoticed)
{
    const std::vector<std::function<void(Machine & machine)>> faults = {
        [](Machine &m) { On("file", FailCall(m, "SetFilePointerEx", 1, 5)); },
        [](Machine &m) { On("file", FailCall(m, "SetFilePointerEx", 2, 5)); },
        [](Machine &m) { On("file", FailCall(m, "WriteFile", 2, 112)); },
        [](Machine &m) { On("file", ShortenCall(m, "WriteFile", 2, 63)); },
        [](Machine &m) { On("file", FailCall(m, "WriteFile", 3, 112)); },
        [](Machine &m) { On("file", ShortenCall(m, "WriteFile", 3, 0)); },
        [](Machine &m) { On("file", FailCall(m, "CloseHandle", 1, 5)); },
        [](Machine &m) { On("disk1", FailCall(m, "CloseHandle", 1, 5)); },
        [](Machine &m) { On("volume:C", FailCall(m, "CloseHandle", 1, 5)); },
        [](Machine &m) { On("tracker", FailCall(m, "CloseHandle", 1, 5)); },
    };
    for (size_t i = 0; i < faults.size(); ++i) {
        SCOPED_TRACE(i);
        UseTracker();
        machine.faults.clear();
        faults[i](machine);
        Capture();
        ExpectSuccess(tinySource + "Change tracker: disk 1 epoch 6\n" + tinyProgress +
                      "Capture complete: image.kstx\n");
        EXPECT_EQ(machine.faultsFired, 1U);
        EXPECT_EQ(Commits(), std::vector<uint64_t>{6});
    }
}

TEST_F(CaptureFailure, ToWriteTheTableLeavesItZero)
{
    On("file", FailCall(machine, "WriteFile", 3, ERROR_DISK_FULL));
    Capture();
    Bytes expected = BuildImage(PlanOf(TinyDisk(), 6));
    std::fill(expected.begin() + 64, expected.begin() + 136, static_cast<uint8_t>(0));
    EXPECT_TRUE(ReadBytes("image.kstx") == expected);
}

TEST_F(CaptureFailure, KeepsTheOldFileOnlyUntilTheNewOneIsMade)
{
    const Bytes old(5000, 0xEE);
    WriteBytes("image.kstx", old);
    machine.disks[1].openError = ERROR_ACCESS_DENIED;
    Capture();
    EXPECT_TRUE(ReadBytes("image.kstx") == old);
    machine.disks[1].openError = 0;
    On("disk1", FailCall(machine, "ReadFile", 1, ERROR_CRC));
    Capture();
    EXPECT_EQ(ReadBytes("image.kstx").size(), 0U);
}
