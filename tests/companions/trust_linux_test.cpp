// Who can change a file, by owners, modes and links, and what of it a configuration tells. Other owners are made as
// root; without it those tests are skipped.
#include "host/host.h"
#include "kestrix-keep/configuration.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace
{

constexpr uid_t stranger = 54321; // has no name

// A folder of its own, for everyone to go through, in the sticky folder of the system.
struct Trust : testing::Test {
    Trust()
    {
        std::string name = (std::filesystem::temp_directory_path() / "kestrix-trust-XXXXXX").string();
        folder = std::filesystem::canonical(mkdtemp(name.data())).string();
        chmod(folder.c_str(), 0755);
    }

    ~Trust() override
    {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }

    std::string Path(const std::string &name) const
    {
        return folder + "/" + name;
    }

    std::string Write(const std::string &name, const std::string &content, mode_t mode) const
    {
        std::ofstream(Path(name), std::ios::binary) << content;
        EXPECT_EQ(chmod(Path(name).c_str(), mode), 0);
        return Path(name);
    }

    std::string File(const std::string &name, mode_t mode) const
    {
        return Write(name, "content", mode);
    }

    std::string Folder(const std::string &name, mode_t mode) const
    {
        EXPECT_EQ(mkdir(Path(name).c_str(), 0700), 0);
        EXPECT_EQ(chmod(Path(name).c_str(), mode), 0);
        return Path(name);
    }

    std::string Link(const std::string &name, const std::string &target) const
    {
        EXPECT_EQ(symlink(target.c_str(), Path(name).c_str()), 0);
        return Path(name);
    }

    std::string folder;
};

struct TrustAsRoot : Trust {
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can give files to others";
        }
    }
};

void GiveAway(const std::string &path)
{
    ASSERT_EQ(lchown(path.c_str(), stranger, stranger), 0);
}

const host::Trouble none;

} // namespace

TEST_F(Trust, AFileOfOnesOwnIsTrusted)
{
    EXPECT_EQ(host::CheckTrusted(File("a", 0644)), none);
    EXPECT_EQ(host::CheckSecret(File("b", 0600)), none);
    EXPECT_EQ(host::CheckTrusted("/bin/sh"), none);
}

TEST_F(Trust, WritersAmongGroupAndOthersAreNamed)
{
    const std::string all = File("all", 0646);
    EXPECT_EQ(host::CheckTrusted(all), "every user can change " + all + ": chmod go-w " + all);
    const std::string group = File("group", 0664);
    ASSERT_EQ(chown(group.c_str(), static_cast<uid_t>(-1), getegid()), 0);
    const std::string groupFault = host::CheckTrusted(group).value_or("");
    EXPECT_EQ(groupFault.rfind("the group ", 0), 0U);
    EXPECT_NE(groupFault.find(", or whom its access list names, can change " + group + ": chmod go-w " + group),
              std::string::npos);
}

TEST_F(Trust, ASecretIsReadByNobodyElse)
{
    const std::string all = File("all", 0604);
    EXPECT_EQ(host::CheckTrusted(all), none);
    EXPECT_EQ(host::CheckSecret(all), "every user can read " + all + ": chmod go-r " + all);
    const std::string group = File("group", 0640);
    EXPECT_EQ(host::CheckTrusted(group), none);
    EXPECT_NE(host::CheckSecret(group).value_or("").find("can read " + group), std::string::npos);
    EXPECT_NE(host::CheckSecret(File("writable", 0602)).value_or("").find("can change "), std::string::npos);
}

TEST_F(Trust, EachFolderUpToTheRootCounts)
{
    const std::string open = Folder("open", 0757);
    Folder("open/closed", 0755);
    const std::string file = File("open/closed/file", 0644);
    EXPECT_EQ(host::CheckTrusted(file), "every user can change the folder " + open + ": chmod go-w " + open);
    ASSERT_EQ(chmod(open.c_str(), 0775), 0);
    EXPECT_NE(host::CheckTrusted(file).value_or("").find("can change the folder " + open), std::string::npos);
    ASSERT_EQ(chmod(open.c_str(), 0755), 0);
    EXPECT_EQ(host::CheckTrusted(file), none);
}

TEST_F(Trust, InAStickyFolderNobodyReplacesWhatIsAnothers)
{
    Folder("sticky", 01777);
    EXPECT_EQ(host::CheckTrusted(File("sticky/file", 0644)), none);
    const std::string open = File("sticky/open", 0666);
    EXPECT_EQ(host::CheckTrusted(open), "every user can change " + open + ": chmod go-w " + open);
}

TEST_F(Trust, WhatIsNoFileIsTold)
{
    const std::string sub = Folder("sub", 0755);
    EXPECT_EQ(host::CheckTrusted(sub), sub + " is no ordinary file");
    EXPECT_EQ(host::CheckTrusted("/"), "/ is no ordinary file");
    ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(host::CheckTrusted(Path("pipe")), Path("pipe") + " is no ordinary file");
    EXPECT_EQ(host::CheckTrusted(Path("gone")), Path("gone") + " can't be looked at: No such file or directory");
    const std::string file = File("file", 0644);
    EXPECT_EQ(host::CheckTrusted(file + "/x"), file + "/x can't be looked at: Not a directory");
}

