// watch: events as they come, the adapters below.

#include <algorithm>
#include <memory>
#include <optional>

#include "clients/halcydctl/Commands.h"
#include "clients/halcydctl/Failure.h"
#include "clients/halcydctl/Installation.h"
#include "clients/halcydctl/MonitorClient.h"
#include "clients/halcydctl/Notes.h"
#include "clients/halcydctl/Text.h"

namespace
{
constexpr DWORD LifeSignInterval = 3000;  // milliseconds between two looks whether the service still answers
constexpr DWORD ReturnInterval = 1000;    // ... whether a lost service is back
constexpr std::size_t NarrowestName = 16; // columns for the adapter's name in an event line
constexpr std::size_t WidestName = 40;
constexpr std::int32_t AdapterRemoved = 2; // enumEventAdapterRemove

SYSTEMTIME Now()
{
    SYSTEMTIME time{};
    GetLocalTime(&time);
    return time;
}

// Runs until the user, a limit or a failure ends it. All on the main thread; events come through the queue.
class Watcher
{
public:
    explicit Watcher(const Session& watchSession) : session(watchSession)
    {
        if (session.options.seconds != 0)
        {
            deadline = GetTickCount64() + session.options.seconds * 1000ull;
        }
    }

    ExitCode Run()
    {
        Connect(session.options.start);
        Say("started", L"Watching. Ctrl+C ends.");
        HandleQueue();
        while (!Ended())
        {
            if (connection)
            {
                TakeEvents();
            }
            else
            {
                AwaitReturn();
            }
        }
        EraseTable();
        connection.reset();
        if (session.options.json)
        {
            Say("ended", L"");
        }
        else
        {
            session.console.Lines(AdapterTable(adapters, session.console.Width()));
            Say("ended", std::to_wstring(eventCount) + (eventCount == 1 ? L" event." : L" events."));
        }
        return ExitCode::Success;
    }

private:
    [[nodiscard]] bool Ended() const
    {
        return interruption.Requested() || (deadline != 0 && GetTickCount64() >= deadline) ||
               (session.options.count != 0 && eventCount >= session.options.count);
    }

    [[nodiscard]] DWORD TimeLeft(DWORD atMost) const
    {
        if (deadline == 0)
        {
            return atMost;
        }
        const ULONGLONG now = GetTickCount64();
        return now >= deadline ? 0 : static_cast<DWORD>(std::min<ULONGLONG>(atMost, deadline - now));
    }

    // Advised before it is opened, so that the adapters of the discovery come as events too.
    void Connect(bool mayStart)
    {
        auto made = std::make_unique<MonitorConnection>(mayStart);
        made->Advise(queue);
        made->Open();
        made->StartNotifications();
        adapters = made->Adapters();
        connection = std::move(made);
    }

    void TakeEvents()
    {
        const HANDLE handles[] = {interruption.Handle(), queue.Available(), notes.Available()};
        const DWORD waited = WaitForMultipleObjects(3, handles, FALSE, TimeLeft(LifeSignInterval));
        try
        {
            if (waited == WAIT_OBJECT_0 + 1)
            {
                HandleQueue();
            }
            else if (waited == WAIT_OBJECT_0 + 2)
            {
                ShowNotes();
            }
            else if (waited == WAIT_TIMEOUT && !connection->IsOpen())
            {
                // Another client closed once too often; the list is empty until someone opens again.
                Say("closed", L"The monitor was closed by someone else; opening it again.");
                connection->Open();
                connection->StartNotifications();
                ShowAdapters();
            }
        }
        catch (const Failure& failure)
        {
            if (failure.exitCode != ExitCode::ServiceLost)
            {
                throw;
            }
            connection->Abandon();
            connection.reset();
            Say("serviceLost", L"The service ended or was stopped; waiting for it to come back.");
        }
    }

