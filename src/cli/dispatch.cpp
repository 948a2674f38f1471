// One function per command: reads its options in a fixed order, refuses what it can't run without, calls its operation.
//
// The disk number is converted before anything else is looked at, so a malformed one ends the program whatever else is
// missing. A missing --confirm is no usage error: the refusal of a destructive run is the operation's own. Only capture
// refuses --encrypt without a password file here; consolidate does it itself, behind the opening of its source.
#include "cli/dispatch.h"

#include "capture/capture.h"
#include "cli/options.h"
#include "disk/list_disks.h"
#include "operations/consolidate.h"
#include "operations/restore.h"
#include "operations/verify.h"

#include <cstdio>
#include <cstring>

static const char usageText[] =
    "Kestrix - whole-physical-disk raw sector-level imaging.\n"
    "\n"
    "  kestrix list-disks\n"
    "  kestrix capture --disk N --out PATH [--base PATH [--thin]] [--vss] [--encrypt --password-file PATH]\n"
    "  kestrix verify  --in PATH [--password-file PATH]\n"
    "  kestrix restore --in PATH --disk N --confirm YES [--password-file PATH]\n"
    "  kestrix consolidate --in PATH --out PATH [--password-file PATH [--encrypt]]  (thin chain -> one full image)\n"
    "\n"
    "Run as Administrator. See README.md for the crash-consistency and\n"
    "destructive-restore notes before using this on a real disk.\n";

static int PrintUsage()
{
    printf("%s", usageText);
    return 1;
}

static int RunListDisks()
{
    ListDisks();
    return 0;
}

static int RunCapture(int argc, char **argv)
{
    CaptureOptions options;
    options.diskNumber = ParseDiskNumber(OptionValue(argc, argv, "--disk", "-1"));
    options.outPath = OptionValue(argc, argv, "--out", "");
    options.encrypt = HasFlag(argc, argv, "--encrypt");
    options.useVss = HasFlag(argc, argv, "--vss");
    options.passwordFile = OptionValue(argc, argv, "--password-file", "");
    options.basePath = OptionValue(argc, argv, "--base", "");
    if (options.basePath.empty()) {
        options.basePath = OptionValue(argc, argv, "--incremental", "");
    }
    if (options.diskNumber < 0 || options.outPath.empty() || (options.encrypt && options.passwordFile.empty())) {
        return PrintUsage();
    }
    options.thin = HasFlag(argc, argv, "--thin");
    Capture(options);
    return 0;
}

static int RunVerify(int argc, char **argv)
{
    const std::string inPath = OptionValue(argc, argv, "--in", "");
    const std::string passwordFile = OptionValue(argc, argv, "--password-file", "");
    if (inPath.empty()) {
        return PrintUsage();
    }
    VerifyImage(inPath, passwordFile);
    return 0;
}

static int RunRestore(int argc, char **argv)
{
    const std::string inPath = OptionValue(argc, argv, "--in", "");
    const int32_t diskNumber = ParseDiskNumber(OptionValue(argc, argv, "--disk", "-1"));
    const bool confirmed = OptionValue(argc, argv, "--confirm", "") == "YES";
    const std::string passwordFile = OptionValue(argc, argv, "--password-file", "");
    if (inPath.empty() || diskNumber < 0) {
        return PrintUsage();
    }
    RestoreImage(inPath, diskNumber, confirmed, passwordFile);
    return 0;
}

static int RunConsolidate(int argc, char **argv)
{
    const std::string inPath = OptionValue(argc, argv, "--in", "");
    const std::string outPath = OptionValue(argc, argv, "--out", "");
    if (inPath.empty() || outPath.empty()) {
        return PrintUsage();
    }
    const bool encrypt = HasFlag(argc, argv, "--encrypt");
    const std::string passwordFile = OptionValue(argc, argv, "--password-file", "");
    ConsolidateImage(inPath, outPath, passwordFile, encrypt);
    return 0;
}

int Dispatch(int argc, char **argv)
{
    if (argc < 2) {
        return PrintUsage();
    }
    const char *command = argv[1];
    if (strcmp(command, "list-disks") == 0) {
        return RunListDisks();
    }
    if (strcmp(command, "capture") == 0) {
        return RunCapture(argc, argv);
    }
    if (strcmp(command, "verify") == 0) {
        return RunVerify(argc, argv);
    }
    if (strcmp(command, "restore") == 0) {
        return RunRestore(argc, argv);
    }
    if (strcmp(command, "consolidate") == 0) {
        return RunConsolidate(argc, argv);
    }
    return PrintUsage();
}
