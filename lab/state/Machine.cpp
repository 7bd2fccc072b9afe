#include "lab/state/Machine.h"

#include "lab/state/MachineImpl.h"
#include "lab/state/Text.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace lab
{

namespace
{

constexpr wchar_t defaultFolder[] = L"C:\\ProgramData\\HalcydLab";

std::filesystem::path FolderOfProcess()
{
    wchar_t text[MAX_PATH];
    const DWORD length = GetEnvironmentVariableW(L"HALCYD_LAB", text, MAX_PATH);
    return length > 0 && length < MAX_PATH ? text : defaultFolder;
}

// Names of kernel objects may not hold backslashes, and two spellings of one folder must agree.
std::wstring PrefixFor(const std::filesystem::path& folder)
{
    std::uint64_t hash = 14695981039346656037U;
    for (const char c : Lower(Utf8(folder.wstring())))
    {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
    }
    wchar_t text[64];
    swprintf(text, 64, L"Global\\HalcydLab-%016llx-", static_cast<unsigned long long>(hash));
    return text;
}

Handle OpenShared(const std::filesystem::path& path, DWORD access, DWORD disposition)
{
    return Handle{CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              disposition, FILE_ATTRIBUTE_NORMAL, nullptr)};
}

} // namespace

void Fail(const std::string& what)
{
    throw std::runtime_error("lab: " + what + " (error " + std::to_string(GetLastError()) + ")");
}

std::uint64_t Now() noexcept
{
    FILETIME time;
    GetSystemTimePreciseAsFileTime(&time);
    return static_cast<std::uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

std::string ReadRange(const std::filesystem::path& path, std::uint64_t from, std::uint64_t to)
{
    std::string text;
    const Handle file = OpenShared(path, GENERIC_READ, OPEN_EXISTING);
    if (!file || to <= from)
    {
        return text;
    }
    LARGE_INTEGER position;
    position.QuadPart = static_cast<LONGLONG>(from);
    SetFilePointerEx(file.get(), position, nullptr, FILE_BEGIN);
    text.resize(static_cast<std::size_t>(to - from));
    std::size_t done = 0;
    DWORD count = 0;
    while (done < text.size() &&
           ReadFile(file.get(), text.data() + done, static_cast<DWORD>(text.size() - done), &count, nullptr) &&
           count != 0)
    {
        done += count;
    }
    text.resize(done);
    return text;
}

std::string ReadRing(const std::filesystem::path& path, std::uint64_t room, std::uint64_t from, std::uint64_t to)
{
    const std::uint64_t first = from % room;
    const std::uint64_t length = to - from;
    if (first + length <= room)
    {
        return ReadRange(path, first, first + length);
    }
    return ReadRange(path, first, room) + ReadRange(path, 0, length - (room - first));
}

namespace
{

// NtWriteFile. WriteFile takes a place in the file only along with an OVERLAPPED, whose address it hands on as the key
// of a completion port's message; Wine then asks its server at each write whether the file has such a port. A journal
// line costs several times as much with that, and asking every time would be most of what the lab takes of a call.
bool WriteAt(HANDLE file, std::uint64_t place, const char* bytes, ULONG length) noexcept
{
    struct StatusBlock
    {
        std::uintptr_t status;
        std::uintptr_t information;
    };
    using Function =
        LONG(NTAPI*)(HANDLE, HANDLE, void*, void*, StatusBlock*, const void*, ULONG, LARGE_INTEGER*, ULONG*);
    static const auto write = reinterpret_cast<Function>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtWriteFile")));
    StatusBlock done{};
    LARGE_INTEGER position{};
    position.QuadPart = static_cast<LONGLONG>(place);
    return write(file, nullptr, nullptr, nullptr, &done, bytes, length, &position, nullptr) == 0 &&
           done.information == length;
}

} // namespace

bool WriteRing(HANDLE file, std::uint64_t room, std::uint64_t place, std::string_view text) noexcept
{
    while (!text.empty())
    {
        const std::uint64_t start = place % room;
        const auto length = static_cast<ULONG>(std::min<std::uint64_t>(text.size(), room - start));
        if (!WriteAt(file, start, text.data(), length))
        {
            return false;
        }
        text.remove_prefix(length);
        place += length;
    }
    return true;
}

Machine::Impl::Impl(const std::filesystem::path& folderPath) : folder(folderPath), objectPrefix(PrefixFor(folderPath))
{
    isDefault = EqualNoCase(Utf8(folder.wstring()), Utf8(defaultFolder));
    std::error_code ignored;
    std::filesystem::create_directories(folder, ignored);
    mutex = Handle{CreateMutexW(nullptr, FALSE, (objectPrefix + L"lock").c_str())};
    if (!mutex)
    {
        Fail("cannot make the machine's lock");
    }
    const MutexScope lock{mutex.get()};
    journalFile = OpenShared(folder / L"journal.jsonl", GENERIC_WRITE, OPEN_ALWAYS);
    if (!sharedFile.Open((folder / L"shared.bin").c_str(), sizeof(SharedBlock)) ||
        !tableFile.Open((folder / LAB_DRIVER_TABLE_FILE).c_str(), sizeof(LabDriverTable)) || !journalFile)
    {
        Fail("cannot open the machine's files in " + Utf8(folder.wstring()));
    }
    shared = static_cast<SharedBlock*>(sharedFile.view());
    table = static_cast<LabDriverTable*>(tableFile.view());
    if (shared->magic != sharedMagic || shared->layout != sharedLayout)
    {
        std::memset(static_cast<void*>(shared), 0, sizeof *shared);
        shared->layout = sharedLayout;
        shared->magic = sharedMagic;
        shared->version = 1;
        shared->journalEnd = 0;
    }
    if (table->magic != LAB_DRIVER_MAGIC || table->layout != LAB_DRIVER_LAYOUT)
    {
        std::memset(table, 0, sizeof *table);
        table->layout = LAB_DRIVER_LAYOUT;
        table->journalOn = 1;
        table->magic = LAB_DRIVER_MAGIC;
    }
    if (lock.Abandoned())
    {
        Recover();
    }
}

void Machine::Impl::Recover() noexcept
{
    // The dead holder may have replaced the state without telling: a new version makes everybody read it again. And the
    // driver waits while the table's sequence is odd; its content is written afresh at the next change.
    shared->version.fetch_add(1);
    if (table->sequence % 2 != 0)
    {
        table->sequence = table->sequence + 1;
    }
}

std::shared_ptr<const Json> Machine::Impl::Load(std::uint64_t& version)
{
    const Lock lock{*this};
    version = shared->version.load();
    const std::filesystem::path path = folder / L"state.json";
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error)
    {
        return std::make_shared<const Json>(Json::object());
    }
    return std::make_shared<const Json>(Json::parse(ReadRange(path, 0, size)));
}

