#include "lab/shims/Shim.h"

#include <string>

extern "C"
{
    // From the generated file of the shim that this is linked into.
    extern const wchar_t LabShimLibrary[];
    extern const unsigned LabShimCount;
    extern const char* const LabShimNames[];
    extern void** LabShimSlots[];

    void* LabShimResolve(unsigned number);
    void LabShimPin(HINSTANCE self);
}

namespace lab::shim
{

namespace
{

// The full path gives the built-in DLL even where the override names the native one, which is us.
HMODULE Builtin() noexcept
{
    static const HMODULE module = []
    {
        wchar_t folder[MAX_PATH];
        const UINT length = GetSystemDirectoryW(folder, MAX_PATH);
        return LoadLibraryW((std::wstring(folder, length) + L"\\" + LabShimLibrary).c_str());
    }();
    return module;
}

} // namespace

void* OriginalAddress(const char* name) noexcept
{
    const HMODULE module = Builtin();
    return module == nullptr ? nullptr : reinterpret_cast<void*>(GetProcAddress(module, name));
}

} // namespace lab::shim

// Two threads may resolve one thunk at the same time: both store the same address.
extern "C" void* LabShimResolve(unsigned number)
{
    void* const target = lab::shim::OriginalAddress(LabShimNames[number]);
    if (target == nullptr)
    {
        // Nothing sensible can be returned to a caller whose function does not exist.
        OutputDebugStringA("lab shim: no such function in the built-in DLL: ");
        OutputDebugStringA(LabShimNames[number]);
        TerminateProcess(GetCurrentProcess(), static_cast<UINT>(ERROR_PROC_NOT_FOUND));
    }
    *LabShimSlots[number] = target;
    return target;
}

// After an unload the program might get the built-in DLL the next time, so the shim stays.
extern "C" void LabShimPin(HINSTANCE self)
{
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<const wchar_t*>(self), &module);
}
