#pragma once
// What the binding tests share: a machine with few binding paths, its bindings and the service's record as plain
// values, a client's calls, and the way to a service that was started again after a crash.

#include <windows.h>

#include <gtest/gtest.h>

#include <future>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "NetUtilities/ComApartment.h"
#include "NetUtilities/Handles.h"
#include "lab/state/Machine.h"
#include "tests/support/ComPointers.h"
#include "tests/support/RunningService.h"
#include "tests/support/Services.h"

namespace BindingsMachine
{
// The adapter that a disable keeps, and the one that it does not.
inline constexpr wchar_t kTunnel[] = L"{5D3E0A01-7C44-4E0B-8B19-3A6F90C1D001}";
inline constexpr wchar_t kCard[] = L"{5D3E0A02-7C44-4E0B-8B19-3A6F90C1D002}";
inline constexpr wchar_t kRecordRoot[] = L"SOFTWARE\\QRLS\\Sorvane\\AdapterControl\\MultiHomingPrevention";

// A machine with three paths: IPv6 to the card, IPv4 to the tunnel and to the card. No NDISWAN. All on, no record.
void Load();

// Replaces the engine's components and paths; see lab/netcfg/Model.h for the form.
void SetNetCfg(const lab::Json& netcfg);

// The paths that are off, by their tokens ("ms_tcpip->{GUID}").
std::set<std::string> PathsOff();
void AllPathsOn();

// The service's record: key below its root -> the value, or nothing for a key without it. Keys of protocols are there
// too, without a value.
using Record = std::map<std::string, std::optional<DWORD>>;
Record ReadRecord();
void RemoveRecord();
// Writes the value into each key of a binding, as no handle of the service may.
void CompleteRecord();

std::optional<std::wstring> LockHolder();

// The monitor of the process that runs now, past the platform's activation: see lab/shims/ObjectReference.cpp.
INetMonSvPtr LivingMonitor();

// Asks for the start of the service, also after its process was killed. True when it was accepted; does not wait.
bool BeginStart(const ServiceControl& service);
// The same, and waits until the service says RUNNING.
bool StartService(const ServiceControl& service);

// A client that calls DisableIpBindings on a thread of its own, as clients must.
std::future<HRESULT> Disable(INetMonSvPtr monitor, std::wstring kept = kTunnel, long ppp = 0);
// A client that calls RestoreIpBindings on a thread of its own.
std::future<HRESULT> Restore(INetMonSvPtr monitor);
bool Comes(std::future<HRESULT>& call);

// Another program that has the engine's write lock when this returns, until it is ended or, with "--seconds 3" among
// the `options`, lets go by itself.
UniqueHandle HoldLock(const std::wstring& options = {}, DWORD* processId = nullptr);

// The machine with few paths, the running service, and a client's monitor.
class BindingsServiceTest : public RunningServiceTest
{
protected:
    void SetUp() override;
    // A new monitor, of the process that runs now.
    void Connect();

    INetMonSvPtr monitor;
    lab::Machine& machine = lab::Machine::Attach();
};
} // namespace BindingsMachine
