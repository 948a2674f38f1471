// What the tests of kestrix-keep's configuration share: reading one from a text, and the faults that are expected in
// it.
#pragma once

#include "kestrix-keep/configuration.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Faults = std::vector<std::string>;

constexpr auto onLinux = host::PathRules::Linux;
constexpr auto onWindows = host::PathRules::Windows;

inline ReadingResult Parse(const std::string &text, host::PathRules rules = onLinux)
{
    return ParseConfiguration(text, "keep.toml", rules);
}

// A job to which nothing is wrong, in three lines, and what follows from line 4 on.
inline std::string JobWith(const std::string &lines)
{
    return "[job.server]\ndisk = 1\nfolder = \"/mnt/backup\"\n" + lines + "\n";
}

// The only job of a configuration without faults.
inline Job JobOf(const std::string &text, host::PathRules rules = onLinux)
{
    const ReadingResult result = Parse(text, rules);
    EXPECT_EQ(result.faults, Faults());
    EXPECT_EQ(result.configuration.jobs.size(), 1U);
    return result.configuration.jobs.size() == 1 ? result.configuration.jobs.front() : Job();
}

// Text, and the one fault in it, without the file's name.
struct Wrong {
    std::string text;
    std::string fault;
};

inline void ExpectFaults(const std::vector<Wrong> &table, host::PathRules rules = onLinux)
{
    for (const Wrong &wrong : table) {
        EXPECT_EQ(Parse(wrong.text, rules).faults, Faults{"keep.toml:" + wrong.fault}) << wrong.text;
    }
}

// The same for lines behind those of a good job.
inline void ExpectFaultsInJob(const std::vector<Wrong> &table)
{
    for (const Wrong &wrong : table) {
        ExpectFaults({{JobWith(wrong.text), wrong.fault}});
    }
}

// One fault, of which the first words are known.
inline void ExpectFaultBeginning(const std::string &text, const std::string &beginning)
{
    const Faults faults = Parse(text).faults;
    ASSERT_EQ(faults.size(), 1U) << text.substr(0, 200);
    EXPECT_EQ(faults[0].substr(0, beginning.size()), beginning);
}
