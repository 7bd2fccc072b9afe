#include "tests/unit/Halcyd/AllocationBalance.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <objidl.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>
#include <set>

#include "tests/unit/Halcyd/MemoryLedger.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
thread_local bool measuring = false;
thread_local std::size_t refusedSize = 0;
std::atomic<long> liveHeapBlocks{0};

// In front of each block of operator new. As large as the strictest alignment that plain new has to give.
struct alignas(__STDCPP_DEFAULT_NEW_ALIGNMENT__) BlockHeader
{
    bool counted;
};

void* Allocate(std::size_t size) noexcept
{
    if (NoMemoryAfter::Takes())
    {
        return nullptr;
    }
    auto* const header = static_cast<BlockHeader*>(std::malloc(sizeof(BlockHeader) + size));
    if (header == nullptr)
    {
        return nullptr;
    }
    header->counted = measuring;
    if (header->counted)
    {
        liveHeapBlocks.fetch_add(1, std::memory_order_relaxed);
    }
    return header + 1;
}

void Free(void* block) noexcept
{
    if (block == nullptr)
    {
        return;
    }
    BlockHeader* const header = static_cast<BlockHeader*>(block) - 1;
    if (header->counted)
    {
        liveHeapBlocks.fetch_sub(1, std::memory_order_relaxed);
    }
    std::free(header);
}

// Keeps the addresses of the measuring thread's task blocks. Its own containers must not be measured.
class Spy final : public IMallocSpy
{
public:
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        const bool known = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IMallocSpy);
        *object = known ? this : nullptr;
        return known ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }

    STDMETHODIMP_(SIZE_T) PreAlloc(SIZE_T size) override { return size; }
    STDMETHODIMP_(void*) PostAlloc(void* block) override
    {
        if (measuring && block != nullptr)
        {
            Change([&] { blocks.insert(block); });
        }
        return block;
    }
    STDMETHODIMP_(void*) PreFree(void* block, BOOL) override
    {
        Change([&] { blocks.erase(block); });
        return block;
    }
    STDMETHODIMP_(void) PostFree(BOOL) override {}
    STDMETHODIMP_(SIZE_T) PreRealloc(void* block, SIZE_T size, void** changed, BOOL) override
    {
        *changed = block;
        Change([&] { blocks.erase(block); });
        return size;
    }
    STDMETHODIMP_(void*) PostRealloc(void* block, BOOL) override { return PostAlloc(block); }
    STDMETHODIMP_(void*) PreGetSize(void* block, BOOL) override { return block; }
    STDMETHODIMP_(SIZE_T) PostGetSize(SIZE_T size, BOOL) override { return size; }
    STDMETHODIMP_(void*) PreDidAlloc(void* block, BOOL) override { return block; }
    STDMETHODIMP_(int) PostDidAlloc(void*, BOOL, int result) override { return result; }
    STDMETHODIMP_(void) PreHeapMinimize() override {}
    STDMETHODIMP_(void) PostHeapMinimize() override {}

    long Live()
    {
        const std::lock_guard guard(lock);
        return static_cast<long>(blocks.size());
    }

private:
    template <class Action>
    void Change(const Action& action)
    {
        const bool before = std::exchange(measuring, false);
        {
            const std::lock_guard guard(lock);
            action();
        }
        measuring = before;
    }

    std::mutex lock;
    std::set<void*> blocks;
};

Spy& TheSpy()
{
    static Spy& spy = *[]
    {
        auto* const made = new Spy; // for good: blocks that it has seen may outlive every test
        EXPECT_EQ(CoRegisterMallocSpy(made), S_OK);
        return made;
    }();
    return spy;
}

void Run(const std::function<void()>& call, int rounds)
{
    for (int round = 0; round < rounds; ++round)
    {
        measuring = true;
        call();
        measuring = false;
        TraceLines::Clear(); // lines on their way hold blocks
    }
}
} // namespace

void* operator new(std::size_t size)
{
    if (void* const block = Allocate(size))
    {
        return block;
    }
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return (size != 0 && size == refusedSize) || NothrowNewFails::Takes(size) ? nullptr : Allocate(size);
}
void* operator new[](std::size_t size)
{
    return operator new(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& nothrow) noexcept
{
    return operator new(size, nothrow);
}
void operator delete(void* block) noexcept
{
    Free(block);
}
void operator delete[](void* block) noexcept
{
    Free(block);
}
void operator delete(void* block, std::size_t) noexcept
{
    Free(block);
}
void operator delete[](void* block, std::size_t) noexcept
{
    Free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept
{
    Free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept
{
    Free(block);
}

LiveBlocks BlocksLeftBy(const std::function<void()>& call, int rounds)
{
    constexpr int unmeasured = 3;
    Spy& spy = TheSpy();
    Run(call, unmeasured);
    const LiveBlocks before{spy.Live(), liveHeapBlocks.load()};
    Run(call, rounds);
    return {spy.Live() - before.task, liveHeapBlocks.load() - before.heap};
}

NoRoomFor::NoRoomFor(std::size_t size) noexcept
{
    refusedSize = size;
}

NoRoomFor::~NoRoomFor()
{
    refusedSize = 0;
}
