#include "lab/wmi/Services.h"

#include "lab/state/Text.h"
#include "lab/wmi/Enumerator.h"
#include "lab/wmi/Instances.h"
#include "lab/wmi/Methods.h"
#include "lab/wmi/ObjectPath.h"
#include "lab/wmi/Subscriptions.h"

#include <algorithm>

namespace lab::wmi
{

namespace
{

constexpr long queryFlags = WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_ENSURE_LOCATABLE |
                            WBEM_FLAG_PROTOTYPE | WBEM_FLAG_DIRECT_READ | WBEM_FLAG_USE_AMENDED_QUALIFIERS |
                            WBEM_FLAG_SHALLOW;

// A BSTR may be null, which stands for the empty text.
std::wstring_view View(const BSTR text)
{
    return text == nullptr ? std::wstring_view{} : std::wstring_view{text, SysStringLen(text)};
}

// Journal, fault, and a C++ exception as a WMI error.
template <class Body>
HRESULT Guarded(Call& call, Body body) noexcept
{
    try
    {
        return call.Result(body());
    }
    catch (const std::bad_alloc&)
    {
        return call.Result(Status(WBEM_E_OUT_OF_MEMORY));
    }
    catch (const std::exception&)
    {
        return call.Result(Status(WBEM_E_PROVIDER_FAILURE));
    }
}

HRESULT Unsupported(std::string_view name)
{
    return Call{name}.Result(Status(WBEM_E_NOT_SUPPORTED));
}

// An enumerator over what a class has, or its failure: at once, or at the first Next of one that returns immediately.
HRESULT Enumerate(Namespace space, const std::wstring& className, const Condition* where, long flags, Call& call,
                  IEnumWbemClassObject** objects)
{
    const ClassPointer type = FindClass(space, className);
    if (type == nullptr)
    {
        if ((flags & WBEM_FLAG_RETURN_IMMEDIATELY) == 0)
        {
            return Status(WBEM_E_INVALID_CLASS);
        }
        *objects = new Enumerator(Status(WBEM_E_INVALID_CLASS));
        return S_OK;
    }
    bool known = true;
    ForEachProperty(where, [&](std::wstring_view property)
                    { known = known && (type->Find(property) != ClassType::npos || property.substr(0, 2) == L"__"); });
    if (!known)
    {
        return Status(WBEM_E_INVALID_QUERY);
    }
    auto found = Instances(space, type, *Machine::Attach().Snapshot(), where);
    call.Out("objects", found.size());
    *objects = new Enumerator(std::move(found), (flags & WBEM_FLAG_FORWARD_ONLY) != 0);
    return S_OK;
}

} // namespace

HRESULT Locator::ConnectServer(const BSTR resource, const BSTR user, const BSTR, const BSTR, long, const BSTR,
                               IWbemContext*, IWbemServices** services)
{
    Call call{"IWbemLocator::ConnectServer"};
    call.Arg("namespace", static_cast<const wchar_t*>(resource));
    if (services != nullptr)
    {
        *services = nullptr;
    }
    if (const auto code = call.Fault(resource))
    {
        return call.Result(static_cast<HRESULT>(*code));
    }
    return Guarded(call,
                   [&]() -> HRESULT
                   {
                       if (resource == nullptr || services == nullptr)
                       {
                           return Status(WBEM_E_INVALID_PARAMETER);
                       }
                       if (user != nullptr && *user != 0)
                       {
                           return Status(WBEM_E_LOCAL_CREDENTIALS);
                       }
                       std::wstring name{View(resource)};
                       std::replace(name.begin(), name.end(), L'/', L'\\');
                       if (name.rfind(L"\\\\", 0) == 0)
                       {
                           const std::size_t end = name.find(L'\\', 2);
                           if (name.substr(2, end - 2) != L".")
                           {
                               return HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE);
                           }
                           name = end == std::wstring::npos ? L"" : name.substr(end + 1);
                       }
                       for (const Namespace space : {Namespace::Cimv2, Namespace::Wmi})
                       {
                           if (EqualNoCase(name, NamespaceName(space)))
                           {
                               *services = new Services(space);
                               return S_OK;
                           }
                       }
                       return Status(WBEM_E_INVALID_NAMESPACE);
                   });
}

