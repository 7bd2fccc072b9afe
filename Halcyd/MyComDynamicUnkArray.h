#pragma once

#include <windows.h>
#include <comdef.h>

#include <array>

#include "ComSupport/ConnectionPoint.h"

_COM_SMARTPTR_TYPEDEF(IUnknown, __uuidof(IUnknown));
_COM_SMARTPTR_TYPEDEF(IDispatch, __uuidof(IDispatch));
_COM_SMARTPTR_TYPEDEF(IGlobalInterfaceTable, __uuidof(IGlobalInterfaceTable));

// The connection list of the event connection point. A slot number, counted from 1, is the cookie that a client gets.
//
// Events are fired on other threads than the one that connected a sink, so besides the pointer in its slot (bookkeeping
// only) each sink has an entry in the process's Global Interface Table, and GetAt fetches from there a pointer that is
// good on the calling thread.
//
// Not locked: the owner holds its critical section around every call. What is left at the end is released here.
class MyComDynamicUnkArray
{
public:
    // Sinks that can be served. One more than these gets a slot and no events.
    static constexpr int MaximumSinks = 260;

    MyComDynamicUnkArray();
    ~MyComDynamicUnkArray();
    MyComDynamicUnkArray(const MyComDynamicUnkArray&) = delete;
    MyComDynamicUnkArray& operator=(const MyComDynamicUnkArray&) = delete;

    // Puts the sink in the first free slot; 4 slots at first, twice as many when they are full. Returns the cookie, 0
    // if there was no room: `sink` then still holds the reference. A sink that the Global Interface Table does not take
    // keeps its slot and gets no events.
    DWORD Add(CComUniqueUnknown&& sink) noexcept;
    // Frees the slot and hands the reference back. Null if the cookie is 0, beyond the slots, or names a free one.
    [[nodiscard]] CComUniqueUnknown Remove(DWORD cookie) noexcept;
    // The sink of a cookie, without a reference of its own; null as for Remove.
    [[nodiscard]] IUnknown* GetUnknown(DWORD cookie) const noexcept { return slots.GetUnknown(cookie); }

    // The sink at `index` (from 0) for use on this thread. Null for a free slot, and when the Global Interface Table
    // has nothing or fails.
    [[nodiscard]] IUnknownPtr GetAt(int index) const;
    [[nodiscard]] int GetSize() const noexcept { return slots.GetSize(); }

private:
    void RegisterSink(IUnknown* sink, int index) noexcept;
    void RevokeSink(int index) noexcept;

    CComDynamicUnkArray slots;
    IGlobalInterfaceTablePtr interfaceTable;
    std::array<DWORD, MaximumSinks> tableCookies{}; // by slot number less one; 0 for none
};
