#pragma once
// WMI objects made of values, for the monitor's tests: a class object is a map, an enumerator a list, and a namespace
// answers queries with what the test says.

#include <windows.h>

#include <comdef.h>
#include <wbemcli.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Halcyd/WmiValues.h"
#include "tests/support/StringArrays.h"

template <class Interface>
class FakeUnknown : public Interface
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(Interface)))
        {
            *out = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++references); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const long left = --references;
        if (left == 0)
        {
            delete this;
        }
        return static_cast<ULONG>(left);
    }
    [[nodiscard]] long References() const { return references; }

protected:
    virtual ~FakeUnknown() = default;
    std::atomic<long> references{0};
};

[[nodiscard]] _variant_t WmiNull();

class FakeClassObject : public FakeUnknown<IWbemClassObject>
{
public:
    std::map<std::wstring, _variant_t> values; // a property that is not there fails
    HRESULT cloneResult = S_OK;
    HRESULT textResult = S_OK;

    HRESULT STDMETHODCALLTYPE Get(LPCWSTR name, long, VARIANT* value, CIMTYPE*, long*) override;
    HRESULT STDMETHODCALLTYPE Clone(IWbemClassObject** copy) override;
    HRESULT STDMETHODCALLTYPE GetObjectText(long, BSTR* text) override;

    HRESULT STDMETHODCALLTYPE GetQualifierSet(IWbemQualifierSet**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Put(LPCWSTR, long, VARIANT*, CIMTYPE) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Delete(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetNames(LPCWSTR, long, VARIANT*, SAFEARRAY**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE BeginEnumeration(long) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Next(long, BSTR*, VARIANT*, CIMTYPE*, long*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE EndEnumeration() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetPropertyQualifierSet(LPCWSTR, IWbemQualifierSet**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SpawnDerivedClass(long, IWbemClassObject**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SpawnInstance(long, IWbemClassObject**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CompareTo(long, IWbemClassObject*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetPropertyOrigin(LPCWSTR, BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE InheritsFrom(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetMethod(LPCWSTR, long, IWbemClassObject**, IWbemClassObject**) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE PutMethod(LPCWSTR, long, IWbemClassObject*, IWbemClassObject*) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE DeleteMethod(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE BeginMethodEnumeration(long) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE NextMethod(long, BSTR*, IWbemClassObject**, IWbemClassObject**) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE EndMethodEnumeration() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetMethodQualifierSet(LPCWSTR, IWbemQualifierSet**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetMethodOrigin(LPCWSTR, BSTR*) override { return E_NOTIMPL; }
};

using ObjectList = std::vector<IWbemClassObjectPtr>;

// Makes a class object of name and value pairs.
[[nodiscard]] IWbemClassObjectPtr MakeObject(std::map<std::wstring, _variant_t> values);

class FakeEnumerator : public FakeUnknown<IEnumWbemClassObject>
{
public:
    explicit FakeEnumerator(ObjectList list) : objects(std::move(list)) {}
    HRESULT resetResult = S_OK;
    int resets = 0;

    HRESULT STDMETHODCALLTYPE Reset() override;
    HRESULT STDMETHODCALLTYPE Next(long, ULONG count, IWbemClassObject** out, ULONG* returned) override;
    HRESULT STDMETHODCALLTYPE NextAsync(ULONG, IWbemObjectSink*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Clone(IEnumWbemClassObject**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Skip(long, ULONG) override { return E_NOTIMPL; }

private:
    ObjectList objects;
    std::size_t position = 0;
};

class FakeWmiNamespace : public FakeUnknown<IWbemServices>
{
public:
    // Answers a query: a failure, or S_OK and the objects.
    std::function<HRESULT(const std::wstring& query, ObjectList& objects)> answer;
    std::vector<std::wstring> queries;
    std::vector<long> queryFlags;
    std::vector<std::wstring> notificationQueries;
    std::vector<IWbemObjectSink*> notificationSinks; // of those that succeeded; not counted
    int failNotificationQuery = 0;                   // counted from 1
    std::vector<IWbemObjectSink*> cancelled;

    HRESULT STDMETHODCALLTYPE ExecQuery(const BSTR, const BSTR query, long flags, IWbemContext*,
                                        IEnumWbemClassObject** results) override;
    HRESULT STDMETHODCALLTYPE ExecNotificationQueryAsync(const BSTR, const BSTR query, long flags, IWbemContext*,
                                                         IWbemObjectSink*) override;
    HRESULT STDMETHODCALLTYPE CancelAsyncCall(IWbemObjectSink* sink) override;

    HRESULT STDMETHODCALLTYPE OpenNamespace(const BSTR, long, IWbemContext*, IWbemServices**,
                                            IWbemCallResult**) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE QueryObjectSink(long, IWbemObjectSink**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetObject(const BSTR, long, IWbemContext*, IWbemClassObject**, IWbemCallResult**) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetObjectAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE PutClass(IWbemClassObject*, long, IWbemContext*, IWbemCallResult**) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE PutClassAsync(IWbemClassObject*, long, IWbemContext*, IWbemObjectSink*) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE DeleteClass(const BSTR, long, IWbemContext*, IWbemCallResult**) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE DeleteClassAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE CreateClassEnum(const BSTR, long, IWbemContext*, IEnumWbemClassObject**) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE CreateClassEnumAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE PutInstance(IWbemClassObject*, long, IWbemContext*, IWbemCallResult**) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE PutInstanceAsync(IWbemClassObject*, long, IWbemContext*, IWbemObjectSink*) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE DeleteInstance(const BSTR, long, IWbemContext*, IWbemCallResult**) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE DeleteInstanceAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE CreateInstanceEnum(const BSTR, long, IWbemContext*, IEnumWbemClassObject**) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE ExecQueryAsync(const BSTR, const BSTR, long, IWbemContext*, IWbemObjectSink*) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE ExecNotificationQuery(const BSTR, const BSTR, long, IWbemContext*,
                                                    IEnumWbemClassObject**) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE ExecMethod(const BSTR, const BSTR, long, IWbemContext*, IWbemClassObject*,
                                         IWbemClassObject**, IWbemCallResult**) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE ExecMethodAsync(const BSTR, const BSTR, long, IWbemContext*, IWbemClassObject*,
                                              IWbemObjectSink*) override
    {
        return E_NOTIMPL;
    }
};
