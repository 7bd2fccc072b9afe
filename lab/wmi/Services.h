// IWbemLocator and IWbemServices.
#pragma once

#include "lab/wmi/ClassObject.h"

namespace lab::wmi
{

// The object that clients create under WbemLocator's class id.
class Locator final : public SecuredObject<IWbemLocator>
{
public:
    // Knows root\cimv2 and root\wmi of this machine; other namespaces end with WBEM_E_INVALID_NAMESPACE, other machines
    // with RPC_S_SERVER_UNAVAILABLE.
    STDMETHODIMP ConnectServer(const BSTR resource, const BSTR user, const BSTR password, const BSTR locale, long flags,
                               const BSTR authority, IWbemContext* context, IWbemServices** services) override;
};

// A connection to one namespace. Methods that only an administrator of the schema would use answer
// WBEM_E_NOT_SUPPORTED.
class Services final : public SecuredObject<IWbemServices>
{
public:
    explicit Services(Namespace space) noexcept : m_space(space) {}

    STDMETHODIMP OpenNamespace(const BSTR, long, IWbemContext*, IWbemServices**, IWbemCallResult**) override;
    STDMETHODIMP CancelAsyncCall(IWbemObjectSink* sink) override;
    STDMETHODIMP QueryObjectSink(long, IWbemObjectSink**) override;
    STDMETHODIMP GetObject(const BSTR path, long flags, IWbemContext*, IWbemClassObject** object,
                           IWbemCallResult** result) override;
    STDMETHODIMP GetObjectAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*) override;
    STDMETHODIMP PutClass(IWbemClassObject*, long, IWbemContext*, IWbemCallResult**) override;
    STDMETHODIMP PutClassAsync(IWbemClassObject*, long, IWbemContext*, IWbemObjectSink*) override;
    STDMETHODIMP DeleteClass(const BSTR, long, IWbemContext*, IWbemCallResult**) override;
    STDMETHODIMP DeleteClassAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*) override;
    STDMETHODIMP CreateClassEnum(const BSTR, long, IWbemContext*, IEnumWbemClassObject**) override;
    STDMETHODIMP CreateClassEnumAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*) override;
    STDMETHODIMP PutInstance(IWbemClassObject*, long, IWbemContext*, IWbemCallResult**) override;
    STDMETHODIMP PutInstanceAsync(IWbemClassObject*, long, IWbemContext*, IWbemObjectSink*) override;
    STDMETHODIMP DeleteInstance(const BSTR, long, IWbemContext*, IWbemCallResult**) override;
    STDMETHODIMP DeleteInstanceAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*) override;
    STDMETHODIMP CreateInstanceEnum(const BSTR className, long flags, IWbemContext*,
                                    IEnumWbemClassObject** objects) override;
    STDMETHODIMP CreateInstanceEnumAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*) override;
    STDMETHODIMP ExecQuery(const BSTR language, const BSTR query, long flags, IWbemContext*,
                           IEnumWbemClassObject** objects) override;
    STDMETHODIMP ExecQueryAsync(const BSTR, const BSTR, long, IWbemContext*, IWbemObjectSink*) override;
    STDMETHODIMP ExecNotificationQuery(const BSTR, const BSTR, long, IWbemContext*, IEnumWbemClassObject**) override;
    STDMETHODIMP ExecNotificationQueryAsync(const BSTR language, const BSTR query, long flags, IWbemContext*,
                                            IWbemObjectSink* sink) override;
    STDMETHODIMP ExecMethod(const BSTR path, const BSTR method, long flags, IWbemContext*, IWbemClassObject* in,
                            IWbemClassObject** out, IWbemCallResult** result) override;
    STDMETHODIMP ExecMethodAsync(const BSTR, const BSTR, long, IWbemContext*, IWbemClassObject*,
                                 IWbemObjectSink*) override;

private:
    const Namespace m_space;
};

} // namespace lab::wmi
