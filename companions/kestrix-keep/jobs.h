// The jobs that a subcommand is for.
#pragma once

#include "kestrix-keep/configuration.h"

#include <string>
#include <vector>

// Reads the configuration and gives the jobs of these names, in their order, or all where none is named. False where
// the configuration is faulty or has no such job, which was told on the error stream.
bool ReadJobs(const std::string &configurationPath, const std::vector<std::string> &names, std::vector<Job> *jobs);

// What an administrator has to see to for a job with a password file; empty for one without.
std::string PasswordCopyText(const Job &job);
