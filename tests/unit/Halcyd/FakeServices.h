#pragma once
// A service control manager with services of the test's own: dependents, slow stops and starts, refused controls and
// descriptors that keep the caller out. It answers in the place of the platform while it exists, in virtual time.

#include <windows.h>
#include <winsvc.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/unit/Halcyd/PlatformHooks.h"
#include "tests/unit/Halcyd/SleepClock.h"

struct FakeService
{
    std::wstring keyName;
    std::wstring displayName;
    DWORD state = SERVICE_RUNNING;
    DWORD startType = SERVICE_DEMAND_START;
    DWORD stopMilliseconds = 0; // between the stop control and the state "stopped"
    DWORD startMilliseconds = 0;
    DWORD refuseControl = 0; // error of ControlService
    DWORD refuseStart = 0;   // error of StartService
    bool opens = true;       // false: OpenService with rights is refused with 5 until the DACL is amended
    std::wstring sddl = L"D:(A;;CC;;;SY)";
    std::vector<std::wstring> dependents;
    std::vector<DWORD> controls; // that came in
    std::uint64_t changesAt = 0;
    DWORD changesTo = 0;
};

class FakeServices
{
public:
    explicit FakeServices(SleepClock& clock);
    FakeServices(const FakeServices&) = delete;
    FakeServices& operator=(const FakeServices&) = delete;

    FakeService& Add(const std::wstring& keyName);
    FakeService& operator[](const std::wstring& keyName) { return *services.at(Upper(keyName)); }

    [[nodiscard]] int OpenHandles() const { return static_cast<int>(handles.size()); }
    // "stop PolicyAgent", "start Dependent", "open Name 0xf01ff", ... in the order of the calls.
    std::vector<std::wstring> journal;
    bool privilege = false; // SE_TAKE_OWNERSHIP is on

private:
    struct Handle
    {
        FakeService* service = nullptr; // null: the manager
        DWORD access = 0;
    };
    static std::wstring Upper(std::wstring text);
    void Note(const std::wstring& text) { journal.push_back(text); }
    FakeService* ServiceOf(SC_HANDLE handle);
    SC_HANDLE NewHandle(FakeService* service, DWORD access);
    void Advance(FakeService& service);
    void HookManager();
    void HookQueries();
    void HookControls();
    void HookSecurity();
    void HookPrivileges();

    HookScope scope;
    SleepClock& clock;
    std::map<std::wstring, std::unique_ptr<FakeService>> services;
    std::map<SC_HANDLE, std::unique_ptr<Handle>> handles;
};
