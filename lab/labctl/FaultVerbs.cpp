// fail, slow, kill.
#include "lab/labctl/Verbs.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <iostream>
#include <stdexcept>

namespace lab::ctl
{

namespace
{

struct Named
{
    std::string_view name;
    std::uint32_t value;
};

constexpr Named codes[] = {
    {"E_FAIL", 0x80004005},
    {"E_OUTOFMEMORY", 0x8007000E},
    {"E_ACCESSDENIED", 0x80070005},
    {"E_INVALIDARG", 0x80070057},
    {"WBEM_S_FALSE", 1},
    {"WBEM_E_FAILED", 0x80041001},
    {"WBEM_E_NOT_FOUND", 0x80041002},
    {"WBEM_E_ACCESS_DENIED", 0x80041003},
    {"WBEM_E_PROVIDER_FAILURE", 0x80041004},
    {"WBEM_E_OUT_OF_MEMORY", 0x80041006},
    {"WBEM_E_INVALID_PARAMETER", 0x80041008},
    {"WBEM_E_NOT_SUPPORTED", 0x8004100C},
    {"WBEM_E_INVALID_NAMESPACE", 0x8004100E},
    {"WBEM_E_INVALID_CLASS", 0x80041010},
    {"WBEM_E_TRANSPORT_FAILURE", 0x80041015},
    {"WBEM_E_INVALID_OPERATION", 0x80041016},
    {"WBEM_E_INVALID_QUERY", 0x80041017},
    {"WBEM_E_SHUTTING_DOWN", 0x80041033},
    {"RPC_S_SERVER_UNAVAILABLE", 0x800706BA},
    {"STATUS_UNSUCCESSFUL", 0xC0000001},
    {"STATUS_NOT_SUPPORTED", 0xC00000BB},
    {"STATUS_INVALID_PARAMETER", 0xC000000D},
    {"STATUS_DEVICE_NOT_READY", 0xC00000A3},
    {"STATUS_BUFFER_TOO_SMALL", 0xC0000023},
};

constexpr Named identifiers[] = {
    {"OID_GEN_MEDIA_SUPPORTED", 0x00010103},
    {"OID_GEN_LINK_SPEED", 0x00010107},
    {"OID_GEN_VENDOR_ID", 0x0001010C},
    {"OID_GEN_VENDOR_DESCRIPTION", 0x0001010D},
    {"OID_GEN_MEDIA_CONNECT_STATUS", 0x00010114},
    {"OID_GEN_VENDOR_DRIVER_VERSION", 0x00010116},
    {"OID_GEN_PHYSICAL_MEDIUM", 0x00010202},
    {"OID_802_3_PERMANENT_ADDRESS", 0x01010101},
    {"OID_802_3_CURRENT_ADDRESS", 0x01010102},
};

template <std::size_t count>
std::optional<std::uint32_t> Number(const Named (&names)[count], const std::string& text)
{
    for (const Named& entry : names)
    {
        if (EqualNoCase(entry.name, text))
        {
            return entry.value;
        }
    }
    return ParseNumber(text);
}

// "QueryOid:OID_GEN_LINK_SPEED@eth0" becomes "QueryOid:0x00010107@{GUID}"; other calls stay as they are.
std::string CallName(const std::string& text)
{
    if (text.rfind("QueryOid", 0) != 0)
    {
        return text;
    }
    std::string result = "QueryOid";
    const std::size_t at = text.find('@');
    if (const std::size_t colon = text.find(':'); colon < at)
    {
        const std::string identifier = text.substr(colon + 1, at == std::string::npos ? at : at - colon - 1);
        const auto number = Number(identifiers, identifier);
        if (!number)
        {
            throw std::runtime_error("no object identifier '" + identifier + "'");
        }
        result += ":" + Hex32(*number);
    }
    if (at != std::string::npos)
    {
        Json state = *Machine::Attach().Snapshot();
        result += "@" + TextField(RequireAdapter(state, text.substr(at + 1)), "guid");
    }
    return result;
}

Json ToJson(const FaultRule& rule)
{
    return {{"call", rule.call},       {"nth", rule.nth},
            {"times", rule.times},     {"code", rule.code ? Json(Hex32(*rule.code)) : Json(nullptr)},
            {"delayMs", rule.delayMs}, {"hits", rule.hits},
            {"kill", rule.kill}};
}

struct Options
{
    std::string call;
    std::string code = "E_FAIL";
    std::uint32_t nth = 1;
    std::uint32_t times = 1;
    std::uint32_t delay = 0;
    bool json = false;
};

void ShowRules(bool json)
{
    for (const FaultRule& rule : Machine::Attach().Faults())
    {
        if (json)
        {
            Print(ToJson(rule), true);
        }
        else
        {
            std::cout << rule.call << ": call " << rule.nth
                      << (rule.times == 0   ? " and all after it"
                          : rule.times == 1 ? ""
                                            : " and " + std::to_string(rule.times - 1) + " more")
                      << (rule.kill   ? std::string{" ends its process"}
                          : rule.code ? " fails with " + Hex32(*rule.code)
                                      : " succeeds")
                      << (rule.delayMs != 0 ? " after " + std::to_string(rule.delayMs) + " ms" : "") << "; "
                      << rule.hits << " calls so far\n";
        }
    }
}

void RunFail(const Options& options)
{
    if (options.call == "clear")
    {
        Machine::Attach().ClearFaults();
    }
    else if (options.call == "list")
    {
        ShowRules(options.json);
    }
    else
    {
        const auto code = Number(codes, options.code);
        if (!code)
        {
            throw std::runtime_error("no code '" + options.code + "'; give a number or a name such as E_FAIL");
        }
        Machine::Attach().AddFault({CallName(options.call), options.nth, options.times, *code, options.delay});
    }
}

} // namespace

void AddFaultVerbs(CLI::App& app)
{
    CLI::App* fail = app.add_subcommand(
        "fail", "Let the Nth call of CALL fail; 'fail list' shows the rules, 'fail clear' drops them");
    auto options = std::make_shared<Options>();
    fail->add_option(
            "call", options->call,
            "As the journal names it, a final * for any rest, a detail in (): IWbemClassObject::Get(MACAddress).\n"
            "For the driver: QueryOid, QueryOid:OID_GEN_LINK_SPEED, QueryOid:0x00010107@eth0")
        ->required();
    fail->add_option("--nth", options->nth, "The first call that fails, from now; 1 by default")
        ->check(CLI::PositiveNumber);
    fail->add_option("--times", options->times, "How many fail; 0 for all from there on");
    fail->add_option("--code", options->code,
                     "HRESULT, Windows error or NTSTATUS, as the call returns it; E_FAIL by default");
    fail->add_option("--delay", options->delay, "Milliseconds before it fails");
    fail->add_flag("--json", options->json, "With 'list': one JSON object a line");
    fail->callback([options] { RunFail(*options); });

    CLI::App* slow = app.add_subcommand("slow", "Let calls of CALL take longer");
    auto slowOptions = std::make_shared<Options>();
    slowOptions->times = 0;
    slow->add_option("call", slowOptions->call, "As for 'fail'")->required();
    slow->add_option("--ms", slowOptions->delay, "How much longer")->required();
    slow->add_option("--nth", slowOptions->nth, "The first slow call, from now")->check(CLI::PositiveNumber);
    slow->add_option("--times", slowOptions->times, "How many; 0, as by default, for all from there on");
    slow->callback(
        [slowOptions]
        {
            Machine::Attach().AddFault(
                {CallName(slowOptions->call), slowOptions->nth, slowOptions->times, std::nullopt, slowOptions->delay});
        });

    CLI::App* kill = app.add_subcommand("kill", "End the process that makes the Nth call of CALL, as a crash would");
    auto killOptions = std::make_shared<Options>();
    kill->add_option("call", killOptions->call, "As for 'fail'; * for any call")->required();
    kill->add_option("--nth", killOptions->nth, "The call at whose entry it ends, from now; 1 by default")
        ->check(CLI::PositiveNumber);
    kill->callback(
        [killOptions]
        {
            FaultRule rule;
            rule.call = CallName(killOptions->call);
            rule.nth = killOptions->nth;
            rule.kill = true;
            Machine::Attach().AddFault(rule);
        });
}

} // namespace lab::ctl
