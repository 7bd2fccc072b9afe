#include "lab/wmi/Subscriptions.h"

#include "lab/state/Handles.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <algorithm>
#include <exception>
#include <map>
#include <thread>

namespace lab::wmi
{

namespace
{

constexpr std::size_t maximumPerIndicate = 32;

struct Subscription
{
    const void* owner;
    ClassPointer type;
    std::unique_ptr<Condition> where;
    std::uint64_t from; // events up to this number came before it
    bool sendStatus;
    bool cancelled = false;
};

Reference<ClassObject> MakeEvent(const ClassPointer& type, const Json& event)
{
    std::vector<Value> values(type->properties.size());
    for (std::size_t i = 0; i < values.size(); ++i)
    {
        const PropertyType& property = type->properties[i];
        if (property.name == L"TIME_CREATED")
        {
            values[i] = FromJson(Member(event, "time"), property.type);
        }
        else if (property.name == L"Active")
        {
            values[i] = true;
        }
        else
        {
            values[i] = FromJson(Member(event, Utf8(property.name).c_str()), property.type);
        }
    }
    return MakeInstance(Namespace::Wmi, type, std::move(values));
}

// The thread of one sink, and what the sink asked for.
class SinkPump : public std::enable_shared_from_this<SinkPump>
{
public:
    explicit SinkPump(IWbemObjectSink* sink)
        : m_sink(sink), m_cursor(Machine::Attach().Listen()), m_changed(CreateEventW(nullptr, FALSE, FALSE, nullptr))
    {
    }

    void Start()
    {
        // The thread's last instructions run in this module: it stays loaded from here on.
        ++moduleReferences;
        std::thread([self = shared_from_this()] { self->Run(); }).detach();
    }
    void Add(std::unique_ptr<Subscription> subscription)
    {
        const std::scoped_lock lock{m_mutex};
        m_subscriptions.push_back(std::move(subscription));
    }
    bool Cancel(const void* owner)
    {
        bool any = false;
        const std::scoped_lock lock{m_mutex};
        for (const auto& subscription : m_subscriptions)
        {
            if (subscription->owner == owner && !subscription->cancelled)
            {
                subscription->cancelled = true;
                any = true;
            }
        }
        SetEvent(m_changed.get());
        return any;
    }
    [[nodiscard]] bool IsIdle()
    {
        const std::scoped_lock lock{m_mutex};
        return m_subscriptions.empty();
    }

private:
    using Batch = std::vector<Reference<ClassObject>>;

    void Run();
    void DeliverWhatComes();
    void Deliver(const Events& events);
    // Puts the events that are to come late aside and leaves the others.
    void PutAsideLate(Events& events);
    [[nodiscard]] Events TakeDue();
    [[nodiscard]] DWORD TimeToNextDue() const;
    void Indicate(const ClassPointer& type, Batch& batch);
    void EndCancelled();
    // The first subscription from `from` on that this event meets, or null. The result stays valid on this thread,
    // which alone takes subscriptions out.
    Subscription* Match(const Json& event, const ClassObject& object, std::size_t& from);

    struct Late
    {
        ULONGLONG due; // GetTickCount64
        Json event;
    };

