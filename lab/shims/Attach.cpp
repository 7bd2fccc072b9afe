#include "lab/shims/Hooks.h"
#include "lab/shims/Shim.h"

#include <exception>

// Runs while the program is being loaded: its imports are in place, none of its code has run.
extern "C" void LabShimAttach()
{
    try
    {
        lab::shim::HookControlHandler();
        lab::shim::HookPowerStatus();
        if (lab::FlagField(*lab::Machine::Attach().Snapshot(), "hooks", false))
            lab::shim::HookPlatformCalls();
    }
    catch (const std::exception& error)
    {
        OutputDebugStringA("lab shim: ");
        OutputDebugStringA(error.what());
    }
}
