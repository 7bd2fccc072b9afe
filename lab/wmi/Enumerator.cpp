#include "lab/wmi/Enumerator.h"

namespace lab::wmi
{

Enumerator::Enumerator(Objects objects, bool forwardOnly, std::size_t position)
    : m_forwardOnly(forwardOnly), m_failure(S_OK), m_objects(std::move(objects)), m_position(position)
{
}

Enumerator::Enumerator(HRESULT deferredFailure) : m_forwardOnly(true), m_failure(deferredFailure), m_position(0) {}

HRESULT Enumerator::Reset()
{
    Call call{"IEnumWbemClassObject::Reset"};
    if (const auto code = call.Fault())
    {
        return call.Result(static_cast<HRESULT>(*code));
    }
    if (m_forwardOnly)
    {
        return call.Result(Status(WBEM_E_INVALID_OPERATION));
    }
    const std::scoped_lock lock{m_mutex};
    m_position = 0;
    return call.Result(Status(WBEM_S_NO_ERROR));
}

IWbemClassObject* Enumerator::Take()
{
    Reference<ClassObject>& object = m_objects[m_position++];
    if (m_forwardOnly)
    {
        return object.Detach();
    }
    // What a caller writes into an object must not show up in the next walk.
    IWbemClassObject* copy = nullptr;
    return SUCCEEDED(object->Copy(&copy)) ? copy : nullptr;
}

HRESULT Enumerator::Next(long timeout, ULONG count, IWbemClassObject** objects, ULONG* returned)
{
    Call call{"IEnumWbemClassObject::Next"};
    call.Arg("timeout", timeout).Arg("count", count);
    if (returned != nullptr)
    {
        *returned = 0;
    }
    if (const auto code = call.Fault())
    {
        return call.Result(static_cast<HRESULT>(*code));
    }
    if (objects == nullptr || returned == nullptr || (timeout < 0 && timeout != static_cast<long>(WBEM_INFINITE)))
    {
        return call.Result(Status(WBEM_E_INVALID_PARAMETER));
    }
    if (FAILED(m_failure))
    {
        return call.Result(m_failure);
    }
    const std::scoped_lock lock{m_mutex};
    while (*returned < count && m_position < m_objects.size())
    {
        IWbemClassObject* const object = Take();
        if (object == nullptr)
        {
            return call.Result(Status(WBEM_E_OUT_OF_MEMORY));
        }
        objects[(*returned)++] = object;
    }
    call.Out("returned", *returned);
    return call.Result(*returned == count ? Status(WBEM_S_NO_ERROR) : Status(WBEM_S_FALSE));
}

HRESULT Enumerator::NextAsync(ULONG, IWbemObjectSink*)
{
    return Call{"IEnumWbemClassObject::NextAsync"}.Result(Status(WBEM_E_NOT_SUPPORTED));
}

HRESULT Enumerator::Clone(IEnumWbemClassObject** copy)
{
    Call call{"IEnumWbemClassObject::Clone"};
    if (copy != nullptr)
    {
        *copy = nullptr;
    }
    if (const auto code = call.Fault())
    {
        return call.Result(static_cast<HRESULT>(*code));
    }
    if (copy == nullptr)
    {
        return call.Result(Status(WBEM_E_INVALID_PARAMETER));
    }
    if (m_forwardOnly)
    {
        return call.Result(Status(WBEM_E_INVALID_OPERATION));
    }
    const std::scoped_lock lock{m_mutex};
    *copy = new Enumerator(m_objects, false, m_position);
    return call.Result(Status(WBEM_S_NO_ERROR));
}

HRESULT Enumerator::Skip(long timeout, ULONG count)
{
    Call call{"IEnumWbemClassObject::Skip"};
    call.Arg("timeout", timeout).Arg("count", count);
    if (const auto code = call.Fault())
    {
        return call.Result(static_cast<HRESULT>(*code));
    }
    if (FAILED(m_failure))
    {
        return call.Result(m_failure);
    }
    const std::scoped_lock lock{m_mutex};
    const std::size_t left = m_objects.size() - m_position;
    m_position += std::min<std::size_t>(left, count);
    return call.Result(left >= count ? Status(WBEM_S_NO_ERROR) : Status(WBEM_S_FALSE));
}

} // namespace lab::wmi
