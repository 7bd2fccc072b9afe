// Service controls from the lab. The service registers its handler with the service control manager; this stands in
// between, so that controls of the manager and controls of the lab reach the same handler, one at a time.
//
// An event { "channel": "control", "type": "send", "id": N, "code": C, "eventType": T, "data": "hex" } is delivered;
// { "channel": "control", "type": "done", "id": N, "result": R } tells that the handler has returned.
// { "channel": "control", "type": "reference", "id": N, "class": "{...}" } is answered by ObjectReference.cpp.
#include "lab/shims/Hooks.h"
#include "lab/shims/ImportTable.h"
#include "lab/shims/Shim.h"

#include <wtsapi32.h>

#include <mutex>
#include <thread>
#include <vector>

namespace
{

using lab::Json;

decltype(&RegisterServiceCtrlHandlerExW) g_original = nullptr;
LPHANDLER_FUNCTION_EX g_handler = nullptr;
void* g_context = nullptr;

std::mutex& DispatchMutex()
{
    static auto* const mutex = new std::mutex;
    return *mutex;
}

// What the manager calls, and what the lab calls: the platform runs a service's controls one after the other.
DWORD WINAPI Dispatch(DWORD control, DWORD eventType, void* data, void*)
{
    const std::scoped_lock lock{DispatchMutex()};
    lab::Call call{"ServiceControl"};
    call.Arg("code", control).Arg("eventType", eventType);
    return call.Result(g_handler(control, eventType, data, g_context));
}

std::vector<unsigned char> EventData(const Json& event, DWORD control)
{
    const std::string text = lab::TextField(event, "data");
    std::vector<unsigned char> bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
    if (bytes.empty() && control == SERVICE_CONTROL_SESSIONCHANGE)
    {
        const WTSSESSION_NOTIFICATION session{sizeof session, 1};
        const auto* const from = reinterpret_cast<const unsigned char*>(&session);
        bytes.assign(from, from + sizeof session);
    }
    return bytes;
}

void Deliver(const Json& event)
{
    const auto control = static_cast<DWORD>(lab::NumberField(event, "code", 0));
    const auto eventType = static_cast<DWORD>(lab::NumberField(event, "eventType", 0));
    std::vector<unsigned char> data = EventData(event, control);
    const DWORD result = Dispatch(control, eventType, data.empty() ? nullptr : data.data(), nullptr);
    lab::Machine::Attach().Raise(
        {{{"channel", "control"}, {"type", "done"}, {"id", event.value("id", 0ULL)}, {"result", result}}});
}

void Listen(lab::EventCursor cursor)
{
    for (;;)
    {
        for (const Json& event : cursor.Next(INFINITE))
        {
            if (lab::TextField(event, "channel") != "control")
                continue;
            const std::string type = lab::TextField(event, "type");
            if (type == "send")
                Deliver(event);
            else if (type == "reference")
                lab::shim::AnswerWithReference(event);
        }
    }
}

SERVICE_STATUS_HANDLE WINAPI RegisterHandler(LPCWSTR name, LPHANDLER_FUNCTION_EX handler, LPVOID context)
{
    lab::Call call{"RegisterServiceCtrlHandlerExW"};
    call.Arg("service", name);
    if (const auto code = call.Fault())
    {
        call.Result(*code);
        SetLastError(*code);
        return nullptr;
    }
    {
        const std::scoped_lock lock{DispatchMutex()};
        g_handler = handler;
        g_context = context;
    }
    const SERVICE_STATUS_HANDLE status = g_original(name, &Dispatch, nullptr);
    const DWORD error = GetLastError();
    if (status != nullptr)
    {
        // Ends with the process, like the manager's own dispatcher thread.
        static const bool started = []
        {
            std::thread{Listen, lab::Machine::Attach().Listen()}.detach();
            return true;
        }();
        static_cast<void>(started);
    }
    call.Result(status != nullptr ? 0 : error);
    SetLastError(error);
    return status;
}

} // namespace

void lab::shim::HookControlHandler()
{
    g_original = reinterpret_cast<decltype(g_original)>(
        ReplaceImport("RegisterServiceCtrlHandlerExW", reinterpret_cast<void*>(&RegisterHandler)));
}
