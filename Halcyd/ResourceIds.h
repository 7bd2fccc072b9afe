// Numbers of the executable's resources; read by the compiler and by the resource compiler.
#ifndef HALCYD_RESOURCE_IDS_H
#define HALCYD_RESOURCE_IDS_H

#define IDS_SERVICENAME 100
#define IDS_DISPLAYNAME 101

// Registry scripts.
#define IDR_HALCYD 100
#define IDR_DNS 101
#define IDR_NETREGISTRY 102
#define IDR_SERVICECONTROLEX 103
#define IDR_VNIC 104
#define IDR_NETMONSV 105
#define IDR_SIMPLESINK 106

#endif
