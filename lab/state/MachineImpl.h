// Inside of lab::Machine, shared by the files that implement it.
#pragma once

#include "lab/state/DriverTable.h"
#include "lab/state/Handles.h"
#include "lab/state/Machine.h"
#include "lab/state/SharedBlock.h"

#include <mutex>

namespace lab
{

struct Machine::Impl
{
    explicit Impl(const std::filesystem::path& folder);

    std::filesystem::path folder;
    std::wstring objectPrefix; // of the named kernel objects: one set per folder
    Handle mutex;              // guards state.json, events.jsonl, rules and listeners against other writers
    SharedFile sharedFile;
    SharedBlock* shared = nullptr;
    SharedFile tableFile;
    LabDriverTable* table = nullptr;
    Handle journalFile;
    bool isDefault = false; // the folder that the kernel driver looks at

    std::mutex cacheMutex;
    std::shared_ptr<const Json> cached; // guarded by cacheMutex
    std::uint64_t cachedVersion = 0;    // guarded by cacheMutex

    // Holds the machine's mutex. If its last holder died in a change, what it may have left undone is made good.
    class Lock
    {
    public:
        explicit Lock(Impl& impl) noexcept : m_scope(impl.mutex.get())
        {
            if (m_scope.Abandoned())
            {
                impl.Recover();
            }
        }

    private:
        MutexScope m_scope;
    };

    void Recover() noexcept;                                  // mutex held
    std::shared_ptr<const Json> Load(std::uint64_t& version); // takes the mutex
    void AppendEvents(Events& events);                        // mutex held
    void WakeListeners() noexcept;
    void WriteState(const Json& state); // mutex held
    std::wstring ListenerName(std::size_t number) const;
    void AddDriverFault(const FaultRule& rule); // mutex held
};

// The whole file as bytes from `from` to `to`, with every sharing right given.
std::string ReadRange(const std::filesystem::path& path, std::uint64_t from, std::uint64_t to);
// The same of a file whose places wrap at `room`; `to - from` may not exceed that.
std::string ReadRing(const std::filesystem::path& path, std::uint64_t room, std::uint64_t from, std::uint64_t to);
// False if not all of the text could be written. The text may not be longer than `room`.
bool WriteRing(HANDLE file, std::uint64_t room, std::uint64_t place, std::string_view text) noexcept;
[[noreturn]] void Fail(const std::string& what);

// Writes the driver's table from the state; true if a device came, went, or changed in a way that the driver must hear
// of.
bool PublishDriverTable(LabDriverTable& table, const Json& state);
// Asks the driver to bring its devices in line, if there is a driver.
void SyncDriver() noexcept;

} // namespace lab
