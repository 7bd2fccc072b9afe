// halcydctl bindings against the service and the lab's configuration engine: the waiting command, its signs of life,
// the restore from another prompt, the refusal, and the record.

#include <windows.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include <nlohmann/json.hpp>

#include "bindings/BindingsMachine.h"
#include "clients/ClientRuns.h"
#include "Monitor/MonitorMachine.h"
#include "lab/state/Text.h"

namespace
{
using namespace BindingsMachine;
using nlohmann::json;

FinishedProcess Bindings(const std::wstring& arguments)
{
    return Client(L"bindings " + arguments);
}

// A console without a window. Its keyboard is a pipe of ours, but Wine's console makes no Ctrl+C of what is typed
// there.
class PseudoConsole
{
public:
    PseudoConsole()
    {
        HANDLE keyboardRead = nullptr;
        HANDLE keyboardWrite = nullptr;
        HANDLE screenRead = nullptr;
        HANDLE screenWrite = nullptr;
        EXPECT_TRUE(CreatePipe(&keyboardRead, &keyboardWrite, nullptr, 0));
        EXPECT_TRUE(CreatePipe(&screenRead, &screenWrite, nullptr, 1 << 20));
        const UniqueHandle consoleKeyboard(keyboardRead);
        const UniqueHandle consoleScreen(screenWrite);
        keyboard.reset(keyboardWrite);
        screen.reset(screenRead);
        // Younger than the headers that this is built with.
        const auto create = Function<HRESULT(COORD, HANDLE, HANDLE, DWORD, void**)>("CreatePseudoConsole");
        if (create != nullptr)
        {
            EXPECT_EQ(create({120, 40}, keyboardRead, screenWrite, 0, &console), S_OK);
        }
        EXPECT_NE(console, nullptr);
    }
    ~PseudoConsole()
    {
        const auto close = Function<void(void*)>("ClosePseudoConsole");
        if (close != nullptr && console != nullptr)
        {
            close(console);
        }
    }
    PseudoConsole(const PseudoConsole&) = delete;
    PseudoConsole& operator=(const PseudoConsole&) = delete;

