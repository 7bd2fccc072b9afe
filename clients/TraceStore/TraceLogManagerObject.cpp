#include "clients/TraceStore/TraceLogManagerObject.h"

#include <oleauto.h>

#include <algorithm>
#include <new>
#include <string_view>

namespace
{
constexpr ULONG MostLinesPerCall = 1000;
constexpr std::size_t MostCharactersPerCall = 1024 * 1024;
constexpr ULONG LongestWait = 60000; // milliseconds

// Runs the body of a method; running out of memory and whatever the library throws become results.
template <class Body>
HRESULT Guarded(Body&& body) noexcept
{
    try
    {
        return body();
    }
    catch (const std::bad_alloc&)
    {
        return E_OUTOFMEMORY;
    }
    catch (...)
    {
        return E_UNEXPECTED;
    }
}

BSTR MakeText(std::wstring_view text)
{
    const BSTR made = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    if (made == nullptr)
    {
        throw std::bad_alloc();
    }
    return made;
}

void FreeRecords(TraceRecord* records, ULONG count) noexcept
{
    for (ULONG index = 0; index < count; ++index)
    {
        SysFreeString(records[index].text);
    }
    CoTaskMemFree(records);
}
} // namespace

TraceLogManagerObject::TraceLogManagerObject(const TraceServices& shared) noexcept : services(shared)
{
    services.lifetime.Add();
}

TraceLogManagerObject::~TraceLogManagerObject()
{
    services.lifetime.Remove();
}

