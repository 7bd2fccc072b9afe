#pragma once
// A network configuration engine in this process, under CNetCfg's class id: a write lock with holders, components and
// binding paths. Every call is counted and can be made to fail. Any thread may call.

#include <windows.h>

#include <netcfgx.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct FakeComponent
{
    std::wstring id;
    GUID guid{};
    std::wstring displayName;
};

struct FakePath
{
    std::vector<std::shared_ptr<FakeComponent>> lowers; // one for each interface; null: GetLowerComponent fails
    bool enabled = true;
};

class FakeNetCfg
{
public:
    // Resets everything; registers the class object with the first use.
    static FakeNetCfg& Fresh();

    std::shared_ptr<FakeComponent> AddComponent(const std::wstring& id, std::uint32_t number,
                                                const std::wstring& displayName = L"");
    // A path of the protocol down to the components.
    std::shared_ptr<FakePath> AddPath(const std::wstring& protocolId,
                                      std::vector<std::shared_ptr<FakeComponent>> lowers, bool enabled = true);

    // The call number `nth` from now on answers `result` and does nothing else.
    void FailCall(const std::string& name, HRESULT result, int nth = 1);
    // Called at the entry of each call of that name.
    void OnCall(const std::string& name, std::function<void()> hook);
    [[nodiscard]] int Calls(const std::string& name);
    // Names of all calls since Fresh, in order.
    [[nodiscard]] std::vector<std::string> AllCalls();

    // Who has the write lock; empty for nobody. Another program's name keeps ours out.
    [[nodiscard]] std::wstring LockHolder();
    void SetLockHolder(const std::wstring& holder);
    [[nodiscard]] bool Initialized();
    // Objects of the engine that are still referenced.
    [[nodiscard]] int LivingObjects();

    // --- for the engine's objects ---
    // Counts the call, runs its hook, and says whether it is to fail.
    bool Fails(const std::string& name, HRESULT& result);
    std::recursive_mutex mutex;
    std::map<std::wstring, std::vector<std::shared_ptr<FakePath>>> protocols;
    std::wstring lockHolder;
    bool initialized = false;
    DWORD lockWait = 0; // milliseconds that the last AcquireWriteLock asked for
    int living = 0;

private:
    std::map<std::string, int> calls;
    std::vector<std::string> order;
    std::map<std::string, std::pair<int, HRESULT>> failures;
    std::map<std::string, std::function<void()>> hooks;
};
