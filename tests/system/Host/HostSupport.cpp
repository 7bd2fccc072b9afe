#include "Host/HostSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include "NetUtilities/Format.h"

namespace HostSupport
{
std::wstring ServiceExecutable()
{
    return ProductFolder() + L"Halcyd.exe";
}

DWORD RunWord(const std::wstring& arguments)
{
    const FinishedProcess run = RunProcess(L"\"" + ServiceExecutable() + L"\" " + arguments);
    EXPECT_TRUE(run.started);
    EXPECT_FALSE(run.timedOut);
    return run.exitCode;
}

void RegisterProxies()
{
    const FinishedProcess run = RunProcess(L"regsvr32 /s \"" + ProductFolder() + L"HalcydPS.dll\"");
    ASSERT_TRUE(run.started);
    ASSERT_EQ(run.exitCode, 0u);
}

bool StopService()
{
    const ServiceControl service;
    const auto settled = [&]
    {
        const auto state = service.State();
        return !state || *state == SERVICE_RUNNING || *state == SERVICE_STOPPED;
    };
    return WaitUntil(settled, 30'000) && (!service.Exists() || service.StopAndWait());
}

void BecomePlainServer()
{
    ASSERT_TRUE(StopService());
    ASSERT_EQ(RunWord(L"-RegServer"), 0u);
    RegisterProxies();
}

void BecomeService()
{
    ASSERT_EQ(RunWord(L"-Service"), 0u);
    RegisterProxies();
}

std::wstring TraceText()
{
    std::wstring all;
    std::error_code error;
    const std::filesystem::path folder(L"C:\\ProgramData\\QRLS\\Sorvane\\Data\\Trace");
    for (const auto& entry : std::filesystem::directory_iterator(folder, error))
    {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        if (!bytes.empty())
        {
            std::wstring text(bytes.size(), L'\0');
            const int length = MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()),
                                                   text.data(), static_cast<int>(text.size()));
            all.append(text, 0, static_cast<std::size_t>(length));
        }
    }
    return all;
}

int CountInTrace(const std::wstring& text)
{
    const std::wstring all = TraceText();
    int count = 0;
    for (std::size_t at = all.find(text); at != std::wstring::npos; at = all.find(text, at + text.size()))
    {
        ++count;
    }
    return count;
}

int CountInTraceOf(DWORD processId, const std::wstring& text)
{
    std::wistringstream lines(TraceText());
    const std::wstring stamp = FormatText(L" {:05x}-", processId);
    int count = 0;
    for (std::wstring line; std::getline(lines, line);)
    {
        count += line.find(stamp) != std::wstring::npos && line.find(text) != std::wstring::npos ? 1 : 0;
    }
    return count;
}

std::set<std::wstring> ThreadsInTrace(const std::wstring& text, const std::wstring& andText)
{
    static const std::wregex stamp(L" ([0-9a-f]{5,}-[0-9a-f]{5,}): ");
    std::wistringstream lines(TraceText());
    std::set<std::wstring> threads;
    std::wsmatch found;
    for (std::wstring line; std::getline(lines, line);)
    {
        if (line.find(text) != std::wstring::npos && line.find(andText) != std::wstring::npos &&
            std::regex_search(line, found, stamp))
        {
            threads.insert(found[1]);
        }
    }
    return threads;
}

bool WaitUntil(const std::function<bool()>& condition, DWORD timeoutMs)
{
    const ULONGLONG end = GetTickCount64() + timeoutMs;
    while (!condition())
    {
        if (GetTickCount64() > end)
        {
            return false;
        }
        Sleep(20); // the condition lies in another process: there is nothing to wait on
    }
    return true;
}

bool WaitForTrace(const std::wstring& text, int times, DWORD timeoutMs)
{
    return WaitUntil([&] { return CountInTrace(text) >= times; }, timeoutMs);
}

bool WaitForNoProcess(DWORD timeoutMs)
{
    return WaitUntil([] { return FindProcesses(L"Halcyd.exe").empty(); }, timeoutMs);
}
} // namespace HostSupport
