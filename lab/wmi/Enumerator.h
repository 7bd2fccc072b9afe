// IEnumWbemClassObject over a result that is complete when the enumerator is made.
#pragma once

#include "lab/wmi/ClassObject.h"

namespace lab::wmi
{

class Enumerator final : public SecuredObject<IEnumWbemClassObject>
{
public:
    using Objects = std::vector<Reference<ClassObject>>;

    // A forward-only enumerator lets go of what it has handed out: no Reset, no Clone.
    Enumerator(Objects objects, bool forwardOnly, std::size_t position = 0);
    // A query that was to return immediately tells its failure at the first Next.
    explicit Enumerator(HRESULT deferredFailure);

    STDMETHODIMP Reset() override;
    STDMETHODIMP Next(long timeout, ULONG count, IWbemClassObject** objects, ULONG* returned) override;
    STDMETHODIMP NextAsync(ULONG count, IWbemObjectSink* sink) override;
    STDMETHODIMP Clone(IEnumWbemClassObject** copy) override;
    STDMETHODIMP Skip(long timeout, ULONG count) override;

private:
    [[nodiscard]] IWbemClassObject* Take(); // the next object with a reference for the caller; m_mutex held

    const bool m_forwardOnly;
    const HRESULT m_failure;
    std::mutex m_mutex;
    Objects m_objects;      // guarded by m_mutex
    std::size_t m_position; // guarded by m_mutex
};

} // namespace lab::wmi
