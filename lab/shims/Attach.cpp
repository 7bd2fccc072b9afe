#include "lab/shims/Hooks.h"
#include "lab/shims/Shim.h"

#include <windows.h>

#include <exception>

namespace
{

// Wine's service manager mixes up a process whose first two calls to it come from two threads at once: a status that
// the service then reports is lost now and then, and it is said to be starting for ever. One connection that is made
// before there is a second thread, and kept, prevents that.
void ConnectToServiceManager()
{
    static const SC_HANDLE kept = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    static_cast<void>(kept);
}

} // namespace

// Runs while the program is being loaded: its imports are in place, none of its code has run.
extern "C" void LabShimAttach()
{
    ConnectToServiceManager();
    try
    {
        lab::shim::HookControlHandler();
        lab::shim::HookPowerStatus();
        lab::shim::HookServiceManager();
        lab::shim::HookClassObjects();
        if (lab::FlagField(*lab::Machine::Attach().Snapshot(), "hooks", false))
            lab::shim::HookPlatformCalls();
    }
    catch (const std::exception& error)
    {
        OutputDebugStringA("lab shim: ");
        OutputDebugStringA(error.what());
    }
}
