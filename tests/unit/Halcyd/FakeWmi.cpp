#include "tests/unit/Halcyd/FakeWmi.h"

_variant_t WmiNull()
{
    VARIANT value{};
    value.vt = VT_NULL;
    return _variant_t(value, false);
}

IWbemClassObjectPtr MakeObject(std::map<std::wstring, _variant_t> values)
{
    auto* const object = new FakeClassObject;
    object->values = std::move(values);
    return IWbemClassObjectPtr(object);
}

HRESULT FakeClassObject::Get(LPCWSTR name, long, VARIANT* value, CIMTYPE*, long*)
{
    // WMI does not mind the letter case of a property's name.
    for (auto& [property, stored] : values)
    {
        if (_wcsicmp(property.c_str(), name) == 0)
        {
            return VariantCopy(value, &stored);
        }
    }
    return static_cast<HRESULT>(WBEM_E_NOT_FOUND);
}

HRESULT FakeClassObject::Clone(IWbemClassObject** copy)
{
    if (FAILED(cloneResult))
    {
        *copy = nullptr;
        return cloneResult;
    }
    *copy = MakeObject(values).Detach();
    return S_OK;
}

HRESULT FakeClassObject::GetObjectText(long, BSTR* text)
{
    *text = SUCCEEDED(textResult) ? SysAllocString(L"instance of FakeObject {};") : nullptr;
    return textResult;
}

HRESULT FakeEnumerator::Reset()
{
    ++resets;
    if (SUCCEEDED(resetResult))
    {
        position = 0;
    }
    return resetResult;
}

HRESULT FakeEnumerator::Next(long, ULONG, IWbemClassObject** out, ULONG* returned)
{
    if (position >= objects.size())
    {
        *out = nullptr;
        *returned = 0;
        return WBEM_S_FALSE;
    }
    *out = objects[position++];
    (*out)->AddRef();
    *returned = 1;
    return WBEM_S_NO_ERROR;
}

HRESULT FakeWmiNamespace::ExecQuery(const BSTR, const BSTR query, long flags, IWbemContext*,
                                    IEnumWbemClassObject** results)
{
    queries.emplace_back(query);
    queryFlags.push_back(flags);
    ObjectList objects;
    const HRESULT result = answer ? answer(query, objects) : S_OK;
    *results = nullptr;
    if (SUCCEEDED(result))
    {
        *results = new FakeEnumerator(std::move(objects));
        (*results)->AddRef();
    }
    return result;
}

HRESULT FakeWmiNamespace::ExecNotificationQueryAsync(const BSTR, const BSTR query, long flags, IWbemContext*,
                                                     IWbemObjectSink* sink)
{
    notificationQueries.emplace_back(query);
    queryFlags.push_back(flags);
    if (failNotificationQuery == static_cast<int>(notificationQueries.size()))
    {
        return static_cast<HRESULT>(WBEM_E_FAILED);
    }
    notificationSinks.push_back(sink);
    return S_OK;
}

HRESULT FakeWmiNamespace::CancelAsyncCall(IWbemObjectSink* sink)
{
    cancelled.push_back(sink);
    return S_OK;
}
