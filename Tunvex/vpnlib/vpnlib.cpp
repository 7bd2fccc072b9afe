#include "Tunvex/vpnlib/vpnlib.h"

#include "NetUtilities/Trace.h"

DWORD VPNResetVnicAsynch()
{
    const ScopeTrace scope(Log::Source::VpnLib, 8);
    LogMessage(Log::Source::VpnLib, 3, L"virtual adapter control is not part of this build, the adapter was not reset");
    return ERROR_CALL_NOT_IMPLEMENTED;
}
