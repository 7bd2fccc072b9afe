// The methods of Win32_NetworkAdapterConfiguration: what they check, what they change, what they return.
#pragma once

#include "lab/wmi/ClassObject.h"

namespace lab::wmi
{

// Values of "ReturnValue", as the class documents them.
enum class MethodResult : std::int32_t
{
    Done = 0,
    RebootNeeded = 1,
    InvalidSubnetMask = 66,
    InvalidInput = 68,
    InvalidIpAddress = 70,
    CannotRenewLease = 82,
    CannotReleaseLease = 83,
    IpNotEnabled = 84,
    DhcpNotEnabled = 100,
};

// Runs a method that `type` has. `key` is the "Index" of the adapter, empty for a static method; `in` may be null.
// A number for the method in state["methods"] replaces the result: with 0 and 1 the change is made, with others not.
// WBEM_E_NOT_FOUND if there is no such adapter.
[[nodiscard]] HRESULT RunMethod(const MethodType& method, std::wstring_view key, const ClassObject* in,
                                std::int32_t& returnValue);

} // namespace lab::wmi
