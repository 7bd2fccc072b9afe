// IWbemClassObject: a class, an instance of one, or the parameters of a method. A copy of its values, cut loose from
// the machine: it never changes by itself. Any thread may use it.
#pragma once

#include "lab/wmi/ComBase.h"
#include "lab/wmi/Schema.h"

#include <mutex>

namespace lab::wmi
{

class ClassObject final : public ComObject<IWbemClassObject>
{
public:
    enum class Genus
    {
        Class = WBEM_GENUS_CLASS,
        Instance = WBEM_GENUS_INSTANCE
    };

    // `values` has one entry for each property of `type`, in its order; `hidden` are properties that this object lacks.
    ClassObject(Genus genus, Namespace space, ClassPointer type, std::vector<Value> values,
                std::vector<bool> hidden = {});

    // The stored value without journal or faults; nothing for a name that the object does not have.
    [[nodiscard]] Value Read(std::wstring_view property) const;
    [[nodiscard]] bool Has(std::wstring_view property) const;
    // Clone without journal or faults.
    [[nodiscard]] HRESULT Copy(IWbemClassObject** copy) const noexcept;

    STDMETHODIMP GetQualifierSet(IWbemQualifierSet**) override;
    STDMETHODIMP Get(LPCWSTR name, long flags, VARIANT* value, CIMTYPE* type, long* flavor) override;
    STDMETHODIMP Put(LPCWSTR name, long flags, VARIANT* value, CIMTYPE type) override;
    STDMETHODIMP Delete(LPCWSTR name) override;
    STDMETHODIMP GetNames(LPCWSTR qualifier, long flags, VARIANT* qualifierValue, SAFEARRAY** names) override;
    STDMETHODIMP BeginEnumeration(long flags) override;
    STDMETHODIMP Next(long flags, BSTR* name, VARIANT* value, CIMTYPE* type, long* flavor) override;
    STDMETHODIMP EndEnumeration() override;
    STDMETHODIMP GetPropertyQualifierSet(LPCWSTR, IWbemQualifierSet**) override;
    STDMETHODIMP Clone(IWbemClassObject** copy) override;
    STDMETHODIMP GetObjectText(long flags, BSTR* text) override;
    STDMETHODIMP SpawnDerivedClass(long, IWbemClassObject**) override;
    STDMETHODIMP SpawnInstance(long flags, IWbemClassObject** instance) override;
    STDMETHODIMP CompareTo(long flags, IWbemClassObject* other) override;
    STDMETHODIMP GetPropertyOrigin(LPCWSTR name, BSTR* className) override;
    STDMETHODIMP InheritsFrom(LPCWSTR ancestor) override;
    STDMETHODIMP GetMethod(LPCWSTR name, long flags, IWbemClassObject** in, IWbemClassObject** out) override;
    STDMETHODIMP PutMethod(LPCWSTR, long, IWbemClassObject*, IWbemClassObject*) override;
    STDMETHODIMP DeleteMethod(LPCWSTR) override;
    STDMETHODIMP BeginMethodEnumeration(long flags) override;
    STDMETHODIMP NextMethod(long flags, BSTR* name, IWbemClassObject** in, IWbemClassObject** out) override;
    STDMETHODIMP EndMethodEnumeration() override;
    STDMETHODIMP GetMethodQualifierSet(LPCWSTR, IWbemQualifierSet**) override;
    STDMETHODIMP GetMethodOrigin(LPCWSTR name, BSTR* className) override;

private:
    struct Found
    {
        Value value;
        CIMTYPE type = CIM_STRING;
        long flavor = WBEM_FLAVOR_ORIGIN_LOCAL;
    };
    [[nodiscard]] bool Find(std::wstring_view name, Found& found) const; // also the names that begin with "__"
    [[nodiscard]] bool FindSystem(std::wstring_view name, Found& found) const;
    [[nodiscard]] bool IsHidden(std::size_t index) const { return index < m_hidden.size() && m_hidden[index]; }
    [[nodiscard]] std::vector<std::wstring> Names(long flags) const;
    [[nodiscard]] std::wstring RelativePath() const;
    [[nodiscard]] std::wstring Mof() const;

    const Genus m_genus;
    const Namespace m_space;
    const ClassPointer m_class;
    const std::vector<bool> m_hidden;
    mutable std::mutex m_mutex;
    std::vector<Value> m_values;      // guarded by m_mutex
    std::vector<std::wstring> m_walk; // guarded by m_mutex: names of the running enumeration
    std::size_t m_walkAt = 0;         // guarded by m_mutex
    bool m_walking = false;           // guarded by m_mutex
    std::size_t m_methodAt = 0;       // guarded by m_mutex
};

// A class as an object, and an object of a class with nothing in it.
[[nodiscard]] Reference<ClassObject> MakeClass(Namespace space, ClassPointer type);
[[nodiscard]] Reference<ClassObject> MakeInstance(Namespace space, ClassPointer type, std::vector<Value> values = {},
                                                  std::vector<bool> hidden = {});

} // namespace lab::wmi
