// What state a job is in, judged by what lies in its folder and not by what was to be run.
#pragma once

#include "kestrix-keep/configuration.h"
#include "kestrix-keep/job_folder.h"

#include <string>
#include <vector>

struct JobStatus {
    std::string job;
    std::string folder;
    std::string disk;                  // as the configuration names it
    std::vector<std::string> problems; // what is wrong, as sentences; none: all is well
    std::string lastGood;              // file name of the newest sound image; empty: there is none
    int64_t lastGoodAt = 0;
    int64_t dueAt = 0; // when the next image is due; 0: now
    bool isOverdue = false;
    uint64_t images = 0;
    uint64_t damagedImages = 0;
    uint32_t chainLength = 0; // of the newest sound image
    uint32_t chainLimit = 0;
    int64_t chainProvedAt = 0; // when the oldest of its files was last read whole; 0: not known
    uint64_t usedBytes = 0;    // by the job's images
    bool spaceIsKnown = false;
    uint64_t freeBytes = 0;
    uint64_t bytesPerDay = 0; // that the images of the last month took; 0: not known yet
    bool lastRunFailed = false;
    std::vector<std::string> notes; // what to see to though all be well, as sentences
    std::string lastRunSays;        // of the last run: when, and how it ended; empty: there was none
};

// What the images in the job's folder, which was read, come to.
JobStatus StatusOf(const Job &job, const JobFolder &folder, int64_t now);

// When a chain was last read whole, in words; provedAt 0: not known.
std::string ProvedText(int64_t provedAt, int64_t now);

// The room that there is and for how long it lasts, in words.
std::string RoomText(const JobStatus &status);

Json JsonOf(const JobStatus &status);

// All jobs in the text format that Prometheus reads, version 0.0.4; none where the configuration could not be read.
// now: seconds since 1970.
std::string PrometheusText(const std::vector<JobStatus> &jobs, bool hasConfiguration, int64_t now);
