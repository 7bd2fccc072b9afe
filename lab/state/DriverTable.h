/*
 * What the simulated machine shows to its kernel driver, as one block of plain memory.
 *
 * The block is the content of the file LAB_DRIVER_TABLE_FILE in the state folder, mapped shared by every process
 * that loads the state library and by the driver. The state library writes it at each change of the machine; the
 * driver reads it at each request and writes only hit counters and its journal ring. Nothing here has pointers, so
 * each side may map it anywhere.
 *
 * This header is plain C with no includes: the driver is built freestanding.
 *
 * Reading an adapter: take `sequence`, wait while it is odd, read, take it again; start over when it has changed.
 * A request may skip that for single 32-bit values.
 */
#ifndef LAB_STATE_DRIVERTABLE_H
#define LAB_STATE_DRIVERTABLE_H

typedef unsigned char LabByte;
typedef unsigned short LabChar16;
typedef unsigned int LabU32;
typedef unsigned long long LabU64;

/* Native path of the table for the one machine of a prefix; a driver started without parameters opens this. */
#define LAB_DRIVER_TABLE_FILE L"driver.bin"
#define LAB_DRIVER_TABLE_PATH L"\\??\\C:\\ProgramData\\HalcydLab\\driver.bin"

/*
 * Control device of the driver (user-mode name, kernel name) and its one request: "make your devices agree with the
 * table". The driver answers when they do, so that a change is complete when the call that made it returns. The
 * state library sends it when a name, `used` or `openable` of some adapter, or a field of a plain device, changed.
 */
#define LAB_DRIVER_CONTROL_NAME L"\\\\.\\HalcydLabDriver"
#define LAB_DRIVER_CONTROL_LINK L"\\DosDevices\\HalcydLabDriver"
#define LAB_IOCTL_SYNC 0x00222000u /* CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS) */

#define LAB_DRIVER_MAGIC 0x4C414244u /* "DBAL" in memory order */
#define LAB_DRIVER_LAYOUT 1u

#define LAB_MAX_ADAPTERS 128
#define LAB_MAX_OIDS 24
#define LAB_OID_BYTES 264
#define LAB_NAME_CHARS 64
#define LAB_MAX_DEVICES 8
#define LAB_DEVICE_BYTES 65536
#define LAB_MAX_DRIVER_FAULTS 64
#define LAB_DRIVER_RECORDS 8192
#define LAB_ANY_OID 0xFFFFFFFFu

#pragma pack(push, 8)

/* One object identifier of an adapter. A query of one that is not listed ends with STATUS_NOT_SUPPORTED. */
typedef struct LabOid
{
    LabU32 oid;
    LabU32 status; /* NTSTATUS of the query; 0: `bytes` are returned */
    LabU32 length; /* of `bytes`; a shorter buffer of the caller gets STATUS_BUFFER_TOO_SMALL */
    LabU32 delayMs;
    LabByte bytes[LAB_OID_BYTES];
} LabOid;

/* One miniport device: \\.\<name>. */
typedef struct LabAdapter
{
    LabU32 used;
    LabU32 openable;                /* 0: no device exists under the name, so an open fails with "file not found" */
    LabChar16 name[LAB_NAME_CHARS]; /* "{GUID}", zero-terminated */
    LabU32 oidCount;
    LabU32 reserved;
    LabOid oids[LAB_MAX_OIDS];
} LabAdapter;

/*
 * A device that is no miniport (the legacy Wi-Fi device, for one). `data` holds what the driver's handler for `kind`
 * understands; the kinds and their layouts belong to the driver.
 */
typedef struct LabDevice
{
    LabU32 used;
    LabU32 openable;
    LabChar16 name[LAB_NAME_CHARS];
    LabU32 kind;
    LabU32 length;
    LabByte data[LAB_DEVICE_BYTES];
} LabDevice;

/*
 * "The Nth query fails": matched against each OID query in table order; the first rule that applies decides. The
 * driver counts a matching query with an interlocked increment of `hits`; the rule applies to hit number `nth` and
 * the `times - 1` after it (times 0: to all from there on).
 */
typedef struct LabDriverFault
{
    LabU32 active;
    LabU32 oid;                        /* or LAB_ANY_OID */
    LabChar16 adapter[LAB_NAME_CHARS]; /* "{GUID}"; empty: any */
    LabU32 nth;
    LabU32 times;
    LabU32 status; /* NTSTATUS; 0: only the delay applies */
    LabU32 delayMs;
    volatile LabU32 hits;
    LabU32 reserved;
} LabDriverFault;

/*
 * One journal record of the driver. It takes number n = interlocked increment of `recordCount` minus 1, fills slot
 * n % LAB_DRIVER_RECORDS and stores n + 1 into `number` last.
 */
typedef struct LabDriverRecord
{
    volatile LabU64 number;
    LabU64 time; /* system time, 100 ns units since 1601 */
    LabU32 process;
    LabU32 thread;
    LabU32 code;                    /* control code; 0 open, 1 close */
    LabU32 oid;                     /* or the first 32 bits of the input */
    LabU32 status;                  /* NTSTATUS given back */
    LabU32 length;                  /* bytes given back */
    LabChar16 name[LAB_NAME_CHARS]; /* the device */
} LabDriverRecord;

typedef struct LabDriverTable
{
    LabU32 magic;
    LabU32 layout;
    volatile LabU32 sequence; /* odd while the state library writes */
    volatile LabU32 journalOn;
    volatile LabU64 recordCount;
    LabU64 reserved[5];
    LabDriverFault faults[LAB_MAX_DRIVER_FAULTS];
    LabAdapter adapters[LAB_MAX_ADAPTERS];
    LabDevice devices[LAB_MAX_DEVICES];
    LabDriverRecord records[LAB_DRIVER_RECORDS];
} LabDriverTable;

#pragma pack(pop)

#endif