TEST_F(Trust, WaysWithDotsAndFromTheCurrentFolderAreGone)
{
    Folder("a", 0755);
    const std::string open = Folder("open", 0757);
    const std::string file = File("a/file", 0644);
    EXPECT_EQ(host::CheckTrusted(Path("a/./../a//file")), none);
    EXPECT_EQ(host::CheckTrusted("/../../" + file), none);
    EXPECT_EQ(host::CheckTrusted(Path("open/../a/file")),
              "every user can change the folder " + open + ": chmod go-w " + open);
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(Path("a"));
    EXPECT_EQ(host::CheckTrusted("file"), none);
    EXPECT_NE(host::CheckTrusted("../open/gone"), none);
    std::filesystem::current_path(before);
}

TEST_F(Trust, LinksAreGoneFolderByFolder)
{
    const std::string open = Folder("open", 0757);
    Folder("good", 0755);
    const std::string file = File("good/file", 0644);
    File("open/file", 0644);
    const std::string openFault = "every user can change the folder " + open + ": chmod go-w " + open;
    EXPECT_EQ(host::CheckTrusted(Link("toGood", file)), none);
    EXPECT_EQ(host::CheckTrusted(Link("relative", "./good/../good/file")), none);
    EXPECT_EQ(host::CheckTrusted(Link("toOpen", open + "/file")), openFault);
    EXPECT_EQ(host::CheckTrusted(Link("open/toGood", file)), openFault); // the link itself can be exchanged
    Link("folder", "open");
    EXPECT_EQ(host::CheckTrusted(Path("folder/file")), openFault);
    EXPECT_EQ(host::CheckTrusted(Link("twice", "toOpen")), openFault);
    EXPECT_EQ(host::CheckTrusted(Link("through", "open/../good/file")), openFault);
    Link("up", "good");
    EXPECT_EQ(host::CheckTrusted(Path("up/../good/file")), none); // from where the link leads to
}

TEST_F(Trust, LinksWithoutAnEndAreTold)
{
    Link("a", "b");
    Link("b", "a");
    EXPECT_NE(host::CheckTrusted(Path("a")).value_or("").find("Too many levels of symbolic links"), std::string::npos);
    EXPECT_EQ(host::CheckTrusted(Link("dangling", "gone")),
              Path("gone") + " can't be looked at: No such file or directory");
    File("0", 0644);
    for (int i = 1; i <= 41; ++i) {
        Link(std::to_string(i), std::to_string(i - 1));
    }
    EXPECT_EQ(host::CheckTrusted(Path("40")), none);
    EXPECT_NE(host::CheckTrusted(Path("41")), none);
}

TEST_F(TrustAsRoot, OwnersAreNamed)
{
    const std::string file = File("file", 0644);
    GiveAway(file);
    EXPECT_EQ(host::CheckTrusted(file), "the user 54321 owns " + file + " and can change it: chown root " + file);
    ASSERT_EQ(chown(file.c_str(), 65534, 0), 0);
    EXPECT_EQ(host::CheckTrusted(file), "the user nobody owns " + file + " and can change it: chown root " + file);
    ASSERT_EQ(chown(file.c_str(), 0, stranger), 0);
    EXPECT_EQ(host::CheckTrusted(file), none); // the group has no right to write
    ASSERT_EQ(chmod(file.c_str(), 0664), 0);
    EXPECT_EQ(host::CheckTrusted(file),
              "the group 54321, or whom its access list names, can change " + file + ": chmod go-w " + file);
}

TEST_F(TrustAsRoot, FoldersOfOthersAreNotTrusted)
{
    const std::string theirs = Folder("theirs", 0755);
    const std::string file = File("theirs/file", 0644);
    GiveAway(theirs);
    EXPECT_EQ(host::CheckTrusted(file), "the user 54321 owns " + theirs + " and can change it: chown root " + theirs);
    ASSERT_EQ(chmod(theirs.c_str(), 01777), 0); // whose sticky folder it is can replace everything in it
    EXPECT_EQ(host::CheckTrusted(file), "the user 54321 owns " + theirs + " and can change it: chown root " + theirs);
}

TEST_F(TrustAsRoot, AStickyFolderLeavesOwnersWhatIsTheirs)
{
    Folder("sticky", 01777);
    const std::string good = File("good", 0644);
    const std::string file = File("sticky/file", 0644);
    GiveAway(file);
    EXPECT_EQ(host::CheckTrusted(file), "the user 54321 owns " + file + " and can change it: chown root " + file);
    const std::string link = Link("sticky/link", good);
    EXPECT_EQ(host::CheckTrusted(link), none);
    GiveAway(link);
    EXPECT_EQ(host::CheckTrusted(link), "the user 54321 owns " + link + " and can change it: chown -h root " + link);
}

