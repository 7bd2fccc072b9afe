// What the iphlpapi shim does to the program that it is loaded into, besides being iphlpapi: that DLL is a static
// import of the service, so it is there before the service's first instruction.
#pragma once

#include "lab/state/Machine.h"

namespace lab::shim
{

// Takes the service's control handler in between, so that controls can be sent which Wine's service control manager
// does not know. Always on.
void HookControlHandler();

// Answers GetSystemPowerStatus from the state's "power". Always on; without that member the platform answers.
void HookPowerStatus();

// Answers for dependents and descriptors of the services that the state's "services" names. Always on; other services
// are the platform's.
void HookServiceManager();

// Keeps the interface of class objects known to COM, past a lock-up in Wine; see KeptInterfaces.cpp. Always on.
void HookClassObjects();

// Journals the program's other platform calls and lets fault rules fail them. Only where the state says
// "hooks": true when the program starts.
void HookPlatformCalls();

// Journals the program's calls to the Global Interface Table and lets fault rules fail them. Part of
// HookPlatformCalls.
void HookInterfaceTable();

// Hands a client in another process a reference to an object of one of the program's classes; see ObjectReference.cpp.
void AnswerWithReference(const Json& event);

} // namespace lab::shim
