// Late-bound calls that do not fit: members that do not exist, too few and too many arguments, names for arguments,
// types that cannot be converted. Each is a plain error of dispatch, and no method of the service is entered.

#include <vector>

#include "Input/InputMachine.h"

_COM_SMARTPTR_TYPEDEF(ITypeLib, __uuidof(ITypeLib));
_COM_SMARTPTR_TYPEDEF(ITypeInfo, __uuidof(ITypeInfo));

namespace
{
constexpr DISPID kNoSuchMembers[] = {0x7FFF,         DISPID_VALUE,    DISPID_UNKNOWN,
                                     DISPID_NEWENUM, DISPID_EVALUATE, static_cast<DISPID>(0x80000000)};
constexpr WORD kMethod = DISPATCH_METHOD;
constexpr WORD kGet = DISPATCH_PROPERTYGET;
constexpr WORD kPut = DISPATCH_PROPERTYPUT;

// One method as the type library describes it.
struct Method
{
    DISPID id = 0;
    WORD kind = 0;
    unsigned arguments = 0;
    std::wstring name;
};

std::vector<Method> MethodsOf(REFIID iid)
{
    ITypeLibPtr library;
    EXPECT_EQ(LoadTypeLib((ProductFolder() + L"Halcyd.exe").c_str(), &library), S_OK);
    ITypeInfoPtr info;
    EXPECT_EQ(library->GetTypeInfoOfGuid(iid, &info), S_OK);
    TYPEATTR* attributes = nullptr;
    EXPECT_EQ(info->GetTypeAttr(&attributes), S_OK);
    const unsigned count = attributes->cFuncs;
    info->ReleaseTypeAttr(attributes);
    std::vector<Method> methods;
    for (unsigned index = 0; index < count; ++index)
    {
        FUNCDESC* function = nullptr;
        EXPECT_EQ(info->GetFuncDesc(index, &function), S_OK);
        // The members of IDispatch itself are in the list; they are not ours.
        if ((function->wFuncFlags & FUNCFLAG_FRESTRICTED) == 0)
        {
            BSTR name = nullptr;
            UINT names = 0;
            info->GetNames(function->memid, &name, 1, &names);
            // The value of a property is the result of a late-bound call, not an argument.
            const bool hasResult =
                function->cParams > 0 &&
                (function->lprgelemdescParam[function->cParams - 1].paramdesc.wParamFlags & PARAMFLAG_FRETVAL) != 0;
            methods.push_back({function->memid, static_cast<WORD>(function->invkind),
                               static_cast<unsigned>(function->cParams) - (hasResult ? 1u : 0u),
                               std::wstring(_bstr_t(name, false))});
        }
        info->ReleaseFuncDesc(function);
    }
    EXPECT_FALSE(methods.empty());
    return methods;
}

HRESULT Invoke(IDispatch* object, DISPID id, WORD flags, std::vector<_variant_t>& reversed,
               std::vector<DISPID> named = {})
{
    DISPPARAMS parameters{reversed.data(), named.data(), static_cast<UINT>(reversed.size()),
                          static_cast<UINT>(named.size())};
    _variant_t result;
    EXCEPINFO exception{};
    UINT argument = 0;
    const HRESULT status =
        object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &parameters, &result, &exception, &argument);
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
    SysFreeString(exception.bstrHelpFile);
    return status;
}

class DispatchInput : public InputTest
{
protected:
    struct Object
    {
        IDispatch* dispatch;
        IID iid;
    };
    std::vector<Object> Objects()
    {
        simple = ActivateSimpleSink();
        EXPECT_TRUE(simple);
        return {{dns, IID_IDNS},   {registry, IID_INetRegistry}, {services, IID_IServiceControlEx},
                {vnic, IID_IVNIC}, {monitor, IID_INetMonSv},     {simple, IID_ISimpleSink}};
    }
    ISimpleSinkPtr simple;
};

TEST_F(DispatchInput, UnknownMembersAreNotFoundByNumberOrName)
{
    for (const Object& object : Objects())
    {
        std::vector<_variant_t> none;
        for (const DISPID id : kNoSuchMembers)
        {
            for (const WORD flags : {kMethod, kGet, kPut})
            {
                EXPECT_EQ(Invoke(object.dispatch, id, flags, none), DISP_E_MEMBERNOTFOUND) << id << " " << flags;
            }
        }
        wchar_t member[] = L"FormatTheDisk";
        wchar_t empty[] = L"";
        for (wchar_t* const text : {member, empty})
        {
            LPOLESTR name = text;
            DISPID id = 7;
            EXPECT_EQ(object.dispatch->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_USER_DEFAULT, &id), DISP_E_UNKNOWNNAME);
        }
        ITypeInfo* info = nullptr;
        EXPECT_EQ(object.dispatch->GetTypeInfo(1, LOCALE_USER_DEFAULT, &info), DISP_E_BADINDEX);
        EXPECT_EQ(info, nullptr);
    }
}

