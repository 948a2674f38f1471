// The keys of kestrix-keep's configuration: for each what a person would write wrongly, with the file, the line and the
// key that are told.
#include "reading_configuration.h"

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
        {"copies = [{ to = \"/c\", must-be = \"usb\" }]",
         "4: job.server.copies[1].must-be: \"uuid:...\" or \"source:...\" is wanted, not \"usb\""},
        {"copies = [{ to = \"/c\", must-be = [\n\"uuid:1\",\n\"usb\"] }]",
         "6: job.server.copies[1].must-be[2]: \"uuid:...\" or \"source:...\" is wanted, not \"usb\""},
        {"copies = [{ to = \"/c\", must-be = [] }]",
         "4: job.server.copies[1].must-be: the list is empty: name a file system, or leave the key out"},
        {"copies = [{ to = \"/c\", must-be = 3 }]",
         "4: job.server.copies[1].must-be: text in quotes is wanted, not a whole number"},
        {"copies = [{ to = \"rclone:o:p\", plain-ok = true, must-be = \"uuid:1\" }]",
         "4: job.server.copies[1].must-be: this is for folders: a place of rclone lies on no file system of this "
         "machine"},
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
    const Job oneDisk = JobOf(JobWith("copies = [{ to = \"/c\", must-be = \"uuid:1\" }]"));
    ASSERT_EQ(oneDisk.copies[0].mustBe.size(), 1U);
    EXPECT_EQ(oneDisk.copies[0].mustBe[0].uuid, "1");
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
        meant("copies = [{ to = \"/c\", mustbe = \"uuid:1\" }]", "copies[1].mustbe", "must-be"),
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
