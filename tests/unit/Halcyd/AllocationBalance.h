#pragma once
// Counts what a call leaves behind: blocks of COM's task allocator (with strings, arrays and variants) and of operator
// new.

#include <cstddef>
#include <functional>

// What the calling thread allocated while a measurement ran, and nobody, on whatever thread, has freed since.
struct LiveBlocks
{
    long task = 0; // CoTaskMemAlloc, SysAllocString, SafeArrayCreate, ...
    long heap = 0; // operator new
};

// Runs `call` a few times unmeasured, so that what is made once is made, and then `rounds` times. Gives the blocks that
// these rounds left, after all trace lines have been delivered. The first use in a process registers the spy for good.
[[nodiscard]] LiveBlocks BlocksLeftBy(const std::function<void()>& call, int rounds);

// While it lives, this thread gets no block of exactly this size from the new that does not throw.
class NoRoomFor
{
public:
    explicit NoRoomFor(std::size_t size) noexcept;
    ~NoRoomFor();
    NoRoomFor(const NoRoomFor&) = delete;
    NoRoomFor& operator=(const NoRoomFor&) = delete;
};

// From construction to destruction this thread gets `blocks` blocks of operator new, and then none. One at a time.
class NoMemoryAfter
{
public:
    explicit NoMemoryAfter(long blocks) noexcept;
    ~NoMemoryAfter();
    NoMemoryAfter(const NoMemoryAfter&) = delete;
    NoMemoryAfter& operator=(const NoMemoryAfter&) = delete;
    // Whether a block was asked for in vain since the last construction.
    [[nodiscard]] static bool Happened() noexcept;
};

// While it lives, the shortage does not concern this thread: for the books that a test keeps about the code under test.
class AmpleMemory
{
public:
    AmpleMemory() noexcept;
    ~AmpleMemory();
    AmpleMemory(const AmpleMemory&) = delete;
    AmpleMemory& operator=(const AmpleMemory&) = delete;

private:
    long blocksLeft;
};
