#include "Input/OddVariants.h"

#include <comdef.h>

#include "Halcyd_h.h"
#include "tests/support/EventRecorder.h"
#include "tests/support/Processes.h"

namespace
{
constexpr int kLastType = VT_VERSIONED_STREAM + 2;
constexpr LONGLONG kAbsurd = 0x0123456789ABCDEF;

std::string Named(const char* kind, int type)
{
    return std::string(kind) + " " + std::to_string(type);
}

// Types whose payload is no pointer.
bool IsNumber(int type)
{
    return type <= VT_DATE || (type >= VT_ERROR && type <= VT_BOOL) || (type >= VT_DECIMAL && type <= VT_HRESULT);
}
} // namespace

union OddVariants::Target
{
    LONGLONG number[3];
    void* pointer;
    VARIANT variant;
    BSTR text;
    DECIMAL decimal;
};

OddVariants::OddVariants()
{
    AddNumbers();
    AddReferences();
    AddArrays();
    AddOddArrays();
    AddObjects();
    AddRecord();
    VARIANT illegal{};
    for (const VARTYPE type : {VARTYPE{VT_ILLEGAL}, VARTYPE{VT_VECTOR | VT_I4}, VARTYPE{VT_VECTOR | VT_BSTR},
                               VARTYPE{VT_RESERVED | VT_I4}, VARTYPE{0x0FFF}, VARTYPE{0x3FFF}, VARTYPE{0x7FFF}})
    {
        illegal.vt = type;
        Add(Named("flags", type), illegal);
    }
}

OddVariants::~OddVariants()
{
    for (SAFEARRAY* const array : arrays)
    {
        SafeArrayDestroy(array);
    }
    for (const BSTR text : texts)
    {
        SysFreeString(text);
    }
    if (object != nullptr)
    {
        object->Release();
    }
}

void OddVariants::ForEach(const std::function<void(const OddVariant&)>& action) const
{
    for (const OddVariant& odd : all)
    {
        action(odd);
    }
}

void OddVariants::AddNumbers()
{
    for (int type = 0; type <= kLastType; ++type)
    {
        VARIANT value{};
        value.vt = static_cast<VARTYPE>(type);
        Add(Named("zero", type), value);
        if (IsNumber(type))
        {
            value.llVal = kAbsurd;
            Add(Named("absurd", type), value);
            value.llVal = -1;
            Add(Named("minus one", type), value);
        }
    }
    for (const std::size_t length : {std::size_t{0}, std::size_t{3}, std::size_t{64 * 1024}})
    {
        VARIANT value{};
        value.vt = VT_BSTR;
        value.bstrVal = texts.emplace_back(SysAllocString(std::wstring(length, L't').c_str()));
        Add(Named("text of", static_cast<int>(length)), value);
    }
}

void OddVariants::AddReferences()
{
    for (int type = 0; type <= kLastType; ++type)
    {
        VARIANT value{};
        value.vt = static_cast<VARTYPE>(type | VT_BYREF);
        Add(Named("reference to nothing", type), value);
        targets.push_back(std::make_unique<Target>());
        targets.back()->number[0] = targets.back()->number[1] = targets.back()->number[2] = 0;
        value.byref = targets.back().get();
        Add(Named("reference to zero", type), value);
    }
    // A chain of references.
    VARIANT inner{};
    inner.vt = VT_I4;
    inner.lVal = 4;
    for (int depth = 0; depth < 4; ++depth)
    {
        targets.push_back(std::make_unique<Target>());
        targets.back()->variant = inner;
        inner = VARIANT{};
        inner.vt = VT_VARIANT | VT_BYREF;
        inner.pvarVal = &targets.back()->variant;
        Add(Named("references in a chain of", depth + 1), inner);
    }
    targets.push_back(std::make_unique<Target>());
    targets.back()->text = texts.emplace_back(SysAllocString(L"referred"));
    inner = VARIANT{};
    inner.vt = VT_BSTR | VT_BYREF;
    inner.pbstrVal = &targets.back()->text;
    Add("reference to a text", inner);
}

