#include "lab/state/MachineImpl.h"
#include "lab/state/Text.h"

#include <algorithm>

namespace lab
{

namespace
{

std::string ProcessName()
{
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring_view text{path, length};
    return Utf8(text.substr(text.find_last_of(L'\\') + 1));
}

Json FromRecord(const LabDriverRecord& record)
{
    Json line;
    line["time"] = TimeText(record.time);
    line["process"] = "driver";
    line["pid"] = record.process;
    line["tid"] = record.thread;
    line["call"] = record.code == 0 ? "Driver::Open" : record.code == 1 ? "Driver::Close" : "Driver::DeviceControl";
    Json& arguments = line["args"];
    const auto* name = reinterpret_cast<const wchar_t*>(record.name);
    arguments["device"] = Utf8(std::wstring_view{name, wcsnlen(name, LAB_NAME_CHARS)});
    if (record.code > 1)
    {
        arguments["code"] = Hex32(record.code);
        arguments["oid"] = Hex32(record.oid);
        line["out"]["length"] = record.length;
    }
    line["result"] = Hex32(record.status);
    return line;
}

} // namespace

bool Machine::JournalOn() const noexcept
{
    return m_impl->shared->journalOff.load(std::memory_order_relaxed) == 0;
}

void Machine::SwitchJournal(bool on)
{
    m_impl->shared->journalOff.store(on ? 0 : 1);
    m_impl->table->journalOn = on ? 1 : 0;
}

void Machine::Journal(std::string_view call, const Json& arguments, std::uint32_t result, const Json& out) noexcept
try
{
    if (!JournalOn())
    {
        return;
    }
    static const std::string process = ProcessName();
    std::string text = "{\"time\":\"" + TimeText(Now()) + "\",\"process\":\"" + process +
                       "\",\"pid\":" + std::to_string(GetCurrentProcessId()) +
                       ",\"tid\":" + std::to_string(GetCurrentThreadId()) + ",\"call\":\"" + std::string{call} + '"';
    // Text from outside may be anything; a journal line may not fail for that.
    if (!arguments.is_null())
    {
        text += ",\"args\":" + arguments.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
    if (!out.is_null())
    {
        text += ",\"out\":" + out.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
    text += ",\"result\":\"" + Hex32(result) + "\"}\n";
    // The place is reserved first, so writers never meet. One that dies in between leaves zeros, which readers skip.
    const std::uint64_t place = m_impl->shared->journalEnd.fetch_add(text.size());
    OVERLAPPED position{};
    position.Offset = static_cast<DWORD>(place);
    position.OffsetHigh = static_cast<DWORD>(place >> 32);
    DWORD written = 0;
    WriteFile(m_impl->journalFile.get(), text.data(), static_cast<DWORD>(text.size()), &written, &position);
}
catch (...)
{
    // No memory for a journal line: the call itself goes on.
}

void Machine::ClearJournal()
{
    m_impl->shared->journalStart.store(m_impl->shared->journalEnd.load());
    m_impl->shared->driverStart.store(m_impl->table->recordCount);
}

std::vector<Json> Machine::ReadJournal(JournalPosition& position)
{
    const SharedBlock& shared = *m_impl->shared;
    position.bytes = std::max(position.bytes, shared.journalStart.load());
    const std::uint64_t end = shared.journalEnd.load();
    std::string text;
    // A line whose writer is still at work reads as zeros for a moment: wait for it, but not for a dead writer.
    for (int attempt = 0; attempt < 50; ++attempt)
    {
        text = ReadRange(m_impl->folder / L"journal.jsonl", position.bytes, end);
        if (text.size() == end - position.bytes && text.find('\0') == std::string::npos)
        {
            break;
        }
        Sleep(2);
    }
    position.bytes = end;
    std::erase(text, '\0');
    std::vector<Json> lines;
    for (std::size_t from = 0; from < text.size();)
    {
        const std::size_t to = std::min(text.find('\n', from), text.size());
        if (Json line = Json::parse(text.substr(from, to - from), nullptr, false); line.is_object())
        {
            lines.push_back(std::move(line));
        }
        from = to + 1;
    }
    // The driver's ring holds the newest LAB_DRIVER_RECORDS records.
    const LabDriverTable& table = *m_impl->table;
    const std::uint64_t count = table.recordCount;
    position.records = std::max({position.records, shared.driverStart.load(),
                                 count > LAB_DRIVER_RECORDS ? count - LAB_DRIVER_RECORDS : std::uint64_t{0}});
    for (; position.records < count; ++position.records)
    {
        const LabDriverRecord& record = table.records[position.records % LAB_DRIVER_RECORDS];
        if (record.number == position.records + 1)
        {
            lines.push_back(FromRecord(record));
        }
    }
    std::vector<std::pair<std::string, std::size_t>> order;
    for (std::size_t i = 0; i < lines.size(); ++i)
    {
        order.emplace_back(lines[i]["time"].get<std::string>(), i);
    }
    std::sort(order.begin(), order.end());
    std::vector<Json> sorted;
    sorted.reserve(lines.size());
    for (const auto& entry : order)
    {
        sorted.push_back(std::move(lines[entry.second]));
    }
    return sorted;
}

Call::Call(std::string_view name, Machine& machine) : m_machine(machine), m_name(name), m_journal(machine.JournalOn())
{
}

Call::~Call()
{
    if (!m_finished)
    {
        Finish(0xFFFFFFFFU);
    }
}

Call& Call::Arg(std::string_view key, const wchar_t* value)
{
    if (m_journal)
    {
        m_arguments[std::string{key}] = value == nullptr ? Json(nullptr) : Json(Utf8(value));
    }
    return *this;
}

void Call::Finish(std::uint32_t result) noexcept
{
    m_finished = true;
    if (m_journal)
    {
        m_machine.Journal(m_name, m_arguments, result, m_out);
    }
}

} // namespace lab
