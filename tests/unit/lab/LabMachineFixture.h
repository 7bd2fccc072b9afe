// The lab's machine of this prefix for tests of the lab itself: a clean state, no faults, the journal from here on.
#pragma once

#include "lab/state/Machine.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <string>
#include <vector>

class LabMachineTest : public testing::Test
{
protected:
    void SetUp() override
    {
        machine.ClearFaults();
        machine.Update([](lab::Json& state, lab::Events&) { state = lab::Json::object(); });
        machine.ClearJournal();
    }

    void TearDown() override { machine.ClearFaults(); }

    // The journal lines of one call since SetUp.
    [[nodiscard]] std::vector<lab::Json> Journalled(const std::string& call)
    {
        lab::JournalPosition position;
        std::vector<lab::Json> lines;
        for (lab::Json& line : machine.ReadJournal(position))
        {
            if (line.value("call", "") == call)
                lines.push_back(std::move(line));
        }
        return lines;
    }

    // The top of the build tree that this test program (tests/unit/...) belongs to.
    [[nodiscard]] static std::filesystem::path BuildFolder()
    {
        wchar_t path[MAX_PATH];
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        return std::filesystem::path{path}.parent_path().parent_path().parent_path();
    }

    lab::Machine& machine = lab::Machine::Attach();
};
