#pragma once
// The network monitor: one list of the machine's adapters, kept up to date, with copies and events for clients.
//
// Lifetime. The class factory makes one object for the process; it lives from the first activation to the module's
// term. Inside that life the monitoring runs from the first Open to the matching last Close (openReferenceCount). An
// Open that fails leaves the monitor counted as open ("broken open"), and only Close leads out of it.
//
// Threads. Any thread may call any method. Work also comes from WmiEventThread, the pool, the IP change queue, the
// timer queue's threads and NativeWifiMonitorThread; all of these run between Open and the last Close only.
//
// Locks, in their order:
//   serializeOpenCloseMutex  plain; held for the whole of Open and of Close
//   deviceInfoListMutex      recursive; the list with all that hangs on it
//   wifiRefreshMutex         plain; the Wi-Fi refresh state
//   wmiEventQueueMutex       plain; for one push or pop, never together with another
// An element pointer is good only while its holder has deviceInfoListMutex. Events are fired with no lock held, those
// of GetWiFiDetails for a Wi-Fi that went away excepted.

#include <windows.h>
#include <comdef.h>
#include <wbemcli.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <source_location>
#include <string>
#include <thread>

#include "ComSupport/ComSupport.h"
#include "Halcyd/AdapterConfig.h"
#include "Halcyd/AdapterEvents.h"
#include "Halcyd/CProxy_INetMonSv.h"
#include "Halcyd/EventSink.h"
#include "Halcyd/RestoreFinishedEvent.h"
#include "Halcyd/WmiEventQueue.h"
#include "Halcyd/WmiValues.h"
#include "Halcyd_h.h"
#include "NetUtilities/DeviceInfoHelper.h"
#include "NetUtilities/Event.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/Mutex.h"
#include "NetUtilities/WorkItem.h"

// What discovery saw of an adapter's configuration object.
struct DeviceInfoRecord
{
    bool IPEnabled = false;
    std::wstring ServiceName;
    std::wstring Caption;
    std::wstring Description;
};

// What a wait for a default gateway needs: the element's id, since an element pointer would not outlive a removal, and
// a copy of the adapter's WMI object, which the wait replaces as it goes.
struct WAIT_FOR_DCHP_EVENT
{
    std::wstring deviceId;
    IWbemClassObjectPtr object;
};

// What the disable thread is given; freed by it.
struct DISABLE_BINDINGS_INFO
{
    _bstr_t adapterNotToUnbind; // a copy of the client's argument
    int bPppDevice = 0;
};