    Reference<IWbemObjectSink> m_sink;
    EventCursor m_cursor;
    std::vector<Late> m_late; // by due time; this thread's own
    Handle m_changed;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<Subscription>> m_subscriptions; // guarded by m_mutex
};

std::mutex pumpsMutex;
std::map<IWbemObjectSink*, std::shared_ptr<SinkPump>> pumps; // guarded by pumpsMutex

Subscription* SinkPump::Match(const Json& event, const ClassObject& object, std::size_t& from)
{
    const std::scoped_lock lock{m_mutex};
    const std::uint64_t number = event["seq"].get<std::uint64_t>();
    for (; from < m_subscriptions.size(); ++from)
    {
        Subscription& subscription = *m_subscriptions[from];
        if (subscription.cancelled || subscription.from >= number ||
            !EqualNoCase(subscription.type->name, Wide(TextField(event, "type"))))
        {
            continue;
        }
        if (Meets(subscription.where.get(), [&](std::wstring_view property) { return object.Read(property); }))
        {
            ++from;
            return &subscription;
        }
    }
    return nullptr;
}

void SinkPump::PutAsideLate(Events& events)
{
    for (Json& event : events)
    {
        if (const auto delay = NumberField(event, "delayMs", 0); delay > 0)
        {
            event.erase("delayMs");
            const ULONGLONG due = GetTickCount64() + static_cast<ULONGLONG>(delay);
            // Behind those that are due at the same time: they came first.
            m_late.insert(std::ranges::upper_bound(m_late, due, {}, &Late::due), Late{due, std::move(event)});
            event = nullptr;
        }
    }
    std::erase_if(events, [](const Json& event) { return event.is_null(); });
}

Events SinkPump::TakeDue()
{
    Events due;
    const ULONGLONG now = GetTickCount64();
    while (!m_late.empty() && m_late.front().due <= now)
    {
        due.push_back(std::move(m_late.front().event));
        m_late.erase(m_late.begin());
    }
    return due;
}

DWORD SinkPump::TimeToNextDue() const
{
    if (m_late.empty())
    {
        return INFINITE;
    }
    const ULONGLONG now = GetTickCount64();
    return m_late.front().due <= now ? 0 : static_cast<DWORD>(m_late.front().due - now);
}

void SinkPump::Deliver(const Events& events)
{
    Batch batch;
    const Subscription* batchOwner = nullptr;
    ClassPointer batchType;
    for (const Json& event : events)
    {
        if (TextField(event, "channel") != "wmi")
        {
            continue;
        }
        const ClassPointer type = FindClass(Namespace::Wmi, Wide(TextField(event, "type")));
        if (type == nullptr)
        {
            continue;
        }
        const Reference<ClassObject> object = MakeEvent(type, event);
        std::size_t from = 0;
        while (Subscription* const subscription = Match(event, *object.get(), from))
        {
            if (subscription != batchOwner || batch.size() >= maximumPerIndicate)
            {
                Indicate(batchType, batch);
                batchOwner = subscription;
                batchType = type;
            }
            for (std::int64_t copies = NumberField(event, "copies", 1); copies > 0; --copies)
            {
                batch.push_back(object);
            }
        }
    }
    Indicate(batchType, batch);
}

void SinkPump::Indicate(const ClassPointer& type, Batch& batch)
{
    if (batch.empty())
    {
        return;
    }
    Call call{"IWbemObjectSink::Indicate"};
    call.Arg("class", type->name.c_str()).Arg("count", batch.size());
    if (call.Journalled())
    {
        call.Arg("InstanceName", ToJson(batch.front()->Read(L"InstanceName")));
    }
    if (const auto code = call.Fault())
    { // the events are lost on the way
        batch.clear();
        call.Result(*code);
        return;
    }
    std::vector<IWbemClassObject*> objects;
    for (const Reference<ClassObject>& object : batch)
    {
        objects.push_back(object.get());
    }
    if (call.Journalled())
    { // a line is written when its call has returned, and what the call sets going may well be ahead of that
        call.Arg("called", TimeText(Now()));
    }
    call.Result(m_sink->Indicate(static_cast<long>(objects.size()), objects.data()));
    batch.clear();
}

void SinkPump::EndCancelled()
{
    std::vector<std::unique_ptr<Subscription>> ended;
    {
        const std::scoped_lock lock{m_mutex};
        std::vector<std::unique_ptr<Subscription>> kept;
        for (auto& subscription : m_subscriptions)
        {
            (subscription->cancelled ? ended : kept).push_back(std::move(subscription));
        }
        m_subscriptions = std::move(kept);
    }
    for (const auto& subscription : ended)
    {
        if (subscription->sendStatus)
        {
            Call call{"IWbemObjectSink::SetStatus"};
            call.Arg("class", subscription->type->name.c_str()).Arg("status", Hex32(WBEM_E_CALL_CANCELLED));
            call.Result(m_sink->SetStatus(WBEM_STATUS_COMPLETE, Status(WBEM_E_CALL_CANCELLED), nullptr, nullptr));
        }
    }
}

// The thread belongs to the program that subscribed, and an exception would end that. What could not be delivered is
// lost, as with a broken connection to the real thing; the journal says so.
void SinkPump::DeliverWhatComes()
{
    std::string why = "an exception without a text";
    try
    {
        Events events = m_cursor.Next(TimeToNextDue(), m_changed.get());
        PutAsideLate(events);
        Deliver(events);
        Deliver(TakeDue());
        return;
    }
    catch (const std::exception& failure)
    {
        why = failure.what();
    }
    catch (...)
    {
    }
    Call call{"SinkPump::Deliver"};
    call.Arg("failure", why).Result(RPC_E_SERVERFAULT);
}

void SinkPump::Run()
{
    const bool initialised = SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED));
    for (;;)
    {
        DeliverWhatComes();
        EndCancelled();
        const std::scoped_lock lock{pumpsMutex};
        if (IsIdle())
        {
            pumps.erase(m_sink.get());
            break;
        }
    }
    m_sink = {};
    if (initialised)
    {
        CoUninitialize();
    }
}

} // namespace

void Subscribe(const void* owner, IWbemObjectSink* sink, ClassPointer type, Query query, bool sendStatus)
{
    const std::scoped_lock lock{pumpsMutex};
    std::shared_ptr<SinkPump>& pump = pumps[sink];
    const bool isNew = pump == nullptr;
    if (isNew)
    {
        pump = std::make_shared<SinkPump>(sink);
    }
    pump->Add(std::make_unique<Subscription>(
        Subscription{owner, std::move(type), std::move(query.where), Machine::Attach().LastEvent(), sendStatus}));
    if (isNew)
    {
        pump->Start();
    }
}

bool Cancel(const void* owner, IWbemObjectSink* sink)
{
    const std::scoped_lock lock{pumpsMutex};
    const auto pump = pumps.find(sink);
    return pump != pumps.end() && pump->second->Cancel(owner);
}

} // namespace lab::wmi