HRESULT Services::GetObject(const BSTR path, long, IWbemContext*, IWbemClassObject** object, IWbemCallResult**)
{
    Call call{"IWbemServices::GetObject"};
    call.Arg("path", static_cast<const wchar_t*>(path));
    if (object != nullptr)
    {
        *object = nullptr;
    }
    if (const auto code = call.Fault(path))
    {
        return call.Result(static_cast<HRESULT>(*code));
    }
    return Guarded(call,
                   [&]() -> HRESULT
                   {
                       if (object == nullptr)
                       {
                           return Status(WBEM_E_INVALID_PARAMETER);
                       }
                       const auto parsed = ParsePath(View(path));
                       if (!parsed)
                       {
                           return Status(WBEM_E_INVALID_OBJECT_PATH);
                       }
                       const ClassPointer type = FindClass(m_space, parsed->className);
                       if (type == nullptr)
                       {
                           return Status(WBEM_E_NOT_FOUND);
                       }
                       if (!parsed->key)
                       {
                           *object = MakeClass(m_space, type).Detach();
                           return S_OK;
                       }
                       // The key property by its place: the one property marked as key.
                       const auto key = std::find_if(type->properties.begin(), type->properties.end(),
                                                     [](const PropertyType& p) { return p.key; });
                       if (key == type->properties.end() ||
                           (parsed->property && !EqualNoCase(*parsed->property, key->name)))
                       {
                           return Status(WBEM_E_INVALID_OBJECT_PATH);
                       }
                       Condition where;
                       where.property = key->name;
                       where.value = *parsed->key;
                       auto found = Instances(m_space, type, *Machine::Attach().Snapshot(), &where);
                       if (found.empty())
                       {
                           return Status(WBEM_E_NOT_FOUND);
                       }
                       *object = found.front().Detach();
                       return S_OK;
                   });
}

HRESULT Services::CreateInstanceEnum(const BSTR className, long flags, IWbemContext*, IEnumWbemClassObject** objects)
{
    Call call{"IWbemServices::CreateInstanceEnum"};
    call.Arg("class", static_cast<const wchar_t*>(className)).Arg("flags", flags);
    if (objects != nullptr)
    {
        *objects = nullptr;
    }
    if (const auto code = call.Fault(className))
    {
        return call.Result(static_cast<HRESULT>(*code));
    }
    return Guarded(call,
                   [&]() -> HRESULT
                   {
                       if (objects == nullptr || (flags & ~queryFlags) != 0)
                       {
                           return Status(WBEM_E_INVALID_PARAMETER);
                       }
                       return Enumerate(m_space, std::wstring{View(className)}, nullptr, flags, call, objects);
                   });
}

HRESULT Services::ExecQuery(const BSTR language, const BSTR query, long flags, IWbemContext*,
                            IEnumWbemClassObject** objects)
{
    Call call{"IWbemServices::ExecQuery"};
    call.Arg("query", static_cast<const wchar_t*>(query)).Arg("flags", flags);
    if (objects != nullptr)
    {
        *objects = nullptr;
    }
    if (const auto code = call.Fault(query))
    {
        return call.Result(static_cast<HRESULT>(*code));
    }
    return Guarded(call,
                   [&]() -> HRESULT
                   {
                       if (objects == nullptr || language == nullptr || View(query).empty() ||
                           (flags & ~queryFlags) != 0)
                       {
                           return Status(WBEM_E_INVALID_PARAMETER);
                       }
                       if (!EqualNoCase(View(language), L"WQL"))
                       {
                           return Status(WBEM_E_INVALID_QUERY_TYPE);
                       }
                       const auto parsed = ParseQuery(View(query));
                       if (!parsed || parsed->within)
                       { // WITHIN belongs to notifications
                           return Status(WBEM_E_INVALID_QUERY);
                       }
                       return Enumerate(m_space, parsed->className, parsed->where.get(), flags, call, objects);
                   });
}

HRESULT Services::ExecNotificationQueryAsync(const BSTR language, const BSTR query, long flags, IWbemContext*,
                                             IWbemObjectSink* sink)
{
    Call call{"IWbemServices::ExecNotificationQueryAsync"};
    call.Arg("query", static_cast<const wchar_t*>(query)).Arg("flags", flags);
    if (const auto code = call.Fault(query))
    {
        return call.Result(static_cast<HRESULT>(*code));
    }
    return Guarded(call,
                   [&]() -> HRESULT
                   {
                       if (sink == nullptr || language == nullptr || query == nullptr ||
                           (flags & ~WBEM_FLAG_SEND_STATUS) != 0)
                       {
                           return Status(WBEM_E_INVALID_PARAMETER);
                       }
                       if (!EqualNoCase(View(language), L"WQL"))
                       {
                           return Status(WBEM_E_INVALID_QUERY_TYPE);
                       }
                       auto parsed = ParseQuery(View(query));
                       if (!parsed)
                       {
                           return Status(WBEM_E_INVALID_QUERY);
                       }
                       ClassPointer type = FindClass(m_space, parsed->className);
                       if (type == nullptr || m_space != Namespace::Wmi)
                       {
                           return Status(WBEM_E_INVALID_CLASS); // cimv2 has no event classes here
                       }
                       Subscribe(this, sink, std::move(type), std::move(*parsed), (flags & WBEM_FLAG_SEND_STATUS) != 0);
                       return S_OK;
                   });
}

HRESULT Services::CancelAsyncCall(IWbemObjectSink* sink)
{
    Call call{"IWbemServices::CancelAsyncCall"};
    if (const auto code = call.Fault())
    {
        return call.Result(static_cast<HRESULT>(*code));
    }
    return Guarded(call,
                   [&]() -> HRESULT
                   {
                       if (sink == nullptr)
                       {
                           return Status(WBEM_E_INVALID_PARAMETER);
                       }
                       return Cancel(this, sink) ? S_OK : Status(WBEM_E_NOT_FOUND);
                   });
}

