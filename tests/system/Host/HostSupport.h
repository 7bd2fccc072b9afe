#pragma once
// What the tests of the process, its registration and its COM surface share.

#include <windows.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/support/Processes.h"
#include "tests/support/Services.h"

namespace HostSupport
{
inline constexpr wchar_t AppId[] = L"{5FC2628B-D382-48C0-8B04-3A80AC9CF8AB}";
inline constexpr wchar_t LibraryId[] = L"{250CEEF9-EB41-46A8-98D4-6C7FA8C5FEB1}";

[[nodiscard]] std::wstring ServiceExecutable();

// Runs the service's executable with these arguments to its end and gives its exit code.
[[nodiscard]] DWORD RunWord(const std::wstring& arguments);

// Stops the service and waits for the end of its process. A start that the machine has begun is waited for first:
// service managers refuse a control until then, and one of them does not but hands it to a service that is not ready.
[[nodiscard]] bool StopService();

// Stops the service, runs the word that makes a plain server of it, and registers the proxies again.
void BecomePlainServer();
// The same for the word that makes a service of it.
void BecomeService();
void RegisterProxies();

// All text that the trace service has stored.
[[nodiscard]] std::wstring TraceText();
// Waits until the stored trace holds the text so many times.
[[nodiscard]] bool WaitForTrace(const std::wstring& text, int times = 1, DWORD timeoutMs = 20'000);
[[nodiscard]] int CountInTrace(const std::wstring& text);
// The same in the lines of one process only: those of one that has ended can reach the file late.
[[nodiscard]] int CountInTraceOf(DWORD processId, const std::wstring& text);
// The threads ("pid-tid", as the stamp of a line has them) that wrote a line with both texts.
[[nodiscard]] std::set<std::wstring> ThreadsInTrace(const std::wstring& text, const std::wstring& andText = {});

// Waits until the condition holds.
[[nodiscard]] bool WaitUntil(const std::function<bool()>& condition, DWORD timeoutMs = 20'000);

// Waits until no process of the service's executable is left.
[[nodiscard]] bool WaitForNoProcess(DWORD timeoutMs = 20'000);
} // namespace HostSupport
