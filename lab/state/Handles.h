// Owners of platform handles for the state library. The lab may not use the service's own wrappers.
#pragma once

#include <windows.h>

#include <utility>

namespace lab
{

class Handle
{
public:
    Handle() noexcept = default;
    explicit Handle(HANDLE handle) noexcept : m_handle(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
    Handle(Handle&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept
    {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    ~Handle()
    {
        if (m_handle != nullptr)
        {
            CloseHandle(m_handle);
        }
    }
    [[nodiscard]] HANDLE get() const noexcept { return m_handle; }
    explicit operator bool() const noexcept { return m_handle != nullptr; }

private:
    HANDLE m_handle = nullptr;
};

// What the platform handed out, given back with `Release`: Owned<SC_HANDLE, &CloseServiceHandle>.
template <class T, auto Release>
class Owned
{
public:
    Owned() noexcept = default;
    explicit Owned(T value) noexcept : m_value(value) {}
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned()
    {
        if (m_value != nullptr)
        {
            Release(m_value);
        }
    }
    [[nodiscard]] T get() const noexcept { return m_value; }
    // For a function that gives through a pointer; to be used once.
    [[nodiscard]] T* put() noexcept { return &m_value; }
    explicit operator bool() const noexcept { return m_value != nullptr; }

private:
    T m_value = nullptr;
};

// A view of a file that all who map it share. The file is made, or lengthened with zeros, to `size`.
class SharedFile
{
public:
    SharedFile() noexcept = default;
    // False when the file cannot be opened or mapped; to be called once.
    bool Open(const wchar_t* path, std::size_t size) noexcept
    {
        m_file = Handle{CreateFileW(path, GENERIC_READ | GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr)};
        if (m_file)
        {
            m_mapping = Handle{CreateFileMappingW(m_file.get(), nullptr, PAGE_READWRITE, static_cast<DWORD>(size >> 32),
                                                  static_cast<DWORD>(size & 0xFFFFFFFFU), nullptr)};
        }
        if (m_mapping)
        {
            m_view = MapViewOfFile(m_mapping.get(), FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, size);
        }
        return m_view != nullptr;
    }
    SharedFile(const SharedFile&) = delete;
    SharedFile& operator=(const SharedFile&) = delete;
    ~SharedFile()
    {
        if (m_view != nullptr)
        {
            UnmapViewOfFile(m_view);
        }
    }
    [[nodiscard]] void* view() const noexcept { return m_view; }

private:
    Handle m_file;
    Handle m_mapping;
    void* m_view = nullptr;
};

// Holds a named mutex for a scope. A holder that died counts as a hand-over; Abandoned() tells of it.
class MutexScope
{
public:
    explicit MutexScope(HANDLE mutex) noexcept
        : m_mutex(mutex), m_abandoned(WaitForSingleObject(mutex, INFINITE) == WAIT_ABANDONED)
    {
    }
    ~MutexScope() { ReleaseMutex(m_mutex); }
    MutexScope(const MutexScope&) = delete;
    MutexScope& operator=(const MutexScope&) = delete;

    [[nodiscard]] bool Abandoned() const noexcept { return m_abandoned; }

private:
    HANDLE m_mutex;
    bool m_abandoned;
};

} // namespace lab
