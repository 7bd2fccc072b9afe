// What the iphlpapi shim does to the program that it is loaded into, besides being iphlpapi: that DLL is a static
// import of the service, so it is there before the service's first instruction.
#pragma once

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

// Journals the program's other platform calls and lets fault rules fail them. Only where the state says
// "hooks": true when the program starts.
void HookPlatformCalls();

} // namespace lab::shim
