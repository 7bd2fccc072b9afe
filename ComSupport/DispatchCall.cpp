#include "ComSupport/DispatchCall.h"

#include <oleauto.h>

#include <new>

namespace
{
// Whether clearing a variant of this type would free something.
bool OwnsSomething(VARTYPE type)
{
    const bool reference = (type & VT_BYREF) != 0;
    const bool array = (type & VT_ARRAY) != 0;
    return !reference && (array || type == VT_BSTR || type == VT_UNKNOWN || type == VT_DISPATCH || type == VT_RECORD);
}
} // namespace

DispatchCall::DispatchCall(ITypeInfo* typeInfo, DISPID id, WORD flags, DISPPARAMS* arguments) noexcept
    : info(typeInfo), parameters(arguments), function(arguments != nullptr ? Find(typeInfo, id, flags) : nullptr)
{
}

DispatchCall::~DispatchCall()
{
    for (Place& place : places)
    {
        Settle(place);
    }
    for (Value& value : values)
    {
        static_cast<void>(VariantClear(value.argument));
        *value.argument = value.reference;
    }
    if (function != nullptr)
    {
        info->ReleaseFuncDesc(function);
    }
}

// A walk over all members: the index that a look-up by number gives is not counted alike on every platform.
FUNCDESC* DispatchCall::Find(ITypeInfo* typeInfo, DISPID id, WORD flags) noexcept
{
    TYPEATTR* attributes = nullptr;
    if (FAILED(typeInfo->GetTypeAttr(&attributes)))
    {
        return nullptr;
    }
    const UINT count = attributes->cFuncs;
    typeInfo->ReleaseTypeAttr(attributes);
    for (UINT index = 0; index < count; ++index)
    {
        FUNCDESC* candidate = nullptr;
        if (FAILED(typeInfo->GetFuncDesc(index, &candidate)))
        {
            return nullptr;
        }
        if (candidate->memid == id && (candidate->invkind & flags) != 0)
        {
            return candidate;
        }
        typeInfo->ReleaseFuncDesc(candidate);
    }
    return nullptr;
}

bool DispatchCall::HasTooManyArguments() const noexcept
{
    constexpr SHORT anyNumber = -1;
    return function != nullptr && function->cParamsOpt != anyNumber &&
           parameters->cArgs > static_cast<UINT>(function->cParams);
}

// Named arguments come first, each under the number of its parameter; the others stand behind them in reverse order.
VARIANTARG* DispatchCall::ArgumentOf(UINT parameter) const noexcept
{
    for (UINT index = 0; index < parameters->cNamedArgs; ++index)
    {
        if (parameters->rgdispidNamedArgs[index] == static_cast<DISPID>(parameter))
        {
            return &parameters->rgvarg[index];
        }
    }
    const UINT byPosition = parameters->cArgs - parameters->cNamedArgs;
    return parameter < byPosition ? &parameters->rgvarg[parameters->cArgs - 1 - parameter] : nullptr;
}

HRESULT DispatchCall::Prepare() noexcept
{
    if (function == nullptr || parameters->cNamedArgs > parameters->cArgs)
    {
        return S_OK;
    }
    try
    {
        for (UINT parameter = 0; parameter < static_cast<UINT>(function->cParams); ++parameter)
        {
            VARIANTARG* const argument = ArgumentOf(parameter);
            if (argument == nullptr)
            {
                continue;
            }
            const ELEMDESC& description = function->lprgelemdescParam[parameter];
            const USHORT direction = description.paramdesc.wParamFlags;
            if ((direction & PARAMFLAG_FOUT) != 0 && (direction & PARAMFLAG_FIN) == 0)
            {
                TakeAside(*argument);
            }
            else if (description.tdesc.vt == VT_VARIANT && (argument->vt & VT_BYREF) != 0)
            {
                if (const HRESULT copied = PutValue(*argument); FAILED(copied))
                {
                    return copied;
                }
            }
        }
    }
    catch (const std::bad_alloc&)
    {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

void DispatchCall::TakeAside(VARIANTARG& argument)
{
    Place place;
    if (argument.vt == (VT_VARIANT | VT_BYREF) && argument.pvarVal != nullptr && OwnsSomething(argument.pvarVal->vt))
    {
        place.variant = argument.pvarVal;
        place.held = *place.variant;
        places.push_back(place);
        VariantInit(place.variant);
    }
    else if (argument.vt == (VT_BSTR | VT_BYREF) && argument.pbstrVal != nullptr && *argument.pbstrVal != nullptr)
    {
        place.text = argument.pbstrVal;
        place.held.vt = VT_BSTR;
        place.held.bstrVal = *place.text;
        places.push_back(place);
        *place.text = nullptr;
    }
}

// A reference that cannot be followed stays: what it is worth is the member's business.
HRESULT DispatchCall::PutValue(VARIANTARG& argument)
{
    Value value{&argument, argument};
    values.reserve(values.size() + 1);
    VARIANT copy{};
    const HRESULT copied = argument.byref != nullptr ? VariantCopyInd(&copy, &argument) : E_POINTER;
    if (SUCCEEDED(copied))
    {
        argument = copy;
        values.push_back(value);
    }
    return copied == E_OUTOFMEMORY ? copied : S_OK;
}

void DispatchCall::Settle(Place& place) noexcept
{
    if (place.variant != nullptr && place.variant->vt == VT_EMPTY)
    {
        *place.variant = place.held;
    }
    else if (place.text != nullptr && *place.text == nullptr)
    {
        *place.text = place.held.bstrVal;
    }
    else
    {
        static_cast<void>(VariantClear(&place.held));
    }
}
