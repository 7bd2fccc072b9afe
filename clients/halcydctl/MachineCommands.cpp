// registry and service: the two proxies for the machine's registry and its services.

#include "clients/halcydctl/Automation.h"
#include "clients/halcydctl/Commands.h"
#include "clients/halcydctl/Failure.h"
#include "clients/halcydctl/Installation.h"
#include "clients/halcydctl/MonitorClient.h"
#include "clients/halcydctl/SettingText.h"
#include "clients/halcydctl/Text.h"

namespace
{
// The methods answer with Windows error numbers in the HRESULT's place; only COM's own failures are negative.
void Test(HRESULT result, const wchar_t* action, const wchar_t* deniedCure)
{
    if (result == S_OK)
    {
        return;
    }
    if (FAILED(result))
    {
        throw Explain(action, result, ReadInstallation());
    }
    Failure failure = ExplainStatus(action, static_cast<std::uint32_t>(result));
    if (result == ERROR_ACCESS_DENIED && *deniedCure != L'\0')
    {
        failure.cure = deniedCure;
    }
    throw failure;
}

constexpr const wchar_t* ListCure = L"The service changes an allow-listed part of the registry only: "
                                    L"HKEY_CURRENT_USER, the product's own keys, the parameters "
                                    L"of Tcpip and NlaSvc, the network class.";
constexpr const wchar_t* DeleteCure = L"The service opens the key for reading only, and Windows then refuses to delete "
                                      L"a value of it; the path must lie in the "
                                      L"allow-listed part as well.";

const char* TypeName(std::uint32_t type)
{
    switch (type)
    {
    case REG_SZ:
        return "sz";
    case REG_DWORD:
        return "dword";
    case REG_MULTI_SZ:
        return "multi";
    case REG_QWORD:
        return "qword";
    default:
        return "";
    }
}

nlohmann::ordered_json DataJson(const VARIANT& data)
{
    switch (data.vt)
    {
    case VT_BSTR:
        return Text::ToUtf8(Text::View(data.bstrVal));
    case VT_I4:
        return static_cast<std::uint32_t>(data.lVal);
    case VT_UI8:
        return data.ullVal;
    case VT_ARRAY | VT_BSTR:
    {
        nlohmann::ordered_json items = nlohmann::ordered_json::array();
        for (const std::wstring& item : Automation::Strings(data))
        {
            items.push_back(Text::ToUtf8(item));
        }
        return items;
    }
    default:
        return nullptr;
    }
}

void ShowValue(const Session& session, INetRegistry* registry)
{
    _variant_t type;
    _variant_t data;
    const Options& options = session.options;
    Test(registry->QueryRegistry(Automation::String(options.value), Automation::String(options.key), &type, &data),
         L"Reading the value", L"");
    const std::uint32_t number = static_cast<std::uint32_t>(type.lVal);
    if (options.json)
    {
        session.Print({{"key", options.key},
                       {"value", options.value},
                       {"type", number},
                       {"typeName", TypeName(number)},
                       {"data", DataJson(data)}});
        return;
    }
    if (data.vt == (VT_ARRAY | VT_BSTR) || data.vt == VT_BSTR)
    {
        for (const std::wstring& item : Automation::Strings(data))
        {
            session.console.Line(Text::Printable(item));
        }
    }
    else if (data.vt == VT_I4)
    {
        const std::uint32_t value = static_cast<std::uint32_t>(data.lVal);
        session.console.Line(std::to_wstring(value) + L"  (" + Text::Hex(value) + L")");
    }
    else if (data.vt == VT_UI8)
    {
        session.console.Line(std::to_wstring(data.ullVal));
    }
    else
    {
        session.console.Line(L"A value of type " + std::to_wstring(number) + L", which the service does not carry.");
    }
}

void WriteValue(const Options& options, INetRegistry* registry)
{
    _variant_t type(static_cast<long>(REG_SZ));
    _variant_t data;
    if (options.type == "sz" || options.type == "multi")
    {
        type = static_cast<long>(options.type == "sz" ? REG_SZ : REG_MULTI_SZ);
        data = Automation::String(options.data);
    }
    else
    {
        const bool wide = options.type == "qword";
        const std::optional<std::uint64_t> number = NumberFromText(options.data, wide ? UINT64_MAX : UINT32_MAX);
        if (!number)
        {
            Failure failure;
            failure.exitCode = ExitCode::Usage;
            failure.reason = L"'" + Text::FromUtf8(options.data) + L"' is no number of this type.";
            throw failure;
        }
        type = static_cast<long>(wide ? REG_QWORD : REG_DWORD);
        data.vt = wide ? VT_UI8 : VT_I4;
        data.ullVal = *number;
    }
    Test(registry->SetRegistry(Automation::String(options.value), Automation::String(options.key), type, data),
         L"Writing the value", ListCure);
}

void PrintDone(const Session& session)
{
    if (session.options.json)
    {
        session.Print({{"done", true}});
    }
    else
    {
        session.console.Line(L"Done.");
    }
}
} // namespace

