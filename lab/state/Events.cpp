#include "lab/state/MachineImpl.h"
#include "lab/state/Text.h"

namespace lab
{

namespace
{

constexpr wchar_t eventsFile[] = L"events.jsonl";

} // namespace

std::wstring Machine::Impl::ListenerName(std::size_t number) const
{
    return objectPrefix + L"listener" + std::to_wstring(number);
}

void Machine::Impl::AppendEvents(Events& events)
{
    if (events.empty())
    {
        return;
    }
    std::uint64_t number = shared->eventCount.load();
    const std::uint64_t time = Now();
    std::string text;
    for (Json& event : events)
    {
        event["seq"] = ++number;
        event["time"] = time;
        text += event.dump(-1, ' ', false, Json::error_handler_t::replace);
        text += '\n';
    }
    const Handle file{CreateFileW((folder / eventsFile).c_str(), GENERIC_WRITE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr)};
    if (text.size() > eventsRoom)
    {
        Fail("too many events at a time");
    }
    const std::uint64_t end = shared->eventsEnd.load();
    shared->eventsWanted.store(end + text.size());
    if (!file || !WriteRing(file.get(), eventsRoom, end, text))
    {
        Fail("cannot write the events");
    }
    shared->eventCount.store(number);
    shared->eventsEnd.store(end + text.size(), std::memory_order_release);
}

void Machine::Impl::WakeListeners() noexcept
{
    for (std::size_t i = 0; i < maximumListeners; ++i)
    {
        if (shared->listening[i].load(std::memory_order_acquire) == 0)
        {
            continue;
        }
        const Handle event{OpenEventW(EVENT_MODIFY_STATE, FALSE, ListenerName(i).c_str())};
        if (event)
        {
            SetEvent(event.get());
        }
        else if (GetLastError() == ERROR_FILE_NOT_FOUND)
        {
            shared->listening[i].store(0); // its process died
        }
    }
}

struct EventCursor::Impl
{
    Machine::Impl& machine;
    std::uint64_t position;
    std::size_t number;
    Handle wake;

    ~Impl() { machine.shared->listening[number].store(0); }
};

EventCursor::EventCursor(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
EventCursor::EventCursor(EventCursor&&) noexcept = default;
EventCursor::~EventCursor() = default;

EventCursor Machine::Listen()
{
    Impl& impl = *m_impl;
    const Impl::Lock lock{impl};
    for (std::size_t i = 0; i < maximumListeners; ++i)
    {
        // A number is free when nobody holds its event, whatever the flag of a dead process says.
        Handle wake{CreateEventW(nullptr, FALSE, FALSE, impl.ListenerName(i).c_str())};
        if (!wake || GetLastError() == ERROR_ALREADY_EXISTS)
        {
            continue;
        }
        impl.shared->listening[i].store(1, std::memory_order_release);
        return EventCursor{std::unique_ptr<EventCursor::Impl>(
            new EventCursor::Impl{impl, impl.shared->eventsEnd.load(), i, std::move(wake)})};
    }
    Fail("too many listeners");
}

bool EventCursor::WaitForChange(std::uint64_t version, std::uint32_t milliseconds, void* stop)
{
    const SharedBlock& shared = *m_impl->machine.shared;
    const auto changed = [&] { return shared.version.load() != version || shared.eventsEnd.load() > m_impl->position; };
    const ULONGLONG deadline = GetTickCount64() + milliseconds;
    while (!changed())
    {
        DWORD wait = milliseconds;
        if (milliseconds != INFINITE)
        {
            const ULONGLONG now = GetTickCount64();
            wait = now >= deadline ? 0 : static_cast<DWORD>(deadline - now);
        }
        const HANDLE handles[] = {m_impl->wake.get(), stop};
        if (WaitForMultipleObjects(stop == nullptr ? 1 : 2, handles, FALSE, wait) != WAIT_OBJECT_0)
        {
            return false;
        }
    }
    return true;
}

Events EventCursor::Next(std::uint32_t milliseconds, void* stop)
{
    const SharedBlock& shared = *m_impl->machine.shared;
    const ULONGLONG deadline = GetTickCount64() + milliseconds;
    while (shared.eventsEnd.load(std::memory_order_acquire) <= m_impl->position)
    {
        DWORD wait = milliseconds;
        if (milliseconds != INFINITE)
        {
            const ULONGLONG now = GetTickCount64();
            wait = now >= deadline ? 0 : static_cast<DWORD>(deadline - now);
        }
        if (!WaitForChange(shared.version.load(), wait, stop))
        {
            return {};
        }
    }
    const std::uint64_t end = shared.eventsEnd.load(std::memory_order_acquire);
    const std::uint64_t start = m_impl->position;
    m_impl->position = end;
    const std::string text = end - start > eventsRoom
                                 ? std::string{}
                                 : ReadRing(m_impl->machine.folder / eventsFile, eventsRoom, start, end);
    // Asked after the reading: what was overwritten meanwhile is no text of events any more.
    if (shared.eventsWanted.load() - start > eventsRoom)
    {
        return {{{"channel", "lab"}, {"type", "lost"}, {"bytes", end - start}}};
    }
    Events events;
    for (std::size_t from = 0; from < text.size();)
    {
        const std::size_t to = std::min(text.find('\n', from), text.size());
        events.push_back(Json::parse(text.substr(from, to - from)));
        from = to + 1;
    }
    return events;
}

std::uint64_t Machine::LastEvent() const noexcept
{
    return m_impl->shared->eventCount.load();
}

void Machine::Raise(Events events)
{
    {
        const Impl::Lock lock{*m_impl};
        m_impl->AppendEvents(events);
    }
    m_impl->WakeListeners();
}

} // namespace lab
