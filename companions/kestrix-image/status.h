// What faults come to: their lines and their exit statuses.
#pragma once

#include "kestrix-image/commands.h"
#include "reader/reader.h"
#include "report/report.h"

// The exit status that a fault stands for.
int StatusOf(const reader::Fault &fault);

// Tells the fault of a run that has come to no more than result, the member of that name, and gives its exit status.
int ReportFault(JsonOutput &output, const char *result, const reader::Fault &fault);

// Of two exit statuses the one that weighs more.
int Worse(int left, int right);
