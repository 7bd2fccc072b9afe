// The engine's COM objects below INetCfg. Their methods fail with NETCFG_E_NOT_INITIALIZED once the engine is
// uninitialized, as on the platform. Methods that the service has no use for return E_NOTIMPL.
#pragma once

#include "lab/netcfg/Session.h"
#include "lab/netcfg/WriteLock.h"
#include "lab/wmi/ComBase.h"

#include <netcfgx.h>

#include <memory>

namespace lab::netcfg
{

using lab::wmi::ComObject;
using lab::wmi::Reference;

using SharedSession = std::shared_ptr<Session>;
using SharedLock = std::shared_ptr<WriteLock>;

// A copy for the caller, who frees it with CoTaskMemFree; null if there is no memory.
[[nodiscard]] wchar_t* TaskText(const std::wstring& text) noexcept;

// Each comes with one reference.
[[nodiscard]] INetCfg* MakeEngine();
[[nodiscard]] INetCfgComponent* MakeComponent(SharedSession session, SharedLock lock, std::size_t index);
[[nodiscard]] IEnumNetCfgBindingPath* MakePathEnumerator(SharedSession session, SharedLock lock,
                                                         std::vector<std::size_t> paths);
[[nodiscard]] INetCfgBindingPath* MakePath(SharedSession session, SharedLock lock, std::size_t index);
[[nodiscard]] IEnumNetCfgBindingInterface* MakeInterfaceEnumerator(SharedSession session, SharedLock lock,
                                                                   std::size_t path);

} // namespace lab::netcfg
