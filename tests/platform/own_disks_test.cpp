// The machine's own disks, out of made-up trees in the shape of the kernel's block layer: which devices are disks, in
// which order, and on which of them a volume lies.
#include "linux_test_machine.h"
#include "port.h"
#include "test_files.h"

#include <fcntl.h>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

using Names = std::vector<std::string>;

struct OwnDisksTest : testing::Test {
    OwnDisksTest()
    {
        for (const char *name : {"block", "dev/block", "devices"}) {
            std::filesystem::create_directories(scratch.path / name);
        }
    }

    void WriteLine(const std::filesystem::path &path, const std::string &line) const
    {
        WriteBytes(path.string(), line + "\n");
    }

    // A device in its folder, with the link that leads there from its number.
    void AddNode(const std::filesystem::path &folder, const std::string &number) const
    {
        std::filesystem::create_directories(folder);
        WriteLine(folder / "dev", number);
        std::filesystem::create_directory_symlink(folder, scratch.path / "dev/block" / number);
    }

    // A whole device; sequence may be empty for a kernel that counts none.
    void AddDisk(const std::string &name, const std::string &number, const std::string &sequence) const
    {
        AddNode(Folder(name), number);
        std::filesystem::create_directory(Folder(name) / "slaves");
        if (!sequence.empty()) {
            WriteLine(Folder(name) / "diskseq", sequence);
        }
        std::filesystem::create_directory_symlink(Folder(name), scratch.path / "block" / name);
    }

    void AddPartition(const std::string &disk, const std::string &name, const std::string &number) const
    {
        AddNode(Folder(disk) / name, number);
        WriteLine(Folder(disk) / name / "partition", "1");
    }

    // upper lies on lower, the path of a device below the folder of all devices.
    void Stack(const std::string &upper, const std::string &lower) const
    {
        const std::filesystem::path target = scratch.path / "devices" / lower;
        std::filesystem::create_directory_symlink(target, Folder(upper) / "slaves" / target.filename());
    }

    std::filesystem::path Folder(const std::string &name) const
    {
        return scratch.path / "devices" / name;
    }

    Names List() const
    {
        Names names;
        for (const OwnDisk &disk : ListOwnDisks(scratch.path.string())) {
            names.push_back(disk.name);
        }
        return names;
    }

    uint32_t DiskHolding(unsigned int majorNumber, unsigned int minorNumber) const
    {
        return OwnDiskHolding(scratch.path.string(), ListOwnDisks(scratch.path.string()), majorNumber, minorNumber);
    }

    ScratchFolder scratch;
};

TEST_F(OwnDisksTest, AreNumberedInTheOrderOfTheirArrival)
{
    AddDisk("sda", "8:0", "10");
    AddDisk("sdb", "8:16", "9");
    AddDisk("nvme0n1", "259:0", "2");
    AddDisk("vda", "252:0", "100");
    EXPECT_EQ(List(), (Names{"nvme0n1", "sdb", "sda", "vda"}));
}

TEST_F(OwnDisksTest, ThatComeLaterRenumberNone)
{
    AddDisk("sdb", "8:16", "4");
    AddDisk("sdc", "8:32", "7");
    const Names before = List();
    AddDisk("sda", "8:0", "8");
    EXPECT_EQ(List(), (Names{before[0], before[1], "sda"}));
}

TEST_F(OwnDisksTest, AreNumberedByDeviceNumberWhereArrivalsAreNotCounted)
{
    AddDisk("sda", "8:0", "");
    AddDisk("sdq", "65:0", "");
    AddDisk("sdb", "8:16", "");
    AddDisk("sdl", "8:176", "");
    AddDisk("hda", "3:0", "");
    AddDisk("nvme0n1", "259:5", "");
    EXPECT_EQ(List(), (Names{"hda", "sda", "sdb", "sdl", "sdq", "nvme0n1"}));
}

TEST_F(OwnDisksTest, AreWholeDisksAlone)
{
    const char *names[] = {"loop0", "ram0", "zram0", "dm-0", "md0", "md127", "sr0", "fd0"};
    int minorNumber = 0;
    for (const char *name : names) {
        AddDisk(name, "7:" + std::to_string(minorNumber), std::to_string(1 + minorNumber));
        ++minorNumber;
    }
    AddDisk("sda", "8:0", "50");
    AddPartition("sda", "sda1", "8:1");
    AddDisk("mmcblk0", "179:0", "51");
    AddDisk("cciss!c0d0", "104:0", "52");
    EXPECT_EQ(List(), (Names{"sda", "mmcblk0", "cciss!c0d0"}));
}

