// The command line of kestrix-image.
//
// A mistyped word is refused before anything is looked at. No exception passes out of here, and an exit status is one
// of the four that commands.h has.
#include "kestrix-image/commands.h"
#include "reader/reader.h"
#include "report/command_line.h"

#include <functional>

struct CommandLine {
    CommonOptions common;
    bool cached = false;
    std::vector<std::string> images;
    std::string diskText;
    std::string twinDiskText;
    std::string folder;
    std::string imageA;
    std::string imageB;
    CheckOptions check;
    CompareOptions compare;
    ExtractOptions extract;
    RepairOptions repair;
    std::function<int()> run;
};

// Empty if text is a disk's number as kestrix list-disks prints it.
static std::string CheckDiskNumber(const std::string &text)
{
    const bool isNumber =
        !text.empty() && text.size() <= 9 && text.find_first_not_of("0123456789") == std::string::npos;
    return isNumber && (text == "0" || text[0] != '0') ? "" : "a disk's number is wanted, not " + text;
}

// An empty word is what an unset variable of a shell leaves, and no wish.
static std::string CheckName(const std::string &text)
{
    return text.empty() ? "a name is wanted, not nothing" : "";
}

static std::optional<uint32_t> DiskNumber(const std::string &text)
{
    return text.empty() ? std::nullopt : std::optional<uint32_t>(static_cast<uint32_t>(std::stoul(text)));
}

static void AddCommon(CLI::App *command, CommandLine &line)
{
    command->add_flag("--json", line.common.json, "Print one JSON object instead of lines");
    command->add_flag("--quiet", line.common.quiet, "Show no progress");
}

static void AddThreads(CLI::App *command, CommandLine &line)
{
    command->add_option("-j", line.common.threads, "Threads; as many as there are cores, if not given")
        ->check(CLI::Range(1U, 1024U))
        ->type_name("N");
}

static void AddCached(CLI::App *command, CommandLine &line)
{
    command->add_flag("--cached", line.cached, "Take what the system remembers, not what the medium holds");
}

static void AddPassword(CLI::App *command, CommandLine &line)
{
    command->add_option("--password-file", line.common.passwordFile, "The file with the password of sealed images")
        ->type_name("PATH");
}

static void AddInfo(CLI::App &app, CommandLine &line)
{
    CLI::App *command = app.add_subcommand("info", "Tell what image files say of themselves");
    command->add_option("IMAGE", line.images, "Image files")->required();
    AddCommon(command, line);
    command->callback([&line] { line.run = [&line] { return Info(line.common, line.images); }; });
}

static void AddCheck(CLI::App &app, CommandLine &line)
{
    CLI::App *command = app.add_subcommand("check", "Tell whether images give back their disks, chains included");
    command->add_option("IMAGE", line.check.images, "Image files")->required();
    command->add_flag("--own", line.check.ownOnly, "Check only what the image stores itself; no base is needed");
    AddCommon(command, line);
    AddThreads(command, line);
    AddCached(command, line);
    AddPassword(command, line);
    command->callback([&line] { line.run = [&line] { return Check(line.common, line.check); }; });
}

static void AddTree(CLI::App &app, CommandLine &line)
{
    CLI::App *command = app.add_subcommand("tree", "Show which images of a folder stand on which");
    command->add_option("FOLDER", line.folder, "The folder")->required();
    AddCommon(command, line);
    AddThreads(command, line);
    command->callback([&line] { line.run = [&line] { return Tree(line.common, line.folder); }; });
}

static void AddCompare(CLI::App &app, CommandLine &line)
{
    CLI::App *command = app.add_subcommand("compare", "Name the parts of a disk that differ from an image");
    command->add_option("IMAGE", line.compare.image, "The image file")->required();
    CLI::App *with = command->add_option_group("With", "What the image is compared with");
    with->add_option("--disk", line.diskText, "A disk, by its number")->check(CheckDiskNumber)->type_name("N");
    with->add_option("--file", line.compare.file, "A raw file of a disk")->check(CheckName)->type_name("PATH");
    with->require_option(1);
    AddCommon(command, line);
    AddThreads(command, line);
    AddCached(command, line);
    command->callback([&line] {
        line.compare.disk = DiskNumber(line.diskText);
        line.run = [&line] { return Compare(line.common, line.compare); };
    });
}