TEST_F(DispatchInput, EveryMethodRefusesEachWrongNumberOfArguments)
{
    for (const Object& object : Objects())
    {
        for (const Method& method : MethodsOf(object.iid))
        {
            for (unsigned count = 0; count <= method.arguments + 2; ++count)
            {
                if (count == method.arguments)
                {
                    continue;
                }
                std::vector<_variant_t> arguments(count);
                const HRESULT result = Invoke(object.dispatch, method.id, method.kind, arguments);
                const bool countIsTold = result == DISP_E_BADPARAMCOUNT || result == DISP_E_PARAMNOTOPTIONAL;
                // What is missing may be told in another way: a record has no late-bound form at all.
                EXPECT_TRUE(countIsTold || (count < method.arguments && FAILED(result)))
                    << method.name << " with " << count << " gave 0x" << std::hex << result;
            }
        }
    }
}

TEST_F(DispatchInput, EveryMethodRefusesArgumentsThatCannotBeConverted)
{
    // A decimal array stands for no text, number or record.
    _variant_t odd;
    odd.parray = SafeArrayCreateVector(VT_DECIMAL, 0, 2);
    odd.vt = VT_ARRAY | VT_DECIMAL;
    for (const Object& object : Objects())
    {
        for (const Method& method : MethodsOf(object.iid))
        {
            // Methods all of whose arguments are variants take everything; VariantsTest is for those.
            const bool takesVariants =
                method.name == L"CreateRouteEntry" || method.name == L"DeleteRouteEntry" ||
                method.name == L"TunvexSetIpForwardEntry" || method.name == L"TunvexUpdateVnicState" ||
                method.name == L"TunvexGetInterfaceMetric" || method.name == L"CreateMultipleRouteEntries";
            if (method.arguments == 0 || takesVariants)
            {
                continue;
            }
            std::vector<_variant_t> arguments(method.arguments, odd);
            std::vector<DISPID> named;
            if (method.kind == DISPATCH_PROPERTYPUT)
            {
                named.push_back(DISPID_PROPERTYPUT);
            }
            const HRESULT result = Invoke(object.dispatch, method.id, method.kind, arguments, named);
            EXPECT_TRUE(FAILED(result)) << method.name << " gave 0x" << std::hex << result;
        }
    }
}

TEST_F(DispatchInput, NamesOfArgumentsThatAMethodDoesNotHaveAreRefused)
{
    std::vector<_variant_t> arguments{_variant_t(-1L), _variant_t(5L), _variant_t(L"NoSuchService")};
    const HRESULT byPosition = Invoke(services, 1, DISPATCH_METHOD, arguments);
    EXPECT_EQ(byPosition, S_OK); // an error number is positive, and so a success to late binding
    // By name the numbers of the arguments are 0, 1 and 2; a system that does not take names says so.
    const HRESULT byName = Invoke(services, 1, DISPATCH_METHOD, arguments, {2, 1, 0});
    EXPECT_TRUE(byName == byPosition || FAILED(byName)) << std::hex << byName;
    for (const std::vector<DISPID>& named : {std::vector<DISPID>{77, 78, 79}, {0, 0, 0}, {99}})
    {
        EXPECT_TRUE(FAILED(Invoke(services, 1, DISPATCH_METHOD, arguments, named))) << named[0];
    }
    // The property wants its new value under the one name that stands for it.
    std::vector<_variant_t> value{_variant_t(42L)};
    EXPECT_TRUE(FAILED(Invoke(monitor, 3, DISPATCH_PROPERTYPUT, value)));
    EXPECT_TRUE(FAILED(Invoke(monitor, 3, DISPATCH_PROPERTYPUT, value, {5})));
    EXPECT_EQ(Invoke(monitor, 3, DISPATCH_PROPERTYPUT, value, {DISPID_PROPERTYPUT}), S_OK);
    LONG mask = 0;
    EXPECT_EQ(monitor->get_FilterMask(&mask), S_OK);
    EXPECT_EQ(mask, 42);
}

TEST_F(DispatchInput, MethodsAreNoPropertiesAndThePropertyIsNoMethod)
{
    std::vector<_variant_t> none;
    std::vector<_variant_t> one{_variant_t(1L)};
    EXPECT_TRUE(FAILED(Invoke(monitor, 1, DISPATCH_PROPERTYGET, none)));
    EXPECT_TRUE(FAILED(Invoke(monitor, 1, DISPATCH_PROPERTYPUT, one, {DISPID_PROPERTYPUT})));
    EXPECT_TRUE(FAILED(Invoke(monitor, 3, DISPATCH_PROPERTYPUTREF, one, {DISPID_PROPERTYPUT})));
    VARIANT_BOOL open = VARIANT_TRUE;
    EXPECT_EQ(monitor->IsOpen(&open), S_OK);
    EXPECT_EQ(open, VARIANT_FALSE); // the refused call to Open did nothing
}
} // namespace