TEST_F(TrustAsRoot, AccessListsThatLetOthersWriteShow)
{
    struct Entry {
        uint16_t tag, rights;
        uint32_t id;
    };
    struct List {
        uint32_t version = 2;
        std::array<Entry, 5> entries;
    };
    constexpr uint32_t nobodyInParticular = 0xFFFFFFFF;
    List list; // the owner, one user, the group, the mask, everyone
    list.entries = {{{1, 6, nobodyInParticular},
                     {2, 6, stranger},
                     {4, 4, nobodyInParticular},
                     {16, 6, nobodyInParticular},
                     {32, 4, nobodyInParticular}}};
    const std::string file = File("file", 0644);
    if (setxattr(file.c_str(), "system.posix_acl_access", &list, sizeof(list), 0) != 0 && errno == EOPNOTSUPP) {
        GTEST_SKIP() << "the file system has no access lists";
    }
    EXPECT_EQ(host::CheckTrusted(file),
              "the group root, or whom its access list names, can change " + file + ": chmod go-w " + file);
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    EXPECT_EQ(host::CheckTrusted(file), none);
    EXPECT_NE(host::CheckSecret(file), none);
}

TEST_F(TrustAsRoot, AUserIsTrustedForWhatThatUserRuns)
{
    const std::string own = File("own", 0644);
    const std::string another = File("another", 0644);
    const std::string roots = File("roots", 0644);
    GiveAway(own);
    ASSERT_EQ(chown(another.c_str(), stranger + 1, 0), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const bool isUser = setgid(stranger) == 0 && setuid(stranger) == 0;
        _exit(isUser && !host::CheckTrusted(own) && !host::CheckTrusted(roots) && host::CheckTrusted(another) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// ---- Configurations that are read from files ----

TEST_F(Trust, AConfigurationIsReadFromItsFile)
{
    const std::string program = File("program", 0755);
    const std::string password = File("password", 0600);
    const std::string path = Write("keep.toml",
                                   "[job.a]\ndisk = 1\nfolder = \"/b\"\npassword-file = \"" + password +
                                       "\"\non-failure = [\"" + program + "\", \"/no/such/argument\"]\n",
                                   0644);
    const ReadingResult result = ReadConfiguration(path);
    EXPECT_EQ(result.faults, std::vector<std::string>());
    ASSERT_EQ(result.configuration.jobs.size(), 1U);
    EXPECT_EQ(result.configuration.jobs[0].passwordFile, password);
}

TEST_F(Trust, WhatAConfigurationReliesOnIsToldAmongItsFaults)
{
    const std::string program = File("program", 0757);
    const std::string password = File("password", 0604);
    const std::string path =
        Write("keep.toml",
              "[job.a]\ndisk = 1\nfolder = \"b\"\npassword-file = \"" + password + "\"\nevery = 1\nbefore = [\n\"" +
                  program + "\"]\nafter = [\"" + Path("gone") + "\"]\n",
              0644);
    EXPECT_EQ(ReadConfiguration(path).faults,
              (std::vector<std::string>{
                  path + ":3: job.a.folder: \"b\" is no absolute path: it has to begin with /",
                  path + ":4: job.a.password-file: every user can read " + password + ": chmod go-r " + password,
                  path + ":5: job.a.every: text in quotes is wanted, not a whole number",
                  path + ":7: job.a.before[1]: every user can change " + program + ": chmod go-w " + program,
                  path + ":8: job.a.after[1]: " + Path("gone") + " can't be looked at: No such file or directory",
              }));
}

TEST_F(Trust, AConfigurationThatOthersCanChangeIsNotLookedAt)
{
    const std::string path = Write("keep.toml", "nonsense", 0666);
    EXPECT_EQ(ReadConfiguration(path).faults,
              std::vector<std::string>{path + ": every user can change " + path + ": chmod go-w " + path});
}

TEST_F(Trust, AConfigurationThatCannotBeReadIsTold)
{
    EXPECT_EQ(ReadConfiguration(Path("gone")).faults,
              std::vector<std::string>{Path("gone") + ": " + Path("gone") +
                                       " can't be looked at: No such file or directory"});
    EXPECT_EQ(ReadConfiguration(folder).faults,
              std::vector<std::string>{folder + ": " + folder + " is no ordinary file"});
    const std::string empty = Write("empty", "", 0600);
    EXPECT_EQ(
        ReadConfiguration(empty).faults,
        std::vector<std::string>{empty + ":1: job: there is no job: the first begins with a line like [job.server]"});
    const std::string large = Write("large", std::string(1048577, '\n'), 0600);
    EXPECT_EQ(ReadConfiguration(large).faults,
              std::vector<std::string>{large + ": it has more than 1048576 bytes, as no configuration needs"});
}

TEST(DefaultConfiguration, LiesUnderEtc)
{
    EXPECT_EQ(DefaultConfigurationPath(), "/etc/kestrix/keep.toml");
}
