// How olmctl ends, as its node tests expect it: exit status 0 done, 1 failed with one line on
// standard error, 2 a malformed command line with the usage.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "NodeProcess.h"

namespace OlmTest {

constexpr int kOlmctlOk = 0;
constexpr int kOlmctlFailed = 1;
constexpr int kOlmctlMalformed = 2;

// A failure says what went wrong in one line on standard error and prints nothing else.
inline void expectFailureLine(const ProgramRun& run, const std::string& text) {
  EXPECT_EQ(run.status, kOlmctlFailed) << run.out << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
  EXPECT_NE(run.err.find(text), std::string::npos) << run.err;
}

// A malformed command line: the error, then the usage.
inline void expectUsageError(const ProgramRun& run) {
  EXPECT_EQ(run.status, kOlmctlMalformed) << run.out << run.err;
  EXPECT_EQ(run.err.rfind("olmctl: ", 0), 0u) << run.err;
  EXPECT_NE(run.err.find("Usage: olmctl"), std::string::npos) << run.err;
}

}  // namespace OlmTest
