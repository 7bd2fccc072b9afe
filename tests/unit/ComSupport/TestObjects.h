#pragma once
// COM classes of the tests: objects that count their lives.

#include "ComSupport/ComSupport.h"

#include <atomic>
#include <ocidl.h>
#include <system_error>

inline constexpr CLSID CLSID_TestCounter = {
    0x7A1B2C01, 0x1111, 0x4222, {0x83, 0x33, 0x44, 0x44, 0x55, 0x55, 0x66, 0x01}};
inline constexpr CLSID CLSID_TestMonitor = {
    0x7A1B2C01, 0x1111, 0x4222, {0x83, 0x33, 0x44, 0x44, 0x55, 0x55, 0x66, 0x02}};
// An outgoing interface that only the tests' sinks know.
inline constexpr IID IID_TestEvents = {0x7A1B2C01, 0x1111, 0x4222, {0x83, 0x33, 0x44, 0x44, 0x55, 0x55, 0x66, 0x03}};

// What happened to the objects of a class since the last reset.
struct Lives
{
    std::atomic<int> constructed{0};
    std::atomic<int> finalConstructed{0};
    std::atomic<int> finalReleased{0};
    std::atomic<int> destroyed{0};
    std::atomic<HRESULT> finalConstructResult{S_OK};
    std::atomic<bool> constructorRaises{false};
    std::atomic<bool> finalConstructRaises{false};

    void Reset()
    {
        constructorRaises = finalConstructRaises = false;
        constructed = finalConstructed = finalReleased = destroyed = 0;
        finalConstructResult = S_OK;
    }
    [[nodiscard]] int Alive() const { return constructed - destroyed; }
};

// An object with two interfaces; IPersist tells its class, which no test needs beyond that.
template <class ThreadModel, class Tag>
class CTestObject : public CComObjectRootEx<ThreadModel>,
                    public CComCoClass<CTestObject<ThreadModel, Tag>, &CLSID_TestCounter>,
                    public IPersist,
                    public IServiceProvider
{
public:
    static inline Lives lives;

    BEGIN_COM_MAP(CTestObject)
    COM_INTERFACE_ENTRY(IPersist)
    COM_INTERFACE_ENTRY(IServiceProvider)
    END_COM_MAP()
    static HRESULT WINAPI UpdateRegistry(BOOL) noexcept { return S_OK; }

    CTestObject()
    {
        if (lives.constructorRaises)
        {
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
        }
        ++lives.constructed;
    }
    ~CTestObject() { ++lives.destroyed; }

    HRESULT FinalConstruct()
    {
        ++lives.finalConstructed;
        if (lives.finalConstructRaises)
        {
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
        }
        // Hands itself out and takes itself back, as a member object that is built here would.
        IUnknown* self = nullptr;
        if (SUCCEEDED(
                static_cast<IPersist*>(this)->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&self))))
        {
            self->Release();
        }
        return lives.finalConstructResult;
    }
    void FinalRelease() { ++lives.finalReleased; }

    STDMETHOD(GetClassID)(CLSID* id) override
    {
        *id = CLSID_TestCounter;
        return S_OK;
    }
    STDMETHOD(QueryService)(REFGUID, REFIID, void**) override { return E_NOTIMPL; }
};

struct PlainTag;
struct SingletonTag;
using CPlainObject = CTestObject<CComSingleThreadModel, PlainTag>;
using CSharedObject = CTestObject<CComMultiThreadModel, SingletonTag>;

// A module for one test; the tests' objects lock and unlock it.
class TestModule : public CComModule
{
public:
    TestModule() { Init(nullptr, GetModuleHandleW(nullptr), nullptr); }
};

// A sink that answers the interfaces it is told to and counts its references.
class TestSink final : public IUnknown
{
public:
    explicit TestSink(HRESULT answer = S_OK) : answerToEvents(answer) {}

    STDMETHODIMP QueryInterface(REFIID iid, void** result) override
    {
        *result = nullptr;
        if (IsEqualIID(iid, IID_TestEvents))
        {
            if (FAILED(answerToEvents))
            {
                return answerToEvents;
            }
        }
        else if (!IsEqualIID(iid, __uuidof(IUnknown)))
        {
            return E_NOINTERFACE;
        }
        AddRef();
        *result = this;
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
    STDMETHODIMP_(ULONG) Release() override { return --references; }

    HRESULT answerToEvents;
    ULONG references = 0; // lives on the test's stack: never deleted
};
