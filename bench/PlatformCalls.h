// The platform calls of an event's way that go neither to WMI nor to the driver, made by this process and timed: the
// look-up of the adapter's key in the registry, and the search for the client's process. The service has to make them
// too, whatever it does of its own.
#pragma once

#include <cstdint>
#include <string>

class PlatformCalls
{
public:
    // `adapter`: the GUID of the event's adapter, as the registry has it.
    explicit PlatformCalls(std::wstring adapter) : m_adapter(std::move(adapter)) {}

    // Each makes its calls once; the time in nanoseconds.
    [[nodiscard]] std::int64_t FindAdapterKey() const;
    [[nodiscard]] std::int64_t FindClientProcess() const;

private:
    std::wstring m_adapter;
};
