// GetSystemPowerStatus from the state:
//   "power": { "acLine": 0, "batteryFlag": 4, "batteryPercent": 3 }
#include "lab/shims/Hooks.h"
#include "lab/shims/ImportTable.h"
#include "lab/shims/Shim.h"

namespace
{

decltype(&GetSystemPowerStatus) g_original = nullptr;

BOOL WINAPI PowerStatus(SYSTEM_POWER_STATUS* status)
{
    lab::Machine& machine = lab::Machine::Attach();
    lab::Call call{"GetSystemPowerStatus", machine};
    if (const auto code = call.Fault())
    {
        call.Result(*code);
        SetLastError(*code);
        return FALSE;
    }
    const auto state = machine.Snapshot();
    const lab::Json& power = lab::Member(*state, "power");
    if (!power.is_object() || status == nullptr)
        return g_original(status);
    *status = {};
    status->ACLineStatus = static_cast<BYTE>(lab::NumberField(power, "acLine", 1));
    status->BatteryFlag = static_cast<BYTE>(lab::NumberField(power, "batteryFlag", 128));
    status->BatteryLifePercent = static_cast<BYTE>(lab::NumberField(power, "batteryPercent", 255));
    status->BatteryLifeTime = static_cast<DWORD>(-1);
    status->BatteryFullLifeTime = static_cast<DWORD>(-1);
    call.Out("acLine", static_cast<unsigned>(status->ACLineStatus))
        .Out("batteryFlag", static_cast<unsigned>(status->BatteryFlag))
        .Result(0U);
    return TRUE;
}

} // namespace

void lab::shim::HookPowerStatus()
{
    g_original = reinterpret_cast<decltype(g_original)>(
        ReplaceImport("GetSystemPowerStatus", reinterpret_cast<void*>(&PowerStatus)));
}
