// The state of all jobs as one page of HTML, which needs nothing else: no script, no font, no file beside it.
//
// What it says comes from images, sidecars and the system, which may hold anything: whatever they hold, it stands there
// as text. The page is well-formed XML too.
#pragma once

#include "kestrix-keep/change_strips.h"
#include "kestrix-keep/job_folder.h"
#include "kestrix-keep/status.h"

#include <cstdint>
#include <string>
#include <vector>

struct PageJob {
    JobStatus status;
    JobFolder folder;                // without images where it could not be read
    std::vector<ChangeStrip> strips; // one for each image of the folder
};

struct PageFacts {
    int64_t madeAt = 0; // seconds since 1970
    std::string machine;
    std::vector<PageJob> jobs;
};

// The whole page. The same facts, in the same time zone, make the same page.
std::string StatusPage(const PageFacts &facts);

// text as it may stand between tags and in quoted attributes. What no page can hold becomes a question mark, and what
// is longer than any page needs is cut off, which is then said.
std::string Escaped(const std::string &text);

// The page's style sheet: status_page_style.cpp.
extern const char statusPageStyle[];