class CNetMonSv : public CComObjectRootEx<CComMultiThreadModel>,
                  public CComCoClass<CNetMonSv, &CLSID_NetMonSv>,
                  public IConnectionPointContainerImpl<CNetMonSv>,
                  public IDispatchImpl<INetMonSv, &IID_INetMonSv, &LIBID_HALCYDLib>,
                  public CProxy_INetMonSv<CNetMonSv>
{
public:
    CNetMonSv();

    DECLARE_REGISTRY_RESOURCEID(105)
    DECLARE_CLASSFACTORY_SINGLETON(CNetMonSv)
    DECLARE_NOT_AGGREGATABLE(CNetMonSv)

    BEGIN_COM_MAP(CNetMonSv)
    COM_INTERFACE_ENTRY(INetMonSv)
    COM_INTERFACE_ENTRY(IDispatch)
    COM_INTERFACE_ENTRY(IConnectionPointContainer)
    END_COM_MAP()

    BEGIN_CONNECTION_POINT_MAP(CNetMonSv)
    CONNECTION_POINT_ENTRY(DIID__INetMonSv, CProxy_INetMonSv<CNetMonSv>)
    END_CONNECTION_POINT_MAP()

    // Called by the object's creator and destroyer. An object that dies while open is closed first.
    HRESULT FinalConstruct();
    void FinalRelease();

    // --- INetMonSv; arguments, results and errors stand in the IDL. Where memory is short and nothing else is said,
    // the result is E_OUTOFMEMORY ---
    STDMETHODIMP Open() noexcept override;
    STDMETHODIMP Close() noexcept override;
    STDMETHODIMP get_FilterMask(long* pVal) noexcept override;
    STDMETHODIMP put_FilterMask(long newVal) noexcept override;
    STDMETHODIMP GetDeviceInfoList(_DEVICE_ELEMENT** ppList) noexcept override;
    STDMETHODIMP StartNotificationProcessing() noexcept override;
    STDMETHODIMP StopNotificationProcessing() noexcept override;
    STDMETHODIMP WiFiSurvey() noexcept override;
    STDMETHODIMP DisableIpBindings(BSTR bstrAdapterNameNotToUnbind, long bPppDevice) noexcept override;
    STDMETHODIMP RestoreIpBindings() noexcept override;
    STDMETHODIMP ChangeMultiHomingPreferenceIfAllowed(long bEnable) noexcept override;
    STDMETHODIMP RestoreIpBindingsSync() noexcept override;
    STDMETHODIMP ResetSsidList() noexcept override;
    STDMETHODIMP IsOpen(VARIANT_BOOL* pIsOpen) noexcept override;

    // --- Lifecycle (NetMonSvLifecycle.cpp) ---
    // Connects to a WMI namespace, making wbemLocator first if there is none. A pointer that was got stays in
    // *ppServices even if securing it failed.
    HRESULT ConnectWMINameSpace(IWbemServices** ppServices, const wchar_t* name);
    // Cancels the subscriptions, releases all WMI pointers. May run twice.
    void CleanupWmiResources();
    // Deletes the timer queue and waits for running callbacks.
    void MyDeleteTimerQueue();
    // COM for the thread of the IP change queue, as its first and its last work item.
    void InitCOM();
    void UninitCOM();
    void LoadWiFiLibraries();
    void UnloadWiFiLibraries();

    // --- Device list (NetMonSvDeviceList.cpp) ---
    HRESULT CreateDeviceInfoList();
    // A zeroed element at the end of the list; null when memory is short.
    _DEVICE_ELEMENT* CreateNewDeviceListElement();
    // Frees an element and its own strings; neither unlinks it nor touches its extension. Returns 0.
    HRESULT DeleteDeviceElement(_DEVICE_ELEMENT* element);
    HRESULT DeleteEthernetDeviceExtension(_DEVICE_ELEMENT* element);
    HRESULT DeleteWiFiDeviceExtension(_DEVICE_ELEMENT* element);
    // Unlinks an element and deletes it with its extension. One that is not in the list stays as it is; null is not in
    // the list, anything else must be an element.
    void DeleteNodeAndUpdateList(_DEVICE_ELEMENT* element) REQUIRES(deviceInfoListMutex);
    HRESULT DeleteDeviceInfoList();
    // Does nothing: deviceInfoMap is meant to last as long as the object.
    void DeleteDeviceInfoMapEntries();
    // Null when there is none. The result is good while the caller holds deviceInfoListMutex.
    _DEVICE_ELEMENT* GetDeviceElementNodeByDeviceId(const wchar_t* id);
    _DEVICE_ELEMENT* GetDeviceElementNodeByInstanceName(const wchar_t* name);

    // --- Discovery (NetMonSvDiscovery.cpp) ---
    // Fills the list once, during Open. E_FAIL if one of the two WMI queries fails.
    HRESULT AddNetworkCardsToList();
    // Non-zero for an adapter of real hardware. `guid` is compared exactly.
    int IsValidAdapter(const std::wstring& guid);
    void UpdateDeviceInfoMap(IWbemClassObject* object, std::map<std::wstring, DeviceInfoRecord>& map);

    // --- Miniport drivers (NetMonSvMiniport.cpp) ---
    // Opens "\\.\" and the GUID. Returns the Win32 error after the open; 0 is what callers test, not the handle.
    DWORD OpenMiniportDriver(const wchar_t* guid, void** handle);
    // 1 if a valid handle was closed, else 0.
    int CloseMiniportDriver(void* handle);
    // One query of the driver. Returns 0 or the Win32 error.
    DWORD QueryOid(void* handle, unsigned long oid, unsigned char* buffer, unsigned long size, unsigned long* returned);
    // The kind of the adapter of a configuration object, from its driver; enumUnknown if that cannot be told.
    _ADAPTER_TYPE GetDeviceType(IWbemClassObject* object);
    // The driver's media state into *status; disconnected if it does not say.
    void GetMediaConnectStatus(void* handle, long* status);
    // Mbit/s, wrapped as LinkSpeed.h says; 0 if the driver does not say.
    std::uint32_t GetLinkSpeedMbps(void* handle);
    // Vendor id, driver version and vendor description, at most `size` characters, into a buffer that has room for
    // `size`.
    void GetDriverInfo(void* handle, wchar_t* text, unsigned long size);

    // --- Details (NetMonSvDetails.cpp) ---
    // Fills an element from a configuration object (not null), its driver and the device tree. `adapters` is an open
    // enumerator over Win32_NetworkAdapter, which is rewound, or null. 0 unless `node` is null. A caller that runs
    // beside other threads holds deviceInfoListMutex.
    HRESULT UpdateNodeFromNetworkAdapterObject(_DEVICE_ELEMENT* node, IWbemClassObject* object,
                                               IEnumWbemClassObject* adapters);
    HRESULT GetCommonAdapterInfo(_DEVICE_ELEMENT* node, IWbemClassObject* object, IEnumWbemClassObject* adapters);
    HRESULT GetEthernetAdapterInfo(_DEVICE_ELEMENT* node, IWbemClassObject* object) REQUIRES(deviceInfoListMutex);
    HRESULT GetWiFiAdapterInfo(_DEVICE_ELEMENT* node, IWbemClassObject* object) REQUIRES(deviceInfoListMutex);
    bool GetDeviceInfoFromNetworkAdapterConfiguration(IWbemClassObject* object, NetUtilities::DeviceInfo& info,
                                                      IEnumWbemClassObject* adapters);
    // Asks for the gateway's MAC address by ARP, which blocks. The text of `mac`, or null with `mac` empty.
    const wchar_t* GetGatewayMacAddress(const _bstr_t& source, const _bstr_t& gateway, _bstr_t& mac);
    static void UpdateBstrField(BSTR* field, const wchar_t* value);
    static void UpdateBstrFromVariant(BSTR* field, VARIANT* value);

    // --- WMI notifications (ProcessWmiEvents.cpp) ---
    // Subscribes eventSink. E_INVALIDARG without a connection; the first failure is returned, with the subscriptions
    // made so far in force.
    HRESULT RegisterForNotifications();
    // Both are called by Open and Close only, which exclude each other. Without its events there is no thread. The stop
    // waits until every queued notification has been handled.
    void StartWmiEventMonitorThread();
    void StopWmiEventMonitorThread();
    void ProcessWmiEventsThread();
    // Called on WMI's threads. Takes a reference of its own.
    void EnqueueWmiEvent(IWbemClassObject* object);
    // Handles one notification (not null) under deviceInfoListMutex, WMI queries included, and fires what came of it
    // with the lock released. Returns 0.
    HRESULT ProcessNotificationEvent(IWbemClassObject* event);
    // Both return an object that the caller releases, or null. They ask WMI, and take no lock.
    IWbemClassObject* GetWmiObjInstanceByDeviceId(const wchar_t* id);
    IWbemClassObject* GetWmiObjInstanceByInstanceName(const wchar_t* name);
    // For the trace only. The first wants an object, the second does nothing without one.
    void TraceMofSyntax(IWbemClassObject* object);
    void TraceWmiObject(IWbemClassObject* object);

    // --- Media (NetMonSvMedia.cpp) ---
    // Both take deviceInfoListMutex, which the caller must hold already if `node` is to stay good; they do nothing
    // without a node or an object. What is to be told at once is appended to `events` for the caller to fire.
    void ProcessDeviceConnectedEvent(_DEVICE_ELEMENT* node, IWbemClassObject* object,
                                     std::list<FireAdapterChangeEventData>& events);
    void ProcessDeviceDisconnectedEvent(_DEVICE_ELEMENT* node, IWbemClassObject* object,
                                        std::list<FireAdapterChangeEventData>& events);
    // Runs on a pool thread with no lock held. Tells the connect when the wait is over, unless the adapter left or the
    // monitor closes.
    void WaitForDefaultGatewayThread(WAIT_FOR_DCHP_EVENT context);
    // Polls, 500 ms apart, until the adapter has a gateway or the attempts are used up; replaces *object as it goes,
    // which may end as null. Non-zero for a gateway.
    int WaitForIpDefaultGateway(IWbemClassObject** object, int attempts);

    // --- IP changes (NetMonSvIpChange.cpp) ---
    void RegisterForIpChangeEvents() REQUIRES(serializeOpenCloseMutex);
    void DeregisterForIpChangeEvents() REQUIRES(serializeOpenCloseMutex);
    // Called on a thread of the platform; never blocks on the monitor's work.
    void NetMonHandleUnicastIpChangeEvent();
    // One update onto the queue; a failure is only traced.
    void EnqueueIPChangeEvent();
    // The update, on the queue's thread: the list under deviceInfoListMutex, then the event and the spacing without it.
    void NetMonHandleUnicastIpChangeEventImpl();

    // --- Bindings (NetMonSvBindings.cpp); each runs on a thread of its own ---
    // Opens the session, disables, fires, and stays until a restore if it got the write lock.
    void DisableIpBindingsThread(std::unique_ptr<DISABLE_BINDINGS_INFO> info);
    // Restores with the session of the disable or one of its own, fires, closes the session, frees a waiting disable.
    void RestoreIpBindingsThread();
    void RestoreAndCloseSession();

    // --- Events (NetMonSvEvents.cpp) ---
    // Runs on a pool thread.
    void FireEventAsync(AsyncEventContext context);
    // Gives an item (null for one that there was no memory for) to the pool. False, with the item deleted, when it was
    // refused or a thread for it cannot be started: callers run on threads that no exception may leave.
    [[nodiscard]] bool AddToPool(CWorkItem* item) noexcept;

    // --- Wi-Fi (NetMonSvWiFi.cpp, NetMonSvWiFiThread.cpp) ---
    HRESULT GetWiFiDetails(_DEVICE_ELEMENT* node);
    static void CALLBACK WiFiTimerCallback(void* node, unsigned char timerFired);
    HRESULT WiFiUpdateDetailsFromTimer(_DEVICE_ELEMENT* node) REQUIRES(deviceInfoListMutex);
    void SendWifiRssiNotificationIfNeeded(_DEVICE_ELEMENT* node) REQUIRES(deviceInfoListMutex);
    void DeleteOldWiFiNetworks(_DEVICE_ELEMENT* node) REQUIRES(deviceInfoListMutex);
    HRESULT DeleteWiFiAccessPointList(_DEVICE_ELEMENT* node) REQUIRES(deviceInfoListMutex);
    void StartNativeWifiEventMonitorThread() REQUIRES(serializeOpenCloseMutex);
    void StopNativeWifiEventMonitorThread() REQUIRES(serializeOpenCloseMutex);
    void ProcessNativeWifiEventsThread();

    // The one object, for callbacks that get no `this`. Null before FinalConstruct and after FinalRelease.
    static inline std::atomic<CNetMonSv*> m_instance{nullptr};

protected:
    HRESULT OpenLocked() REQUIRES(serializeOpenCloseMutex);
    HRESULT CloseLocked() REQUIRES(serializeOpenCloseMutex);
    HRESULT TakeDown() REQUIRES(serializeOpenCloseMutex);
    HRESULT StartIpChangeQueue() REQUIRES(serializeOpenCloseMutex);
    HRESULT ConnectToWmi() REQUIRES(serializeOpenCloseMutex);
    HRESULT CreateEventSink() REQUIRES(serializeOpenCloseMutex);
    HRESULT StartMonitoring() REQUIRES(serializeOpenCloseMutex);
    void AnnounceClose();
    // Sets `result` to E_FAIL when a thread did not end in time.
    void StopWorkQueues(HRESULT& result) REQUIRES(serializeOpenCloseMutex);
    void RefreshClientToken() REQUIRES(serializeOpenCloseMutex);
    void IncrementRunCount();
    void DeleteExtensionAndElement(_DEVICE_ELEMENT* element) REQUIRES(deviceInfoListMutex);
    // Appends a copy of each element at `end`; `here` is the caller, for the lock's trace lines.
    void CopyDeviceInfoList(_DEVICE_ELEMENT** end, const std::source_location& here);
    void DumpSetupApiAdapters();
    HRESULT AddAdaptersFromWmi();
    void AddAdapter(IWbemClassObject* object, IEnumWbemClassObject* adapters);
    bool PassesDiscoveryGates(const std::wstring& settingId, const std::wstring& serviceName);
    _ADAPTER_TYPE AskPhysicalMedium(void* handle, const std::wstring& settingId, _ADAPTER_TYPE type);
    void UpdateIdentity(_DEVICE_ELEMENT* node, IWbemClassObject* object, IEnumWbemClassObject* adapters,
                        VARIANT& settingId, VARIANT& description, VARIANT& serviceName);
    // The PNPDeviceID of the adapter with this index; empty when there is none.
    std::wstring FindPnpDeviceId(IEnumWbemClassObject* adapters, long wanted);
    _DEVICE_ELEMENT* FindOrCreateElement(IWbemClassObject* object, _DEVICE_ELEMENT* node,
                                         const std::wstring& eventClass, bool& ignoreRemoval)
        REQUIRES(deviceInfoListMutex);
    void ActOnNotification(const std::wstring& eventClass, _DEVICE_ELEMENT* node, IWbemClassObject* object,
                           std::list<FireAdapterChangeEventData>& events) REQUIRES(deviceInfoListMutex);
    IWbemClassObjectPtr PopWmiEvent() EXCLUDES(wmiEventQueueMutex);
    void HandleNotification(IWbemClassObject* event, std::list<FireAdapterChangeEventData>& events)
        REQUIRES(deviceInfoListMutex);
    // The first configuration object whose property occurs in `name` and that has a driver and a MAC address; the
    // caller releases it. Null when there is none.
    IWbemClassObject* FindConfigurationNamedIn(std::wstring_view name, const wchar_t* property);
    bool HasDriverAndMac(IWbemClassObject* object);
    bool UpdateAfterGatewayWait(const std::wstring& id, IWbemClassObject* object, _bstr_t& deviceId,
                                _bstr_t& adjacentMac);
    void UpdateAllForIpChange();
    HRESULT CreateWiFiExtension(_DEVICE_ELEMENT* node) REQUIRES(deviceInfoListMutex);
    void ReadWiFiDriver(_DEVICE_ELEMENT* node) REQUIRES(deviceInfoListMutex);
    void ReadAssociation(_DEVICE_ELEMENT* node) REQUIRES(deviceInfoListMutex);
    void RefreshNetworks(_DEVICE_ELEMENT* node, bool& added) REQUIRES(deviceInfoListMutex);
    bool TakeForcedSurvey();
    void EnumerateNetworks(_DEVICE_ELEMENT* node, HANDLE wifi, const std::wstring& name, bool& added)
        REQUIRES(deviceInfoListMutex);
    void StoreNetwork(_WIFI_ADAPTER& extension, const _WIFI_DETAILS& record, bool& added) REQUIRES(deviceInfoListMutex);
    void TellWiFiGone(_DEVICE_ELEMENT* node) REQUIRES(deviceInfoListMutex);
    void HideTemporaryProfiles(_DEVICE_ELEMENT* node) REQUIRES(deviceInfoListMutex);
    void DeleteWiFiTimer(_DEVICE_ELEMENT* element) REQUIRES(deviceInfoListMutex);
    void FireDeferred(const std::list<FireAdapterChangeEventData>& events);
    using EventSinkPtr = _com_ptr_t<_com_IIID<EventSink, &__uuidof(IWbemObjectSink)>>;
    [[nodiscard]] EventSinkPtr CurrentEventSink() EXCLUDES(eventSinkMutex);

    RestoreFinishedEvent restoreFinishedEvent; // there from a disable of bindings to the next restore
    UniqueHandle clientTokenHandle GUARDED_BY(serializeOpenCloseMutex); // of the client's process
    WmiEventQueue wmiEventQueue;                                        // pushed and popped under wmiEventQueueMutex
    Event wmiEventAvailable;                                            // auto-reset, made at thread start
    std::unique_ptr<std::thread> WmiEventThread;
    Event wmiEventThreadStop; // manual-reset, made at thread start
    PlainMutex wmiEventQueueMutex{LockRank::WmiEventQueue};
    PlainMutex wmiEventHandleMutex; // a late notification may signal wmiEventAvailable while it is made or closed
    UniqueHandle nativeWifiEvent;   // "NetCfgWifiEvent", manual-reset
    std::unique_ptr<std::thread> NativeWifiMonitorThread;
    Event nativeWifiStopEvent;                                                 // manual-reset
    HANDLE ipChangeNotification GUARDED_BY(serializeOpenCloseMutex) = nullptr; // ended by CancelMibChangeNotify2
    UniqueModule ipHelperModule GUARDED_BY(serializeOpenCloseMutex);
    UniqueModule secondLibrary; // freed with the rest; nothing sets it
    AdapterConfig adapterConfig;
    std::atomic<bool> closedFlag{true};
    RecursiveMutex deviceInfoListMutex{LockRank::DeviceInfoList};
    PlainMutex serializeOpenCloseMutex{LockRank::SerializeOpenClose};
    Event sdkSwitchEvent{true, false};    // nothing waits on it
    std::atomic<bool> closingFlag{false}; // nothing reads it
    CWorkItemThreadPool threadPool{1, 3};
    CWorkItemQueue ipChangeWorkItemQueue;
    Event wmiCleanupEvent{true, false}; // set when the final Close begins: long waits give up
    PlainMutex ipChangeMutex;
    std::atomic<bool> ipChangePending{false}; // a change came in while an update was queued or running
    std::atomic<bool> ipChangeQueued{false};  // an update is queued or running, its spacing included
    std::atomic<HANDLE> timerQueue{nullptr};
    _DEVICE_ELEMENT* deviceInfoListHead GUARDED_BY(deviceInfoListMutex) = nullptr;
    _DEVICE_ELEMENT* deviceInfoListTail GUARDED_BY(deviceInfoListMutex) = nullptr;
    std::atomic<long> FilterMask{0}; // the clients' own number; filters nothing
    EventSinkPtr eventSink GUARDED_BY(eventSinkMutex);
    IWbemServicesPtr
        wmiNamespace; // root\wmi. The three WMI pointers are set in Open and released under deviceInfoListMutex
    IWbemServicesPtr cimv2Namespace; // root\cimv2
    IWbemLocatorPtr wbemLocator;
    std::uint32_t openReferenceCount GUARDED_BY(serializeOpenCloseMutex) = 0;
    std::map<std::wstring, DeviceInfoRecord> deviceInfoMap; // by SettingID; written in discovery, read by nobody
    std::int32_t forcedSurveyCount GUARDED_BY(wifiRefreshMutex) = 0;
    std::int64_t lastForcedSurvey GUARDED_BY(wifiRefreshMutex) = 0; // steady nanoseconds
    PlainMutex wifiRefreshMutex{LockRank::WiFiRefresh};
    // Held for a copy of the pointer only: a client may ask for notification processing while another one closes.
    PlainMutex eventSinkMutex;
    bool ipChangeQueueStarted GUARDED_BY(serializeOpenCloseMutex) = false;
};
