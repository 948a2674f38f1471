// backup: the jobs, one after the other. One that fails does not keep the next from its turn.
#include "kestrix-keep/backup.h"
#include "kestrix-keep/jobs.h"
#include "report/report.h"

// Of two statuses the one that wants someone to look.
static int Worse(int left, int right)
{
    return left == exitWell || right == exitFailed ? right : left;
}

int Backup(const KeepOptions &common, const BackupOptions &options)
{
    std::vector<Job> jobs;
    if (!ReadJobs(common.configuration, options.jobs, &jobs)) {
        return exitCommandLine;
    }
    RunOptions run;
    run.isDryRun = options.isDryRun;
    run.speaks = !common.json;
    run.showsProgress = !common.quiet;
    run.threads = common.threads;
    run.now = common.now;
    JsonOutput output(common.json);
    int status = exitWell;
    output.BeginList("jobs");
    for (const Job &job : jobs) {
        const RunReport report = RunJob(job, run);
        output.Item(JsonOf(report));
        if (!common.json) {
            PrintLine(job.name + ": " + (report.failure.empty() ? "well" : "FAILED: " + report.failure));
        }
        status = Worse(status, report.status);
    }
    return status;
}
