#pragma once
// One AdapterChange event as the client keeps and shows it. Pure, but for the clock in EventFromArguments.

#include <windows.h>
#include <oleauto.h>

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "clients/halcydctl/AdapterView.h"

struct MonitorEvent
{
    SYSTEMTIME time{};      // local, when it arrived
    std::int32_t event = 0; // _NOTIFICATION_EVENT
    std::wstring deviceId;  // empty for a null string
    std::wstring adjacentMac;
    bool hasResult = false;  // the second argument was a number: the result of a binding operation
    std::int32_t result = 0; // HRESULT
};

// Reads the arguments of AdapterChange, which come in reverse order. The second one is a string, but a number for the
// binding events. Strings that are null or missing are empty. False if there are not three arguments or the event is no
// number.
[[nodiscard]] bool EventFromArguments(const DISPPARAMS& arguments, MonitorEvent& event);

// "enumEventMediaConnect"; empty for a value that has no name.
[[nodiscard]] const wchar_t* EventName(std::int32_t event) noexcept;
// "media connected"
[[nodiscard]] std::wstring EventWords(std::int32_t event);

// "12:03:44.017"
[[nodiscard]] std::wstring TimeOfDay(const SYSTEMTIME& time);
// "2026-11-21T12:03:44.017"
[[nodiscard]] std::wstring DateAndTime(const SYSTEMTIME& time);

// One styled line: time, adapter, event, adjacent MAC or result. `name` is the adapter's, `nameWidth` what it is padded
// to.
[[nodiscard]] std::wstring EventLine(const MonitorEvent& event, const std::wstring& name, std::size_t nameWidth);
[[nodiscard]] nlohmann::ordered_json ToJson(const MonitorEvent& event, const std::wstring& name);
