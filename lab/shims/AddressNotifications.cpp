// NotifyUnicastIpAddressChange and CancelMibChangeNotify2: each registration has a thread of its own that walks the
// machine's events and calls back for those of the channel "address".
#include "lab/shims/Shim.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <netioapi.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>

namespace
{

using lab::Json;

class Registration
{
public:
    Registration(ADDRESS_FAMILY family, PUNICAST_IPADDRESS_CHANGE_CALLBACK callback, void* context, bool initial)
        : m_family(family), m_callback(callback), m_context(context),
          m_stop(CreateEventW(nullptr, TRUE, FALSE, nullptr)), m_cursor(lab::Machine::Attach().Listen()),
          m_thread([this, initial] { Run(initial); })
    {
    }

    // Waits for a callback that is running, as the platform does. Called from within a callback the platform would
    // deadlock; here the thread is only told to end.
    void Stop()
    {
        SetEvent(m_stop);
        if (m_thread.get_id() == std::this_thread::get_id())
            m_thread.detach();
        else
            m_thread.join();
    }

    ~Registration()
    {
        if (!m_thread.joinable())
            CloseHandle(m_stop);
    }

private:
    void Run(bool initial)
    {
        if (initial)
            m_callback(m_context, nullptr, MibInitialNotification);
        while (WaitForSingleObject(m_stop, 0) == WAIT_TIMEOUT)
        {
            DeliverWhatComes();
        }
    }

    // The thread belongs to the program that registered, and an exception would end that: the journal is told instead.
    void DeliverWhatComes()
    {
        std::string why = "an exception without a text";
        try
        {
            for (const Json& event : m_cursor.Next(INFINITE, m_stop))
            {
                if (WaitForSingleObject(m_stop, 0) == WAIT_TIMEOUT)
                    Deliver(event);
            }
            return;
        }
        catch (const std::exception& failure)
        {
            why = failure.what();
        }
        catch (...)
        {
        }
        lab::Call call{"UnicastIpAddressChangeCallback"};
        call.Arg("failure", why).Result(static_cast<unsigned>(RPC_E_SERVERFAULT));
    }

    void Deliver(const Json& event)
    {
        if (lab::TextField(event, "channel") != "address")
            return;
        MIB_UNICASTIPADDRESS_ROW row{};
        const std::string text = lab::TextField(event, "address");
        const ADDRESS_FAMILY family = lab::IsIpv6(text) ? AF_INET6 : AF_INET;
        if (m_family != AF_UNSPEC && m_family != family)
            return;
        row.Address.si_family = family;
        if (family == AF_INET6)
            inet_pton(AF_INET6, text.c_str(), &row.Address.Ipv6.sin6_addr);
        else
            inet_pton(AF_INET, text.c_str(), &row.Address.Ipv4.sin_addr);
        row.InterfaceIndex = static_cast<NET_IFINDEX>(lab::NumberField(event, "interfaceIndex", 0));
        row.OnLinkPrefixLength = static_cast<UINT8>(lab::NumberField(event, "prefix", 0));
        const std::string type = lab::TextField(event, "type");
        const MIB_NOTIFICATION_TYPE kind = type == "delete" ? MibDeleteInstance
                                           : type == "add"  ? MibAddInstance
                                                            : MibParameterNotification;
        lab::Call call{"UnicastIpAddressChangeCallback"};
        call.Arg("address", text).Arg("type", type);
        m_callback(m_context, &row, kind);
        call.Result(0U);
    }

    ADDRESS_FAMILY m_family;
    PUNICAST_IPADDRESS_CHANGE_CALLBACK m_callback;
    void* m_context;
    HANDLE m_stop;
    lab::EventCursor m_cursor;
    std::thread m_thread; // last: it uses all of the above
};

std::mutex g_mutex;

// Never destroyed: registrations may outlive the program's own clean-up, and then end with the process.
std::vector<std::shared_ptr<Registration>>& Registrations()
{
    static auto* const all = new std::vector<std::shared_ptr<Registration>>;
    return *all;
}

std::shared_ptr<Registration> Take(HANDLE handle)
{
    const std::scoped_lock lock{g_mutex};
    auto& all = Registrations();
    const auto found = std::find_if(all.begin(), all.end(), [&](const auto& entry) { return entry.get() == handle; });
    if (found == all.end())
        return nullptr;
    std::shared_ptr<Registration> registration = *found;
    all.erase(found);
    return registration;
}

} // namespace

SHIM_EXPORT(NETIO_STATUS, NotifyUnicastIpAddressChange)(ADDRESS_FAMILY family,
                                                        PUNICAST_IPADDRESS_CHANGE_CALLBACK callback, PVOID context,
                                                        BOOLEAN initial, HANDLE* handle)
{
    lab::Call call{"NotifyUnicastIpAddressChange"};
    call.Arg("family", static_cast<unsigned>(family)).Arg("initial", initial != FALSE);
    if (const auto code = call.Fault())
        return call.Result(static_cast<NETIO_STATUS>(*code));
    if (callback == nullptr || handle == nullptr || (family != AF_UNSPEC && family != AF_INET && family != AF_INET6))
        return call.Result(static_cast<NETIO_STATUS>(ERROR_INVALID_PARAMETER));
    const auto registration = std::make_shared<Registration>(family, callback, context, initial != FALSE);
    {
        const std::scoped_lock lock{g_mutex};
        Registrations().push_back(registration);
    }
    *handle = registration.get();
    return call.Result(static_cast<NETIO_STATUS>(NO_ERROR));
}

SHIM_EXPORT(NETIO_STATUS, CancelMibChangeNotify2)(HANDLE handle)
{
    lab::Call call{"CancelMibChangeNotify2"};
    if (const auto code = call.Fault())
        return call.Result(static_cast<NETIO_STATUS>(*code));
    if (const auto registration = Take(handle))
    {
        registration->Stop();
        return call.Result(static_cast<NETIO_STATUS>(NO_ERROR));
    }
    if (handle == nullptr)
        return call.Result(static_cast<NETIO_STATUS>(ERROR_INVALID_PARAMETER));
    // A registration of another kind: Wine's own.
    return call.Result(static_cast<NETIO_STATUS>(SHIM_ORIGINAL(CancelMibChangeNotify2)(handle)));
}
