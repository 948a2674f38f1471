// The configuration of kestrix-keep: what is read from a good one, and for each key what a person would write wrongly,
// with the file, the line and the key that are told.
#include "kestrix-keep/configuration.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>

namespace
{

using Faults = std::vector<std::string>;

constexpr auto onLinux = host::PathRules::Linux;
constexpr auto onWindows = host::PathRules::Windows;

ReadingResult Parse(const std::string &text, host::PathRules rules = onLinux)
{
    return ParseConfiguration(text, "keep.toml", rules);
}

// A job to which nothing is wrong, in three lines, and what follows from line 4 on.
std::string JobWith(const std::string &lines)
{
    return "[job.server]\ndisk = 1\nfolder = \"/mnt/backup\"\n" + lines + "\n";
}

// The only job of a configuration without faults.
Job JobOf(const std::string &text, host::PathRules rules = onLinux)
{
    const ReadingResult result = Parse(text, rules);
    EXPECT_EQ(result.faults, Faults());
    EXPECT_EQ(result.configuration.jobs.size(), 1U);
    return result.configuration.jobs.size() == 1 ? result.configuration.jobs.front() : Job();
}

// Text, and the one fault in it, without the file's name.
struct Wrong {
    std::string text;
    std::string fault;
};

void ExpectFaults(const std::vector<Wrong> &table, host::PathRules rules = onLinux)
{
    for (const Wrong &wrong : table) {
        EXPECT_EQ(Parse(wrong.text, rules).faults, Faults{"keep.toml:" + wrong.fault}) << wrong.text;
    }
}

// The same for lines behind those of a good job.
void ExpectFaultsInJob(const std::vector<Wrong> &table)
{
    for (const Wrong &wrong : table) {
        ExpectFaults({{JobWith(wrong.text), wrong.fault}});
    }
}

// One fault, of which the first words are known.
void ExpectFaultBeginning(const std::string &text, const std::string &beginning)
{
    const Faults faults = Parse(text).faults;
    ASSERT_EQ(faults.size(), 1U) << text.substr(0, 200);
    EXPECT_EQ(faults[0].substr(0, beginning.size()), beginning);
}

std::string Repeated(const std::string &text, size_t count)
{
    std::string all;
    for (size_t i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

// What stands between lines of three backquotes.
std::vector<std::string> ExamplesOf(const std::string &path)
{
    std::vector<std::string> examples;
    std::ifstream page(path);
    bool isInside = false;
    for (std::string line; std::getline(page, line);) {
        if (line == "```") {
            isInside = !isInside;
            if (isInside) {
                examples.emplace_back();
            }
        } else if (isInside) {
            examples.back() += line + "\n";
        }
    }
    return examples;
}

const char fullExample[] = R"(# every key there is
[job.server]
disk = "serial:S3Z9NB0K123456"
folder = "/mnt/backup/server"
folder-must-be = "uuid:6f1c2a30-0000-4000-8000-000000000001"
folder-without-locks = true
password-file = "/etc/kestrix/password"
snapshots = true
every = "12h"
base = "newest"
new-full = { every = "4w", when-thin-exceeds = "35%", chain = 20 }
keep = { last = 3, daily = 14, weekly = 8, monthly = 12 }
check = { each = "whole", whole-every = "90m" }
copies = [
  { to = "/mnt/usb2/server" },
  { to = "rclone:offsite:kestrix/server", plain-ok = true, keep = { monthly = 24 } },
]
before = ["/usr/local/bin/wake-nas", "--wait", "60"]
after = ["/usr/local/bin/sleep-nas"]
on-success = ["/usr/bin/logger", "image made"]
on-failure = ["/usr/local/bin/page-me"]
)";

} // namespace

// ---- What is read ----

TEST(Configuration, EveryKeyArrivesInItsRecord)
{
    const Job job = JobOf(fullExample);
    EXPECT_EQ(job.name, "server");
    EXPECT_EQ(job.disk, "serial:S3Z9NB0K123456");
    EXPECT_EQ(job.folder, "/mnt/backup/server");
    EXPECT_EQ(job.fileSystemUuid, "6f1c2a30-0000-4000-8000-000000000001");
    EXPECT_EQ(job.fileSystemSource, "");
    EXPECT_TRUE(job.folderWithoutLocks);
    EXPECT_EQ(job.passwordFile, "/etc/kestrix/password");
    EXPECT_TRUE(job.snapshots);
    EXPECT_EQ(job.everySeconds, 43200);
    EXPECT_EQ(job.base, BaseScheme::Newest);
    EXPECT_EQ(job.newFull.everySeconds, 2419200);
    EXPECT_EQ(job.newFull.whenThinExceedsPercent, 35);
    EXPECT_EQ(job.newFull.chain, 20);
    ASSERT_TRUE(job.keep.has_value());
    EXPECT_EQ(job.keep->last, 3);
    EXPECT_EQ(job.keep->daily, 14);
    EXPECT_EQ(job.keep->weekly, 8);
    EXPECT_EQ(job.keep->monthly, 12);
    EXPECT_EQ(job.check.each, CheckDepth::Whole);
    EXPECT_EQ(job.check.wholeEverySeconds, 5400);
    EXPECT_EQ(job.before, (std::vector<std::string>{"/usr/local/bin/wake-nas", "--wait", "60"}));
    EXPECT_EQ(job.after, std::vector<std::string>{"/usr/local/bin/sleep-nas"});
    EXPECT_EQ(job.onSuccess, (std::vector<std::string>{"/usr/bin/logger", "image made"}));
    EXPECT_EQ(job.onFailure, std::vector<std::string>{"/usr/local/bin/page-me"});
}

TEST(Configuration, CopiesAreFoldersOrPlacesOfRclone)
{
    const Job job = JobOf(fullExample);
    ASSERT_EQ(job.copies.size(), 2U);
    EXPECT_EQ(job.copies[0].folder, "/mnt/usb2/server");
    EXPECT_EQ(job.copies[0].rclone, "");
    EXPECT_FALSE(job.copies[0].plainIsFine);
    EXPECT_FALSE(job.copies[0].keep.has_value());
    EXPECT_EQ(job.copies[1].folder, "");
    EXPECT_EQ(job.copies[1].rclone, "offsite:kestrix/server");
    EXPECT_TRUE(job.copies[1].plainIsFine);
    ASSERT_TRUE(job.copies[1].keep.has_value());
    EXPECT_EQ(job.copies[1].keep->monthly, 24);
    EXPECT_EQ(job.copies[1].keep->last, 0);
}

TEST(Configuration, DiskAndFolderAreEnough)
{
    const Job job = JobOf(JobWith(""));
    EXPECT_EQ(job.disk, "1");
    EXPECT_EQ(job.fileSystemUuid + job.fileSystemSource + job.passwordFile, "");
    EXPECT_FALSE(job.folderWithoutLocks || job.snapshots);
    EXPECT_EQ(job.everySeconds, 86400);
    EXPECT_EQ(job.base, BaseScheme::Full);
    EXPECT_EQ(job.newFull.everySeconds, 2592000);
    EXPECT_EQ(job.newFull.whenThinExceedsPercent, 50);
    EXPECT_EQ(job.newFull.chain, 60);
    EXPECT_FALSE(job.keep.has_value());
    EXPECT_EQ(job.check.each, CheckDepth::Own);
    EXPECT_EQ(job.check.wholeEverySeconds, 604800);
    EXPECT_TRUE(job.copies.empty() && job.before.empty() && job.after.empty());
    EXPECT_TRUE(job.onSuccess.empty() && job.onFailure.empty());
}

TEST(Configuration, TheExamplesOfThePageHaveNoFaults)
{
    size_t exampleCount = 0;
    for (const std::string &example : ExamplesOf(KESTRIX_KEEP_PAGE)) {
        EXPECT_EQ(Parse(example).faults, Faults()) << example;
        ++exampleCount;
    }
    EXPECT_EQ(exampleCount, 2U);
}

TEST(Configuration, JobsStandInTheOrderOfTheFile)
{
    const ReadingResult result = Parse("[job.zebra]\ndisk=1\nfolder=\"/z\"\n[job.ant]\ndisk=2\nfolder=\"/a\"\n"
                                       "[job.\"mid.dle\"]\ndisk=3\nfolder=\"/m\"\n");
    EXPECT_EQ(result.faults, Faults());
    ASSERT_EQ(result.configuration.jobs.size(), 3U);
    EXPECT_EQ(result.configuration.jobs[0].name, "zebra");
    EXPECT_EQ(result.configuration.jobs[1].name, "ant");
    EXPECT_EQ(result.configuration.jobs[2].name, "mid.dle");
}

TEST(Configuration, TablesMayBeWrittenInAnyWayOfToml)
{
    const Job job = JobOf("job.server = { disk = 0, folder = '/mnt/b' }\n");
    EXPECT_EQ(job.disk, "0");
    const Job split = JobOf(JobWith("[job.server.keep]\nlast = 1\n[[job.server.copies]]\nto = \"/c\"\n"
                                    "[[job.server.copies]]\nto = \"/d\"\n[job.server.copies.keep]\ndaily = 2"));
    EXPECT_EQ(split.keep->last, 1);
    ASSERT_EQ(split.copies.size(), 2U);
    EXPECT_EQ(split.copies[1].folder, "/d");
    EXPECT_EQ(split.copies[1].keep->daily, 2);
}

TEST(Configuration, DisksAreNamedInFourWays)
{
    const auto diskOf = [](const std::string &disk, host::PathRules rules, const std::string &folder) {
        return JobOf("[job.a]\ndisk = " + disk + "\nfolder = " + folder + "\n", rules).disk;
    };
    EXPECT_EQ(diskOf("0", onLinux, "'/b'"), "0");
    EXPECT_EQ(diskOf("999999999", onLinux, "'/b'"), "999999999");
    EXPECT_EQ(diskOf("\"wwn:0x5000c500a1b2c3d4\"", onLinux, "'/b'"), "wwn:0x5000c500a1b2c3d4");
    EXPECT_EQ(diskOf("\"/dev/disk/by-id/ata-X_1\"", onLinux, "'/b'"), "/dev/disk/by-id/ata-X_1");
    EXPECT_EQ(diskOf("\"serial:WD WX 12\"", onWindows, "'D:\\b'"), "serial:WD WX 12");
}

TEST(Configuration, LimitsAreStillAllowed)
{
    const Job least =
        JobOf(JobWith("every = \"1m\"\nnew-full = { every = \"1h\", when-thin-exceeds = \"1%\", chain = 1 }\n"
                      "keep = { last = 0, daily = 1 }"));
    EXPECT_EQ(least.everySeconds, 60);
    EXPECT_EQ(least.newFull.everySeconds, 3600);
    EXPECT_EQ(least.newFull.whenThinExceedsPercent, 1);
    EXPECT_EQ(least.newFull.chain, 1);
    const Job most = JobOf(JobWith("every = \"36500d\"\nnew-full = { when-thin-exceeds = \"100%\", chain = 65 }\n"
                                   "keep = { last = 10000 }"));
    EXPECT_EQ(most.everySeconds, 3153600000);
    EXPECT_EQ(most.newFull.whenThinExceedsPercent, 100);
    EXPECT_EQ(most.newFull.chain, 65);
    EXPECT_EQ(most.keep->last, 10000);
    const std::string name(64, 'n');
    EXPECT_EQ(JobOf("[job." + name + "]\ndisk = 1\nfolder = \"/a\"\n").name, name);
}

TEST(Configuration, FoldersMayLieOnShares)
{
    EXPECT_EQ(JobOf(JobWith("folder-must-be = \"source:nas:/export/backup\"")).fileSystemSource, "nas:/export/backup");
    EXPECT_EQ(JobOf("[job.a]\ndisk = 1\nfolder = '\\\\nas\\backup\\pc'\nfolder-must-be = 'source:\\\\nas\\backup'\n",
                    onWindows)
                  .fileSystemSource,
              "\\\\nas\\backup");
}

TEST(Configuration, TextOfAnyScriptMayStandWhereKestrixOpensNothing)
{
    EXPECT_EQ(JobOf(JobWith("on-failure = [\"/usr/bin/logger\", \"Sicherung f\xC3\xBCr B\xC3\xBCro\"]")).onFailure[1],
              "Sicherung f\xC3\xBCr B\xC3\xBCro");
    EXPECT_EQ(JobOf("[job.a]\ndisk = 1\nfolder = \"/mnt/b\xC3\xBCro\"\n").folder, "/mnt/b\xC3\xBCro");
}

// ---- What is refused, key by key ----

TEST(Configuration, MissingKeysAreNamedAtTheirJob)
{
    ExpectFaults({
        {"", "1: job: there is no job: the first begins with a line like [job.server]"},
        {"# nothing yet\n", "1: job: there is no job: the first begins with a line like [job.server]"},
        {"\n[job]\n", "2: job: there is no job: the first begins with a line like [job.server]"},
        {"\n[job.a]\nfolder = \"/b\"\n", "2: job.a.disk: this key is missing: which disk to image"},
        {"\n[job.a]\ndisk = 1\n", "2: job.a.folder: this key is missing: where the images go"},
        {"job = 3\n", "1: job: a table of keys is wanted, not a whole number"},
        {"[[job]]\ndisk = 1\n", "1: job: a table of keys is wanted, not a list in square brackets"},
        {"[job]\nserver = \"sda\"\n", "2: job.server: a table of keys is wanted, not text in quotes"},
    });
}

TEST(Configuration, DisksThatAreNone)
{
    const auto wrong = [](const std::string &disk, const std::string &fault) {
        return Wrong{"[job.a]\nfolder = \"/b\"\ndisk = " + disk + "\n", "3: job.a.disk: " + fault};
    };
    ExpectFaults({
        wrong("-1", "a number from 0 to 999999999 is wanted, not -1"),
        wrong("1000000000", "a number from 0 to 999999999 is wanted, not 1000000000"),
        wrong("1.5", "a disk's number, or its name in quotes, is wanted, not a number with a fraction"),
        wrong("true", "a disk's number, or its name in quotes, is wanted, not true or false"),
        wrong("[1]", "a disk's number, or its name in quotes, is wanted, not a list in square brackets"),
        wrong("\"\"", "this is empty: give it a value, or leave the key out"),
        wrong("\"3\"", "a disk's number stands without quotes: disk = 3"),
        wrong("\"serial:\"", "the disk's own name is missing behind serial:"),
        wrong("\"wwn:\"", "the disk's own name is missing behind wwn:"),
        wrong("\"/dev/sda\"",
              "\"/dev/sda\" may be another disk tomorrow: use serial:, wwn: or a path under /dev/disk/by-id"),
        wrong("\"/dev/disk/by-id\"", "\"/dev/disk/by-id\" names no disk"),
        wrong("\"/dev/disk/by-id/../../sda\"", "\"/dev/disk/by-id/../../sda\" has .. in it: write the path without"),
        wrong("\"S3Z9\"",
              "\"S3Z9\" names no disk: a number, \"serial:...\", \"wwn:...\" or a path under /dev/disk is wanted"),
        wrong("\"serial:A\\u0000B\"", "a line end, a tab or another control character stands in this"),
    });
    ExpectFaults(
        {{"[job.a]\nfolder = 'D:\\b'\ndisk = \"/dev/disk/by-id/x\"\n",
          "3: job.a.disk: \"/dev/disk/by-id/x\" names no disk: a number, \"serial:...\" or \"wwn:...\" is wanted"}},
        onWindows);
}

TEST(Configuration, FoldersThatAreNone)
{
    const auto wrong = [](const std::string &folder, const std::string &fault) {
        return Wrong{"[job.a]\ndisk = 1\nfolder = " + folder + "\n", "3: job.a.folder: " + fault};
    };
    ExpectFaults({
        wrong("7", "text in quotes is wanted, not a whole number"),
        wrong("[\"/a\"]", "text in quotes is wanted, not a list in square brackets"),
        wrong("\"\"", "this is empty: give it a value, or leave the key out"),
        wrong("\"backup\"", "\"backup\" is no absolute path: it has to begin with /"),
        wrong("\"./backup\"", "\"./backup\" is no absolute path: it has to begin with /"),
        wrong("\"~/backup\"", "\"~/backup\" is no absolute path: it has to begin with /"),
        wrong("'D:\\backup'", "\"D:\\backup\" is no absolute path: it has to begin with /"),
        wrong("\"/mnt/../backup\"", "\"/mnt/../backup\" has .. in it: write the path without"),
        wrong("\"/mnt/a\\nb\"", "a line end, a tab or another control character stands in this"),
        wrong("\"/mnt/a\\u0000b\"", "a line end, a tab or another control character stands in this"),
    });
}

TEST(Configuration, FoldersThatAreNoneOnWindows)
{
    const auto wrong = [](const std::string &folder, const std::string &fault) {
        return Wrong{"[job.a]\ndisk = 1\nfolder = '" + folder + "'\n", "3: job.a.folder: \"" + folder + "\" " + fault};
    };
    const std::string noDrive =
        "is no absolute path: it has to begin with a drive and a backslash, or with \\\\SERVER\\SHARE";
    const std::string badCharacter = "has one of the characters < > : \" | ? * in it, which no name on Windows has";
    const std::string noShare = "names no share: \\\\SERVER\\SHARE\\FOLDER is wanted";
    ExpectFaults(
        {
            wrong("/mnt/backup", noDrive),
            wrong("\\backup", noDrive),
            wrong("D:backup", noDrive),
            wrong("D:", noDrive),
            wrong("1:\\backup", noDrive),
            wrong("\\\\", noDrive),
            wrong("D:\\a\\..\\b", "has .. in it: write the path without"),
            wrong("D:\\a:b", badCharacter),
            wrong("D:\\a*", badCharacter),
            wrong("\\\\nas\\ba|ck", badCharacter),
            wrong("\\\\nas", noShare),
            wrong("\\\\?\\D:\\backup", noShare),
            wrong("\\\\.\\PhysicalDrive0", noShare),
            wrong("\\\\.\\C:\\backup", noShare),
            wrong("D:\\B\xC3\xBCro", "is not all ASCII, and kestrix on Windows can't open such a path"),
        },
        onWindows);
    EXPECT_EQ(JobOf("[job.a]\ndisk = 1\nfolder = 'd:/backup'\n", onWindows).folder, "d:/backup");
}

TEST(Configuration, TheFileSystemOfAFolderIsNamedByIdentityOrSource)
{
    ExpectFaultsInJob({
        {"folder-must-be = \"6f1c\"",
         "4: job.server.folder-must-be: \"uuid:...\" or \"source:...\" is wanted, not \"6f1c\""},
        {"folder-must-be = \"uuid:\"",
         "4: job.server.folder-must-be: \"uuid:...\" or \"source:...\" is wanted, not \"uuid:\""},
        {"folder-must-be = \"source:\"",
         "4: job.server.folder-must-be: \"uuid:...\" or \"source:...\" is wanted, not \"source:\""},
        {"folder-must-be = \"\"", "4: job.server.folder-must-be: this is empty: give it a value, or leave the key out"},
        {"folder-must-be = true", "4: job.server.folder-must-be: text in quotes is wanted, not true or false"},
    });
}

TEST(Configuration, TruthIsTrueOrFalse)
{
    ExpectFaultsInJob({
        {"snapshots = \"yes\"", "4: job.server.snapshots: true or false is wanted, not text in quotes"},
        {"snapshots = 1", "4: job.server.snapshots: true or false is wanted, not a whole number"},
        {"folder-without-locks = \"true\"",
         "4: job.server.folder-without-locks: true or false is wanted, not text in quotes"},
        {"copies = [{ to = \"/c\", plain-ok = 1 }]",
         "4: job.server.copies[1].plain-ok: true or false is wanted, not a whole number"},
    });
    ExpectFaultBeginning(JobWith("snapshots = yes"), "keep.toml:4: job.server.snapshots: this is no TOML: ");
    ExpectFaultBeginning(JobWith("snapshots = True"), "keep.toml:4: job.server.snapshots: this is no TOML: ");
}

TEST(Configuration, PasswordFilesAreAbsolutePaths)
{
    ExpectFaultsInJob({
        {"password-file = \"password\"",
         "4: job.server.password-file: \"password\" is no absolute path: it has to begin with /"},
        {"password-file = \"\"", "4: job.server.password-file: this is empty: give it a value, or leave the key out"},
        {"password-file = false", "4: job.server.password-file: text in quotes is wanted, not true or false"},
    });
    ExpectFaults({{"[job.a]\ndisk = 1\nfolder = 'D:\\b'\npassword-file = 'C:\\gehe\xC3\xAFm'\n",
                   "4: job.a.password-file: \"C:\\gehe\xC3\xAFm\" is not all ASCII, and kestrix on Windows can't open "
                   "such a path"}},
                 onWindows);
}

TEST(Configuration, TimesAreACountAndAUnit)
{
    for (const char *text :
         {"1", "d", "0d", "-1d", "1.5d", "1D", "1 d", " 1d", "1d ", "1s", "1y", "1d12h", "d1", "+1d"}) {
        ExpectFaultsInJob(
            {{"every = \"" + std::string(text) + "\"",
              "4: job.server.every: \"" + std::string(text) +
                  "\" is no time: a number from 1 up and m, h, d or w is wanted, such as \"12h\" or \"30d\""}});
    }
    ExpectFaultsInJob({
        {"every = 1", "4: job.server.every: text in quotes is wanted, not a whole number"},
        {"every = 07:00:00", "4: job.server.every: text in quotes is wanted, not a date or time"},
        {"every = \"\"", "4: job.server.every: this is empty: give it a value, or leave the key out"},
        {"every = \"36501d\"", "4: job.server.every: \"36501d\" is more than 100 years"},
        {"every = \"99999999999999999999999w\"",
         "4: job.server.every: \"99999999999999999999999w\" is more than 100 years"},
        {"new-full = { every = \"monthly\" }",
         "4: job.server.new-full.every: \"monthly\" is no time: a number from 1 up and m, h, d or w is wanted, such as "
         "\"12h\" or \"30d\""},
        {"check = { whole-every = 7 }",
         "4: job.server.check.whole-every: text in quotes is wanted, not a whole number"},
    });
}

TEST(Configuration, BasesAreOneOfTwo)
{
    ExpectFaultsInJob({
        {"base = \"Full\"", "4: job.server.base: \"full\" or \"newest\" is wanted, not \"Full\""},
        {"base = \"/mnt/backup/full.kstx\"",
         "4: job.server.base: \"full\" or \"newest\" is wanted, not \"/mnt/backup/full.kstx\""},
        {"base = \"\"", "4: job.server.base: this is empty: give it a value, or leave the key out"},
        {"base = 1", "4: job.server.base: text in quotes is wanted, not a whole number"},
    });
}

TEST(Configuration, RulesForFullImagesHaveLimits)
{
    for (const char *text : {"50", "0%", "101%", "%", "-5%", "5.5%", "50 %", "999999999999999999999%"}) {
        ExpectFaultsInJob({{"new-full = { when-thin-exceeds = \"" + std::string(text) + "\" }",
                            "4: job.server.new-full.when-thin-exceeds: \"" + std::string(text) +
                                "\" is no share: \"1%\" to \"100%\" is wanted"}});
    }
    ExpectFaultsInJob({
        {"new-full = \"30d\"", "4: job.server.new-full: a table of keys is wanted, not text in quotes"},
        {"new-full = { when-thin-exceeds = 50 }",
         "4: job.server.new-full.when-thin-exceeds: text in quotes is wanted, not a whole number"},
        {"new-full = { chain = 0 }", "4: job.server.new-full.chain: a number from 1 to 65 is wanted, not 0"},
        {"new-full = { chain = 66 }", "4: job.server.new-full.chain: a number from 1 to 65 is wanted, not 66"},
        {"new-full = { chain = \"60\" }", "4: job.server.new-full.chain: a whole number is wanted, not text in quotes"},
        {"new-full = { chain = 9223372036854775807 }",
         "4: job.server.new-full.chain: a number from 1 to 65 is wanted, not 9223372036854775807"},
    });
    ExpectFaultBeginning(JobWith("new-full = { chain = 9223372036854775808 }"),
                         "keep.toml:4: job.server.new-full: this is no TOML: ");
}

TEST(Configuration, RetentionKeepsAtLeastOne)
{
    const std::string keepsNone =
        "this would keep no image at all: one of last, daily, weekly and monthly has to be 1 or "
        "more; to keep every image leave keep out";
    ExpectFaultsInJob({
        {"keep = {}", "4: job.server.keep: " + keepsNone},
        {"keep = { last = 0, daily = 0, weekly = 0, monthly = 0 }", "4: job.server.keep: " + keepsNone},
        {"copies = [{ to = \"/c\", keep = { daily = 0 } }]", "4: job.server.copies[1].keep: " + keepsNone},
        {"keep = 7", "4: job.server.keep: a table of keys is wanted, not a whole number"},
        {"keep = { last = -1 }", "4: job.server.keep.last: a number from 0 to 10000 is wanted, not -1"},
        {"keep = { daily = 10001 }", "4: job.server.keep.daily: a number from 0 to 10000 is wanted, not 10001"},
        {"keep = { weekly = \"8\" }", "4: job.server.keep.weekly: a whole number is wanted, not text in quotes"},
        {"keep = { monthly = 1.0 }",
         "4: job.server.keep.monthly: a whole number is wanted, not a number with a fraction"},
    });
}

TEST(Configuration, ChecksAreOfTwoDepths)
{
    ExpectFaultsInJob({
        {"check = true", "4: job.server.check: a table of keys is wanted, not true or false"},
        {"check = { each = \"none\" }", "4: job.server.check.each: \"own\" or \"whole\" is wanted, not \"none\""},
        {"check = { each = true }", "4: job.server.check.each: text in quotes is wanted, not true or false"},
        {"check = { whole-every = \"0d\" }",
         "4: job.server.check.whole-every: \"0d\" is no time: a number from 1 up and m, h, d or w is wanted, such as "
         "\"12h\" or \"30d\""},
    });
}

TEST(Configuration, CopiesGoToPlaces)
{
    const std::string noRemote = "4: job.server.copies[1].to: rclone:REMOTE:PATH is wanted, not ";
    const std::string plain =
        "4: job.server.copies[1].to: without a password-file the images are not sealed: set one, or "
        "allow it here with plain-ok = true";
    ExpectFaultsInJob({
        {"copies = \"/mnt/usb\"", "4: job.server.copies: a list in square brackets is wanted, not text in quotes"},
        {"copies = { to = \"/mnt/usb\" }",
         "4: job.server.copies: a list in square brackets is wanted, not a table of keys"},
        {"copies = [\"/mnt/usb\"]", "4: job.server.copies[1]: a table of keys is wanted, not text in quotes"},
        {"copies = [{}]", "4: job.server.copies[1].to: this key is missing: where the copies go"},
        {"copies = [\n{ to = \"/a\" },\n{ to = 3 }]",
         "6: job.server.copies[2].to: text in quotes is wanted, not a whole number"},
        {"copies = [{ to = \"usb\" }]",
         "4: job.server.copies[1].to: \"usb\" is no absolute path: it has to begin with /"},
        {"copies = [{ to = \"\" }]",
         "4: job.server.copies[1].to: this is empty: give it a value, or leave the key out"},
        {"copies = [{ to = \"offsite:server\" }]",
         "4: job.server.copies[1].to: \"offsite:server\" is no absolute path: it has to begin with /"},
        {"copies = [{ to = \"rclone:\" }]", noRemote + "\"rclone:\""},
        {"copies = [{ to = \"rclone:offsite\" }]", noRemote + "\"rclone:offsite\""},
        {"copies = [{ to = \"rclone:offsite:\" }]", noRemote + "\"rclone:offsite:\""},
        {"copies = [{ to = \"rclone::path\" }]", noRemote + "\"rclone::path\""},
        {"copies = [{ to = \"rclone:-v:path\" }]",
         "4: job.server.copies[1].to: \"-v\" is no name of a remote as rclone has them"},
        {"copies = [{ to = \"rclone:a,b=c:path\" }]",
         "4: job.server.copies[1].to: \"a,b=c\" is no name of a remote as rclone has them"},
        {"copies = [{ to = \"rclone:offsite:server\" }]", plain},
    });
    EXPECT_EQ(JobOf(JobWith("copies = [{ to = \"rclone:o:p\", plain-ok = true }]")).copies[0].rclone, "o:p");
    EXPECT_EQ(JobOf(JobWith("password-file = \"/p\"\ncopies = [{ to = \"rclone:o:p\" }]")).copies[0].rclone, "o:p");
    ExpectFaults({{"[job.a]\ndisk = 1\nfolder = 'D:\\b'\ncopies = [{ to = 'rclone:e:b', plain-ok = true }]\n",
                   "4: job.a.copies[1].to: \"e\" is a drive to rclone on Windows: give the remote a longer name"}},
                 onWindows);
}

TEST(Configuration, HooksAreAProgramAndItsArguments)
{
    for (const std::string hook : {"before", "after", "on-success", "on-failure"}) {
        const std::string at = "4: job.server." + hook;
        ExpectFaultsInJob({
            {hook + " = \"/bin/true\"", at + ": a list in square brackets is wanted, not text in quotes"},
            {hook + " = []", at + ": the list is empty: a program and its arguments are wanted"},
            {hook + " = [\"page-me\"]", at + "[1]: \"page-me\" is no absolute path: it has to begin with /"},
            {hook + " = [\"\"]", at + "[1]: this is empty: give it a value, or leave the key out"},
            {hook + " = [\"/bin/x\", 3]", at + "[2]: text in quotes is wanted, not a whole number"},
            {hook + " = [\"/bin/x\", \"\"]", at + "[2]: this is empty: give it a value, or leave the key out"},
            {hook + " = [\"/bin/x\", \"a\\u0000\"]",
             at + "[2]: a line end, a tab or another control character stands in this"},
            {hook + " = [[\"/bin/x\"]]", at + "[1]: text in quotes is wanted, not a list in square brackets"},
        });
    }
}

TEST(Configuration, NamesOfJobsFitEverySystem)
{
    const auto job = [](const std::string &key) { return "[job." + key + "]\ndisk = 1\nfolder = \"/b\"\n"; };
    const std::string letters = "the name of a job is made of the letters A to Z, digits, dot, underscore and dash";
    const std::string device = "Windows keeps this name for a device: choose another";
    const std::string begin = "the name of a job begins with a letter, a digit or an underscore";
    const std::string length = "the name of a job has 1 to 64 characters";
    ExpectFaults({
        {job("\"\""), "1: job.\"\": " + length},
        {job(std::string(65, 'n')), "1: job." + std::string(65, 'n') + ": " + length},
        {job("\"my server\""), "1: job.\"my server\": " + letters},
        {job("\"a/b\""), "1: job.\"a/b\": " + letters},
        {job("\"b\xC3\xBCro\""), "1: job.\"b\xC3\xBCro\": " + letters},
        {job("\".hidden\""), "1: job.\".hidden\": " + begin},
        {job("\"..\""), "1: job.\"..\": " + begin},
        {job("-x"), "1: job.-x: " + begin},
    });
    for (const char *name : {"CON", "con", "Prn", "aux", "NUL", "COM0", "com9", "LPT1", "lpt0"}) {
        ExpectFaults({{job(name), "1: job." + std::string(name) + ": " + device}});
        ExpectFaults(
            {{job("\"" + std::string(name) + ".x.y\""), "1: job.\"" + std::string(name) + ".x.y\": " + device}});
    }
    for (const char *name : {"conn", "com", "com10", "comx", "_", "0", "lpt", "nul-1", "a.con"}) {
        EXPECT_EQ(JobOf(job("\"" + std::string(name) + "\"")).name, name);
    }
}

TEST(Configuration, PlacesAreNotShared)
{
    const auto two = [](const std::string &first, const std::string &second) {
        return "[job.a]\ndisk = 1\nfolder = '" + first + "'\n[job.b]\ndisk = 2\nfolder = '" + second + "'\n";
    };
    const std::string fault = "6: job.b.folder: job.a.folder is this place already: give each a folder of its own";
    ExpectFaults({{two("/mnt/x", "/mnt/x"), fault}, {two("/mnt/x", "//mnt/./x/"), fault}});
    ExpectFaults({{two("D:\\x", "d:/X/"), fault}, {two("\\\\Nas\\S\\x", "//nas/s/x"), fault}}, onWindows);
    EXPECT_EQ(Parse(two("/mnt/x", "/mnt/X")).faults, Faults());
    EXPECT_EQ(Parse(two("/mnt/x", "/mnt/x/y")).faults, Faults());
    ExpectFaultsInJob({
        {"copies = [{ to = \"/mnt/backup/\" }]",
         "4: job.server.copies[1].to: job.server.folder is this place already: give each a folder of its own"},
        {"copies = [{ to = \"rclone:o:p\", plain-ok = true },\n{ to = \"rclone:o:p\", plain-ok = true }]",
         "5: job.server.copies[2].to: job.server.copies[1].to is this place already: give each a folder of its own"},
    });
}

TEST(Configuration, NamesOfJobsDifferInMoreThanCapitals)
{
    ExpectFaults(
        {{"[job.Server]\ndisk=1\nfolder='/a'\n[job.server]\ndisk=2\nfolder='/b'\n",
          "4: job.server: job.Server has this name but for capital letters, which Windows does not tell apart"}});
}

TEST(Configuration, UnknownKeysAreRefusedWithWhatWasMeant)
{
    const auto meant = [](const std::string &line, const std::string &key, const std::string &nearest) {
        return Wrong{line, "4: job.server." + key + ": there is no such key; did you mean " + nearest + "?"};
    };
    ExpectFaultsInJob({
        meant("fodler-must-be = \"uuid:1\"", "fodler-must-be", "folder-must-be"),
        meant("password_file = \"/p\"", "password_file", "password-file"),
        meant("Password-File = \"/p\"", "Password-File", "password-file"),
        meant("password = \"secret\"", "password", "password-file"),
        meant("snapshot = true", "snapshot", "snapshots"),
        meant("copie = []", "copie", "copies"),
        meant("onfailure = [\"/x\"]", "onfailure", "on-failure"),
        meant("keep = { last = 1, day = 3 }", "keep.day", "daily"),
        meant("keep = { last = 1, month = 3 }", "keep.month", "monthly"),
        meant("new-full = { when-thin-exeeds = \"5%\" }", "new-full.when-thin-exeeds", "when-thin-exceeds"),
        meant("check = { whole_every = \"7d\" }", "check.whole_every", "whole-every"),
        meant("copies = [{ to = \"/c\", plainok = true }]", "copies[1].plainok", "plain-ok"),
    });
    ExpectFaultsInJob({
        {"chain = 5", "4: job.server.chain: this key belongs to new-full, not here"},
        {"last = 3", "4: job.server.last: this key belongs to keep, not here"},
        {"keep = { last = 1, base = \"full\" }",
         "4: job.server.keep.base: this key belongs to the job itself, not here"},
        {"keep = { last = 1, decennially = 3 }",
         "4: job.server.keep.decennially: there is no such key; here there can be last, daily, weekly, monthly"},
        {"\"\" = 1",
         "4: job.server.\"\": there is no such key; here there can be disk, machine, folder, folder-must-be, "
         "folder-without-locks, password-file, snapshots, every, base, new-full, keep, check, copies, before, "
         "after, on-success, on-failure"},
    });
    ExpectFaults(
        {{"[jobs.a]\ndisk = 1\n[job.a]\ndisk = 1\nfolder = \"/b\"\n",
          "1: jobs: there is no such key; did you mean job?"},
         {"disk = 1\n[job.a]\ndisk = 1\nfolder = \"/b\"\n", "1: disk: this key belongs to the job itself, not here"}});
}

TEST(Configuration, AllFaultsAreToldByLine)
{
    const Faults faults = Parse("[job.a]\nfolder = \"b\"\nkeep = { last = -1, dayly = 3 }\nevery = \"0d\"\n"
                                "[job.b]\ndisk = \"x\"\n[jobb]\n")
                              .faults;
    EXPECT_EQ(faults,
              (Faults{
                  "keep.toml:1: job.a.disk: this key is missing: which disk to image",
                  "keep.toml:2: job.a.folder: \"b\" is no absolute path: it has to begin with /",
                  "keep.toml:3: job.a.keep.dayly: there is no such key; did you mean daily?",
                  "keep.toml:3: job.a.keep.last: a number from 0 to 10000 is wanted, not -1",
                  "keep.toml:4: job.a.every: \"0d\" is no time: a number from 1 up and m, h, d or w is wanted, such "
                  "as \"12h\" or \"30d\"",
                  "keep.toml:5: job.b.folder: this key is missing: where the images go",
                  "keep.toml:6: job.b.disk: \"x\" names no disk: a number, \"serial:...\", \"wwn:...\" or a path "
                  "under /dev/disk is wanted",
                  "keep.toml:7: jobb: there is no such key; did you mean job?",
              }));
}

// ---- The text itself ----

TEST(Configuration, WhatStandsTwiceIsNamed)
{
    ExpectFaults({
        {JobWith("disk = 2"), "4: job.server.disk: this stands in the file twice"},
        {JobWith("[job.server]"), "4: job.server: this stands in the file twice"},
        {JobWith("keep = { last = 1 }\n[job.server.keep]"), "5: job.server.keep: this stands in the file twice"},
        {JobWith("keep = { last = 1, last = 2 }"), "4: job.server.keep: this stands in the file twice"},
    });
}

TEST(Configuration, WhatIsNoTomlIsToldWithItsLineAndKey)
{
    ExpectFaultBeginning(JobWith("every = 1d"), "keep.toml:4: job.server.every: this is no TOML: ");
    ExpectFaultBeginning(JobWith("every ="), "keep.toml:4: job.server.every: this is no TOML: ");
    ExpectFaultBeginning(JobWith("every \"1d\""), "keep.toml:4: job.server.every \"1d\": this is no TOML: ");
    ExpectFaultBeginning(JobWith("every = \"1d"), "keep.toml:4: job.server.every: this is no TOML: ");
    ExpectFaultBeginning(JobWith("keep = { last = 1,\nevery = \"1d\""),
                         "keep.toml:4: job.server.keep: this is no TOML: ");
    ExpectFaultBeginning("[job.a]\ndisk = 1\nfolder = /mnt\n", "keep.toml:3: job.a.folder: this is no TOML: ");
    ExpectFaultBeginning("[job.a]\nfolder = \"C:\\Kestrix\"\n", "keep.toml:2: job.a.folder: this is no TOML: ");
    ExpectFaultBeginning("[job.a\ndisk = 1\n", "keep.toml:1: job.a: this is no TOML: ");
    ExpectFaultBeginning("# all well\n\n<job></job>\n", "keep.toml:3: <job></job>: this is no TOML: ");
    ExpectFaultBeginning(JobWith(std::string("every = \"1\0d\"", 13)),
                         "keep.toml:4: job.server.every: this is no TOML: ");
    ExpectFaultBeginning(std::string("\0", 1), "keep.toml:1: ");
}

TEST(Configuration, KeysAreFoundBehindStringsOfSeveralLinesAndComments)
{
    ExpectFaultBeginning(JobWith("every = '''\n[job.other]\n1 '' = '''''\nbase = oops"),
                         "keep.toml:7: job.server.base: this is no TOML: ");
    ExpectFaultBeginning(JobWith("every = \"\"\"\n\\\"\"\" [x]\n\"\"\"\"\" # \"\"\"\nbase = oops"),
                         "keep.toml:7: job.server.base: this is no TOML: ");
    ExpectFaultBeginning(JobWith("copies = [ # \"[\n  { to = 'x[' },\n]\n# [job.b]\nbase = oops"),
                         "keep.toml:8: job.server.base: this is no TOML: ");
}

TEST(Configuration, AByteOrderMarkAndWindowsLineEndsAreFine)
{
    EXPECT_EQ(JobOf("\xEF\xBB\xBF[job.server]\r\ndisk = 1\r\nfolder = \"/b\"\r\n").folder, "/b");
    ExpectFaults(
        {{"\xEF\xBB\xBF[job.server]\r\ndisk = 1\r\nfolder = \"/b\"\r\nchian = 1\r\n",
          "4: job.server.chian: there is no such key; here there can be disk, machine, folder, folder-must-be, "
          "folder-without-locks, password-file, snapshots, every, base, new-full, keep, check, copies, before, "
          "after, on-success, on-failure"}});
}

TEST(Configuration, TextThatIsNoUtf8IsRefusedWithItsLine)
{
    const std::string fault = "this line is no UTF-8: save the file in that encoding";
    for (const char *bytes : {"\xFC", "\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82"}) {
        ExpectFaultsInJob(
            {{"\npassword-file = \"/p" + std::string(bytes) + "\"", "5: job.server.password-file: " + fault}});
    }
    ExpectFaults({{"\xFF\xFE[\0j\0", "1: \xFF\xFE[: " + fault}});
}

TEST(Configuration, AFileThatIsTooLargeIsNotLookedAt)
{
    const std::string good = JobWith("");
    constexpr size_t largest = 1048576;
    EXPECT_EQ(Parse(good + std::string(largest - good.size(), '\n')).faults, Faults());
    EXPECT_EQ(Parse(good + std::string(largest - good.size() + 1, '\n')).faults,
              Faults{"keep.toml: it has more than 1048576 bytes, as no configuration needs"});
}

TEST(Configuration, NestingWithoutEndEndsInAFault)
{
    ExpectFaultBeginning("a = " + std::string(500000, '[') + "\n", "keep.toml:1: a: this is no TOML: ");
    ExpectFaultBeginning("a = " + Repeated("{a=", 300000) + "\n", "keep.toml:1: a: this is no TOML: ");
    ExpectFaultBeginning("a" + Repeated(".a", 500000) + " = 1\n", "keep.toml:1: a.a.a.");
    ExpectFaultBeginning("[a" + Repeated(".a", 500000) + "]\n", "keep.toml:1: a.a.a.");
    ExpectFaultBeginning("a = [ { b" + Repeated(" . \"b\"", 100000) + " = 1 } ]\n",
                         "keep.toml:1: a: a key here has more parts than any that is known");
    ExpectFaultBeginning("a = '''x''''' \n[a" + Repeated(".a", 500000) + "]\n", "keep.toml:2: a.a.a.");
}

TEST(Configuration, FaultsWithoutEndAreCounted)
{
    std::string text = JobWith("");
    for (int i = 0; i < 5000; ++i) {
        text += "x" + std::to_string(i) + " = 1\n";
    }
    const Faults faults = Parse(text).faults;
    ASSERT_EQ(faults.size(), 1001U);
    EXPECT_EQ(faults[999].rfind("keep.toml:1004: job.server.x999: there is no such key", 0), 0U);
    EXPECT_EQ(faults[1000], "keep.toml: and 4000 faults more");
}

TEST(Configuration, LongTextIsToldShortened)
{
    const std::string longName(5000, 'n');
    for (const Faults &faults :
         {Parse(JobWith(longName + " = 1")).faults, Parse(JobWith("base = \"" + longName + "\"")).faults,
          Parse(JobWith("base = \"" + Repeated("\xC3\xBC", 3000) + "\"")).faults}) {
        ASSERT_EQ(faults.size(), 1U);
        EXPECT_LT(faults[0].size(), 500U);
        EXPECT_NE(faults[0].find("..."), std::string::npos);
    }
}

// No sentence is expected here, only that there is an end: the sanitizers watch.
TEST(Configuration, AnyChangeOfTheTextEndsInRecordsOrFaults)
{
    std::mt19937 random(20261122);
    const std::string pieces[] = {
        "[",     "]",   "{",    "}",  "\"",         "'",    "\"\"\"",       "'''",
        "=",     ".",   "#",    "\n", "\r",         "\\",   "\\u",          ",",
        "1e999", "nan", "-inf", "0x", "2026-02-30", "\xC3", "\xEF\xBB\xBF", std::string(1, '\0')};
    size_t goodCount = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string text = fullExample;
        for (int edit = 0; edit < 1 + round % 4; ++edit) {
            const size_t at = random() % text.size();
            const size_t length = random() % 3 == 0 ? random() % 20 : 0;
            text.replace(at, length, pieces[random() % std::size(pieces)]);
        }
        const ReadingResult result = Parse(text, round % 2 == 0 ? onLinux : onWindows);
        goodCount += result.faults.empty() ? 1 : 0;
        for (const std::string &fault : result.faults) {
            EXPECT_EQ(fault.substr(0, 10), "keep.toml:") << text;
        }
    }
    EXPECT_GT(goodCount, 0U);
    EXPECT_LT(goodCount, 3000U);
}