void OddVariants::AddArray(const std::string& name, VARTYPE claimed, SAFEARRAY* array)
{
    if (array == nullptr)
    {
        return; // no arrays of that type
    }
    arrays.push_back(array);
    VARIANT value{};
    value.vt = static_cast<VARTYPE>(VT_ARRAY | claimed);
    value.parray = array;
    Add(name, value);
    targets.push_back(std::make_unique<Target>());
    targets.back()->pointer = array;
    value.vt = static_cast<VARTYPE>(value.vt | VT_BYREF);
    value.pparray = &arrays.back();
    value.byref = &targets.back()->pointer;
    Add("reference to " + name, value);
}

void OddVariants::AddArrays()
{
    for (int type = 0; type <= kLastType; ++type)
    {
        VARIANT none{};
        none.vt = static_cast<VARTYPE>(VT_ARRAY | type);
        if (type != VT_BSTR)
        {
            Add(Named("no array of", type), none);
        }
        for (const ULONG length : {0UL, 3UL})
        {
            if (type != VT_BSTR)
            {
                AddArray(Named("array of", type), static_cast<VARTYPE>(type),
                         SafeArrayCreateVector(static_cast<VARTYPE>(type), 0, length));
            }
        }
    }
}

// Under the type of a string array, entries that are no strings.
void OddVariants::AddOddArrays()
{
    for (const VARTYPE entries : {VT_I8, VT_UI1, VT_I4, VT_DECIMAL, VT_VARIANT})
    {
        SAFEARRAY* const array = SafeArrayCreateVector(entries, 0, 4);
        if (entries != VT_VARIANT)
        {
            memset(array->pvData, 0x41, std::size_t{4} * array->cbElements);
        }
        AddArray(Named("string array that holds", entries), VT_BSTR, array);
    }
}

void OddVariants::AddObjects()
{
    object = new EventRecorder;
    VARIANT value{};
    value.vt = VT_DISPATCH;
    value.pdispVal = object;
    Add("object", value);
    value.vt = VT_UNKNOWN;
    Add("unknown object", value);
    SAFEARRAY* const array = SafeArrayCreateVector(VT_DISPATCH, 0, 2);
    LONG index = 1;
    SafeArrayPutElement(array, &index, object);
    AddArray("array of objects", VT_DISPATCH, array);
    SAFEARRAY* const nested = SafeArrayCreateVector(VT_VARIANT, 0, 2);
    _variant_t text(L"nested");
    SafeArrayPutElement(nested, &index, &text);
    AddArray("array of variants with a text", VT_VARIANT, nested);
}

// One of the type library's own records, where the platform makes record descriptions of such.
void OddVariants::AddRecord()
{
    ITypeLib* library = nullptr;
    if (FAILED(LoadTypeLib((ProductFolder() + L"Halcyd.exe").c_str(), &library)))
    {
        return;
    }
    for (UINT index = 0; index < library->GetTypeInfoCount(); ++index)
    {
        TYPEKIND kind = TKIND_MAX;
        ITypeInfo* info = nullptr;
        IRecordInfo* record = nullptr;
        if (SUCCEEDED(library->GetTypeInfoType(index, &kind)) && kind == TKIND_RECORD &&
            SUCCEEDED(library->GetTypeInfo(index, &info)) && SUCCEEDED(GetRecordInfoFromTypeInfo(info, &record)))
        {
            VARIANT value{};
            value.vt = VT_RECORD;
            value.pRecInfo = record; // kept: a handful of objects for the life of the test
            value.pvRecord = record->RecordCreate();
            Add(Named("record", static_cast<int>(index)), value);
        }
        if (info != nullptr)
        {
            info->Release();
        }
    }
    library->Release();
}
