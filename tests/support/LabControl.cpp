#include "tests/support/LabControl.h"

#include <gtest/gtest.h>

#include "tests/support/Processes.h"

std::string Lab(const std::wstring& arguments)
{
    const FinishedProcess done = RunProcess(kLabControl + arguments);
    EXPECT_TRUE(done.started && !done.timedOut && done.exitCode == 0) << done.output;
    return done.output;
}
