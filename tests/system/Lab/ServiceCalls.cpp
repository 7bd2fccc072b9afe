#include "Lab/ServiceCalls.h"

#include <ostream>

std::ostream& operator<<(std::ostream& out, const ServiceCall& call)
{
    return out << call.name << " number " << call.nth << " " << call.arguments;
}

namespace
{
// Calls of the platform into the service are journalled as well; they are not the service's to be failed. Nor is the
// closing of a key, which the platform does not refuse.
bool IsCallOfTheService(const lab::Json& line)
{
    const std::string name = line.value("call", "");
    return line.value("process", "") == "Halcyd.exe" && name.rfind("IWbemObjectSink::", 0) != 0 &&
           name != "UnicastIpAddressChangeCallback" && name != "RegCloseKey" && name != "ServiceControl" &&
           name != "HookPlatformCalls";
}
} // namespace

CallRecorder::CallRecorder()
{
    lab::Machine& machine = lab::Machine::Attach();
    machine.SwitchJournal(true);
    machine.ClearJournal();
}

CallRecorder::~CallRecorder()
{
    lab::Machine::Attach().SwitchJournal(false);
}

const std::vector<ServiceCall>& CallRecorder::Calls()
{
    for (const lab::Json& line : lab::Machine::Attach().ReadJournal(m_position))
    {
        if (!IsCallOfTheService(line))
        {
            continue;
        }
        ServiceCall call;
        call.name = line.value("call", "");
        call.arguments = line.contains("args") ? line["args"].dump() : "";
        call.nth = call.alike = 1;
        for (const ServiceCall& earlier : m_calls)
        {
            const bool sameName = earlier.name == call.name;
            call.nth += sameName ? 1 : 0;
            call.alike += sameName && earlier.arguments == call.arguments ? 1 : 0;
        }
        call.thread = line.value("tid", 0U);
        m_calls.push_back(std::move(call));
    }
    return m_calls;
}

ArmedFault::ArmedFault(const std::string& name, int nth, std::uint32_t code)
{
    lab::FaultRule rule;
    rule.call = name;
    rule.nth = static_cast<std::uint32_t>(nth);
    rule.code = code;
    lab::Machine::Attach().AddFault(rule);
}

ArmedFault::~ArmedFault()
{
    lab::Machine::Attach().ClearFaults();
}

bool ArmedFault::Hit() const
{
    const std::vector<lab::FaultRule> rules = lab::Machine::Attach().Faults();
    return rules.size() == 1 && rules.front().hits >= rules.front().nth;
}
