#include "lab/netcfg/WriteLock.h"

#include "lab/state/Machine.h"
#include "lab/state/Text.h"

#include <mutex>

namespace lab::netcfg
{

namespace
{

constexpr DWORD pollMilliseconds = 10;

std::wstring LockPath()
{
    return (Machine::Attach().Folder() / L"netcfg.lock").wstring();
}

// Invalid if somebody has the lock.
Handle OpenAsHolder()
{
    return Handle{CreateFileW(LockPath().c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr)};
}

std::wstring ReadName()
{
    const Handle file{CreateFileW(LockPath().c_str(), GENERIC_READ,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                  FILE_ATTRIBUTE_NORMAL, nullptr)};
    char text[512];
    DWORD count = 0;
    if (!file || !ReadFile(file.get(), text, sizeof text, &count, nullptr))
    {
        return {};
    }
    return Wide(std::string_view{text, count});
}

} // namespace

struct WriteLock::Shared
{
    mutable std::mutex mutex;
    Handle file;             // open while the lock is held
    HANDLE thread = nullptr; // the one that took it
    HANDLE wait = nullptr;
    std::unique_ptr<std::weak_ptr<Shared>> context; // of the wait
};

WriteLock::WriteLock() : m_shared(std::make_shared<Shared>()) {}

WriteLock::~WriteLock()
{
    Release();
}

void CALLBACK WriteLock::OnThreadEnd(void* context, BOOLEAN)
{
    const auto shared = static_cast<std::weak_ptr<Shared>*>(context)->lock();
    if (shared != nullptr)
    {
        const std::scoped_lock lock{shared->mutex};
        shared->file = Handle{};
    }
}

bool WriteLock::Acquire(const std::wstring& name, DWORD milliseconds)
{
    const ULONGLONG end = GetTickCount64() + milliseconds;
    Handle file = OpenAsHolder();
    while (!file && GetTickCount64() < end)
    {
        Sleep(pollMilliseconds);
        file = OpenAsHolder();
    }
    if (!file)
    {
        return false;
    }
    const std::string text = Utf8(name);
    DWORD written = 0;
    SetEndOfFile(file.get());
    WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);

    ForgetThread();
    const std::scoped_lock lock{m_shared->mutex};
    m_shared->file = std::move(file);
    DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &m_shared->thread, SYNCHRONIZE, FALSE,
                    0);
    m_shared->context = std::make_unique<std::weak_ptr<Shared>>(m_shared);
    RegisterWaitForSingleObject(&m_shared->wait, m_shared->thread, OnThreadEnd, m_shared->context.get(), INFINITE,
                                WT_EXECUTEONLYONCE);
    return true;
}

// Must not be called with the mutex held: the wait is taken back only when a running callback has returned.
void WriteLock::ForgetThread()
{
    HANDLE wait = nullptr;
    HANDLE thread = nullptr;
    std::unique_ptr<std::weak_ptr<Shared>> context;
    {
        const std::scoped_lock lock{m_shared->mutex};
        std::swap(wait, m_shared->wait);
        std::swap(thread, m_shared->thread);
        std::swap(context, m_shared->context);
    }
    if (wait != nullptr)
    {
        UnregisterWaitEx(wait, INVALID_HANDLE_VALUE);
    }
    if (thread != nullptr)
    {
        CloseHandle(thread);
    }
}

void WriteLock::Release()
{
    ForgetThread();
    const std::scoped_lock lock{m_shared->mutex};
    m_shared->file = Handle{};
}

bool WriteLock::IsMine() const
{
    const std::scoped_lock lock{m_shared->mutex};
    return static_cast<bool>(m_shared->file);
}

std::optional<std::wstring> WriteLock::Holder()
{
    // Shuts writers out for a moment; that it cannot while one is there is the answer.
    const Handle probe{CreateFileW(LockPath().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                   FILE_ATTRIBUTE_NORMAL, nullptr)};
    if (probe || GetLastError() != ERROR_SHARING_VIOLATION)
    {
        return std::nullopt;
    }
    return ReadName();
}

} // namespace lab::netcfg
