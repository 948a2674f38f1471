// All of the configuration is checked, whichever jobs are wanted.
#include "kestrix-keep/jobs.h"

#include "kestrix-keep/guest.h"
#include "report/report.h"

#include <algorithm>

bool ReadJobs(const std::string &configurationPath, const std::vector<std::string> &names, std::vector<Job> *jobs)
{
    const std::string path = configurationPath.empty() ? DefaultConfigurationPath() : configurationPath;
    ReadingResult read = ReadConfiguration(path);
    for (const std::string &fault : read.faults) {
        PrintFault(fault);
    }
    if (!read.faults.empty()) {
        return false;
    }
    if (names.empty()) {
        *jobs = std::move(read.configuration.jobs);
        return true;
    }
    for (const std::string &name : names) {
        const std::vector<Job> &known = read.configuration.jobs;
        const auto found =
            std::find_if(known.begin(), known.end(), [&name](const Job &job) { return job.name == name; });
        if (found == known.end()) {
            PrintFault(path + ": it has no job " + name);
            return false;
        }
        jobs->push_back(*found);
    }
    return true;
}

std::string PasswordCopyText(const Job &job)
{
    return job.passwordFile.empty()
               ? ""
               : "keep a copy of " + job.passwordFile + " elsewhere than on the disk " + DiskOfJob(job) +
                     ", which this job is to bring back: without the password none of its images "
                     "can be restored";
}
