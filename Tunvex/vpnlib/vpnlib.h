#pragma once
// Workers of the tunnel's virtual adapter.

#include <windows.h>

// Asks for a reset of the virtual adapter without waiting for its end. Returns a Win32 status.
//
// The control of the virtual adapter is not part of this build: the call only says so in the trace and returns
// ERROR_CALL_NOT_IMPLEMENTED. Its place in the start of the service is filled, so that the sequence is complete.
DWORD VPNResetVnicAsynch();
