// What halcydctl answers where something is wrong: words, cures, exit codes, the same as JSON.

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "clients/ClientRuns.h"

namespace
{
using nlohmann::json;

json Error(const std::wstring& arguments, DWORD expectedExitCode)
{
    const FinishedProcess process = Client(arguments + L" --json");
    EXPECT_EQ(process.exitCode, expectedExitCode) << process.output;
    const json parsed = json::parse(process.output, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << process.output;
    EXPECT_TRUE(parsed.contains("error")) << process.output;
    const json error = parsed.value("error", json::object());
    EXPECT_EQ(expectedExitCode, error.value("exitCode", 0u));
    EXPECT_FALSE(error.value("reason", "").empty()) << process.output;
    EXPECT_FALSE(error.value("cure", "").empty()) << process.output;
    return error;
}

class ClientErrors : public ClientFixture
{
};

TEST_F(ClientErrors, MistakesOnTheCommandLineAreJsonToo)
{
    EXPECT_NE(std::string::npos, Error(L"frobnicate", 2)["reason"].get<std::string>().find("'frobnicate' is no verb"));
    Error(L"list --frob", 2);
    Error(L"dns get", 2);
    Error(L"trace set-level x", 2);
    const FinishedProcess plain = Client(L"frobnicate");
    EXPECT_EQ(2u, plain.exitCode);
    EXPECT_TRUE(plain.output.starts_with("halcydctl: 'frobnicate' is no verb")) << plain.output;
}

TEST_F(ClientErrors, EachFailureSaysTheCure)
{
    EXPECT_EQ(0x80041017u, Error(L"dns get {00000000-0000-0000-0000-000000000000}", 1)["code"]);
    EXPECT_EQ(70u, Error(L"dns set {4A1C7E07-3B52-4D0F-9E61-0C5D8A2B7007} bogus", 1)["code"]);
    EXPECT_EQ(2u, Error(L"registry get HKLM\\SOFTWARE\\NoSuchKey v", 1)["code"]);
    EXPECT_EQ(160u, Error(L"registry get HKU\\x v", 1)["code"]);
    EXPECT_EQ(5u, Error(L"registry set HKLM\\SOFTWARE\\Other v 1", 5)["code"]);
    EXPECT_EQ(1060u, Error(L"service query NoSuchService", 1)["code"]);
    EXPECT_EQ(1060u, Error(L"service stop NoSuchService", 1)["code"]);
    EXPECT_EQ(0xFFFFFFFFu, Error(L"service stop Halcyd", 1)["code"]);
}

TEST_F(ClientErrors, AdapterIdAndRegistryRootAreTakenAsPeopleTypeThem)
{
    EXPECT_EQ(0u, Client(L"ip get 4a1c7e07-3b52-4d0f-9e61-0c5d8a2b7007").exitCode);
    EXPECT_EQ(0u, Client(L"registry set hklm\\software\\QRLS\\ClientErrors v text").exitCode);
    EXPECT_EQ("text\n", Client(L"registry get HKLM\\Software\\QRLS\\ClientErrors v").output);
    EXPECT_EQ(0u, Client(L"registry delete hklm\\software\\QRLS\\ClientErrors --key").exitCode);
}

// The service answers 0 to a start that the service manager refused; whoever typed the command wants to know.
TEST_F(ClientErrors, StartThatWasRefusedIsAnErrorThatTellsTheState)
{
    ASSERT_EQ(0u, InstallService(L"PolicyAgent"));
    EXPECT_EQ("It is stopped, start on demand.", Error(L"service start PolicyAgent", 1)["reason"]);
    const FinishedProcess stopped = Client(L"service stop PolicyAgent --json");
    EXPECT_EQ(0u, stopped.exitCode);
    EXPECT_EQ("stopped", json::parse(stopped.output)["stateName"]);
}
} // namespace
