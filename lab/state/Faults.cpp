#include "lab/state/MachineImpl.h"
#include "lab/state/Text.h"

#include <cstring>
#include <stdexcept>

namespace lab
{

namespace
{

constexpr std::string_view driverCall = "QueryOid";
constexpr std::uint32_t killedResult = 0xDEAD; // of the call in the journal, and the exit code

bool Matches(std::string_view pattern, std::string_view call) noexcept
{
    if (!pattern.empty() && pattern.back() == '*' && !call.empty())
    {
        // A detailed name goes with its general one, which the pattern has counted already.
        pattern.remove_suffix(1);
        const bool isDetail = call.back() == ')' && pattern.find('(') == std::string_view::npos;
        return !isDetail && call.substr(0, pattern.size()) == pattern;
    }
    return call == pattern;
}

// Counts one call in a rule; true if the rule applies to it. Hits start at 1.
bool Applies(std::uint32_t hit, std::uint32_t nth, std::uint32_t times) noexcept
{
    return hit >= nth && (times == 0 || hit - nth < times);
}

} // namespace

std::optional<std::uint32_t> Machine::Fault(std::string_view call) noexcept
{
    return Decide(call, nullptr);
}

std::optional<std::uint32_t> Machine::Fault(std::string_view call, std::string_view detail) noexcept
{
    return DecideDetailed(call, detail, nullptr);
}

std::optional<std::uint32_t> Machine::Decide(std::string_view call, const Json& arguments) noexcept
{
    SharedBlock& shared = *m_impl->shared;
    if (shared.ruleCount.load(std::memory_order_acquire) == 0)
    {
        return std::nullopt;
    }
    std::optional<std::uint32_t> code;
    std::uint32_t delay = 0;
    bool kills = false;
    for (SharedRule& rule : shared.rules)
    {
        if (rule.active.load(std::memory_order_acquire) == 0 || !Matches(rule.call, call))
        {
            continue;
        }
        if (Applies(rule.hits.fetch_add(1) + 1, rule.nth, rule.times))
        {
            delay += rule.delayMs;
            kills |= rule.kills != 0;
            if (rule.fails != 0 && !code)
            {
                code = rule.code;
            }
        }
    }
    if (delay != 0)
    {
        Sleep(delay);
    }
    if (kills)
    {
        Journal(call, arguments, killedResult);
        TerminateProcess(GetCurrentProcess(), killedResult);
    }
    return code;
}

std::optional<std::uint32_t> Machine::DecideDetailed(std::string_view call, std::string_view detail,
                                                     const Json& arguments) noexcept
try
{
    if (m_impl->shared->ruleCount.load(std::memory_order_acquire) == 0)
    {
        return std::nullopt;
    }
    std::string exact{call};
    exact.append("(").append(detail).append(")");
    const auto general = Decide(call, arguments);
    const auto special = Decide(exact, arguments);
    return general ? general : special;
}
catch (const std::bad_alloc&)
{
    return std::nullopt;
}

std::optional<std::uint32_t> Call::Fault(const wchar_t* detail) noexcept
try
{
    return Noted(m_machine.DecideDetailed(m_name, Utf8(detail), m_arguments));
}
catch (const std::bad_alloc&)
{
    return std::nullopt;
}

void Machine::Impl::AddDriverFault(const FaultRule& rule)
{
    LabDriverFault* free = nullptr;
    for (LabDriverFault& slot : table->faults)
    {
        if (slot.active == 0)
        {
            free = &slot;
            break;
        }
    }
    if (free == nullptr)
    {
        throw std::runtime_error("too many fault rules for the driver");
    }
    std::memset(free, 0, sizeof *free);
    free->oid = LAB_ANY_OID;
    std::string_view rest = std::string_view{rule.call}.substr(driverCall.size());
    if (const std::size_t at = rest.find('@'); at != std::string_view::npos)
    {
        const std::wstring adapter = Wide(rest.substr(at + 1));
        if (adapter.size() >= LAB_NAME_CHARS)
        {
            throw std::runtime_error("the adapter's name is too long: " + rule.call);
        }
        std::memcpy(free->adapter, adapter.c_str(), (adapter.size() + 1) * sizeof(wchar_t));
        rest = rest.substr(0, at);
    }
    if (!rest.empty())
    {
        const auto oid = rest.front() == ':' ? ParseNumber(rest.substr(1)) : std::nullopt;
        if (!oid)
        {
            throw std::runtime_error("no object identifier in " + rule.call);
        }
        free->oid = *oid;
    }
    free->nth = rule.nth;
    free->times = rule.times;
    free->status = rule.code.value_or(0);
    free->delayMs = rule.delayMs;
    MemoryBarrier();
    free->active = 1;
}

void Machine::AddFault(const FaultRule& rule)
{
    if (rule.call.empty() || rule.call.size() >= sizeof(SharedRule::call) || rule.nth == 0)
    {
        throw std::runtime_error("a fault rule needs a call of 1 to 99 characters, and counts from 1");
    }
    const Impl::Lock lock{*m_impl};
    if (rule.call.compare(0, driverCall.size(), driverCall) == 0)
    {
        if (rule.kill)
        {
            throw std::runtime_error("the driver's calls cannot end a process");
        }
        m_impl->AddDriverFault(rule);
        return;
    }
    for (SharedRule& slot : m_impl->shared->rules)
    {
        if (slot.active.load() != 0)
        {
            continue;
        }
        std::memcpy(slot.call, rule.call.c_str(), rule.call.size() + 1);
        slot.nth = rule.nth;
        slot.times = rule.times;
        slot.fails = rule.code ? 1 : 0;
        slot.code = rule.code.value_or(0);
        slot.kills = rule.kill ? 1 : 0;
        slot.delayMs = rule.delayMs;
        slot.hits.store(0);
        slot.active.store(1, std::memory_order_release);
        m_impl->shared->ruleCount.fetch_add(1);
        return;
    }
    throw std::runtime_error("too many fault rules");
}

std::vector<FaultRule> Machine::Faults()
{
    const Impl::Lock lock{*m_impl};
    std::vector<FaultRule> rules;
    for (const SharedRule& slot : m_impl->shared->rules)
    {
        if (slot.active.load() != 0)
        {
            rules.push_back({slot.call, slot.nth, slot.times, slot.fails != 0 ? std::optional{slot.code} : std::nullopt,
                             slot.delayMs, slot.hits.load(), slot.kills != 0});
        }
    }
    for (const LabDriverFault& slot : m_impl->table->faults)
    {
        if (slot.active == 0)
        {
            continue;
        }
        std::string call{driverCall};
        if (slot.oid != LAB_ANY_OID)
        {
            call += ":" + Hex32(slot.oid);
        }
        if (slot.adapter[0] != 0)
        {
            call += "@" + Utf8(reinterpret_cast<const wchar_t*>(slot.adapter));
        }
        rules.push_back({call, slot.nth, slot.times, slot.status != 0 ? std::optional{slot.status} : std::nullopt,
                         slot.delayMs, slot.hits});
    }
    return rules;
}

void Machine::ClearFaults()
{
    const Impl::Lock lock{*m_impl};
    m_impl->shared->ruleCount.store(0);
    for (SharedRule& slot : m_impl->shared->rules)
    {
        slot.active.store(0);
    }
    for (LabDriverFault& slot : m_impl->table->faults)
    {
        slot.active = 0;
    }
}

} // namespace lab
