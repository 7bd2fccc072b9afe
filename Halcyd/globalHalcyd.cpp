// The one module of the process and the table of its classes.

#include "Halcyd/DNS.h"
#include "Halcyd/NetMonSv.h"
#include "Halcyd/NetRegistry.h"
#include "Halcyd/ServiceControlEx.h"
#include "Halcyd/ServiceModule.h"
#include "Halcyd/SimpleSink.h"
#include "Halcyd/VNIC.h"

CServiceModule _Module;

// clang-format off
CComObjectMapEntry ObjectMap[] = {
    OBJECT_ENTRY(CLSID_DNS, CDNS)
    OBJECT_ENTRY(CLSID_NetRegistry, CNetRegistry)
    OBJECT_ENTRY(CLSID_ServiceControlEx, CServiceControlEx)
    OBJECT_ENTRY(CLSID_VNIC, CVNIC)
    OBJECT_ENTRY(CLSID_NetMonSv, CNetMonSv)
    OBJECT_ENTRY(CLSID_SimpleSink, CSimpleSink)
    OBJECT_ENTRY_END()
};
// clang-format on
