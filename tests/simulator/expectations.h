// How the tests of several subsystems tell of a fatal end: its line, and a run that printed that line and nothing else.
//
// A machine that leaves spoiledError behind every call that succeeds shows it in a fatal line that is no call's
// failure, and in one that took a failure's number a call too late.
#pragma once

#include "simulator/run_command.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

constexpr DWORD spoiledError = 4711;

// The whole line of a fatal end without a status.
inline std::string FatalLine(const std::string &message, DWORD lastError = spoiledError)
{
    return "FATAL: " + message + " (GetLastError=" + std::to_string(lastError) + ")\n";
}

// The run ended by itself with exit status 1 and this on the error stream, and it printed nothing else.
inline void ExpectFatal(const RunResult &result, const std::string &errorText)
{
    EXPECT_EQ(result.errorText, errorText);
    EXPECT_EQ(result.outputText, "");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_FALSE(result.abnormalEnd) << result.abnormalText;
}
