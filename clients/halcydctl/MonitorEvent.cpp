#include "clients/halcydctl/MonitorEvent.h"

#include <array>
#include <cwchar>

#include "clients/halcydctl/Text.h"

namespace
{
struct EventWord
{
    const wchar_t* name;
    const wchar_t* words;
    Text::Style style;
};
constexpr std::array<EventWord, 12> Events{{
    {L"enumEventUnknown", L"unknown", Text::Style::Plain},
    {L"enumEventAdapterAdd", L"adapter added", Text::Style::Green},
    {L"enumEventAdapterRemove", L"adapter removed", Text::Style::Red},
    {L"enumEventMediaConnect", L"media connected", Text::Style::Green},
    {L"enumEventMediaDisconnect", L"media disconnected", Text::Style::Red},
    {L"enumEventNetworkChange", L"Wi-Fi went away", Text::Style::Yellow},
    {L"enumEventWiFiSignalStrength", L"signal strength changed", Text::Style::Cyan},
    {L"enumEventIpChange", L"address changed", Text::Style::Cyan},
    {L"enumEventRimDeviceLocked", L"device locked", Text::Style::Plain},
    {L"enumEventIpBindingsDisabled", L"bindings disabled", Text::Style::Magenta},
    {L"enumEventIpBindingsRestored", L"bindings restored", Text::Style::Magenta},
    {L"enumEventWiFiAddedSSIDs", L"networks appeared", Text::Style::Cyan},
}};
constexpr std::size_t WordsWidth = 23;
// The device id of an address event, whichever adapter's address it was.
constexpr const wchar_t* NoAdapterNamed = L"no node";

std::wstring ShownName(const std::wstring& name)
{
    return name.empty() ? L"-" : name == NoAdapterNamed ? L"(one of the adapters)" : name;
}

const EventWord* Find(std::int32_t event)
{
    return event >= 0 && static_cast<std::size_t>(event) < Events.size() ? &Events[static_cast<std::size_t>(event)]
                                                                         : nullptr;
}

bool IsNumber(VARTYPE type)
{
    return type == VT_I4 || type == VT_INT || type == VT_UI4 || type == VT_UINT || type == VT_I2 || type == VT_ERROR;
}

std::wstring TextOf(const VARIANT& value)
{
    return value.vt == VT_BSTR && value.bstrVal != nullptr ? std::wstring(value.bstrVal, SysStringLen(value.bstrVal))
                                                           : std::wstring();
}

std::int32_t NumberOf(const VARIANT& value)
{
    return value.vt == VT_I2 ? value.iVal : static_cast<std::int32_t>(value.lVal);
}

std::wstring Padded(std::wstring text, std::size_t width)
{
    const std::size_t used = Text::Width(text);
    return used < width ? text.append(width - used, L' ') : text;
}
} // namespace

bool EventFromArguments(const DISPPARAMS& arguments, MonitorEvent& event)
{
    if (arguments.cArgs != 3 || arguments.rgvarg == nullptr || !IsNumber(arguments.rgvarg[0].vt))
    {
        return false;
    }
    event = {};
    GetLocalTime(&event.time);
    event.event = NumberOf(arguments.rgvarg[0]);
    event.hasResult = IsNumber(arguments.rgvarg[1].vt);
    if (event.hasResult)
    {
        event.result = NumberOf(arguments.rgvarg[1]);
    }
    event.adjacentMac = TextOf(arguments.rgvarg[1]);
    event.deviceId = TextOf(arguments.rgvarg[2]);
    return true;
}

const wchar_t* EventName(std::int32_t event) noexcept
{
    const EventWord* const known = Find(event);
    return known != nullptr ? known->name : L"";
}

std::wstring EventWords(std::int32_t event)
{
    const EventWord* const known = Find(event);
    return known != nullptr ? known->words : L"event " + std::to_wstring(event);
}

std::wstring TimeOfDay(const SYSTEMTIME& time)
{
    wchar_t text[16];
    swprintf(text, 16, L"%02u:%02u:%02u.%03u", time.wHour, time.wMinute, time.wSecond, time.wMilliseconds);
    return text;
}

std::wstring DateAndTime(const SYSTEMTIME& time)
{
    wchar_t text[16];
    swprintf(text, 16, L"%04u-%02u-%02uT", time.wYear, time.wMonth, time.wDay);
    return text + TimeOfDay(time);
}

std::wstring EventLine(const MonitorEvent& event, const std::wstring& name, std::size_t nameWidth)
{
    const EventWord* const known = Find(event.event);
    std::wstring line = Text::Styled(TimeOfDay(event.time), Text::Style::Faint);
    line += L"  ";
    line += Padded(Text::Cut(Text::Printable(ShownName(name)), nameWidth), nameWidth);
    line += L"  ";
    line +=
        Text::Styled(Padded(EventWords(event.event), WordsWidth), known != nullptr ? known->style : Text::Style::Plain);
    if (event.hasResult)
    {
        line += event.result == 0
                    ? L"  done"
                    : L"  " + Text::Styled(L"failed " + Text::Hex(static_cast<std::uint32_t>(event.result)),
                                           Text::Style::Red);
    }
    else if (!event.adjacentMac.empty())
    {
        line += L"  " + Text::Printable(event.adjacentMac);
    }
    return line;
}

nlohmann::ordered_json ToJson(const MonitorEvent& event, const std::wstring& name)
{
    nlohmann::ordered_json json;
    json["kind"] = "event";
    json["time"] = Text::ToUtf8(DateAndTime(event.time));
    json["event"] = event.event;
    json["name"] = Text::ToUtf8(EventName(event.event));
    json["deviceId"] = Text::ToUtf8(event.deviceId);
    json["adapter"] = Text::ToUtf8(name);
    if (event.hasResult)
    {
        json["result"] = static_cast<std::uint32_t>(event.result);
    }
    else
    {
        json["adjacentMac"] = Text::ToUtf8(event.adjacentMac);
    }
    return json;
}
