// halcydctl as it ships: every verb's JSON, exit codes, errors with their cures, the live view.

#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "NetUtilities/Handles.h"
#include "clients/ClientRuns.h"

namespace
{
using nlohmann::json;

// The one JSON object that a verb printed; the exit code goes to `exitCode`.
json ClientJson(const std::wstring& arguments, DWORD expectedExitCode = 0)
{
    const FinishedProcess process = Client(arguments + L" --json");
    EXPECT_EQ(process.exitCode, expectedExitCode) << process.output;
    const json parsed = json::parse(process.output, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << process.output;
    return parsed;
}

// A client that goes on while the test does things; its output goes to a file that the test can look at.
class RunningClient
{
public:
    explicit RunningClient(const std::wstring& arguments)
        : outputPath(std::filesystem::temp_directory_path() / L"client-output.txt")
    {
        SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
        const UniqueHandle output(CreateFileW(outputPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                              &inherit, CREATE_ALWAYS, 0, nullptr));
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = output.get();
        startup.hStdError = output.get();
        PROCESS_INFORMATION started{};
        std::wstring line = ClientCommand(arguments);
        EXPECT_TRUE(CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_NEW_PROCESS_GROUP, nullptr,
                                   nullptr, &startup, &started));
        CloseHandle(started.hThread);
        process.reset(started.hProcess);
    }
    ~RunningClient()
    {
        if (process && WaitForSingleObject(process.get(), 0) != WAIT_OBJECT_0)
        {
            TerminateProcess(process.get(), 1);
            WaitForSingleObject(process.get(), 10'000);
        }
    }
    RunningClient(const RunningClient&) = delete;
    RunningClient& operator=(const RunningClient&) = delete;

    [[nodiscard]] std::string Output() const
    {
        std::ifstream file(outputPath, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }
    // Waits until the output holds the text. Nothing announces what another program writes, so this looks again and
    // again.
    [[nodiscard]] bool WaitForText(const std::string& text, DWORD timeoutMs = 60'000) const
    {
        const ULONGLONG deadline = GetTickCount64() + timeoutMs;
        while (Output().find(text) == std::string::npos)
        {
            if (GetTickCount64() >= deadline)
            {
                return false;
            }
            Sleep(20);
        }
        return true;
    }
    // Its exit code, or STILL_ACTIVE.
    [[nodiscard]] DWORD WaitForEnd(DWORD timeoutMs = 60'000) const
    {
        WaitForSingleObject(process.get(), timeoutMs);
        DWORD code = 0;
        GetExitCodeProcess(process.get(), &code);
        return code;
    }

private:
    std::filesystem::path outputPath;
    UniqueHandle process;
};

class ClientTest : public ClientFixture
{
};
} // namespace

TEST_F(ClientTest, StatusOfAHealthyInstallationIsZeroAndSaysSo)
{
    const json status = ClientJson(L"status");
    EXPECT_EQ(status["service"]["state"], "running");
    EXPECT_EQ(status["service"]["processId"], ServiceControl().ProcessId());
    EXPECT_TRUE(status["registration"]["proxies"].get<bool>());
    EXPECT_TRUE(status["registration"]["traceService"].get<bool>());
    EXPECT_FALSE(status["monitor"]["open"].get<bool>());
    EXPECT_FALSE(status.contains("problem"));
    EXPECT_NE(Client(L"status").output.find("running"), std::string::npos);
}

TEST_F(ClientTest, OpenAndCloseAreCounted)
{
    EXPECT_TRUE(ClientJson(L"open")["open"].get<bool>());
    EXPECT_TRUE(ClientJson(L"open")["open"].get<bool>());
    EXPECT_TRUE(ClientJson(L"close")["open"].get<bool>());
    EXPECT_FALSE(ClientJson(L"close")["open"].get<bool>());
}

TEST_F(ClientTest, ListShowsTheScenariosAdaptersAndLeavesTheMonitorClosed)
{
    const json list = ClientJson(L"list");
    ASSERT_FALSE(list["adapters"].empty());
    for (const json& adapter : list["adapters"])
    {
        EXPECT_FALSE(adapter["id"].get<std::string>().empty());
        EXPECT_FALSE(adapter["description"].get<std::string>().empty());
        EXPECT_NE(Client(L"list").output.find(adapter["description"].get<std::string>()), std::string::npos);
    }
    EXPECT_FALSE(ClientJson(L"status")["monitor"]["open"].get<bool>());
    EXPECT_TRUE(ClientJson(L"list --as-is")["adapters"].empty());
}

TEST_F(ClientTest, OutputThroughAPipeCarriesNoColoursUnlessAskedFor)
{
    EXPECT_EQ(Client(L"list").output.find('\x1b'), std::string::npos);
    EXPECT_NE(Client(L"list --color always").output.find('\x1b'), std::string::npos);
    EXPECT_EQ(Client(L"list --color always --no-color").output.find('\x1b'), std::string::npos);
}

TEST_F(ClientTest, WatchTellsTheAddEventsOfTheDiscoveryAndEndsWithTheCount)
{
    const FinishedProcess process = Client(L"watch --json --no-table --count 2 --seconds 60");
    EXPECT_EQ(process.exitCode, 0u);
    std::istringstream lines(process.output);
    std::size_t events = 0;
    for (std::string line; std::getline(lines, line);)
    {
        const json parsed = json::parse(line, nullptr, false);
        ASSERT_FALSE(parsed.is_discarded()) << line;
        if (parsed["kind"] == "event")
        {
            ++events;
            EXPECT_EQ(parsed["name"], "enumEventAdapterAdd");
        }
    }
    EXPECT_EQ(events, 2u);
    EXPECT_FALSE(ClientJson(L"status")["monitor"]["open"].get<bool>());
}

TEST_F(ClientTest, WatchSurvivesARestartOfTheServiceAndSaysSo)
{
    const RunningClient watch(L"watch --json --no-table --seconds 150");
    ASSERT_TRUE(watch.WaitForText("\"kind\":\"started\"")) << watch.Output();
    ASSERT_TRUE(ServiceControl().StopAndWait());
    ASSERT_TRUE(watch.WaitForText("\"kind\":\"serviceLost\"")) << watch.Output();
    ASSERT_TRUE(ServiceControl().StartAndWait());
    ASSERT_TRUE(watch.WaitForText("\"kind\":\"serviceBack\"")) << watch.Output();
    // Connected, opened and switched on again: what happens now is told.
    Lab(L"cable out eth0");
    ASSERT_TRUE(watch.WaitForText("enumEventMediaDisconnect")) << watch.Output();
    std::istringstream lines(watch.Output());
    std::vector<std::string> kinds;
    for (std::string line; std::getline(lines, line);)
    {
        const json parsed = json::parse(line, nullptr, false);
        ASSERT_FALSE(parsed.is_discarded()) << line;
        if (parsed["kind"] != "event" && parsed["kind"] != "note")
        {
            kinds.push_back(parsed["kind"]);
        }
        else if (parsed["name"] == "enumEventMediaDisconnect")
        {
            EXPECT_EQ(parsed["adapter"], "Brevik GX210 Gigabit Ethernet");
            EXPECT_EQ(parsed["adjacentMac"], "");
        }
    }
    EXPECT_EQ(kinds, (std::vector<std::string>{"started", "serviceLost", "serviceBack"}));
}

TEST_F(ClientTest, WatchShowsOneLineAnEventAndDrawsTheTableBelowItAnew)
{
    const RunningClient watch(L"watch --color always --seconds 150");
    ASSERT_TRUE(watch.WaitForText("Watching.")) << watch.Output();
    Lab(L"cable out eth0");
    ASSERT_TRUE(watch.WaitForText("media disconnected")) << watch.Output();
    Lab(L"cable in eth0");
    ASSERT_TRUE(watch.WaitForText("media connected")) << watch.Output();
    const std::string output = watch.Output();
    // Red for what went, green for what came.
    EXPECT_NE(output.find("\x1b[31mmedia disconnected"), std::string::npos) << output;
    EXPECT_NE(output.find("\x1b[32mmedia connected"), std::string::npos) << output;
    const std::string plain = std::regex_replace(output, std::regex("\x1b\\[[0-9;]*[A-Za-z]"), "");
    const std::regex connected(R"(\d\d:\d\d:\d\d\.\d\d\d  Brevik GX210 Gigabit Ethernet +media connected +)"
                               R"(02:00:5[Ee]:00:53:[Ff][Ee])");
    EXPECT_TRUE(std::regex_search(plain, connected)) << plain;
    // Before an event line the table goes: cursor up, and all below erased.
    const std::size_t event = output.find("media connected");
    const std::size_t erased = output.rfind("A\r\x1b[J", event);
    ASSERT_NE(erased, std::string::npos);
    EXPECT_EQ(output.substr(erased, event - erased).find("State"), std::string::npos);
    EXPECT_TRUE(std::regex_search(output.substr(0, erased), std::regex("Adapter.*State"))) << output;
}

TEST_F(ClientTest, WatchThroughAPipeHasNoColoursAndTheTableOnlyAtStartAndEnd)
{
    const FinishedProcess process = Client(L"watch --count 2 --seconds 60");
    EXPECT_EQ(process.exitCode, 0u);
    EXPECT_EQ(process.output.find('\x1b'), std::string::npos);
    std::size_t tables = 0;
    for (std::size_t at = process.output.find("State"); at != std::string::npos;
         at = process.output.find("State", at + 1))
    {
        ++tables;
    }
    EXPECT_EQ(tables, 2u) << process.output;
}

TEST_F(ClientTest, StoppedServiceIsAnErrorWithItsCureUnlessItMayBeStarted)
{
    ASSERT_TRUE(ServiceControl().StopAndWait());
    const FinishedProcess process = Client(L"list");
    EXPECT_EQ(process.exitCode, 4u);
    EXPECT_NE(process.output.find("net start Halcyd"), std::string::npos) << process.output;
    EXPECT_EQ(ClientJson(L"list", 4)["error"]["exitCode"], 4);
    EXPECT_EQ(ClientJson(L"status", 4)["problem"]["exitCode"], 4);
    EXPECT_TRUE(ClientJson(L"list --start").contains("adapters"));
}

TEST_F(ClientTest, MissingProxiesAreToldBeforeACallCouldHang)
{
    // Not RunProcess: a windowed program may start the desktop, which would keep the pipe of its output open for ever.
    const UniqueHandle regsvr = StartProcess(L"regsvr32 /u /s \"" + ProductFolder() + L"HalcydPS.dll\"");
    ASSERT_EQ(WaitForSingleObject(regsvr.get(), 60'000), WAIT_OBJECT_0);
    const FinishedProcess process = Client(L"list");
    EXPECT_EQ(process.exitCode, 6u);
    EXPECT_NE(process.output.find("regsvr32 HalcydPS.dll"), std::string::npos) << process.output;
}

TEST_F(ClientTest, InterfacesClaimedByTheTypeLibraryAreToldBeforeACallCouldHang)
{
    constexpr wchar_t Generic[] = L"{00020424-0000-0000-C000-000000000046}";
    ASSERT_EQ(RegSetKeyValueW(HKEY_CLASSES_ROOT, L"Interface\\{E2FB2D06-5F8C-4406-8CA2-4DBDC3A93885}\\ProxyStubClsid32",
                              nullptr, REG_SZ, Generic, sizeof Generic),
              ERROR_SUCCESS);
    const FinishedProcess process = Client(L"list");
    EXPECT_EQ(process.exitCode, 6u);
    EXPECT_NE(process.output.find("generic marshaler"), std::string::npos) << process.output;
}

TEST_F(ClientTest, UnregisteredServiceIsToldWithItsCure)
{
    ASSERT_TRUE(ServiceControl().StopAndWait());
    EXPECT_EQ(RunProcess(L"\"" + ProductFolder() + L"Halcyd.exe\" -UnregServer").exitCode, 0u);
    const FinishedProcess process = Client(L"list");
    EXPECT_EQ(process.exitCode, 3u);
    EXPECT_NE(process.output.find("Halcyd.exe -Service"), std::string::npos) << process.output;
}

TEST_F(ClientTest, MissingTraceServiceIsToldWithItsCure)
{
    ASSERT_TRUE(ServiceControl().StopAndWait());
    ASSERT_EQ(RunProcess(L"\"" + ProductFolder() + L"TraceStore.exe\" -UnregServer").exitCode, 0u);
    const FinishedProcess process = Client(L"trace");
    EXPECT_EQ(process.exitCode, 7u);
    EXPECT_NE(process.output.find("TraceStore.exe -RegServer"), std::string::npos) << process.output;
    EXPECT_EQ(Client(L"list").exitCode, 7u);
}

TEST_F(ClientTest, TraceGivesTheServicesLinesAndFiltersThem)
{
    {
        // The service hands its lines over when it gets to it; this returns once they have come.
        const RunningClient follower(L"trace --follow --json --source ConfigServer");
        ASSERT_TRUE(follower.WaitForText("m_szDisplayName")) << follower.Output();
    }
    const FinishedProcess process = Client(L"trace --json --source ConfigServer --level 4 -n 5");
    EXPECT_EQ(process.exitCode, 0u);
    std::istringstream lines(process.output);
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count)
    {
        const json parsed = json::parse(line, nullptr, false);
        ASSERT_FALSE(parsed.is_discarded()) << line;
        EXPECT_EQ(parsed["sourceName"], "ConfigServer");
        EXPECT_LE(parsed["level"].get<int>(), 4);
    }
    EXPECT_EQ(count, 5u);
}

TEST_F(ClientTest, LevelsAreSetAndShown)
{
    EXPECT_EQ(ClientJson(L"trace set-level 5")["level"], 5);
    EXPECT_EQ(ClientJson(L"trace set-level 6 --source NetMon")["source"], 11);
    const json levels = ClientJson(L"trace levels");
    EXPECT_EQ(levels["global"], 5);
    bool found = false;
    for (const json& source : levels["sources"])
    {
        if (source["name"] == "NetMon")
        {
            found = true;
            EXPECT_EQ(source["level"], 6);
            EXPECT_EQ(source["inForce"], 6);
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(ClientTest, SettingsOfAnUnknownAdapterAreRefusedInWords)
{
    const json error = ClientJson(L"dns get {00000000-0000-0000-0000-000000000000}", 1)["error"];
    EXPECT_EQ(error["code"], 0x80041017u);
    EXPECT_NE(error["reason"].get<std::string>().find("No adapter has this id"), std::string::npos);
}

TEST_F(ClientTest, RegistryRoundTripInsideTheListAndRefusalOutside)
{
    const std::wstring inside = L"\"HKEY_LOCAL_MACHINE\\Software\\QRLS\\ClientTest\"";
    EXPECT_TRUE(ClientJson(L"registry set " + inside + L" Number 0x10 --type dword")["done"].get<bool>());
    const json value = ClientJson(L"registry get " + inside + L" Number");
    EXPECT_EQ(value["typeName"], "dword");
    EXPECT_EQ(value["data"], 16);
    EXPECT_TRUE(ClientJson(L"registry set " + inside + L" List a,b --type multi")["done"].get<bool>());
    EXPECT_EQ(ClientJson(L"registry get " + inside + L" List")["data"], (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(Client(L"registry set HKEY_LOCAL_MACHINE\\Software\\Other v 1").exitCode, 5u);
    EXPECT_EQ(Client(L"registry set " + inside + L" v nonsense --type dword").exitCode, 2u);
    EXPECT_EQ(Client(L"registry get " + inside + L" Missing").exitCode, 1u);
    EXPECT_TRUE(ClientJson(L"registry delete " + inside + L" --key")["done"].get<bool>());
    EXPECT_EQ(Client(L"registry get " + inside + L" Number").exitCode, 1u);
}

TEST_F(ClientTest, ServicesOutsideTheFixedSetAreRefusedInWords)
{
    EXPECT_EQ(ClientJson(L"service query Halcyd")["stateName"], "running");
    const json error = ClientJson(L"service stop Halcyd", 1)["error"];
    EXPECT_NE(error["reason"].get<std::string>().find("PolicyAgent, IkeExt and WZCSVC only"), std::string::npos);
    EXPECT_EQ(ServiceControl().State(), DWORD{SERVICE_RUNNING});
}

TEST_F(ClientTest, BindingsShowReadsTheRecord)
{
    EXPECT_TRUE(ClientJson(L"bindings show")["disabledBindings"].empty());
    constexpr wchar_t Record[] = L"SOFTWARE\\QRLS\\Sorvane\\AdapterControl\\MultiHomingPrevention\\ms_tcpip\\"
                                 L"{4A1C7E01-3B52-4D0F-9E61-0C5D8A2B7001}";
    const DWORD one = 1;
    ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, Record, L"BindingDisabledByQRL", REG_DWORD, &one, sizeof one),
              ERROR_SUCCESS);
    const json bindings = ClientJson(L"bindings show")["disabledBindings"];
    ASSERT_EQ(bindings.size(), 1u);
    EXPECT_EQ(bindings[0]["protocol"], "ms_tcpip");
    EXPECT_EQ(bindings[0]["component"], "{4A1C7E01-3B52-4D0F-9E61-0C5D8A2B7001}");
}
