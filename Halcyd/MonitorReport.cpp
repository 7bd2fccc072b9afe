#include "Halcyd/MonitorReport.h"

#include <windows.h>

#include "NetUtilities/Handles.h"
#include "NetUtilities/Mutex.h"
#include "NetUtilities/RegistryWatcher.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr DWORD monitorReportId = 0xC0020001; // "Halcyd: %1." in the message table
constexpr std::uint16_t failureLevel = 2;

PlainMutex reportMutex; // a report may come from any thread
UniqueEventSource eventSource GUARDED_BY(reportMutex);
RegistryWatcher watcher GUARDED_BY(reportMutex);
} // namespace

void MonitorReport::Start()
{
    MutexLock lock(reportMutex);
    eventSource.reset(RegisterEventSourceW(nullptr, L"Halcyd"));
    watcher.Start();
}

void MonitorReport::Stop() noexcept
{
    MutexLock lock(reportMutex);
    eventSource.reset();
    watcher.Stop();
}

void ReportMonitorEvent(std::uint16_t level, const std::wstring& text)
{
    MutexLock lock(reportMutex);
    watcher.Poll();
    LogMessage(Log::Source::NetMon, level, text);
    if (level == failureLevel && eventSource)
    {
        const wchar_t* strings[] = {text.c_str()};
        ReportEventW(eventSource.get(), EVENTLOG_ERROR_TYPE, 0, monitorReportId, nullptr, 1, 0, strings, nullptr);
    }
}