HRESULT TraceLogManagerObject::QueryInterface(REFIID iid, void** object) noexcept
{
    if (object == nullptr)
    {
        return E_POINTER;
    }
    if (iid == __uuidof(IUnknown) || iid == __uuidof(ITraceLogManager))
    {
        *object = static_cast<ITraceLogManager*>(this);
    }
    else if (iid == __uuidof(ITraceStore))
    {
        *object = static_cast<ITraceStore*>(this);
    }
    else
    {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

ULONG TraceLogManagerObject::AddRef() noexcept
{
    return ++references;
}

ULONG TraceLogManagerObject::Release() noexcept
{
    const ULONG left = --references;
    if (left == 0)
    {
        TheClientWatch().Forget(watchKey);
        delete this;
    }
    return left;
}

bool TraceLogManagerObject::TryAddRef() noexcept
{
    ULONG current = references;
    while (current != 0)
    {
        if (references.compare_exchange_weak(current, current + 1))
        {
            return true;
        }
    }
    return false;
}

void TraceLogManagerObject::DisconnectAndRelease() noexcept
{
    // The stub holds one reference for all that clients hold; this makes it let go.
    CoDisconnectObject(static_cast<ITraceLogManager*>(this), 0);
    Release();
}

void TraceLogManagerObject::NoteCaller() noexcept
{
    if (callerNoted.load(std::memory_order_relaxed) || callerNoted.exchange(true))
    {
        return;
    }
    try
    {
        const DWORD process = ClientWatch::CallingProcess();
        if (process != 0)
        {
            watchKey = TheClientWatch().Watch(process, this);
        }
    }
    catch (...)
    {
        // Out of memory: the object is then freed by COM's own housekeeping if the client dies.
    }
}

HRESULT TraceLogManagerObject::GetGlobalLevel(unsigned short* level) noexcept
{
    NoteCaller();
    if (level == nullptr)
    {
        return E_POINTER;
    }
    *level = services.levels.Global();
    return S_OK;
}

HRESULT TraceLogManagerObject::GetSourceLevel(unsigned short source, unsigned short* level) noexcept
{
    NoteCaller();
    if (level == nullptr)
    {
        return E_POINTER;
    }
    *level = 0;
    return services.levels.Source(source, *level);
}

HRESULT TraceLogManagerObject::WriteLine(unsigned short source, unsigned short level, BSTR text) noexcept
{
    NoteCaller();
    return Guarded(
        [&]
        {
            services.store.Append(source, level, std::wstring_view(text != nullptr ? text : L"", SysStringLen(text)));
            return S_OK;
        });
}

HRESULT TraceLogManagerObject::SetGlobalLevel(unsigned short level) noexcept
{
    NoteCaller();
    return services.levels.SetGlobal(level);
}

HRESULT TraceLogManagerObject::SetSourceLevel(unsigned short source, unsigned short level) noexcept
{
    NoteCaller();
    return services.levels.SetSource(source, level);
}

HRESULT TraceLogManagerObject::ReadLines(hyper after, unsigned short source, unsigned short level, ULONG maximum,
                                         ULONG waitMilliseconds, hyper* next, ULONG* count,
                                         TraceRecord** records) noexcept
{
    NoteCaller();
    if (next == nullptr || count == nullptr || records == nullptr)
    {
        return E_POINTER;
    }
    *next = after;
    *count = 0;
    *records = nullptr;
    return Guarded(
        [&]
        {
            std::int64_t goOn = after;
            std::vector<TraceFile::NumberedLine> lines =
                services.store.Read(after, source, level, std::min(maximum, MostLinesPerCall),
                                    std::min(waitMilliseconds, LongestWait), goOn);
            // Very long lines are handed out in smaller portions.
            std::size_t characters = 0;
            for (std::size_t index = 0; index < lines.size(); ++index)
            {
                characters += lines[index].line.text.size();
                if (characters > MostCharactersPerCall && index != 0)
                {
                    lines.resize(index);
                    goOn = lines.back().number;
                    break;
                }
            }
            if (!lines.empty())
            {
                auto* const made = static_cast<TraceRecord*>(CoTaskMemAlloc(lines.size() * sizeof(TraceRecord)));
                if (made == nullptr)
                {
                    return E_OUTOFMEMORY;
                }
                ULONG filled = 0;
                try
                {
                    for (const TraceFile::NumberedLine& line : lines)
                    {
                        made[filled] = {line.number, line.line.source, line.line.level, MakeText(line.line.text)};
                        ++filled;
                    }
                }
                catch (...)
                {
                    FreeRecords(made, filled);
                    throw;
                }
                *records = made;
                *count = filled;
            }
            *next = goOn;
            return S_OK;
        });
}

HRESULT TraceLogManagerObject::FindTail(unsigned short source, unsigned short level, ULONG lines, hyper* after) noexcept
{
    NoteCaller();
    if (after == nullptr)
    {
        return E_POINTER;
    }
    *after = 0;
    return Guarded(
        [&]
        {
            *after = services.store.FindTail(source, level, lines);
            return S_OK;
        });
}

HRESULT TraceLogManagerObject::GetStatistics(TraceStatistics* statistics) noexcept
{
    NoteCaller();
    if (statistics == nullptr)
    {
        return E_POINTER;
    }
    *statistics = {};
    return Guarded(
        [&]
        {
            const TraceFile::StoreStatistics held = services.store.Statistics();
            statistics->firstNumber = held.firstNumber;
            statistics->lastNumber = held.lastNumber;
            statistics->linesWritten = static_cast<hyper>(held.linesWritten);
            statistics->linesLost = static_cast<hyper>(held.linesLost);
            for (const TraceFile::NumberedFile& file : TraceFile::ListFiles(services.store.Folder()))
            {
                statistics->bytesInFiles += static_cast<hyper>(file.bytes);
                ++statistics->fileCount;
            }
            statistics->clientProcesses = TheClientWatch().ProcessCount();
            statistics->folder = MakeText(services.store.Folder().wstring());
            return S_OK;
        });
}

HRESULT TraceLogManagerObject::Flush() noexcept
{
    NoteCaller();
    return Guarded(
        [&]
        {
            services.store.Flush();
            return S_OK;
        });
}

HRESULT TraceLogManagerFactory::QueryInterface(REFIID iid, void** object) noexcept
{
    if (object == nullptr)
    {
        return E_POINTER;
    }
    if (iid == __uuidof(IUnknown) || iid == __uuidof(IClassFactory))
    {
        *object = static_cast<IClassFactory*>(this);
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

HRESULT TraceLogManagerFactory::CreateInstance(IUnknown* outer, REFIID iid, void** object) noexcept
{
    if (object == nullptr)
    {
        return E_POINTER;
    }
    *object = nullptr;
    if (outer != nullptr)
    {
        return CLASS_E_NOAGGREGATION;
    }
    auto* const made = new (std::nothrow) TraceLogManagerObject(services);
    if (made == nullptr)
    {
        return E_OUTOFMEMORY;
    }
    const HRESULT result = made->QueryInterface(iid, object);
    made->Release();
    return result;
}

HRESULT TraceLogManagerFactory::LockServer(BOOL lock) noexcept
{
    lock ? services.lifetime.Add() : services.lifetime.Remove();
    return S_OK;
}