    [[nodiscard]] void* Handle() const noexcept { return console; }

private:
    template <class Signature>
    static Signature* Function(const char* name)
    {
        return reinterpret_cast<Signature*>(
            reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernelbase.dll"), name)));
    }

    UniqueHandle keyboard;
    UniqueHandle screen;
    void* console = nullptr;
};

// The client in a console of its own, with its output in a file.
class ConsoleClient
{
public:
    explicit ConsoleClient(const std::wstring& arguments)
        : outputPath(std::filesystem::temp_directory_path() / L"bindings-output.txt")
    {
        constexpr DWORD_PTR pseudoConsoleAttribute = 0x00020016; // PROC_THREAD_ATTRIBUTE_PSEUDOCONSOLE
        SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
        const UniqueHandle output(CreateFileW(outputPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                              &inherit, CREATE_ALWAYS, 0, nullptr));
        STARTUPINFOEXW startup{};
        startup.StartupInfo.cb = sizeof startup;
        startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
        startup.StartupInfo.hStdOutput = output.get();
        startup.StartupInfo.hStdError = output.get();
        SIZE_T size = 0;
        InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        std::vector<std::byte> list(size);
        startup.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(list.data());
        EXPECT_TRUE(InitializeProcThreadAttributeList(startup.lpAttributeList, 1, 0, &size));
        EXPECT_TRUE(UpdateProcThreadAttribute(startup.lpAttributeList, 0, pseudoConsoleAttribute, console.Handle(),
                                              sizeof(void*), nullptr, nullptr));
        PROCESS_INFORMATION started{};
        std::wstring line = ClientCommand(L"bindings " + arguments);
        EXPECT_TRUE(CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, EXTENDED_STARTUPINFO_PRESENT, nullptr,
                                   nullptr, &startup.StartupInfo, &started));
        DeleteProcThreadAttributeList(startup.lpAttributeList);
        CloseHandle(started.hThread);
        process.reset(started.hProcess);
    }
    ~ConsoleClient()
    {
        if (WaitForSingleObject(process.get(), 0) != WAIT_OBJECT_0)
        {
            TerminateProcess(process.get(), 1);
            WaitForSingleObject(process.get(), 10'000);
        }
    }
    ConsoleClient(const ConsoleClient&) = delete;
    ConsoleClient& operator=(const ConsoleClient&) = delete;

    [[nodiscard]] std::string Output() const
    {
        std::ifstream file(outputPath, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }
    [[nodiscard]] bool Says(const std::string& text) const
    {
        const ULONGLONG deadline = GetTickCount64() + 60'000;
        while (Output().find(text) == std::string::npos && GetTickCount64() < deadline)
        {
            Sleep(20);
        }
        return Output().find(text) != std::string::npos;
    }
    [[nodiscard]] DWORD ExitCode() const
    {
        WaitForSingleObject(process.get(), 60'000);
        DWORD code = 0;
        GetExitCodeProcess(process.get(), &code);
        return code;
    }

private:
    PseudoConsole console;
    std::filesystem::path outputPath;
    UniqueHandle process;
};

class ClientBindingsTest : public testing::Test
{
protected:
    void SetUp() override
    {
        Load();
        ASSERT_TRUE(service.StartAndWait());
    }
    static json Json(const std::wstring& arguments, DWORD exitCode = 0)
    {
        const FinishedProcess process = Bindings(arguments + L" --json");
        EXPECT_EQ(process.exitCode, exitCode) << process.output;
        // The last line is the outcome.
        std::string line = process.output.substr(0, process.output.find_last_not_of("\r\n") + 1);
        line = line.substr(line.find_last_of('\n') + 1);
        return json::parse(line, nullptr, false);
    }

    ServiceControl service;
};
using ClientBindings = ClientBindingsTest;
using Fast10_ClientBindings = ClientBindingsTest;

TEST_F(ClientBindings, RestoreAtAnotherPromptEndsTheWaitingDisableToo)
{
    const ConsoleClient client(std::wstring(L"disable ") + kTunnel);
    ASSERT_TRUE(client.Says("Ctrl+C restores them")) << client.Output();
    CompleteRecord();
    const json restored = Json(L"restore");
    EXPECT_EQ(restored["kind"], "restored");
    EXPECT_EQ(restored["result"], 0u);
    EXPECT_EQ(client.ExitCode(), 0u) << client.Output();
    EXPECT_TRUE(client.Says("The call has ended.")) << client.Output();
    EXPECT_TRUE(PathsOff().empty());
}

TEST_F(Fast10_ClientBindings, SignsOfLifeComeWhileTheCallIsOpenAndWhileTheBindingsAreAway)
{
    DWORD holderId = 0;
    const UniqueHandle holder = HoldLock({}, &holderId);
    const ConsoleClient client(std::wstring(L"disable ") + kTunnel);
    EXPECT_TRUE(client.Says("  working for ")) << client.Output();
    KillProcess(holderId);
    EXPECT_TRUE(client.Says("Ctrl+C restores them")) << client.Output();
    EXPECT_TRUE(client.Says("  disabled for ")) << client.Output();
    EXPECT_EQ(Bindings(L"restore").exitCode, 0u);
    EXPECT_EQ(client.ExitCode(), 0u) << client.Output();
}

TEST_F(Fast10_ClientBindings, DisableThatAnotherProgramsLockRefusesSaysSoAndEndsWithOne)
{
    DWORD holderId = 0;
    const UniqueHandle holder = HoldLock({}, &holderId);
    const FinishedProcess refused = Bindings(std::wstring(L"disable ") + kTunnel);
    EXPECT_EQ(refused.exitCode, 1u);
    EXPECT_NE(refused.output.find("Not disabled: another program holds the network configuration (0x8004A024)"),
              std::string::npos)
        << refused.output;
    EXPECT_TRUE(PathsOff().empty());
    KillProcess(holderId);
}

TEST_F(ClientBindings, PppKeepsNdiswansIpComponent)
{
    lab::Machine::Attach().Update(
        [](lab::Json& state, lab::Events&)
        {
            state["netcfg"]["components"].push_back({{"id", "ms_ndiswanip"},
                                                     {"displayName", "WAN Miniport (IP)"},
                                                     {"guid", "{5D3E0A03-7C44-4E0B-8B19-3A6F90C1D003}"}});
            state["netcfg"]["paths"].push_back(
                {{"protocol", "ms_tcpip"}, {"lower", lab::Json::array({"ms_ndiswanip"})}});
        });
    for (const auto& [option, off] : {std::pair{L"", 3u}, std::pair{L" --ppp", 2u}})
    {
        AllPathsOn();
        const ConsoleClient client(std::wstring(L"disable ") + kTunnel + option);
        ASSERT_TRUE(client.Says("Ctrl+C restores them")) << client.Output();
        EXPECT_EQ(PathsOff().size(), off);
        EXPECT_EQ(Bindings(L"restore").exitCode, 0u);
        EXPECT_EQ(client.ExitCode(), 0u);
    }
}

TEST_F(ClientBindings, ShowTellsKeysThatCountFromKeysThatDoNot)
{
    const ConsoleClient client(std::wstring(L"disable ") + kTunnel);
    ASSERT_TRUE(client.Says("Ctrl+C restores them")) << client.Output();
    json shown = Json(L"show");
    EXPECT_TRUE(shown["disabledBindings"].empty());
    ASSERT_EQ(shown["keysWithoutValue"].size(), 2u);
    EXPECT_EQ(shown["keysWithoutValue"][0]["protocol"], "ms_tcpip6");
    EXPECT_EQ(shown["keysWithoutValue"][0]["component"], lab::Utf8(kCard));
    EXPECT_NE(Bindings(L"show").output.find("passes it over"), std::string::npos);
    CompleteRecord();
    shown = Json(L"show");
    EXPECT_EQ(shown["disabledBindings"].size(), 2u);
    EXPECT_TRUE(shown["keysWithoutValue"].empty());
    EXPECT_EQ(Bindings(L"restore").exitCode, 0u);
    EXPECT_EQ(client.ExitCode(), 0u);
    EXPECT_NE(Bindings(L"show").output.find("No binding is recorded as disabled."), std::string::npos);
}
} // namespace
