#include "PlatformFailures.h"

#include <oleauto.h>
#include <pthread.h>

#include <cerrno>
#include <map>
#include <mutex>

namespace PlatformFailures
{
namespace
{
struct Rule
{
    int nth = 0;
    int times = 0;
    DWORD code = 0;
    std::wstring detail;
    int calls = 0;
    int failed = 0;
};

std::mutex& Lock()
{
    static std::mutex& lock = *new std::mutex; // other threads may call while the process ends
    return lock;
}
std::map<std::string, Rule>& Rules()
{
    static auto& rules = *new std::map<std::string, Rule>;
    return rules;
}
bool Takes(const char* function, DWORD& code, const wchar_t* detail = nullptr)
{
    const std::lock_guard guard(Lock());
    const auto found = Rules().find(function);
    if (found == Rules().end())
    {
        return false;
    }
    Rule& rule = found->second;
    if (!rule.detail.empty() && (detail == nullptr || rule.detail != detail))
    {
        return false;
    }
    ++rule.calls;
    if (rule.calls < rule.nth || rule.calls >= rule.nth + rule.times)
    {
        return false;
    }
    ++rule.failed;
    code = rule.code;
    return true;
}

template <class Function>
Function Real(const wchar_t* library, const char* name)
{
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(library), name)));
}
} // namespace

void Fail(const std::string& function, int nth, DWORD code, int times, const std::wstring& detail)
{
    const std::lock_guard guard(Lock());
    Rules()[function] = {nth, times, code, detail};
}

int Failed(const std::string& function)
{
    const std::lock_guard guard(Lock());
    return Rules()[function].failed;
}

void Reset()
{
    const std::lock_guard guard(Lock());
    Rules().clear();
}

// A function whose result is the code itself.
#define CODE_FUNCTION(library, Result, function, parameters, arguments)                                                \
    static Result WINAPI Failing##function parameters                                                                  \
    {                                                                                                                  \
        DWORD code = 0;                                                                                                \
        if (Takes(#function, code))                                                                                    \
        {                                                                                                              \
            return static_cast<Result>(code);                                                                          \
        }                                                                                                              \
        static const auto real = Real<decltype(&Failing##function)>(library, #function);                               \
        return real arguments;                                                                                         \
    }
// A function that says FALSE and leaves the code as the last error.
#define BOOL_FUNCTION(library, function, parameters, arguments)                                                        \
    static BOOL WINAPI Failing##function parameters                                                                    \
    {                                                                                                                  \
        DWORD code = 0;                                                                                                \
        if (Takes(#function, code))                                                                                    \
        {                                                                                                              \
            SetLastError(code);                                                                                        \
            return FALSE;                                                                                              \
        }                                                                                                              \
        static const auto real = Real<decltype(&Failing##function)>(library, #function);                               \
        return real arguments;                                                                                         \
    }

CODE_FUNCTION(L"oleaut32.dll", HRESULT, SafeArrayPutElement, (SAFEARRAY * array, LONG* at, void* element),
              (array, at, element))
CODE_FUNCTION(L"oleaut32.dll", HRESULT, SafeArrayGetLBound, (SAFEARRAY * array, UINT dimension, LONG* bound),
              (array, dimension, bound))
CODE_FUNCTION(L"oleaut32.dll", HRESULT, SafeArrayGetUBound, (SAFEARRAY * array, UINT dimension, LONG* bound),
              (array, dimension, bound))
CODE_FUNCTION(L"oleaut32.dll", HRESULT, SafeArrayAccessData, (SAFEARRAY * array, void** data), (array, data))
CODE_FUNCTION(L"oleaut32.dll", HRESULT, SafeArrayUnaccessData, (SAFEARRAY * array), (array))
CODE_FUNCTION(L"ole32.dll", HRESULT, CoInitializeEx, (void* reserved, DWORD model), (reserved, model))
BOOL_FUNCTION(L"advapi32.dll", ConvertSidToStringSidW, (PSID sid, LPWSTR* text), (sid, text))
BOOL_FUNCTION(L"kernel32.dll", GetFileAttributesExW, (LPCWSTR path, GET_FILEEX_INFO_LEVELS level, LPVOID data),
              (path, level, data))

static LONG WINAPI FailingRegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                                           LPDWORD size)
{
    DWORD code = 0;
    if (Takes("RegQueryValueExW", code, name))
    {
        return static_cast<LONG>(code);
    }
    static const auto real = Real<decltype(&FailingRegQueryValueExW)>(L"advapi32.dll", "RegQueryValueExW");
    return real(key, name, reserved, type, data, size);
}

static HRESULT WINAPI FailingSHGetKnownFolderPath(const GUID& id, DWORD flags, HANDLE token, PWSTR* path)
{
    DWORD code = 0;
    if (Takes("SHGetKnownFolderPath", code))
    {
        *path = nullptr;
        return static_cast<HRESULT>(code);
    }
    static const auto real = Real<decltype(&FailingSHGetKnownFolderPath)>(L"shell32.dll", "SHGetKnownFolderPath");
    return real(id, flags, token, path);
}
} // namespace PlatformFailures

using namespace PlatformFailures;

extern "C"
{
    // The import slots. The names are the linker's.
    decltype(&FailingSafeArrayPutElement) __imp_SafeArrayPutElement = &FailingSafeArrayPutElement;
    decltype(&FailingSafeArrayGetLBound) __imp_SafeArrayGetLBound = &FailingSafeArrayGetLBound;
    decltype(&FailingSafeArrayGetUBound) __imp_SafeArrayGetUBound = &FailingSafeArrayGetUBound;
    decltype(&FailingSafeArrayAccessData) __imp_SafeArrayAccessData = &FailingSafeArrayAccessData;
    decltype(&FailingSafeArrayUnaccessData) __imp_SafeArrayUnaccessData = &FailingSafeArrayUnaccessData;
    decltype(&FailingCoInitializeEx) __imp_CoInitializeEx = &FailingCoInitializeEx;
    decltype(&FailingConvertSidToStringSidW) __imp_ConvertSidToStringSidW = &FailingConvertSidToStringSidW;
    decltype(&FailingGetFileAttributesExW) __imp_GetFileAttributesExW = &FailingGetFileAttributesExW;
    decltype(&FailingRegQueryValueExW) __imp_RegQueryValueExW = &FailingRegQueryValueExW;

    // Declared without an import slot by the compiler's headers.
    HRESULT WINAPI SHGetKnownFolderPath(const GUID& id, DWORD flags, HANDLE token, PWSTR* path)
    {
        return FailingSHGetKnownFolderPath(id, flags, token, path);
    }

    // Every start of a thread comes by here (the linker's --wrap).
    int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                              void* argument)
    {
        DWORD code = 0;
        if (PlatformFailures::Takes("pthread_create", code))
        {
            SetLastError(code);
            return EAGAIN;
        }
        return __real_pthread_create(thread, attributes, entry, argument);
    }
}
