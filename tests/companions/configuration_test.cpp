// The configuration of kestrix-keep: what is read from a good one, and what its text may be.
#include "reading_configuration.h"

#include <fstream>
#include <random>

namespace
{
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
  { to = "/mnt/usb2/server", must-be = ["uuid:6f1c2a30-0000-4000-8000-000000000002", "source:nas:/second"] },
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
    ASSERT_EQ(job.copies[0].mustBe.size(), 2U);
    EXPECT_EQ(job.copies[0].mustBe[0].uuid, "6f1c2a30-0000-4000-8000-000000000002");
    EXPECT_EQ(job.copies[0].mustBe[0].source, "");
    EXPECT_EQ(job.copies[0].mustBe[1].uuid, "");
    EXPECT_EQ(job.copies[0].mustBe[1].source, "nas:/second");
    EXPECT_FALSE(job.copies[0].plainIsFine);
    EXPECT_FALSE(job.copies[0].keep.has_value());
    EXPECT_EQ(job.copies[1].folder, "");
    EXPECT_TRUE(job.copies[1].mustBe.empty());
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