TEST_F(OwnDisksTest, OfAKernelThatDoesNotCountMayHaveUncountedNeighbours)
{
    AddDisk("loop0", "7:0", "");
    AddDisk("sdb", "8:16", "3");
    AddDisk("sda", "8:0", "4");
    EXPECT_EQ(List(), (Names{"sdb", "sda"}));
}

TEST_F(OwnDisksTest, LeaveOutHiddenPathsOfADiskAndWhatHasNoNode)
{
    AddDisk("nvme0n1", "259:0", "1");
    AddDisk("nvme0c0n1", "259:1", "2");
    WriteLine(Folder("nvme0c0n1") / "hidden", "1");
    AddDisk("sda", "8:0", "3");
    WriteLine(Folder("sda") / "hidden", "0");
    AddDisk("sdb", "8:16", "4");
    std::filesystem::remove(Folder("sdb") / "dev");
    EXPECT_EQ(List(), (Names{"nvme0n1", "sda"}));
}

TEST_F(OwnDisksTest, MayBeNone)
{
    EXPECT_EQ(List(), Names());
    EXPECT_TRUE(ListOwnDisks(scratch.File("missing")).empty());
    EXPECT_EQ(DiskHolding(8, 0), noDisk);
}

TEST_F(OwnDisksTest, HoldTheirPartitions)
{
    AddDisk("sda", "8:0", "2");
    AddPartition("sda", "sda1", "8:1");
    AddPartition("sda", "sda2", "8:2");
    AddDisk("nvme0n1", "259:0", "1");
    AddPartition("nvme0n1", "nvme0n1p1", "259:1");
    EXPECT_EQ(DiskHolding(8, 0), 1U);
    EXPECT_EQ(DiskHolding(8, 2), 1U);
    EXPECT_EQ(DiskHolding(259, 1), 0U);
    EXPECT_EQ(DiskHolding(8, 3), noDisk);
}

TEST_F(OwnDisksTest, HoldWhatDeviceMapperPutsOnTheirPartitions)
{
    AddDisk("sda", "8:0", "1");
    AddDisk("sdb", "8:16", "2");
    AddPartition("sdb", "sdb3", "8:19");
    AddDisk("dm-0", "253:0", "3");
    AddDisk("dm-1", "253:1", "4");
    Stack("dm-0", "sdb/sdb3");
    Stack("dm-1", "dm-0");
    EXPECT_EQ(DiskHolding(253, 0), 1U);
    EXPECT_EQ(DiskHolding(253, 1), 1U);
}

TEST_F(OwnDisksTest, OfAVolumeOverSeveralTheFirstCounts)
{
    AddDisk("sda", "8:0", "9");
    AddDisk("sdb", "8:16", "5");
    AddDisk("sdc", "8:32", "4");
    AddPartition("sda", "sda1", "8:1");
    AddPartition("sdb", "sdb1", "8:17");
    AddDisk("md0", "9:0", "10");
    Stack("md0", "sda/sda1");
    Stack("md0", "sdb/sdb1");
    EXPECT_EQ(List(), (Names{"sdc", "sdb", "sda"}));
    EXPECT_EQ(DiskHolding(9, 0), 1U);
}

TEST_F(OwnDisksTest, DoNotHoldWhatLiesInMemoryOrInAFile)
{
    AddDisk("sda", "8:0", "1");
    AddDisk("loop0", "7:0", "2");
    AddDisk("zram0", "254:0", "3");
    AddDisk("dm-0", "253:0", "4");
    Stack("dm-0", "loop0");
    EXPECT_EQ(DiskHolding(7, 0), noDisk);
    EXPECT_EQ(DiskHolding(254, 0), noDisk);
    EXPECT_EQ(DiskHolding(253, 0), noDisk);
    EXPECT_EQ(DiskHolding(0, 0), noDisk);
}

TEST_F(OwnDisksTest, EndTheSearchInATreeThatRunsInACircle)
{
    AddDisk("sda", "8:0", "1");
    AddDisk("dm-0", "253:0", "2");
    AddDisk("dm-1", "253:1", "3");
    Stack("dm-0", "dm-1");
    Stack("dm-1", "dm-0");
    EXPECT_EQ(DiskHolding(253, 0), noDisk);
}

