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
