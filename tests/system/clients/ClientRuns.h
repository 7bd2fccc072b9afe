#pragma once
// Runs of the console client, on the laptop scenario with the service running.

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "tests/support/LabControl.h"
#include "tests/support/Processes.h"
#include "tests/support/Services.h"

inline std::wstring ClientCommand(const std::wstring& arguments)
{
    return L"\"" + ProductFolder() + L"halcydctl.exe\" " + arguments;
}

// Runs it to its end.
inline FinishedProcess Client(const std::wstring& arguments)
{
    return RunProcess(ClientCommand(arguments), 120'000);
}

class ClientFixture : public testing::Test
{
protected:
    void SetUp() override
    {
        Lab(L"load laptop");
        ASSERT_TRUE(ServiceControl().StartAndWait());
    }
};
