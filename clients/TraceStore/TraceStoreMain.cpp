// Entry of TraceStore.exe, the trace service.
//
//   TraceStore.exe -RegServer      registers the class, the proxies beside it, its folder and settings (administrator)
//   TraceStore.exe -UnregServer    takes that away
//   TraceStore.exe [-Embedding]    serves; COM starts it this way. Without clients it ends by itself after some seconds
//
// Words are taken in any case, behind "-" or "/". The exit code is 0 or the HRESULT of what failed.

#include <windows.h>
#include <objbase.h>
#include <sddl.h>
#include <shellapi.h>

#include <cwchar>
#include <string_view>

#include "NetUtilities/ComApartment.h"
#include "NetUtilities/Handles.h"
#include "clients/TraceStore/KeptClassInterface.h"
#include "clients/TraceStore/Registration.h"
#include "clients/TraceStore/StoreSettings.h"
#include "clients/TraceStore/TraceLogManagerObject.h"

namespace
{
// Any local account may write lines and read them; nobody from another machine may.
HRESULT OpenToLocalCallers()
{
    // COM rights: 1 execute, 2 execute locally. System, administrators, authenticated users, services, guests of the
    // machine.
    constexpr const wchar_t* Rights =
        L"O:BAG:BAD:(D;;0x4;;;WD)(A;;0x3;;;SY)(A;;0x3;;;BA)(A;;0x3;;;AU)(A;;0x3;;;SU)(A;;0x3;;;WD)";
    UniqueLocalMemory<void> descriptor;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(Rights, SDDL_REVISION_1, descriptor.put(), nullptr))
    {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    // COM wants an absolute descriptor.
    DWORD sizes[5] = {};
    MakeAbsoluteSD(descriptor.get(), nullptr, &sizes[0], nullptr, &sizes[1], nullptr, &sizes[2], nullptr, &sizes[3],
                   nullptr, &sizes[4]);
    const UniqueLocalMemory<void> absolute(LocalAlloc(LPTR, sizes[0]));
    const UniqueLocalMemory<ACL> list(static_cast<ACL*>(LocalAlloc(LPTR, sizes[1] ? sizes[1] : 1)));
    const UniqueLocalMemory<ACL> audit(static_cast<ACL*>(LocalAlloc(LPTR, sizes[2] ? sizes[2] : 1)));
    const UniqueLocalMemory<void> owner(LocalAlloc(LPTR, sizes[3] ? sizes[3] : 1));
    const UniqueLocalMemory<void> group(LocalAlloc(LPTR, sizes[4] ? sizes[4] : 1));
    if (!absolute || !list || !audit || !owner || !group)
    {
        return E_OUTOFMEMORY;
    }
    if (!MakeAbsoluteSD(descriptor.get(), absolute.get(), &sizes[0], list.get(), &sizes[1], audit.get(), &sizes[2],
                        owner.get(), &sizes[3], group.get(), &sizes[4]))
    {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    return CoInitializeSecurity(absolute.get(), -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_CONNECT,
                                RPC_C_IMP_LEVEL_IDENTIFY, nullptr, EOAC_DISABLE_AAA, nullptr);
}

HRESULT Serve()
{
    const HRESULT security = OpenToLocalCallers();
    if (FAILED(security))
    {
        return security;
    }
    const StoreSettings settings = StoreSettings::Read();
    TraceFile::LineStore store(settings.folder, settings.limits);
    TraceLevels levels;
    ServerLifetime lifetime;
    TraceLogManagerFactory factory({store, levels, lifetime});
    const KeptClassInterface kept;

    // Suspended until everything stands, so that the first client cannot meet half a server.
    DWORD cookie = 0;
    lifetime.Begin();
    HRESULT result = CoRegisterClassObject(__uuidof(TraceLogManagerClass), &factory, CLSCTX_LOCAL_SERVER,
                                           REGCLS_MULTIPLEUSE | REGCLS_SUSPENDED, &cookie);
    if (SUCCEEDED(result))
    {
        result = CoResumeClassObjects();
        if (SUCCEEDED(result))
        {
            lifetime.WaitForEnd(settings.lingerMilliseconds);
        }
        CoRevokeClassObject(cookie);
        constexpr DWORD LateClientLimit = 60000; // milliseconds without any change
        lifetime.WaitForLastObject(LateClientLimit);
    }
    store.ReleaseReaders();
    return result;
}

// The last argument without its "-" or "/", empty if there is none.
std::wstring_view LastWord(int count, wchar_t** arguments)
{
    if (count < 2)
    {
        return {};
    }
    const std::wstring_view last = arguments[count - 1];
    return !last.empty() && (last.front() == L'-' || last.front() == L'/') ? last.substr(1) : std::wstring_view{};
}

bool SameWord(std::wstring_view left, std::wstring_view right)
{
    return left.size() == right.size() && _wcsnicmp(left.data(), right.data(), left.size()) == 0;
}
} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int)
{
    int count = 0;
    const UniqueLocalMemory<wchar_t*> arguments(CommandLineToArgvW(GetCommandLineW(), &count));
    const std::wstring_view word = arguments ? LastWord(count, arguments.get()) : std::wstring_view{};
    const ComApartment apartment(COINIT_MULTITHREADED);
    if (!apartment.Initialized())
    {
        return apartment.Result();
    }
    if (SameWord(word, L"RegServer"))
    {
        return Registration::Register();
    }
    if (SameWord(word, L"UnregServer"))
    {
        return Registration::Unregister();
    }
    return Serve();
}
