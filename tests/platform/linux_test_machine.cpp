// Processes, mounts, loop devices and signals for the tests, over the system's own calls.
#include "linux_test_machine.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/audit.h>
#include <linux/blkpg.h>
#include <linux/filter.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

// The tests ask for more memory than there is and want to hear so.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}

int ResultOfChild(const std::function<DWORD()> &body)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        _exit(static_cast<int>(body()));
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int ResultOfChildWithoutRights(const std::function<DWORD()> &body)
{
    constexpr uid_t nobody = 65534;
    return ResultOfChild([&]() -> DWORD {
        if (geteuid() == 0 && (setgid(nobody) != 0 || setuid(nobody) != 0)) {
            return 255;
        }
        return body();
    });
}

std::string ProgramFolder()
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

// ---- Mounts ----

struct OwnMounts : testing::Environment {
    void SetUp() override
    {
        if (geteuid() == 0) {
            ASSERT_EQ(unshare(CLONE_NEWNS), 0) << strerror(errno);
            ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
        }
    }
};

static const testing::Environment *const ownMounts = testing::AddGlobalTestEnvironment(new OwnMounts);

Mount::Mount(const std::string &source, const std::string &folder, const char *type, const char *options,
             unsigned long flags)
    : folder(folder)
{
    EXPECT_EQ(geteuid(), 0U) << "mounts need root";
    EXPECT_EQ(mount(source.c_str(), folder.c_str(), type, flags, options), 0) << source << ": " << strerror(errno);
}

Mount::~Mount()
{
    EXPECT_EQ(umount2(folder.c_str(), MNT_DETACH), 0) << folder << ": " << strerror(errno);
}

void Mount::MakeReadOnly() const
{
    EXPECT_EQ(mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0) << strerror(errno);
}

// ---- Loop devices ----

// Another program may take the free device first, so that a new one has to be asked for.
static int AttachToFreeLoopDevice(const loop_config &config, std::string *path)
{
    const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    int device = -1;
    for (int triesLeft = 100; control >= 0 && device < 0 && triesLeft > 0; --triesLeft) {
        *path = "/dev/loop" + std::to_string(ioctl(control, LOOP_CTL_GET_FREE));
        device = open(path->c_str(), ((config.info.lo_flags & LO_FLAGS_READ_ONLY) ? O_RDONLY : O_RDWR) | O_CLOEXEC);
        if (device >= 0 && ioctl(device, LOOP_CONFIGURE, &config) != 0) {
            const int error = errno;
            close(device);
            device = -1;
            if (error != EBUSY) {
                triesLeft = 0;
            }
            errno = error;
        }
    }
    if (control >= 0) {
        close(control);
    }
    return device;
}

LoopDevice::LoopDevice(const std::string &file, uint32_t sectorBytes, bool isReadOnly) : backing(file)
{
    EXPECT_EQ(geteuid(), 0U) << "loop devices need root";
    loop_config config = {};
    const int opened = open(file.c_str(), (isReadOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    config.fd = static_cast<uint32_t>(opened);
    config.block_size = sectorBytes;
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR | LO_FLAGS_PARTSCAN | (isReadOnly ? LO_FLAGS_READ_ONLY : 0);
    descriptor = AttachToFreeLoopDevice(config, &path);
    EXPECT_GE(descriptor, 0) << path << ": " << strerror(errno);
    close(opened);
}

LoopDevice::~LoopDevice()
{
    close(descriptor);
}

bool ComesToBe(const std::string &path, bool isThere)
{
    for (int triesLeft = 500; triesLeft > 0 && std::filesystem::exists(path) != isThere; --triesLeft) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return std::filesystem::exists(path) == isThere;
}

uint64_t LoopDevice::Statistic(int field) const
{
    std::ifstream file("/sys/class/block/" + path.substr(5) + "/stat");
    uint64_t value = 0;
    for (int i = 0; i < field; ++i) {
        file >> value;
    }
    EXPECT_TRUE(file) << path;
    return value;
}

uint64_t LoopDevice::Sequence() const
{
    uint64_t sequence = 0;
    EXPECT_EQ(ioctl(descriptor, BLKGETDISKSEQ, &sequence), 0) << strerror(errno);
    return sequence;
}

void LoopDevice::Resize(uint64_t lengthBytes) const
{
    std::filesystem::resize_file(backing, lengthBytes);
    EXPECT_EQ(ioctl(descriptor, LOOP_SET_CAPACITY), 0) << strerror(errno);
}

std::string LoopDevice::AddPartition(long long beginBytes, long long lengthBytes) const
{
    blkpg_partition partition = {};
    partition.start = beginBytes;
    partition.length = lengthBytes;
    partition.pno = 1;
    blkpg_ioctl_arg request = {};
    request.op = BLKPG_ADD_PARTITION;
    request.datalen = sizeof(partition);
    request.data = &partition;
    EXPECT_EQ(ioctl(descriptor, BLKPG, &request), 0) << strerror(errno);
    EXPECT_TRUE(ComesToBe(path + "p1", true));
    return path + "p1";
}

// ---- A kernel that refuses ----

static bool Install(const sock_fprog &filter)
{
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

bool RefuseSystemCall(long number, int error)
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    return Install({4, filter});
}

bool RefuseArgument(long number, size_t index, uint32_t value, int error)
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS,
                 static_cast<uint32_t>(offsetof(seccomp_data, args) + index * sizeof(uint64_t))),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    return Install({6, filter});
}

// ---- Signals ----

static volatile sig_atomic_t interruptions = 0;

static void CountInterruption(int)
{
    interruptions = interruptions + 1;
}

Interruptions::Interruptions()
{
    interruptions = 0;
    struct sigaction action = {};
    action.sa_handler = CountInterruption;
    EXPECT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
    const itimerval every3Milliseconds = {{0, 3000}, {0, 3000}};
    EXPECT_EQ(setitimer(ITIMER_REAL, &every3Milliseconds, nullptr), 0);
}

Interruptions::~Interruptions()
{
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGALRM, SIG_DFL);
}

int Interruptions::Count()
{
    return interruptions;
}
