// The WMI and driver calls that the service made on the way of one event, made again by this process and timed: what
// the path would cost if the service did nothing of its own.
#pragma once

#include <windows.h>

#include <comdef.h>
#include <wbemidl.h>

#include <cstdint>
#include <string>
#include <vector>

#include "lab/state/Machine.h"

_COM_SMARTPTR_TYPEDEF(IWbemServices, IID_IWbemServices);
_COM_SMARTPTR_TYPEDEF(IEnumWbemClassObject, IID_IEnumWbemClassObject);
_COM_SMARTPTR_TYPEDEF(IWbemClassObject, IID_IWbemClassObject);

class PathReplay
{
public:
    // `journal`: the lab's account of one event, of the service and of the driver on its behalf. Throws _com_error if
    // WMI cannot be reached.
    explicit PathReplay(const std::vector<lab::Json>& journal);

    // Makes all calls once; the time in nanoseconds.
    [[nodiscard]] std::int64_t Run();
    [[nodiscard]] std::size_t Calls() const noexcept { return m_steps.size(); }

private:
    enum class Call
    {
        Query,
        Next,
        Get,
        Text,
        OpenDevice,
        CloseDevice,
        AskDevice,
    };
    struct Step
    {
        Call call;
        _bstr_t text; // query, property or device
        ULONG oid = 0;
    };

    void Do(const Step& step);

    IWbemServicesPtr m_services;
    std::vector<Step> m_steps;
    IEnumWbemClassObjectPtr m_list;
    IWbemClassObjectPtr m_object;
    HANDLE m_device = INVALID_HANDLE_VALUE;
};