ExitCode Commands::Registry(const Session& session)
{
    const Options& options = session.options;
    const INetRegistryPtr registry = ActivateService<INetRegistryPtr>(CLSID_NetRegistry, options.start);
    if (options.verb == Verb::RegistryGet)
    {
        ShowValue(session, registry.GetInterfacePtr());
        return ExitCode::Success;
    }
    if (options.verb == Verb::RegistrySet)
    {
        WriteValue(options, registry.GetInterfacePtr());
    }
    else if (options.wholeKey)
    {
        Test(registry->DeleteRegistryNode(Automation::String(options.key)), L"Deleting the key", ListCure);
    }
    else
    {
        Test(registry->DeleteRegistry(Automation::String(options.value), Automation::String(options.key)),
             L"Deleting the value", DeleteCure);
    }
    PrintDone(session);
    return ExitCode::Success;
}

namespace
{
struct ServiceNumbers
{
    std::uint32_t state = 0;
    std::uint32_t startType = 0;
};

ServiceNumbers QueryNumbers(IServiceControlEx* control, BSTR name)
{
    // The numbers come back in variants whose type the caller chooses.
    _variant_t mode(0L);
    _variant_t startType(0L);
    Test(control->QueryServiceMode(name, &mode, &startType), L"Querying the service", L"");
    return {static_cast<std::uint32_t>(mode.lVal), static_cast<std::uint32_t>(startType.lVal)};
}

void ShowNumbers(const Session& session, const ServiceNumbers& numbers)
{
    const std::wstring state = ServiceStateWords(numbers.state);
    const std::wstring start = StartTypeWords(numbers.startType);
    if (session.options.json)
    {
        session.Print({{"service", session.options.service},
                       {"state", numbers.state},
                       {"stateName", Text::ToUtf8(state)},
                       {"startType", numbers.startType},
                       {"startTypeName", Text::ToUtf8(start)}});
        return;
    }
    session.console.Line(state + L", start " + start);
}

void StopOrStart(IServiceControlEx* control, BSTR name, bool stop)
{
    constexpr long StopMode = 1;
    constexpr long StartMode = 4;
    constexpr long KeepStartType = -1; // SERVICE_NO_CHANGE
    constexpr HRESULT NotTaken = -1;   // the service's answer for a name outside its set
    const wchar_t* const action = stop ? L"Stopping the service" : L"Starting the service";
    const HRESULT result = control->SetServiceMode(name, stop ? StopMode : StartMode, KeepStartType);
    if (result != NotTaken)
    {
        return Test(result, action, L"");
    }
    Failure failure;
    failure.action = action;
    failure.code = static_cast<std::uint32_t>(result);
    failure.reason = L"The service does this for PolicyAgent, IkeExt and WZCSVC only.";
    failure.cure = stop ? L"Run as administrator: net stop NAME." : L"Run as administrator: net start NAME.";
    throw failure;
}
} // namespace

ExitCode Commands::Service(const Session& session)
{
    const Options& options = session.options;
    const IServiceControlExPtr control = ActivateService<IServiceControlExPtr>(CLSID_ServiceControlEx, options.start);
    const _bstr_t name = Automation::String(options.service);
    const bool stop = options.verb == Verb::ServiceStop;
    if (options.verb != Verb::ServiceQuery)
    {
        StopOrStart(control.GetInterfacePtr(), name, stop);
    }
    const ServiceNumbers numbers = QueryNumbers(control.GetInterfacePtr(), name);
    // A stop or a start that the service manager refuses is no error to the service: what counts is what came of it.
    if (options.verb != Verb::ServiceQuery && !ServiceStateFollows(numbers.state, stop))
    {
        Failure failure;
        failure.action = stop ? L"Stopping the service" : L"Starting the service";
        failure.reason =
            L"It is " + ServiceStateWords(numbers.state) + L", start " + StartTypeWords(numbers.startType) + L".";
        failure.cure = L"The trace tells why: halcydctl trace --level 3.";
        throw failure;
    }
    ShowNumbers(session, numbers);
    return ExitCode::Success;
}
