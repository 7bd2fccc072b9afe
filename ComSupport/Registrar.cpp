#include "ComSupport/Registrar.h"

#include <comdef.h>
#include <new>
#include <objbase.h>

// The platform's registrar. Its interface is declared in no header of the cross compiler. It must not move into the
// unnamed namespace: the compiler would conclude that nobody implements it and drop the calls.
struct IRegistrar : public IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE AddReplacement(LPCOLESTR key, LPCOLESTR item) = 0;
    virtual HRESULT STDMETHODCALLTYPE ClearReplacements() = 0;
    virtual HRESULT STDMETHODCALLTYPE ResourceRegisterSz(LPCOLESTR file, LPCOLESTR id, LPCOLESTR type) = 0;
    virtual HRESULT STDMETHODCALLTYPE ResourceUnregisterSz(LPCOLESTR file, LPCOLESTR id, LPCOLESTR type) = 0;
    virtual HRESULT STDMETHODCALLTYPE FileRegister(LPCOLESTR file) = 0;
    virtual HRESULT STDMETHODCALLTYPE FileUnregister(LPCOLESTR file) = 0;
    virtual HRESULT STDMETHODCALLTYPE StringRegister(LPCOLESTR data) = 0;
    virtual HRESULT STDMETHODCALLTYPE StringUnregister(LPCOLESTR data) = 0;
    virtual HRESULT STDMETHODCALLTYPE ResourceRegister(LPCOLESTR file, UINT id, LPCOLESTR type) = 0;
    virtual HRESULT STDMETHODCALLTYPE ResourceUnregister(LPCOLESTR file, UINT id, LPCOLESTR type) = 0;
};

namespace
{

constexpr CLSID kRegistrarClass = {0x44EC053A, 0x400F, 0x11D0, {0x9D, 0xCD, 0x00, 0xA0, 0xC9, 0x03, 0x91, 0xD3}};
constexpr IID kRegistrarInterface = {0x44EC053B, 0x400F, 0x11D0, {0x9D, 0xCD, 0x00, 0xA0, 0xC9, 0x03, 0x91, 0xD3}};

std::wstring DoubleSingleQuotes(std::wstring_view text)
{
    std::wstring doubled;
    doubled.reserve(text.size());
    for (const wchar_t c : text)
    {
        doubled += c;
        if (c == L'\'')
        {
            doubled += c;
        }
    }
    return doubled;
}

} // namespace

RegistryScriptTokens MakeRegistryScriptTokens(std::wstring_view path, bool isExecutable)
{
    const std::wstring raw = DoubleSingleQuotes(path);
    return {isExecutable ? L"\"" + raw + L"\"" : raw, raw};
}

HRESULT RunRegistryScript(const wchar_t* path, bool isExecutable, UINT resource, bool registering) noexcept
{
    IRegistrar* found = nullptr;
    HRESULT status = ::CoCreateInstance(kRegistrarClass, nullptr, CLSCTX_INPROC_SERVER, kRegistrarInterface,
                                        reinterpret_cast<void**>(&found));
    if (FAILED(status))
    {
        return status;
    }
    const _com_ptr_t<_com_IIID<IRegistrar, &kRegistrarInterface>> registrar(found, false);

    try
    {
        const RegistryScriptTokens tokens = MakeRegistryScriptTokens(path, isExecutable);
        status = registrar->AddReplacement(L"Module", tokens.module.c_str());
        if (SUCCEEDED(status))
        {
            status = registrar->AddReplacement(L"Module_Raw", tokens.moduleRaw.c_str());
        }
    }
    catch (const std::bad_alloc&)
    {
        status = E_OUTOFMEMORY;
    }
    if (FAILED(status))
    {
        return status;
    }
    return registering ? registrar->ResourceRegister(path, resource, L"REGISTRY")
                       : registrar->ResourceUnregister(path, resource, L"REGISTRY");
}