TEST_F(OwnDisksTest, KeepTheirOrderWhenOneOfThemIsJustGoingAway)
{
    AddDisk("sda", "8:0", "9");
    AddDisk("sdb", "8:16", "");
    AddDisk("sdc", "8:32", "4");
    EXPECT_EQ(List(), (Names{"sdc", "sda"}));
}

TEST_F(OwnDisksTest, AreToldFromOthersThatComeUnderTheirNames)
{
    WriteBytes(scratch.File("backing"), std::string(4096, 'x'));
    const LoopDevice loop(scratch.File("backing"));
    struct stat node = {};
    OwnDisk disk = {"none0", 0, 0};
    ASSERT_EQ(fstat(loop.descriptor, &node), 0);
    EXPECT_TRUE(IsDiskOfList(loop.descriptor, disk)) << "what no list holds";
    disk.number = node.st_rdev;
    EXPECT_TRUE(IsDiskOfList(loop.descriptor, disk)) << "a kernel without sequences";
    disk.sequence = loop.Sequence();
    EXPECT_TRUE(IsDiskOfList(loop.descriptor, disk));
    ++disk.sequence;
    EXPECT_FALSE(IsDiskOfList(loop.descriptor, disk));
    disk = {"none0", 0, node.st_rdev + 1};
    EXPECT_FALSE(IsDiskOfList(loop.descriptor, disk));
    const int file = open(scratch.File("backing").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_FALSE(IsDiskOfList(file, disk));
    close(file);
}

// ---- The machine that the program sees ----

// Each of these runs in a process of its own, since what the machine is, is settled once. A tree stands in for the
// machine's own disks: in it are none that exist, or one on a loop device of the test's own.
struct MachineDeathTest : OwnDisksTest {
    MachineDeathTest() : folder(ProgramFolder() + "/devices")
    {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        std::filesystem::remove_all(folder);
    }

    ~MachineDeathTest() override
    {
        std::filesystem::remove_all(folder);
    }

    // Which of the two machines disk 0 belongs to; 0 for none.
    static int SeesDisk(const std::string &path)
    {
        return FindDevice("PhysicalDrive0").path == path ? 1 : FindDevice("PhysicalDrive0").path.empty() ? 0 : 2;
    }

    void StandIn()
    {
        tree = std::make_unique<Mount>(scratch.path.string(), "/sys", "", "", MS_BIND);
    }

    std::string folder;
    std::unique_ptr<Mount> tree;
};

TEST_F(MachineDeathTest, NumbersItsDisksOnce)
{
    AddDisk("none0", "8:0", "5");
    StandIn();
    const auto numbers = [&] {
        const int before = SeesDisk("/dev/none0");
        AddDisk("none1", "8:16", "4");
        return 10 * before + SeesDisk("/dev/none0") + (List() == Names{"none1", "none0"} ? 100 : 0);
    };
    EXPECT_EXIT(_exit(numbers()), testing::ExitedWithCode(111), "");
}

TEST_F(MachineDeathTest, StaysAFolderThatIsTakenAwayMeanwhile)
{
    AddDisk("none0", "8:0", "5");
    StandIn();
    std::filesystem::create_directory(folder);
    const auto answers = [&] {
        const int before = SeesDisk(folder + "/PhysicalDrive0");
        std::filesystem::remove_all(folder);
        return 10 * before + SeesDisk(folder + "/PhysicalDrive0");
    };
    EXPECT_EXIT(_exit(answers()), testing::ExitedWithCode(11), "");
}

TEST_F(MachineDeathTest, StaysTheRealOneThoughAFolderComesMeanwhile)
{
    AddDisk("none0", "8:0", "5");
    StandIn();
    const auto answers = [&] {
        const int before = SeesDisk("/dev/none0");
        std::filesystem::create_directory(folder);
        return 10 * before + SeesDisk("/dev/none0");
    };
    EXPECT_EXIT(_exit(answers()), testing::ExitedWithCode(11), "");
}

TEST_F(MachineDeathTest, IsNoneWhereTheFolderIsALinkThatLeadsNowhere)
{
    AddDisk("none0", "8:0", "5");
    StandIn();
    std::filesystem::create_symlink("nowhere", folder);
    EXPECT_EXIT(_exit(SeesDisk("/dev/none0")), testing::ExitedWithCode(0), "");
}

TEST_F(MachineDeathTest, IsTheRealOneBesideAFileOfThatName)
{
    AddDisk("none0", "8:0", "5");
    StandIn();
    WriteBytes(folder, "no folder");
    EXPECT_EXIT(_exit(SeesDisk("/dev/none0")), testing::ExitedWithCode(1), "");
}

// What opening disk 0 gives where the list says that sequence of the loop device behind its node.
static int ErrorOfOpening(OwnDisksTest &test, const LoopDevice &loop, uint64_t sequence)
{
    struct stat node = {};
    EXPECT_EQ(fstat(loop.descriptor, &node), 0);
    test.AddDisk("none0", std::to_string(major(node.st_rdev)) + ":" + std::to_string(minor(node.st_rdev)),
                 std::to_string(sequence));
    const Mount tree(test.scratch.path.string(), "/sys", "", "", MS_BIND);
    const Mount nodes("none", "/dev", "tmpfs");
    EXPECT_EQ(mknod("/dev/none0", S_IFBLK | 0600, node.st_rdev), 0);
    const HANDLE disk = CreateFileW(Widen(R"(\\.\PhysicalDrive0)").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_NO_BUFFERING, nullptr);
    return static_cast<int>(disk != INVALID_HANDLE_VALUE ? 100 : GetLastError());
}

TEST_F(MachineDeathTest, OpensNoDiskThatHasComeUnderTheNameOfAnother)
{
    WriteBytes(scratch.File("backing"), std::string(4096, 'x'));
    const LoopDevice loop(scratch.File("backing"));
    const uint64_t sequence = loop.Sequence();
    EXPECT_EXIT(_exit(ErrorOfOpening(*this, loop, sequence)), testing::ExitedWithCode(100), "");
    EXPECT_EXIT(_exit(ErrorOfOpening(*this, loop, sequence + 1000)), testing::ExitedWithCode(2), "");
}

// ---- The root folder's file system ----

struct SourceOfRootTest : testing::Test {
    SourceOfRootTest()
    {
        WriteBytes(scratch.File("backing"), std::string(4096, 'x'));
        loop = std::make_unique<LoopDevice>(scratch.File("backing"));
        struct stat node = {};
        EXPECT_EQ(stat(loop->path.c_str(), &node), 0);
        number = node.st_rdev;
    }

    // What is found where these are the mounts.
    dev_t Source(const std::string &mounts) const
    {
        WriteBytes(scratch.File("mountinfo"), mounts);
        return SourceOfRoot(scratch.File("mountinfo"));
    }

    ScratchFolder scratch;
    std::unique_ptr<LoopDevice> loop;
    dev_t number = 0;
};

TEST_F(SourceOfRootTest, IsTheBlockDeviceThatTheMountNames)
{
    EXPECT_EQ(Source("22 28 0:20 / /sys rw shared:7 - sysfs sysfs rw\n"
                     "28 1 0:25 /@ / rw,relatime shared:1 master:2 - btrfs " +
                     loop->path + " rw,subvol=/@\n30 28 0:25 /@home /home rw - btrfs /dev/null rw\n"),
              number);
    EXPECT_EQ(Source("28 1 0:25 / / rw - btrfs " + loop->path + " rw\n"), number);
}

TEST_F(SourceOfRootTest, IsThatOfTheMountThatLiesOnTop)
{
    const std::string device = "28 1 0:25 / / rw - btrfs " + loop->path + " rw\n";
    const std::string memory = "29 28 0:30 / / rw - tmpfs tmpfs rw\n";
    EXPECT_EQ(Source(memory + device), number);
    EXPECT_EQ(Source(device + memory), 0U);
}

TEST_F(SourceOfRootTest, IsNoneWhereNoBlockDeviceIsNamed)
{
    for (const char *source : {"overlay", "/dev/null", "/dev/there/is/none", "server:/export"}) {
        EXPECT_EQ(Source(std::string("28 1 0:25 / / rw - x ") + source + " rw\n"), 0U) << source;
    }
    EXPECT_EQ(Source("28 1 0:25 / / rw - x " + std::filesystem::relative(loop->path).string() + " rw\n"), 0U);
    EXPECT_EQ(Source("28 1 0:25 / / rw -\n"), 0U);
    EXPECT_EQ(Source("\n\n"), 0U);
    EXPECT_EQ(Source(""), 0U);
    EXPECT_EQ(SourceOfRoot(scratch.File("missing")), 0U);
}
