// The parser, led around its own way with words in brackets, and the frame of a program.
#include "report/command_line.h"

#include "host/host.h"
#include "report/report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

// The parser would take a word in brackets for a list. One that ends with a zero byte, as no argument does, it leaves
// alone; the byte goes before the word is looked at.
static void MarkBrackets(std::string *word)
{
    if (!word->empty() && word->front() == '[' && word->back() == ']') {
        word->push_back('\0');
    }
}

static std::string Unmarked(std::string word)
{
    if (!word.empty() && word.back() == '\0') {
        word.pop_back();
    }
    return word;
}

// Of the app's options, its subcommands' and their groups'.
static void UnmarkOptions(CLI::App *app)
{
    for (CLI::Option *option : app->get_options()) {
        option->transform(Unmarked);
    }
    for (CLI::App *command : app->get_subcommands({})) {
        UnmarkOptions(command);
    }
}

bool ParseCommandLine(CLI::App &app, std::vector<std::string> arguments)
{
    UnmarkOptions(&app);
    std::for_each(arguments.begin(), arguments.end(), [](std::string &word) { MarkBrackets(&word); });
    std::reverse(arguments.begin(), arguments.end()); // as the parser takes them
    try {
        app.parse(arguments);
    } catch (const CLI::CallForHelp &) {
        printf("%s", app.help().c_str());
    } catch (const CLI::CallForVersion &version) {
        printf("%s\n", version.what());
    } catch (const CLI::ParseError &error) {
        PrintFault(error.what());
        PrintFault(std::string(programName) + " --help tells what can be asked");
        return false;
    }
    return true;
}

static int statusWithoutMemory = EXIT_FAILURE;

// Lists of JSON take memory when they go, and no exception can leave them there.
static void EndWithoutMemory()
{
    fprintf(stderr, "%s: there is not enough memory\n", programName);
    std::_Exit(statusWithoutMemory);
}

int RunGuarded(const char *name, int failed, const std::function<int()> &run)
{
    int status = failed;
    programName = name;
    statusWithoutMemory = failed;
    std::set_terminate(EndWithoutMemory);
    host::PrepareProcess();
    try {
        status = run();
    } catch (const std::bad_alloc &) {
        fprintf(stderr, "%s: there is not enough memory\n", programName);
    } catch (const std::exception &error) {
        fprintf(stderr, "%s: %s\n", programName, error.what());
    }
    if (!FlushOutput()) {
        fprintf(stderr, "%s: what was to be printed did not arrive\n", programName);
        status = failed;
    }
    return status;
}
