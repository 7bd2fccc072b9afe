#include "tests/unit/Halcyd/MemoryLedger.h"

#include <cstdlib>
#include <mutex>
#include <new>
#include <set>
#include <utility>

namespace
{
struct Account
{
    std::mutex mutex;
    DWORD thread = 0; // whose memory is counted; 0 while there is no ledger
    std::set<const void*> blocks;
    std::set<const void*> strings;
};

Account& TheAccount()
{
    static auto* const account = new Account; // used until the process ends
    return *account;
}

constexpr long ample = -1;
thread_local long blocksToGive = ample;
thread_local bool anyRefused = false;
thread_local long stringsToGive = ample;

// While it lives, a shortage does not concern this thread: the ledger is no part of the code under test.
class AmpleMemory
{
public:
    AmpleMemory() noexcept : before(std::exchange(blocksToGive, ample)) {}
    ~AmpleMemory() { blocksToGive = before; }
    AmpleMemory(const AmpleMemory&) = delete;
    AmpleMemory& operator=(const AmpleMemory&) = delete;

private:
    long before;
};

template <class Pointer>
Pointer Note(std::set<const void*> Account::* kind, Pointer made)
{
    Account& account = TheAccount();
    const std::lock_guard guard(account.mutex);
    if (account.thread == GetCurrentThreadId() && made != nullptr)
    {
        const AmpleMemory ownNeeds;
        (account.*kind).insert(made);
    }
    return made;
}

void Strike(std::set<const void*> Account::* kind, const void* gone)
{
    Account& account = TheAccount();
    const std::lock_guard guard(account.mutex);
    (account.*kind).erase(gone);
}

template <class Function>
Function* Real(const wchar_t* library, const char* name)
{
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(library), name)));
}

LPVOID WINAPI LedgerCoTaskMemAlloc(SIZE_T size)
{
    return Note(&Account::blocks, CoTaskMemAllocHook::Call(size));
}

void WINAPI LedgerCoTaskMemFree(LPVOID block)
{
    static const auto real = Real<void WINAPI(LPVOID)>(L"ole32.dll", "CoTaskMemFree");
    Strike(&Account::blocks, block);
    real(block);
}

BSTR WINAPI LedgerSysAllocString(const OLECHAR* text)
{
    if (stringsToGive == 0)
    {
        return nullptr;
    }
    if (stringsToGive != ample)
    {
        --stringsToGive;
    }
    static const auto real = Real<BSTR WINAPI(const OLECHAR*)>(L"oleaut32.dll", "SysAllocString");
    return Note(&Account::strings, real(text));
}

BSTR WINAPI LedgerSysAllocStringLen(const OLECHAR* text, UINT length)
{
    static const auto real = Real<BSTR WINAPI(const OLECHAR*, UINT)>(L"oleaut32.dll", "SysAllocStringLen");
    return Note(&Account::strings, real(text, length));
}

void WINAPI LedgerSysFreeString(BSTR text)
{
    static const auto real = Real<void WINAPI(BSTR)>(L"oleaut32.dll", "SysFreeString");
    Strike(&Account::strings, text);
    real(text);
}

thread_local std::size_t failingSize = 0;
thread_local bool nothrowNewFailed = false;
} // namespace

// The import slots. The names are the linker's.
extern "C"
{
    decltype(&LedgerCoTaskMemAlloc) __imp_CoTaskMemAlloc = &LedgerCoTaskMemAlloc;
    decltype(&LedgerCoTaskMemFree) __imp_CoTaskMemFree = &LedgerCoTaskMemFree;
    decltype(&LedgerSysAllocString) __imp_SysAllocString = &LedgerSysAllocString;
    decltype(&LedgerSysAllocStringLen) __imp_SysAllocStringLen = &LedgerSysAllocStringLen;
    decltype(&LedgerSysFreeString) __imp_SysFreeString = &LedgerSysFreeString;
}

bool NothrowNewFails::Takes(std::size_t size) noexcept
{
    if (failingSize == 0 || size != failingSize)
    {
        return false;
    }
    failingSize = 0;
    nothrowNewFailed = true;
    return true;
}

NoStringAfter::NoStringAfter(long strings) noexcept
{
    stringsToGive = strings;
}

NoStringAfter::~NoStringAfter()
{
    stringsToGive = ample;
}

NoMemoryAfter::NoMemoryAfter(long blocks) noexcept
{
    anyRefused = false;
    blocksToGive = blocks;
}

NoMemoryAfter::~NoMemoryAfter()
{
    blocksToGive = ample;
}

bool NoMemoryAfter::Happened() noexcept
{
    return anyRefused;
}

bool NoMemoryAfter::Takes() noexcept
{
    if (blocksToGive == ample)
    {
        return false;
    }
    if (blocksToGive == 0)
    {
        anyRefused = true;
        return true;
    }
    --blocksToGive;
    return false;
}

MemoryLedger::MemoryLedger()
{
    Account& account = TheAccount();
    const std::lock_guard guard(account.mutex);
    account.thread = GetCurrentThreadId();
    account.blocks.clear();
    account.strings.clear();
}

MemoryLedger::~MemoryLedger()
{
    Account& account = TheAccount();
    const std::lock_guard guard(account.mutex);
    account.thread = 0;
}

std::size_t MemoryLedger::Blocks() const
{
    Account& account = TheAccount();
    const std::lock_guard guard(account.mutex);
    return account.blocks.size();
}

std::size_t MemoryLedger::Strings() const
{
    Account& account = TheAccount();
    const std::lock_guard guard(account.mutex);
    return account.strings.size();
}

bool MemoryLedger::Holds(const void* block) const
{
    Account& account = TheAccount();
    const std::lock_guard guard(account.mutex);
    return account.blocks.contains(block);
}

NothrowNewFails::NothrowNewFails(std::size_t size)
{
    nothrowNewFailed = false;
    failingSize = size;
}

NothrowNewFails::~NothrowNewFails()
{
    failingSize = 0;
}

bool NothrowNewFails::Happened()
{
    return nothrowNewFailed;
}
