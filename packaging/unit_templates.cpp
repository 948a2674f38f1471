// Writes the units that the package brings, kestrix-keep@.service and kestrix-keep@.timer, into the working folder.
//
// They are what schedule writes for one job, with the job's name left open. What a job needs of the machine is not
// known here, so that the run is as little confined as that of a job with programs of its own. Where schedule has made
// a timer for the job, that one has the say.
#include "kestrix-keep/schedule_texts.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

static const std::string job = "JOB";

// Puts a word in place of another wherever that stands in text; a text without it is not the one that was expected.
static void Replace(std::string *text, const std::string &word, const std::string &other)
{
    size_t at = text->find(word);
    if (at == std::string::npos) {
        fprintf(stderr, "\"%s\" is missing in a unit\n", word.c_str());
        exit(1);
    }
    for (; at != std::string::npos; at = text->find(word, at + other.size())) {
        text->replace(at, word.size(), other);
    }
}

// A comment is read by people, who know that JOB is to be replaced; to systemd %i is the job.
static std::string WithJobLeftOpen(const std::string &text)
{
    std::istringstream lines(text);
    std::string open;
    for (std::string line; std::getline(lines, line);) {
        if (line[0] != '#' && line.find(job) != std::string::npos) {
            Replace(&line, job, "%i");
        }
        open += line + "\n";
    }
    return open;
}

int main()
{
    ScheduledRun run;
    run.job = job;
    run.program = "/usr/bin/kestrix-keep";
    run.usesRclone = true; // or it may: the network is waited for
    run.runsPrograms = true;
    const std::vector<std::string> names = {"kestrix-keep@.service", "kestrix-keep@.timer"};
    std::vector<host::ScheduledFile> units = UnitTexts(run);
    for (size_t i = 0; i < names.size(); ++i) {
        std::string &text = units[i].content;
        text.erase(0, text.find('\n') + 1); // the mark of what schedule wrote
        Replace(&text, "kestrix-keep-" + job, "kestrix-keep@" + job);
    }
    Replace(&units[0].content, "# Other programs have a part", "# Other programs may have a part");
    Replace(&units[0].content, "[Unit]\n",
            "[Unit]\n# Not where kestrix-keep schedule has made a timer for the job.\n"
            "ConditionPathExists=!" +
                host::PlaceOfScheduled(ScheduleNames(job, host::Scheduler::Systemd)[1]) + "\n");
    for (size_t i = 0; i < names.size(); ++i) {
        std::ofstream file(names[i], std::ios::binary);
        if (!(file << WithJobLeftOpen(units[i].content)).flush()) {
            fprintf(stderr, "%s can't be written\n", names[i].c_str());
            return 1;
        }
    }
    return 0;
}
