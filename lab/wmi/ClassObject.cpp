#include "lab/wmi/ClassObject.h"

#include "lab/state/Text.h"

namespace lab::wmi
{

namespace
{

constexpr const wchar_t* systemNames[] = {
    L"__GENUS",          L"__CLASS",      L"__SUPERCLASS", L"__DYNASTY",   L"__RELPATH",
    L"__PROPERTY_COUNT", L"__DERIVATION", L"__SERVER",     L"__NAMESPACE", L"__PATH"};
constexpr const wchar_t* serverName = L"LABHOST";

BSTR NewText(std::wstring_view text)
{
    return SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
}

// Entry and exit of a plain call: journal, fault, and a C++ exception as E_OUTOFMEMORY.
template <class Body>
HRESULT Run(std::string_view name, const wchar_t* detail, Body body) noexcept
{
    Call call{name};
    if (detail != nullptr)
    {
        call.Arg("name", detail);
    }
    if (const auto code = detail != nullptr ? call.Fault(detail) : call.Fault())
    {
        return call.Result(static_cast<HRESULT>(*code));
    }
    try
    {
        return call.Result(body(call));
    }
    catch (const std::exception&)
    {
        return call.Result(E_OUTOFMEMORY);
    }
}

} // namespace

ClassObject::ClassObject(Genus genus, Namespace space, ClassPointer type, std::vector<Value> values,
                         std::vector<bool> hidden)
    : m_genus(genus), m_space(space), m_class(std::move(type)), m_hidden(std::move(hidden)), m_values(std::move(values))
{
    m_values.resize(m_class->properties.size());
}

Reference<ClassObject> MakeClass(Namespace space, ClassPointer type)
{
    return Reference<ClassObject>::Take(new ClassObject(ClassObject::Genus::Class, space, std::move(type), {}));
}

Reference<ClassObject> MakeInstance(Namespace space, ClassPointer type, std::vector<Value> values,
                                    std::vector<bool> hidden)
{
    return Reference<ClassObject>::Take(
        new ClassObject(ClassObject::Genus::Instance, space, std::move(type), std::move(values), std::move(hidden)));
}

Value ClassObject::Read(std::wstring_view property) const
{
    Found found;
    const std::scoped_lock lock{m_mutex};
    return Find(property, found) ? found.value : Value{};
}

bool ClassObject::Has(std::wstring_view property) const
{
    Found found;
    const std::scoped_lock lock{m_mutex};
    return Find(property, found);
}

std::wstring ClassObject::RelativePath() const
{
    if (m_genus == Genus::Class)
    {
        return m_class->name;
    }
    for (std::size_t i = 0; i < m_class->properties.size(); ++i)
    {
        if (!m_class->properties[i].key)
        {
            continue;
        }
        return m_class->name + L"." + m_class->properties[i].name + L"=" + ToMof(m_values[i]);
    }
    return m_class->name + L"=@";
}

bool ClassObject::FindSystem(std::wstring_view name, Found& found) const
{
    found.flavor = WBEM_FLAVOR_ORIGIN_SYSTEM;
    const std::wstring space{NamespaceName(m_space)};
    if (EqualNoCase(name, L"__CLASS"))
    {
        found.value = m_class->name;
    }
    else if (EqualNoCase(name, L"__SUPERCLASS"))
    {
        found.value = m_class->superclass.empty() ? Value{} : Value{m_class->superclass};
    }
    else if (EqualNoCase(name, L"__DYNASTY"))
    {
        found.value = m_class->ancestors.empty() ? m_class->name : m_class->ancestors.back();
    }
    else if (EqualNoCase(name, L"__RELPATH"))
    {
        found.value = RelativePath();
    }
    else if (EqualNoCase(name, L"__SERVER"))
    {
        found.value = std::wstring{serverName};
    }
    else if (EqualNoCase(name, L"__NAMESPACE"))
    {
        found.value = space;
    }
    else if (EqualNoCase(name, L"__PATH"))
    {
        found.value = L"\\\\" + std::wstring{serverName} + L"\\" + space + L":" + RelativePath();
    }
    else if (EqualNoCase(name, L"__DERIVATION"))
    {
        found.value = Strings{m_class->ancestors};
        found.type = CIM_STRING | CIM_FLAG_ARRAY;
    }
    else if (EqualNoCase(name, L"__GENUS"))
    {
        found.value = static_cast<std::int32_t>(m_genus);
        found.type = CIM_SINT32;
    }
    else if (EqualNoCase(name, L"__PROPERTY_COUNT"))
    {
        found.value = static_cast<std::int32_t>(m_class->properties.size());
        found.type = CIM_SINT32;
    }
    else
    {
        return false;
    }
    return true;
}

bool ClassObject::Find(std::wstring_view name, Found& found) const
{
    if (name.substr(0, 2) == L"__")
    {
        return FindSystem(name, found);
    }
    const std::size_t index = m_class->Find(name);
    if (index == ClassType::npos || IsHidden(index))
    {
        return false;
    }
    found.value = m_values[index];
    found.type = m_class->properties[index].type;
    return true;
}

HRESULT ClassObject::Get(LPCWSTR name, long flags, VARIANT* value, CIMTYPE* type, long* flavor)
{
    return Run("IWbemClassObject::Get", name,
               [&](Call& call) -> HRESULT
               {
                   if (name == nullptr || flags != 0)
                   {
                       return Status(WBEM_E_INVALID_PARAMETER);
                   }
                   Found found;
                   {
                       const std::scoped_lock lock{m_mutex};
                       if (!Find(name, found))
                       {
                           return Status(WBEM_E_NOT_FOUND);
                       }
                   }
                   if (call.Journalled())
                   {
                       call.Out("value", ToJson(found.value));
                   }
                   if (type != nullptr)
                   {
                       *type = found.type;
                   }
                   if (flavor != nullptr)
                   {
                       *flavor = found.flavor;
                   }
                   return value == nullptr ? S_OK : ToVariant(found.value, value);
               });
}

HRESULT ClassObject::Put(LPCWSTR name, long flags, VARIANT* value, CIMTYPE)
{
    return Run("IWbemClassObject::Put", name,
               [&](Call& call) -> HRESULT
               {
                   if (name == nullptr || flags != 0)
                   {
                       return Status(WBEM_E_INVALID_PARAMETER);
                   }
                   if (std::wstring_view{name}.substr(0, 2) == L"__")
                   {
                       return Status(WBEM_E_INVALID_OPERATION);
                   }
                   const std::scoped_lock lock{m_mutex};
                   const std::size_t index = m_class->Find(name);
                   if (index == ClassType::npos || IsHidden(index))
                   {
                       return Status(WBEM_E_NOT_FOUND);
                   }
                   if (value == nullptr)
                   { // "back to the class's default", which is nothing
                       m_values[index] = std::monostate{};
                       return S_OK;
                   }
                   const HRESULT result = FromVariant(*value, m_class->properties[index].type, m_values[index]);
                   if (call.Journalled())
                   {
                       call.Out("value", ToJson(m_values[index]));
                   }
                   return result;
               });
}

std::vector<std::wstring> ClassObject::Names(long flags) const
{
    const long origin = flags & WBEM_MASK_CONDITION_ORIGIN;
    std::vector<std::wstring> names;
    if (origin == WBEM_FLAG_SYSTEM_ONLY || origin == 0)
    {
        names.assign(std::begin(systemNames), std::end(systemNames));
    }
    if (origin != WBEM_FLAG_SYSTEM_ONLY)
    {
        for (std::size_t i = 0; i < m_class->properties.size(); ++i)
        {
            if (!IsHidden(i))
            {
                names.push_back(m_class->properties[i].name);
            }
        }
    }
    return names;
}

HRESULT ClassObject::GetNames(LPCWSTR qualifier, long flags, VARIANT*, SAFEARRAY** names)
{
    return Run("IWbemClassObject::GetNames", nullptr,
               [&](Call&) -> HRESULT
               {
                   if (names == nullptr || qualifier != nullptr)
                   { // selection by qualifiers: none are kept here
                       return Status(WBEM_E_INVALID_PARAMETER);
                   }
                   VARIANT list;
                   const HRESULT result = ToVariant(Value{Names(flags)}, &list);
                   *names = SUCCEEDED(result) ? list.parray : nullptr;
                   return result;
               });
}

HRESULT ClassObject::BeginEnumeration(long flags)
{
    return Run("IWbemClassObject::BeginEnumeration", nullptr,
               [&](Call&) -> HRESULT
               {
                   const std::scoped_lock lock{m_mutex};
                   m_walk = Names(flags);
                   m_walkAt = 0;
                   m_walking = true;
                   return S_OK;
               });
}

HRESULT ClassObject::Next(long, BSTR* name, VARIANT* value, CIMTYPE* type, long* flavor)
{
    return Run("IWbemClassObject::Next", nullptr,
               [&](Call&) -> HRESULT
               {
                   const std::scoped_lock lock{m_mutex};
                   if (!m_walking)
                   {
                       return Status(WBEM_E_UNEXPECTED);
                   }
                   if (m_walkAt == m_walk.size())
                   {
                       return Status(WBEM_S_NO_MORE_DATA);
                   }
                   Found found;
                   const std::wstring& current = m_walk[m_walkAt++];
                   if (!Find(current, found))
                   {
                       return Status(WBEM_E_FAILED);
                   }
                   if (name != nullptr)
                   {
                       *name = NewText(current);
                   }
                   if (type != nullptr)
                   {
                       *type = found.type;
                   }
                   if (flavor != nullptr)
                   {
                       *flavor = found.flavor;
                   }
                   return value == nullptr ? S_OK : ToVariant(found.value, value);
               });
}

HRESULT ClassObject::EndEnumeration()
{
    const std::scoped_lock lock{m_mutex};
    m_walking = false;
    return S_OK;
}

HRESULT ClassObject::Clone(IWbemClassObject** copy)
{
    return Run("IWbemClassObject::Clone", nullptr,
               [&](Call&) -> HRESULT
               {
                   if (copy == nullptr)
                   {
                       return Status(WBEM_E_INVALID_PARAMETER);
                   }
                   return Copy(copy);
               });
}

HRESULT ClassObject::Copy(IWbemClassObject** copy) const noexcept
try
{
    const std::scoped_lock lock{m_mutex};
    *copy = new ClassObject(m_genus, m_space, m_class, m_values, m_hidden);
    return S_OK;
}
catch (const std::bad_alloc&)
{
    return Status(WBEM_E_OUT_OF_MEMORY);
}

std::wstring ClassObject::Mof() const
{
    std::wstring text;
    if (m_genus == Genus::Instance)
    {
        text = L"\ninstance of " + m_class->name + L"\n{\n";
        for (std::size_t i = 0; i < m_values.size(); ++i)
        {
            if (!IsHidden(i) && !std::holds_alternative<std::monostate>(m_values[i]))
            {
                text += L"\t" + m_class->properties[i].name + L" = " + ToMof(m_values[i]) + L";\n";
            }
        }
        return text + L"};\n";
    }
    text = L"class " + m_class->name + (m_class->superclass.empty() ? L"" : L" : " + m_class->superclass) + L"\n{\n";
    for (const PropertyType& property : m_class->properties)
    {
        text += property.key ? L"\t[key] " : L"\t";
        text += std::wstring{TypeName(property.type)} + L" " + property.name;
        text += (property.type & CIM_FLAG_ARRAY) != 0 ? L"[];\n" : L";\n";
    }
    for (const MethodType& method : m_class->methods)
    {
        text += (method.isStatic ? L"\t[static] uint32 " : L"\tuint32 ") + method.name + L"(";
        for (std::size_t i = 0; i < method.in.size(); ++i)
        {
            text +=
                (i == 0 ? L"[in] " : L", [in] ") + std::wstring{TypeName(method.in[i].type)} + L" " + method.in[i].name;
            text += (method.in[i].type & CIM_FLAG_ARRAY) != 0 ? L"[]" : L"";
        }
        text += L");\n";
    }
    return text + L"};\n";
}

HRESULT ClassObject::GetObjectText(long flags, BSTR* text)
{
    return Run("IWbemClassObject::GetObjectText", nullptr,
               [&](Call&) -> HRESULT
               {
                   if (text == nullptr || (flags & ~WBEM_FLAG_NO_FLAVORS) != 0)
                   {
                       return Status(WBEM_E_INVALID_PARAMETER);
                   }
                   const std::scoped_lock lock{m_mutex};
                   *text = NewText(Mof());
                   return *text == nullptr ? E_OUTOFMEMORY : S_OK;
               });
}

HRESULT ClassObject::SpawnInstance(long flags, IWbemClassObject** instance)
{
    return Run("IWbemClassObject::SpawnInstance", nullptr,
               [&](Call&) -> HRESULT
               {
                   if (instance == nullptr || flags != 0)
                   {
                       return Status(WBEM_E_INVALID_PARAMETER);
                   }
                   // The input signature of a method is handed out as a class; only an instance has no instances.
                   if (m_genus == Genus::Instance)
                   {
                       return Status(WBEM_E_INVALID_OPERATION);
                   }
                   const std::scoped_lock lock{m_mutex};
                   *instance = new ClassObject(Genus::Instance, m_space, m_class, m_values, m_hidden);
                   return S_OK;
               });
}

HRESULT ClassObject::CompareTo(long, IWbemClassObject* other)
{
    return Run("IWbemClassObject::CompareTo", nullptr,
               [&](Call&) -> HRESULT
               {
                   if (other == nullptr)
                   {
                       return Status(WBEM_E_INVALID_PARAMETER);
                   }
                   BSTR theirs = nullptr;
                   const HRESULT result = other->GetObjectText(0, &theirs);
                   if (FAILED(result))
                   {
                       return result;
                   }
                   const std::wstring text{theirs, SysStringLen(theirs)};
                   SysFreeString(theirs);
                   const std::scoped_lock lock{m_mutex};
                   return text == Mof() ? Status(WBEM_S_SAME) : Status(WBEM_S_DIFFERENT);
               });
}

HRESULT ClassObject::GetPropertyOrigin(LPCWSTR name, BSTR* className)
{
    if (name == nullptr || className == nullptr)
    {
        return Status(WBEM_E_INVALID_PARAMETER);
    }
    if (!Has(name))
    {
        return Status(WBEM_E_NOT_FOUND);
    }
    *className =
        NewText(std::wstring_view{name}.substr(0, 2) == L"__" ? std::wstring_view{L"___SYSTEM"} : m_class->name);
    return S_OK;
}

HRESULT ClassObject::InheritsFrom(LPCWSTR ancestor)
{
    if (ancestor == nullptr)
    {
        return Status(WBEM_E_INVALID_PARAMETER);
    }
    bool is = EqualNoCase(m_class->name, ancestor);
    for (const std::wstring& name : m_class->ancestors)
    {
        is = is || EqualNoCase(name, ancestor);
    }
    return is ? Status(WBEM_S_NO_ERROR) : Status(WBEM_S_FALSE);
}

HRESULT ClassObject::GetMethod(LPCWSTR name, long flags, IWbemClassObject** in, IWbemClassObject** out)
{
    return Run("IWbemClassObject::GetMethod", name,
               [&](Call&) -> HRESULT
               {
                   if (name == nullptr || flags != 0)
                   {
                       return Status(WBEM_E_INVALID_PARAMETER);
                   }
                   if (in != nullptr)
                   {
                       *in = nullptr;
                   }
                   if (out != nullptr)
                   {
                       *out = nullptr;
                   }
                   if (m_genus == Genus::Instance)
                   {
                       return Status(WBEM_E_ILLEGAL_OPERATION);
                   }
                   const MethodType* method = m_class->FindMethod(name);
                   if (method == nullptr)
                   {
                       return Status(WBEM_E_NOT_FOUND);
                   }
                   if (in != nullptr && !method->in.empty())
                   { // a method without input has no input signature
                       *in = MakeClass(m_space, InputClass(*method)).Detach();
                   }
                   if (out != nullptr)
                   {
                       *out = MakeClass(m_space, OutputClass()).Detach();
                   }
                   return S_OK;
               });
}

HRESULT ClassObject::BeginMethodEnumeration(long)
{
    const std::scoped_lock lock{m_mutex};
    m_methodAt = 0;
    return m_genus == Genus::Class ? S_OK : Status(WBEM_E_ILLEGAL_OPERATION);
}

HRESULT ClassObject::NextMethod(long, BSTR* name, IWbemClassObject** in, IWbemClassObject** out)
{
    std::wstring current;
    {
        const std::scoped_lock lock{m_mutex};
        if (m_methodAt == m_class->methods.size())
        {
            return Status(WBEM_S_NO_MORE_DATA);
        }
        current = m_class->methods[m_methodAt++].name;
    }
    if (name != nullptr)
    {
        *name = NewText(current);
    }
    return GetMethod(current.c_str(), 0, in, out);
}

HRESULT ClassObject::EndMethodEnumeration()
{
    return S_OK;
}

HRESULT ClassObject::GetMethodOrigin(LPCWSTR name, BSTR* className)
{
    if (name == nullptr || className == nullptr)
    {
        return Status(WBEM_E_INVALID_PARAMETER);
    }
    if (m_class->FindMethod(name) == nullptr)
    {
        return Status(WBEM_E_NOT_FOUND);
    }
    *className = NewText(m_class->name);
    return S_OK;
}

// The schema is fixed and keeps no qualifiers.
HRESULT ClassObject::GetQualifierSet(IWbemQualifierSet**)
{
    return Status(WBEM_E_NOT_SUPPORTED);
}
HRESULT ClassObject::GetPropertyQualifierSet(LPCWSTR, IWbemQualifierSet**)
{
    return Status(WBEM_E_NOT_SUPPORTED);
}
HRESULT ClassObject::GetMethodQualifierSet(LPCWSTR, IWbemQualifierSet**)
{
    return Status(WBEM_E_NOT_SUPPORTED);
}
HRESULT ClassObject::Delete(LPCWSTR)
{
    return Status(WBEM_E_INVALID_OPERATION);
}
HRESULT ClassObject::SpawnDerivedClass(long, IWbemClassObject**)
{
    return Status(WBEM_E_NOT_SUPPORTED);
}
HRESULT ClassObject::PutMethod(LPCWSTR, long, IWbemClassObject*, IWbemClassObject*)
{
    return Status(WBEM_E_NOT_SUPPORTED);
}
HRESULT ClassObject::DeleteMethod(LPCWSTR)
{
    return Status(WBEM_E_NOT_SUPPORTED);
}

} // namespace lab::wmi
