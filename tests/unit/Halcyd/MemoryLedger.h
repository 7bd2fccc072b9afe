#pragma once
// Which task memory and which strings the code under test holds, and the shortage of either: the import slots of the
// allocation functions are this program's own.
//
// Strings that automation makes or frees for itself (inside VariantCopy, VariantClear, SafeArray functions) do not pass
// here; tests that count keep to code that allocates and frees directly.

#include "tests/unit/Halcyd/PlatformHooks.h"

#include <oleauto.h>

#include <cstddef>

// clang-format off
PLATFORM_HOOK(CoTaskMemAlloc, L"ole32.dll", LPVOID(SIZE_T))
// clang-format on

// Counts what its own thread makes from construction on, whoever frees it; one at a time. The trace's thread, which
// makes strings of its own, does not count.
class MemoryLedger
{
public:
    MemoryLedger();
    ~MemoryLedger();
    MemoryLedger(const MemoryLedger&) = delete;
    MemoryLedger& operator=(const MemoryLedger&) = delete;

    // Made since construction and not freed yet.
    [[nodiscard]] std::size_t Blocks() const;
    [[nodiscard]] std::size_t Strings() const;
    // Whether this block was made since construction and is still there.
    [[nodiscard]] bool Holds(const void* block) const;
};

// From construction to destruction the first operator new (std::nothrow) on this thread that asks for `size` bytes
// gives null.
class NothrowNewFails
{
public:
    explicit NothrowNewFails(std::size_t size);
    ~NothrowNewFails();
    NothrowNewFails(const NothrowNewFails&) = delete;
    NothrowNewFails& operator=(const NothrowNewFails&) = delete;
    // Whether the call has come.
    [[nodiscard]] static bool Happened();
    // Asked by the program's operator new (AllocationBalance.cpp): whether this call is the one to fail.
    [[nodiscard]] static bool Takes(std::size_t size) noexcept;
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
    // Asked by the program's operator new (AllocationBalance.cpp): whether this call is to fail.
    [[nodiscard]] static bool Takes() noexcept;
};

// From construction to destruction SysAllocString gives this thread `strings` strings, and then null. One at a time.
class NoStringAfter
{
public:
    explicit NoStringAfter(long strings) noexcept;
    ~NoStringAfter();
    NoStringAfter(const NoStringAfter&) = delete;
    NoStringAfter& operator=(const NoStringAfter&) = delete;
};
