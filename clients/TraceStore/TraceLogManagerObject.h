#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>

#include "TraceLogManager_h.h"
#include "clients/TraceStore/ClientWatch.h"
#include "clients/TraceStore/LineStore.h"
#include "clients/TraceStore/ServerLifetime.h"
#include "clients/TraceStore/TraceLevels.h"

// What all objects of the process share. Made by the main thread before the class object is registered; outlives all
// objects.
struct TraceServices
{
    TraceFile::LineStore& store;
    TraceLevels& levels;
    ServerLifetime& lifetime;
};

// The object that a client gets: one per activation, all in front of the same store. Called from COM's threads, any
// number at once. Freed by its last Release, or when its client's process ends.
class TraceLogManagerObject final : public ITraceLogManager, public ITraceStore, private IWatchedObject
{
public:
    // Starts with one reference, the caller's.
    explicit TraceLogManagerObject(const TraceServices& shared) noexcept;
    TraceLogManagerObject(const TraceLogManagerObject&) = delete;
    TraceLogManagerObject& operator=(const TraceLogManagerObject&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) noexcept override;
    ULONG STDMETHODCALLTYPE AddRef() noexcept override;
    ULONG STDMETHODCALLTYPE Release() noexcept override;

    HRESULT STDMETHODCALLTYPE GetGlobalLevel(unsigned short* level) noexcept override;
    HRESULT STDMETHODCALLTYPE GetSourceLevel(unsigned short source, unsigned short* level) noexcept override;
    HRESULT STDMETHODCALLTYPE WriteLine(unsigned short source, unsigned short level, BSTR text) noexcept override;

    HRESULT STDMETHODCALLTYPE SetGlobalLevel(unsigned short level) noexcept override;
    HRESULT STDMETHODCALLTYPE SetSourceLevel(unsigned short source, unsigned short level) noexcept override;
    HRESULT STDMETHODCALLTYPE ReadLines(hyper after, unsigned short source, unsigned short level, ULONG maximum,
                                        ULONG waitMilliseconds, hyper* next, ULONG* count,
                                        TraceRecord** records) noexcept override;
    HRESULT STDMETHODCALLTYPE FindTail(unsigned short source, unsigned short level, ULONG lines,
                                       hyper* after) noexcept override;
    HRESULT STDMETHODCALLTYPE GetStatistics(TraceStatistics* statistics) noexcept override;
    HRESULT STDMETHODCALLTYPE Flush() noexcept override;

private:
    ~TraceLogManagerObject();

    bool TryAddRef() noexcept override;
    void DisconnectAndRelease() noexcept override;

    // At the first call from outside: from now on the end of the calling process frees this object.
    void NoteCaller() noexcept;

    TraceServices services;
    std::atomic<ULONG> references{1};
    std::atomic<bool> callerNoted{false};
    std::atomic<std::uintptr_t> watchKey{0};
};

// The class object. Static: its own references do not count, its locks do.
class TraceLogManagerFactory final : public IClassFactory
{
public:
    explicit TraceLogManagerFactory(const TraceServices& shared) noexcept : services(shared) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) noexcept override;
    ULONG STDMETHODCALLTYPE AddRef() noexcept override { return 2; }
    ULONG STDMETHODCALLTYPE Release() noexcept override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** object) noexcept override;
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) noexcept override;

private:
    TraceServices services;
};
