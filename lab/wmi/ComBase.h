// What every object of the stand-in shares: a reference count, interfaces, and the number of living objects.
#pragma once

#include <windows.h>
#include <objidl.h>

#include "lab/state/Machine.h"

#include <atomic>
#include <utility>

namespace lab::wmi
{

// Living objects and locks of the module; DllCanUnloadNow asks.
inline std::atomic<long> moduleReferences{0};

// Owns one reference of a COM pointer.
template <class T>
class Reference
{
public:
    Reference() noexcept = default;
    explicit Reference(T* pointer) noexcept : m_pointer(pointer) // adds its own reference
    {
        if (m_pointer != nullptr)
        {
            m_pointer->AddRef();
        }
    }
    Reference(const Reference& other) noexcept : Reference(other.m_pointer) {}
    Reference(Reference&& other) noexcept : m_pointer(std::exchange(other.m_pointer, nullptr)) {}
    Reference& operator=(Reference other) noexcept
    {
        std::swap(m_pointer, other.m_pointer);
        return *this;
    }
    ~Reference()
    {
        if (m_pointer != nullptr)
        {
            m_pointer->Release();
        }
    }
    // Takes over the reference that `pointer` already has.
    static Reference Take(T* pointer) noexcept
    {
        Reference result;
        result.m_pointer = pointer;
        return result;
    }
    [[nodiscard]] T* get() const noexcept { return m_pointer; }
    [[nodiscard]] T* Detach() noexcept { return std::exchange(m_pointer, nullptr); }
    T* operator->() const noexcept { return m_pointer; }
    explicit operator bool() const noexcept { return m_pointer != nullptr; }

private:
    T* m_pointer = nullptr;
};

// Base of an object with the interface `First` and any further ones. Starts with a count of 1.
template <class First, class... More>
class ComObject : public First, public More...
{
public:
    ComObject() noexcept { ++moduleReferences; }
    ComObject(const ComObject&) = delete;
    ComObject& operator=(const ComObject&) = delete;
    virtual ~ComObject() { --moduleReferences; }

    STDMETHODIMP QueryInterface(REFIID id, void** object) override
    {
        if (object == nullptr)
        {
            return E_POINTER;
        }
        *object = nullptr;
        if (IsEqualIID(id, __uuidof(IUnknown)) || IsEqualIID(id, __uuidof(First)))
        {
            *object = static_cast<First*>(this);
        }
        else
        {
            (void)((IsEqualIID(id, __uuidof(More)) ? (*object = static_cast<More*>(this), true) : false) || ...);
        }
        if (*object == nullptr)
        {
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_count; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG count = --m_count;
        if (count == 0)
        {
            delete this;
        }
        return count;
    }

private:
    std::atomic<ULONG> m_count{1};
};

// Proxies of the real WMI take a security blanket; so do these objects, and remember nothing of it.
template <class Interface>
class SecuredObject : public ComObject<Interface, IClientSecurity>
{
public:
    STDMETHODIMP QueryBlanket(IUnknown*, DWORD* authentication, DWORD* authorisation, OLECHAR** principal, DWORD* level,
                              DWORD* impersonation, void** identity, DWORD* capabilities) override
    {
        if (authentication != nullptr)
        {
            *authentication = RPC_C_AUTHN_WINNT;
        }
        if (authorisation != nullptr)
        {
            *authorisation = RPC_C_AUTHZ_NONE;
        }
        if (principal != nullptr)
        {
            *principal = nullptr;
        }
        if (level != nullptr)
        {
            *level = RPC_C_AUTHN_LEVEL_CALL;
        }
        if (impersonation != nullptr)
        {
            *impersonation = RPC_C_IMP_LEVEL_IMPERSONATE;
        }
        if (identity != nullptr)
        {
            *identity = nullptr;
        }
        if (capabilities != nullptr)
        {
            *capabilities = 0;
        }
        return S_OK;
    }
    STDMETHODIMP SetBlanket(IUnknown*, DWORD authentication, DWORD authorisation, OLECHAR*, DWORD level,
                            DWORD impersonation, void*, DWORD) override
    {
        return JournalBlanket(authentication, authorisation, level, impersonation);
    }
    STDMETHODIMP CopyProxy(IUnknown* proxy, IUnknown** copy) override
    {
        if (proxy == nullptr || copy == nullptr)
        {
            return E_INVALIDARG;
        }
        proxy->AddRef();
        *copy = proxy;
        return S_OK;
    }

private:
    static HRESULT JournalBlanket(DWORD authentication, DWORD authorisation, DWORD level, DWORD impersonation)
    {
        Call call{"IClientSecurity::SetBlanket"};
        call.Arg("authentication", authentication).Arg("authorisation", authorisation);
        call.Arg("level", level).Arg("impersonation", impersonation);
        if (const auto code = call.Fault())
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        return call.Result(S_OK);
    }
};

} // namespace lab::wmi