HRESULT Services::ExecMethod(const BSTR path, const BSTR method, long, IWbemContext*, IWbemClassObject* in,
                             IWbemClassObject** out, IWbemCallResult**)
{
    Call call{"IWbemServices::ExecMethod"};
    call.Arg("path", static_cast<const wchar_t*>(path)).Arg("method", static_cast<const wchar_t*>(method));
    if (out != nullptr)
    {
        *out = nullptr;
    }
    if (const auto code = call.Fault(method))
    {
        return call.Result(static_cast<HRESULT>(*code));
    }
    return Guarded(call,
                   [&]() -> HRESULT
                   {
                       const auto parsed = ParsePath(View(path));
                       if (!parsed)
                       {
                           return Status(WBEM_E_INVALID_OBJECT_PATH);
                       }
                       const ClassPointer type = FindClass(m_space, parsed->className);
                       if (type == nullptr)
                       {
                           return Status(WBEM_E_NOT_FOUND);
                       }
                       const MethodType* const known = type->FindMethod(View(method));
                       if (known == nullptr)
                       {
                           return Status(WBEM_E_INVALID_METHOD);
                       }
                       // Objects come from this module: the schema gives clients nothing else to hand in.
                       const auto* const input = static_cast<const ClassObject*>(in);
                       if ((!parsed->key && !known->isStatic) || (input == nullptr && !known->in.empty()))
                       {
                           return Status(WBEM_E_INVALID_METHOD_PARAMETERS);
                       }
                       if (call.Journalled() && input != nullptr)
                       {
                           for (const PropertyType& parameter : known->in)
                           {
                               call.Arg(Utf8(parameter.name), ToJson(input->Read(parameter.name)));
                           }
                       }
                       std::int32_t returnValue = 0;
                       const HRESULT result = RunMethod(*known, parsed->key.value_or(L""), input, returnValue);
                       if (FAILED(result))
                       {
                           return result;
                       }
                       call.Out("ReturnValue", returnValue);
                       if (out != nullptr)
                       {
                           *out = MakeInstance(m_space, OutputClass(), {Value{returnValue}}).Detach();
                       }
                       return S_OK;
                   });
}

HRESULT Services::OpenNamespace(const BSTR, long, IWbemContext*, IWbemServices**, IWbemCallResult**)
{
    return Unsupported("IWbemServices::OpenNamespace");
}
HRESULT Services::QueryObjectSink(long, IWbemObjectSink**)
{
    return Unsupported("IWbemServices::QueryObjectSink");
}
HRESULT Services::GetObjectAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Unsupported("IWbemServices::GetObjectAsync");
}
HRESULT Services::PutClass(IWbemClassObject*, long, IWbemContext*, IWbemCallResult**)
{
    return Unsupported("IWbemServices::PutClass");
}
HRESULT Services::PutClassAsync(IWbemClassObject*, long, IWbemContext*, IWbemObjectSink*)
{
    return Unsupported("IWbemServices::PutClassAsync");
}
HRESULT Services::DeleteClass(const BSTR, long, IWbemContext*, IWbemCallResult**)
{
    return Unsupported("IWbemServices::DeleteClass");
}
HRESULT Services::DeleteClassAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Unsupported("IWbemServices::DeleteClassAsync");
}
HRESULT Services::CreateClassEnum(const BSTR, long, IWbemContext*, IEnumWbemClassObject**)
{
    return Unsupported("IWbemServices::CreateClassEnum");
}
HRESULT Services::CreateClassEnumAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Unsupported("IWbemServices::CreateClassEnumAsync");
}
HRESULT Services::PutInstance(IWbemClassObject*, long, IWbemContext*, IWbemCallResult**)
{
    return Unsupported("IWbemServices::PutInstance");
}
HRESULT Services::PutInstanceAsync(IWbemClassObject*, long, IWbemContext*, IWbemObjectSink*)
{
    return Unsupported("IWbemServices::PutInstanceAsync");
}
HRESULT Services::DeleteInstance(const BSTR, long, IWbemContext*, IWbemCallResult**)
{
    return Unsupported("IWbemServices::DeleteInstance");
}
HRESULT Services::DeleteInstanceAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Unsupported("IWbemServices::DeleteInstanceAsync");
}
HRESULT Services::CreateInstanceEnumAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Unsupported("IWbemServices::CreateInstanceEnumAsync");
}
HRESULT Services::ExecQueryAsync(const BSTR, const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Unsupported("IWbemServices::ExecQueryAsync");
}
HRESULT Services::ExecNotificationQuery(const BSTR, const BSTR, long, IWbemContext*, IEnumWbemClassObject**)
{
    return Unsupported("IWbemServices::ExecNotificationQuery");
}
HRESULT Services::ExecMethodAsync(const BSTR, const BSTR, long, IWbemContext*, IWbemClassObject*, IWbemObjectSink*)
{
    return Unsupported("IWbemServices::ExecMethodAsync");
}

} // namespace lab::wmi