static void AddDiff(CLI::App &app, CommandLine &line)
{
    CLI::App *command = app.add_subcommand("diff", "Name the parts of the disk in which two images differ");
    command->add_option("A", line.imageA, "An image file")->required();
    command->add_option("B", line.imageB, "Another one")->required();
    AddCommon(command, line);
    command->callback([&line] { line.run = [&line] { return Diff(line.common, line.imageA, line.imageB); }; });
}

static void AddTwins(CLI::App *command, CommandLine &line, std::string &folder)
{
    command->add_option("--twins", folder, "Take bad chunks from the images of a folder")
        ->check(CheckName)
        ->type_name("FOLDER");
    command->add_option("--twin-disk", line.twinDiskText, "Take bad chunks from a disk, by its number")
        ->check(CheckDiskNumber)
        ->type_name("N");
}

static void AddExtract(CLI::App &app, CommandLine &line)
{
    CLI::App *command = app.add_subcommand("extract", "Write the disk of an image into a raw, sparse file");
    ExtractOptions &options = line.extract;
    command->add_option("IMAGE", options.image, "The image file")->required();
    command->add_option("--out", options.out, "The new file")->required()->check(CheckName)->type_name("FILE");
    CLI::Option *keepGoing = command->add_flag("--keep-going", options.keepGoing, "Leave a hole for each bad chunk");
    CLI::Option *map =
        command->add_option("--map", options.map, "A new file that tells, as ddrescue does, what is missing");
    map->check(CheckName)->type_name("FILE")->needs(keepGoing);
    keepGoing->needs(map);
    AddTwins(command, line, options.twins);
    AddCommon(command, line);
    AddThreads(command, line);
    AddCached(command, line);
    AddPassword(command, line);
    command->callback([&line] {
        if (line.extract.map == line.extract.out) {
            throw CLI::ValidationError("--map", "--out names that file already");
        }
        line.extract.twinDisk = DiskNumber(line.twinDiskText);
        line.run = [&line] { return Extract(line.common, line.extract); };
    });
}

static void AddRepair(CLI::App &app, CommandLine &line)
{
    CLI::App *command = app.add_subcommand("repair", "Write a damaged image anew, made whole from its twins");
    RepairOptions &options = line.repair;
    command->add_option("IMAGE", options.image, "The image file")->required();
    command->add_option("--out", options.out, "The new file")->required()->check(CheckName)->type_name("FILE");
    AddTwins(command, line, options.twins);
    AddCommon(command, line);
    AddThreads(command, line);
    AddCached(command, line);
    AddPassword(command, line);
    command->callback([&line] {
        line.repair.twinDisk = DiskNumber(line.twinDiskText);
        line.run = [&line] { return Repair(line.common, line.repair); };
    });
}

static int RunProgram(int argc, char **argv)
{
    CommandLine line;
    line.common.threads = reader::CoreCount();
    CLI::App app(
        "Tells what images of disks are, checks them, and gives back what they hold. It writes to no image and "
        "no disk.",
        "kestrix-image");
    app.set_version_flag("--version", "kestrix-image " KESTRIX_VERSION);
    app.require_subcommand(1);
    app.allow_windows_style_options(false);
    AddInfo(app, line);
    AddTree(app, line);
    AddCheck(app, line);
    AddCompare(app, line);
    AddDiff(app, line);
    AddExtract(app, line);
    AddRepair(app, line);
    if (!ParseCommandLine(app, host::Arguments(argc, argv))) {
        return exitCommandLine;
    }
    line.common.caching = line.cached ? host::Caching::Cached : host::Caching::Medium;
    return line.run ? line.run() : exitGood;
}

int main(int argc, char **argv)
{
    return RunGuarded("kestrix-image", exitImpossible, [=] { return RunProgram(argc, argv); });
}
