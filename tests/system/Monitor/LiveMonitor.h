#pragma once
// An open monitor that processes notifications, with a sink of the test's own connected to it.

#include "Monitor/MonitorMachine.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

class LiveMonitorTest : public MonitorTest
{
protected:
    void SetUp() override
    {
        MonitorTest::SetUp();
        if (HasFatalFailure())
        {
            return;
        }
        monitor = OpenMonitor();
        sink = std::make_unique<EventConnection>(monitor);
        ASSERT_EQ(sink->Result(), S_OK);
    }
    void TearDown() override
    {
        sink.reset();
        if (monitor != nullptr)
        {
            EXPECT_EQ(monitor->Close(), S_OK);
        }
    }
    // Waits for an event about an adapter.
    [[nodiscard]] std::optional<RecordedEvent> WaitFor(std::int32_t event, const wchar_t* adapter, DWORD limit = 60'000)
    {
        return sink->Recorder().WaitFor([&](const RecordedEvent& told)
                                        { return told.event == event && told.deviceId == adapter; }, limit);
    }
    // Waits until so many events of this kind have come about an adapter.
    [[nodiscard]] bool WaitForMany(int count, std::int32_t event, const wchar_t* adapter, DWORD limit = 60'000)
    {
        // Looked at anew with each event that comes.
        for (std::size_t seen = 0;;)
        {
            if (Count(event, adapter) >= count)
            {
                return true;
            }
            seen = sink->Recorder().Events().size();
            if (!sink->Recorder().WaitForCount(seen + 1, limit) && Count(event, adapter) < count)
            {
                return false;
            }
        }
    }
    [[nodiscard]] std::vector<RecordedEvent> Told(std::int32_t event, const wchar_t* adapter)
    {
        std::vector<RecordedEvent> found;
        std::ranges::copy_if(sink->Recorder().Events(), std::back_inserter(found), [&](const RecordedEvent& told)
                             { return told.event == event && told.deviceId == adapter; });
        return found;
    }
    [[nodiscard]] int Count(std::int32_t event, const wchar_t* adapter)
    {
        return static_cast<int>(Told(event, adapter).size());
    }
    [[nodiscard]] std::optional<AdapterRecord> Adapter(const wchar_t* id)
    {
        const std::vector<AdapterRecord> list = ReadAdapterList(monitor);
        const AdapterRecord* const found = FindAdapter(list, id);
        return found != nullptr ? std::optional(*found) : std::nullopt;
    }

    INetMonSvPtr monitor;
    std::unique_ptr<EventConnection> sink;
};
