#pragma once
// Owners for platform handles. Each one closes what it holds in its destructor; the empty value of the
// handle kind is part of the type. None of them is shared between threads without a lock.

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <cstddef>
#include <utility>

// Owner of one value of a handle kind. `Traits` gives: Value, Empty(), IsValid(Value), Close(Value).
template <class Traits>
class UniqueResource
{
public:
    using Value = typename Traits::Value;

    UniqueResource() noexcept = default;
    explicit UniqueResource(Value resource) noexcept : value(resource) {}
    UniqueResource(UniqueResource&& other) noexcept : value(other.release()) {}
    UniqueResource& operator=(UniqueResource&& other) noexcept
    {
        if (this != &other)
        {
            reset(other.release());
        }
        return *this;
    }
    UniqueResource(const UniqueResource&) = delete;
    UniqueResource& operator=(const UniqueResource&) = delete;
    ~UniqueResource() { reset(); }

    [[nodiscard]] Value get() const noexcept { return value; }
    [[nodiscard]] explicit operator bool() const noexcept { return Traits::IsValid(value); }

    // Hands the value to the caller, who closes it.
    [[nodiscard]] Value release() noexcept { return std::exchange(value, Traits::Empty()); }

    // Closes what is held, then takes `next`. Keeps the thread's last error, so a failure that is being
    // handled is not hidden by the closing.
    void reset(Value next = Traits::Empty()) noexcept
    {
        const Value previous = std::exchange(value, next);
        if (Traits::IsValid(previous) && previous != next)
        {
            const DWORD lastError = GetLastError();
            Traits::Close(previous);
            SetLastError(lastError);
        }
    }

    // For out-parameters: closes what is held and gives the place to write to.
    [[nodiscard]] Value* put() noexcept
    {
        reset();
        return &value;
    }

private:
    Value value = Traits::Empty();
};

namespace HandleTraits
{
// Kernel object handles. Some functions answer failure with null, others with INVALID_HANDLE_VALUE; both count as
// empty.
struct Kernel
{
    using Value = HANDLE;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr && value != INVALID_HANDLE_VALUE; }
    static void Close(Value value) noexcept { CloseHandle(value); }
};

struct Module
{
    using Value = HMODULE;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { FreeLibrary(value); }
};

struct Service
{
    using Value = SC_HANDLE;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { CloseServiceHandle(value); }
};

struct Registry
{
    using Value = HKEY;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr && value != INVALID_HANDLE_VALUE; }
    static void Close(Value value) noexcept { RegCloseKey(value); }
};

struct EventSource
{
    using Value = HANDLE;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { DeregisterEventSource(value); }
};

struct Local
{
    using Value = void*;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { LocalFree(value); }
};

struct Sid
{
    using Value = PSID;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { FreeSid(value); }
};

struct SafeArray
{
    using Value = SAFEARRAY*;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { SafeArrayDestroy(value); }
};

template <class T>
struct CoTaskMem
{
    using Value = T*;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { CoTaskMemFree(value); }
};

template <class T>
struct LocalMemory
{
    using Value = T*;
    static Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { LocalFree(value); }
};
} // namespace HandleTraits

using UniqueHandle = UniqueResource<HandleTraits::Kernel>;           // CloseHandle
using UniqueModule = UniqueResource<HandleTraits::Module>;           // FreeLibrary
using UniqueServiceHandle = UniqueResource<HandleTraits::Service>;   // CloseServiceHandle
using UniqueRegistryHandle = UniqueResource<HandleTraits::Registry>; // RegCloseKey
using UniqueEventSource = UniqueResource<HandleTraits::EventSource>; // DeregisterEventSource
using UniqueLocal = UniqueResource<HandleTraits::Local>;             // LocalFree
using UniqueSid = UniqueResource<HandleTraits::Sid>;                 // FreeSid, for AllocateAndInitializeSid
using UniqueSafeArray = UniqueResource<HandleTraits::SafeArray>;     // SafeArrayDestroy

// CoTaskMemFree. Holds one block; elements that own memory of their own are the holder's business.
template <class T>
using UniqueCoTaskMem = UniqueResource<HandleTraits::CoTaskMem<T>>;

// LocalFree of a typed block, such as a converted security descriptor or SID text.
template <class T>
using UniqueLocalMemory = UniqueResource<HandleTraits::LocalMemory<T>>;