    void HandleQueue()
    {
        MonitorEvent event;
        while (queue.Pop(event) && !(session.options.count != 0 && eventCount >= session.options.count))
        {
            // The name of an adapter that has just come is in the new list, of one that has gone in the old one.
            std::wstring name = NameOf(adapters, event.deviceId);
            if (event.event != AdapterRemoved && name == event.deviceId && event.deviceId.starts_with(L'{'))
            {
                adapters = connection->Adapters();
                name = NameOf(adapters, event.deviceId);
            }
            ++eventCount;
            if (session.options.json)
            {
                session.Print(ToJson(event, name));
            }
            else
            {
                EraseTable();
                session.console.Line(Fitted(EventLine(event, name, NameWidth())));
            }
        }
        ShowAdapters();
    }

    void ShowNotes()
    {
        std::wstring note;
        while (notes.Pop(note))
        {
            if (session.options.json)
            {
                session.Print(
                    {{"kind", "note"}, {"time", Text::ToUtf8(DateAndTime(Now()))}, {"text", Text::ToUtf8(note)}});
                continue;
            }
            EraseTable();
            session.console.Line(Fitted(Text::Styled(note, Text::Style::Cyan)));
        }
        ShowAdapters();
    }

    // Lines that would break by themselves spoil the counting of what is to be drawn over.
    [[nodiscard]] std::wstring Fitted(const std::wstring& styled) const
    {
        const std::size_t width = session.console.Width();
        return width == 0 || Text::Width(styled) <= width ? styled : Text::Cut(Text::WithoutStyles(styled), width);
    }

    [[nodiscard]] std::size_t NameWidth() const
    {
        std::size_t widest = NarrowestName;
        for (const AdapterView& adapter : adapters)
        {
            widest = std::max(widest, Text::Width(adapter.description));
        }
        return std::min(widest, WidestName);
    }

    void AwaitReturn()
    {
        const HANDLE handle = interruption.Handle();
        if (WaitForMultipleObjects(1, &handle, FALSE, TimeLeft(ReturnInterval)) == WAIT_OBJECT_0)
        {
            return;
        }
        try
        {
            // A stopped service is not started from here: whoever stopped it meant it. A plain server comes back by the
            // call.
            Connect(false);
            Say("serviceBack", L"The service is back.");
            ShowAdapters();
        }
        catch (const Failure&)
        {
            // Not yet. Each reason is one that a restart or an installation can end.
        }
    }

    void Say(const char* kind, const std::wstring& words)
    {
        const SYSTEMTIME time = Now();
        if (session.options.json)
        {
            session.Print({{"kind", kind}, {"time", Text::ToUtf8(DateAndTime(time))}, {"events", eventCount}});
            return;
        }
        EraseTable();
        session.console.Line(Text::Styled(TimeOfDay(time), Text::Style::Faint) + L"  " +
                             Text::Styled(words, Text::Style::Bold));
    }

    // The table is drawn below the events and drawn over where that is possible; otherwise it comes at the start and
    // the end.
    void ShowAdapters()
    {
        if (!connection || !session.options.table)
        {
            return;
        }
        adapters = connection->Adapters();
        if (session.options.json)
        {
            session.Print(
                {{"kind", "adapters"}, {"time", Text::ToUtf8(DateAndTime(Now()))}, {"adapters", ToJson(adapters)}});
            return;
        }
        if (!session.console.CanRedraw() && tableShown)
        {
            return;
        }
        EraseTable();
        std::vector<std::wstring> lines = AdapterTable(adapters, session.console.Width());
        lines.insert(lines.begin(), L"");
        session.console.Lines(lines);
        tableShown = true;
        tableLines = lines.size();
    }

    void EraseTable()
    {
        session.console.EraseLines(tableLines);
        tableLines = 0;
    }

    const Session& session;
    Interruption interruption;
    NoteReader notes{session.options.notes};
    EventQueue queue; // outlives the connection, whose sink writes to it
    std::unique_ptr<MonitorConnection> connection;
    std::vector<AdapterView> adapters;
    std::uint64_t eventCount = 0;
    ULONGLONG deadline = 0;
    std::size_t tableLines = 0;
    bool tableShown = false;
};
} // namespace

ExitCode Commands::Watch(const Session& session)
{
    Watcher watcher(session);
    return watcher.Run();
}
