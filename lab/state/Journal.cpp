#include "lab/state/MachineImpl.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

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

constexpr std::size_t longestPart = journalRoom / 8; // of the arguments or the outcome of one call
constexpr std::size_t stampLength = 24;              // {"at":"0000000000000000"

bool StandsAt(const Json& line, std::uint64_t place)
{
    const std::string text = TextField(line, "at");
    std::uint64_t at = 0;
    return std::from_chars(text.data(), text.data() + text.size(), at, 16).ptr == text.data() + text.size() &&
           at == place && !text.empty();
}

// Lines of the journal that stand at their own place; the text is what the file has from `start` to `end`, and begins
// in the middle of a line if `cut`. `whole` tells whether all of it was there and nothing else: before the journal has
// been once around, the file ends with the last line that was written.
std::vector<Json> LinesAtTheirPlace(const std::string& text, std::uint64_t start, std::uint64_t end, bool cut,
                                    bool& whole)
{
    std::vector<Json> lines;
    whole = text.size() == end - start;
    for (std::size_t from = cut ? std::min(text.find('\n'), text.size() - 1) + 1 : 0; from < text.size();)
    {
        const std::size_t to = std::min(text.find('\n', from), text.size());
        Json line = Json::parse(text.begin() + static_cast<std::ptrdiff_t>(from),
                                text.begin() + static_cast<std::ptrdiff_t>(to), nullptr, false);
        if (line.is_object() && StandsAt(line, start + from))
        {
            line.erase("at");
            lines.push_back(std::move(line));
        }
        else
        {
            whole = false;
        }
        from = to + 1;
    }
    return lines;
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

void Machine::Journal(std::string_view call, const Json& arguments, std::uint32_t result, const Json& out,
                      bool byRule) noexcept
try
{
    if (!JournalOn())
    {
        return;
    }
    static const std::string process = ProcessName();
    std::string text = ",\"time\":\"" + TimeText(Now()) + "\",\"process\":\"" + process +
                       "\",\"pid\":" + std::to_string(GetCurrentProcessId()) +
                       ",\"tid\":" + std::to_string(GetCurrentThreadId()) + ",\"call\":\"" + std::string{call} + '"';
    // Text from outside may be anything; a journal line may not fail for that.
    const auto add = [&](const char* name, const Json& part)
    {
        if (!part.is_null())
        {
            const std::string shown = part.dump(-1, ' ', false, Json::error_handler_t::replace);
            text += name + (shown.size() <= longestPart ? shown : "\"(too long to keep)\"");
        }
    };
    add(",\"args\":", arguments);
    add(",\"out\":", out);
    text += ",\"result\":\"" + Hex32(result) + (byRule ? "\",\"fault\":true}\n" : "\"}\n");
    // The place is reserved first, so writers never meet. Each line says at which place it stands, in a form of fixed
    // length: that tells it from what a writer that died left there, zeros or an older line.
    char stamp[stampLength + 1];
    std::uint64_t place = m_impl->shared->journalEnd.fetch_add(stampLength + text.size());
    std::snprintf(stamp, sizeof stamp, "{\"at\":\"%016llx\"", static_cast<unsigned long long>(place));
    WriteRing(m_impl->journalFile.get(), journalRoom, place, stamp + text);
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
    const std::uint64_t end = shared.journalEnd.load();
    const std::uint64_t from = std::max(position.bytes, shared.journalStart.load());
    // The newest lines have overwritten older ones; of the rest the first may be cut.
    const std::uint64_t oldest = end > journalRoom ? end - journalRoom : 0;
    const std::uint64_t start = std::max(from, oldest);
    std::vector<Json> lines;
    // A line whose writer is still at work is not at its place yet: wait for it, on a loaded machine for a while, but
    // not for ever, as the writer may have died.
    const ULONGLONG patience = GetTickCount64() + 5000;
    do
    {
        bool whole = false;
        lines = LinesAtTheirPlace(ReadRing(m_impl->folder / L"journal.jsonl", journalRoom, start, end), start, end,
                                  start > from, whole);
        if (whole)
        {
            break;
        }
        Sleep(2);
    } while (GetTickCount64() < patience);
    if (start > from && !lines.empty())
    {
        lines.insert(lines.begin(), Json{{"time", lines.front()["time"]},
                                         {"process", "lab"},
                                         {"pid", 0},
                                         {"tid", 0},
                                         {"call", "(older calls were overwritten)"},
                                         {"args", {{"bytes", start - from}}},
                                         {"result", Hex32(0)}});
    }
    position.bytes = end;
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
        m_machine.Journal(m_name, m_arguments, result, m_out, m_faulted);
    }
}

} // namespace lab
