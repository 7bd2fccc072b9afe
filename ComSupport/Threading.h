#pragma once
// Object models of the COM layer: how an object counts its references and guards itself.

#include <windows.h>

#if defined(__clang__)
#define COMSUPPORT_LOCK_ANNOTATION(x) __attribute__((x))
#else
#define COMSUPPORT_LOCK_ANNOTATION(x)
#endif

// A critical section that lives and dies with its owner.
class COMSUPPORT_LOCK_ANNOTATION(capability("mutex")) CComAutoCriticalSection
{
public:
    CComAutoCriticalSection() noexcept { ::InitializeCriticalSection(&m_section); }
    ~CComAutoCriticalSection() { ::DeleteCriticalSection(&m_section); }
    CComAutoCriticalSection(const CComAutoCriticalSection&) = delete;
    CComAutoCriticalSection& operator=(const CComAutoCriticalSection&) = delete;

    void Lock() noexcept COMSUPPORT_LOCK_ANNOTATION(acquire_capability()) { ::EnterCriticalSection(&m_section); }
    void Unlock() noexcept COMSUPPORT_LOCK_ANNOTATION(release_capability()) { ::LeaveCriticalSection(&m_section); }

private:
    CRITICAL_SECTION m_section;
};

// The lock of an object that needs none.
class COMSUPPORT_LOCK_ANNOTATION(capability("mutex")) CComFakeCriticalSection
{
public:
    void Lock() noexcept COMSUPPORT_LOCK_ANNOTATION(acquire_capability()) {}
    void Unlock() noexcept COMSUPPORT_LOCK_ANNOTATION(release_capability()) {}
};

// Holds any of the two for a scope.
template <class Section>
class COMSUPPORT_LOCK_ANNOTATION(scoped_lockable) CComCritSecLock
{
public:
    explicit CComCritSecLock(Section& section) noexcept COMSUPPORT_LOCK_ANNOTATION(acquire_capability(section))
        : m_section(section)
    {
        m_section.Lock();
    }
    ~CComCritSecLock() COMSUPPORT_LOCK_ANNOTATION(release_capability()) { m_section.Unlock(); }
    CComCritSecLock(const CComCritSecLock&) = delete;
    CComCritSecLock& operator=(const CComCritSecLock&) = delete;

private:
    Section& m_section;
};

// Multithreaded object model: the count is atomic, the object has a critical section.
class CComMultiThreadModel
{
public:
    using AutoCriticalSection = CComAutoCriticalSection;
    static ULONG Increment(LONG* value) noexcept { return static_cast<ULONG>(::InterlockedIncrement(value)); }
    static ULONG Decrement(LONG* value) noexcept { return static_cast<ULONG>(::InterlockedDecrement(value)); }
};

// Single-threaded object model: the count is a plain number and there is no lock. The model is a promise of the
// clients, not of COM: the process has one multithreaded apartment, so a client must not share such an object between
// threads.
class CComSingleThreadModel
{
public:
    using AutoCriticalSection = CComFakeCriticalSection;
    static ULONG Increment(LONG* value) noexcept { return static_cast<ULONG>(++*value); }
    static ULONG Decrement(LONG* value) noexcept { return static_cast<ULONG>(--*value); }
};
