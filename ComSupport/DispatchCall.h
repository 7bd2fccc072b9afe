#pragma once
// One late-bound call against the description of the member that it names: what the platform's type information does
// not look after, or not everywhere.

#include "ComSupport/Threading.h"

#include <oaidl.h>

#include <vector>

// Lives around the call itself.
//
// Arguments that are too many: not every platform refuses them; one that does not drops them and runs the method.
//
// Places that a member only writes to: an early-bound caller's proxy makes them empty, and methods write without a look
// at what stands there. A script hands in its variable with whatever it holds, which would be lost with each call. So
// what such a place owns is taken aside before the call; behind it, it is freed if the member wrote something there,
// and put back if it did not.
class DispatchCall
{
public:
    // `arguments` may be null, and the member unknown: then there is nothing to look after.
    DispatchCall(ITypeInfo* typeInfo, DISPID id, WORD flags, DISPPARAMS* arguments) noexcept;
    ~DispatchCall();
    DispatchCall(const DispatchCall&) = delete;
    DispatchCall& operator=(const DispatchCall&) = delete;

    [[nodiscard]] bool HasTooManyArguments() const noexcept;
    // Takes outputs aside and puts values in the place of references; the destructor undoes it. S_OK, or E_OUTOFMEMORY.
    [[nodiscard]] HRESULT Prepare() noexcept;

private:
    struct Place
    {
        VARIANT* variant = nullptr; // either this
        BSTR* text = nullptr;       // or this
        VARIANT held{};             // what stood there, as a variant
    };
    struct Value
    {
        VARIANTARG* argument = nullptr; // holds the copy during the call
        VARIANTARG reference{};         // what the caller had put there
    };

    [[nodiscard]] static FUNCDESC* Find(ITypeInfo* typeInfo, DISPID id, WORD flags) noexcept;
    [[nodiscard]] VARIANTARG* ArgumentOf(UINT parameter) const noexcept;
    void TakeAside(VARIANTARG& argument);
    [[nodiscard]] HRESULT PutValue(VARIANTARG& argument);
    static void Settle(Place& place) noexcept;

    ITypeInfo* const info;
    DISPPARAMS* const parameters;
    FUNCDESC* const function; // null: unknown
    std::vector<Place> places;
    std::vector<Value> values;
};