void Machine::Impl::WriteState(const Json& state)
{
    const std::string text = state.dump(1) + "\n";
    const std::filesystem::path fresh = folder / L"state.json.new";
    {
        const Handle file = OpenShared(fresh, GENERIC_WRITE, CREATE_ALWAYS);
        DWORD written = 0;
        if (!file || !WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
            written != text.size())
        {
            Fail("cannot write the state");
        }
    }
    if (!MoveFileExW(fresh.c_str(), (folder / L"state.json").c_str(), MOVEFILE_REPLACE_EXISTING))
    {
        Fail("cannot replace the state");
    }
}

Machine& Machine::Attach()
{
    // Never destroyed: calls may still come in while the process takes its modules down.
    static Machine* const machine = new Machine{FolderOfProcess()};
    return *machine;
}

Machine::Machine(const std::filesystem::path& folder) : m_impl(std::make_unique<Impl>(folder)) {}
Machine::~Machine() = default;

const std::filesystem::path& Machine::Folder() const noexcept
{
    return m_impl->folder;
}

std::uint64_t Machine::Version() const noexcept
{
    return m_impl->shared->version.load(std::memory_order_acquire);
}

std::shared_ptr<const Json> Machine::Snapshot()
{
    const std::scoped_lock lock{m_impl->cacheMutex};
    if (m_impl->cached == nullptr || m_impl->cachedVersion != Version())
    {
        m_impl->cached = m_impl->Load(m_impl->cachedVersion);
    }
    return m_impl->cached;
}

std::uint64_t Machine::Update(const std::function<void(Json&, Events&)>& change)
{
    Impl& impl = *m_impl;
    const std::scoped_lock cacheLock{impl.cacheMutex};
    bool devicesChanged = false;
    {
        const Impl::Lock lock{impl};
        if (impl.cached == nullptr || impl.cachedVersion != Version())
        {
            impl.cached = impl.Load(impl.cachedVersion); // the platform's mutex may be taken again by its owner
        }
        auto state = std::make_shared<Json>(*impl.cached);
        Events events;
        change(*state, events);
        impl.WriteState(*state);
        // From here on the change holds, also if this process dies before the next line: see Recover.
        impl.cachedVersion = impl.shared->version.fetch_add(1) + 1;
        impl.cached = std::move(state);
        devicesChanged = PublishDriverTable(*impl.table, *impl.cached);
        impl.AppendEvents(events);
    }
    if (devicesChanged && impl.isDefault)
    {
        SyncDriver();
    }
    impl.WakeListeners();
    return impl.cachedVersion;
}

} // namespace lab
