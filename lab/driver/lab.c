/*
 * The lab's kernel driver: one device \\.\{GUID} for each adapter of the simulated machine, answering
 * IOCTL_NDIS_QUERY_GLOBAL_STATS from the table in lab/state/DriverTable.h.
 *
 * It runs in Wine's driver host. Requests arrive one at a time on that host's one thread, so nothing here locks; a
 * query with a delay holds up the queries behind it.
 *
 * An adapter that must not be opened simply has no device: an open then fails with "file not found", as it does on
 * Windows for an adapter that is not there.
 */
#include <ntddk.h>
#include <stdarg.h>

#include "lab/state/DriverTable.h"

#define IOCTL_NDIS_QUERY_GLOBAL_STATS 0x00170002u

typedef struct AdapterDevice
{
    DEVICE_OBJECT* device; /* null: the slot has none */
    LabChar16 name[LAB_NAME_CHARS];
} AdapterDevice;

static DRIVER_OBJECT* g_driver;
static DEVICE_OBJECT* g_control;
static LabDriverTable* g_table;
static AdapterDevice g_devices[LAB_MAX_ADAPTERS];

/* Freestanding: the compiler may call these on its own. */
void* memcpy(void* target, const void* source, size_t size)
{
    unsigned char* to = target;
    const unsigned char* from = source;
    while (size--)
        *to++ = *from++;
    return target;
}

void* memset(void* target, int value, size_t size)
{
    unsigned char* to = target;
    while (size--)
        *to++ = (unsigned char)value;
    return target;
}

int memcmp(const void* left, const void* right, size_t size)
{
    const unsigned char* a = left;
    const unsigned char* b = right;
    for (; size; --size, ++a, ++b)
        if (*a != *b)
            return *a - *b;
    return 0;
}

/* ---- names ---- */

static USHORT Length(const LabChar16* text)
{
    USHORT length = 0;
    while (length < LAB_NAME_CHARS && text[length] != 0)
        ++length;
    return length;
}

/* prefix + name as a counted string over `buffer`, which must hold both. */
static UNICODE_STRING Join(WCHAR* buffer, const WCHAR* prefix, const LabChar16* name)
{
    UNICODE_STRING joined;
    USHORT used = 0;
    USHORT i;
    for (; prefix[used] != 0; ++used)
        buffer[used] = prefix[used];
    for (i = 0; i < Length(name); ++i)
        buffer[used++] = name[i];
    joined.Buffer = buffer;
    joined.Length = (USHORT)(used * sizeof(WCHAR));
    joined.MaximumLength = joined.Length;
    return joined;
}

/* ---- the table ---- */

static NTSTATUS MapTable(void)
{
    static WCHAR path[] = LAB_DRIVER_TABLE_PATH;
    UNICODE_STRING name;
    OBJECT_ATTRIBUTES attributes;
    IO_STATUS_BLOCK block;
    HANDLE file;
    HANDLE section;
    SIZE_T size = 0;
    NTSTATUS status;

    RtlInitUnicodeString(&name, path);
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, NULL, NULL);
    status = ZwCreateFile(&file, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &block, NULL, 0,
                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                          FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, NULL, 0);
    if (!NT_SUCCESS(status))
        return status;
    status =
        ZwCreateSection(&section, SECTION_MAP_READ | SECTION_MAP_WRITE, NULL, NULL, PAGE_READWRITE, SEC_COMMIT, file);
    ZwClose(file);
    if (!NT_SUCCESS(status))
        return status;
    status = ZwMapViewOfSection(section, NtCurrentProcess(), (void**)&g_table, 0, 0, NULL, &size, ViewUnmap, 0,
                                PAGE_READWRITE);
    ZwClose(section);
    if (!NT_SUCCESS(status))
        return status;
    if (size < sizeof(LabDriverTable) || g_table->magic != LAB_DRIVER_MAGIC || g_table->layout != LAB_DRIVER_LAYOUT)
        return STATUS_REVISION_MISMATCH;
    return STATUS_SUCCESS;
}

static void Sleep(LabU32 milliseconds)
{
    LARGE_INTEGER interval;
    if (milliseconds == 0)
        return;
    interval.QuadPart = -10000LL * milliseconds;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

/* Waits until the state library is not writing; the sequence to compare with afterwards. */
static LabU32 StableSequence(void)
{
    LabU32 sequence = g_table->sequence;
    while (sequence & 1)
    {
        Sleep(1);
        sequence = g_table->sequence;
    }
    __sync_synchronize();
    return sequence;
}

static void Record(const LabChar16* name, LabU32 code, LabU32 oid, NTSTATUS status, LabU32 length)
{
    LabU64 number;
    LabDriverRecord* record;
    LARGE_INTEGER now;
    if (!g_table->journalOn)
        return;
    number = __sync_fetch_and_add(&g_table->recordCount, 1);
    record = &g_table->records[number % LAB_DRIVER_RECORDS];
    KeQuerySystemTime(&now);
    record->time = (LabU64)now.QuadPart;
    record->process = (LabU32)(ULONG_PTR)PsGetCurrentProcessId();
    record->thread = (LabU32)(ULONG_PTR)PsGetCurrentThreadId();
    record->code = code;
    record->oid = oid;
    record->status = (LabU32)status;
    record->length = length;
    memcpy(record->name, name, sizeof record->name);
    __sync_synchronize();
    record->number = number + 1;
}

/* ---- devices ---- */

static void RemoveDevice(AdapterDevice* slot)
{
    WCHAR buffer[LAB_NAME_CHARS + 32];
    UNICODE_STRING link = Join(buffer, L"\\DosDevices\\", slot->name);
    IoDeleteSymbolicLink(&link);
    IoDeleteDevice(slot->device);
    slot->device = NULL;
}

static void CreateDevice(AdapterDevice* slot, const LabChar16* name)
{
    WCHAR deviceBuffer[LAB_NAME_CHARS + 32];
    WCHAR linkBuffer[LAB_NAME_CHARS + 32];
    UNICODE_STRING device = Join(deviceBuffer, L"\\Device\\HalcydLab", name);
    UNICODE_STRING link = Join(linkBuffer, L"\\DosDevices\\", name);
    DEVICE_OBJECT* created = NULL;
    AdapterDevice** extension;
    if (!NT_SUCCESS(IoCreateDevice(g_driver, sizeof(AdapterDevice*), &device, FILE_DEVICE_PHYSICAL_NETCARD, 0, FALSE,
                                   &created)))
        return;
    if (!NT_SUCCESS(IoCreateSymbolicLink(&link, &device)))
    {
        IoDeleteDevice(created);
        return;
    }
    memcpy(slot->name, name, sizeof slot->name);
    extension = created->DeviceExtension;
    *extension = slot;
    created->Flags &= ~DO_DEVICE_INITIALIZING;
    slot->device = created;
}

/* Makes the devices agree with the table. */
static void SyncDevices(void)
{
    unsigned i;
    StableSequence();
    for (i = 0; i < LAB_MAX_ADAPTERS; ++i)
    {
        const LabAdapter* wanted = &g_table->adapters[i];
        AdapterDevice* slot = &g_devices[i];
        const BOOLEAN exists = wanted->used && wanted->openable;
        if (slot->device != NULL && (!exists || memcmp(slot->name, wanted->name, sizeof slot->name) != 0))
            RemoveDevice(slot);
    }
    /* Creation is a pass of its own: a name may have moved from one slot to another. */
    for (i = 0; i < LAB_MAX_ADAPTERS; ++i)
    {
        const LabAdapter* wanted = &g_table->adapters[i];
        if (g_devices[i].device == NULL && wanted->used && wanted->openable)
            CreateDevice(&g_devices[i], wanted->name);
    }
}

/* ---- queries ---- */

/* The status that a rule puts in the place of the answer, or STATUS_SUCCESS. */
static NTSTATUS ApplyFaults(const LabChar16* name, LabU32 oid)
{
    unsigned i;
    for (i = 0; i < LAB_MAX_DRIVER_FAULTS; ++i)
    {
        LabDriverFault* rule = &g_table->faults[i];
        LabU32 hit;
        if (!rule->active || (rule->oid != LAB_ANY_OID && rule->oid != oid))
            continue;
        if (rule->adapter[0] != 0 && memcmp(rule->adapter, name, sizeof rule->adapter) != 0)
            continue;
        hit = __sync_add_and_fetch(&rule->hits, 1);
        if (hit < rule->nth || (rule->times != 0 && hit >= rule->nth + rule->times))
            continue;
        Sleep(rule->delayMs);
        if (rule->status != 0)
            return (NTSTATUS)rule->status;
        return STATUS_SUCCESS;
    }
    return STATUS_SUCCESS;
}

/* Copies the table's answer for `oid`; false if the identifier is not listed. */
static BOOLEAN FindAnswer(const AdapterDevice* slot, LabU32 oid, LabOid* answer)
{
    const LabAdapter* adapter = &g_table->adapters[slot - g_devices];
    for (;;)
    {
        const LabU32 sequence = StableSequence();
        BOOLEAN found = FALSE;
        LabU32 i;
        for (i = 0; i < adapter->oidCount && i < LAB_MAX_OIDS && !found; ++i)
        {
            if (adapter->oids[i].oid == oid)
            {
                *answer = adapter->oids[i];
                found = TRUE;
            }
        }
        __sync_synchronize();
        if (g_table->sequence == sequence)
            return found;
    }
}

static NTSTATUS Query(const AdapterDevice* slot, LabU32 oid, unsigned char* buffer, ULONG size, ULONG_PTR* returned)
{
    LabOid answer;
    const NTSTATUS fault = ApplyFaults(slot->name, oid);
    if (!NT_SUCCESS(fault))
        return fault;
    if (!FindAnswer(slot, oid, &answer))
        return STATUS_NOT_SUPPORTED;
    Sleep(answer.delayMs);
    if (answer.status != 0)
        return (NTSTATUS)answer.status;
    if (buffer == NULL || size < answer.length)
        return STATUS_BUFFER_TOO_SMALL;
    memcpy(buffer, answer.bytes, answer.length);
    *returned = answer.length;
    return STATUS_SUCCESS;
}

/* ---- requests ---- */

static NTSTATUS Complete(IRP* irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

static NTSTATUS NTAPI OnCreateOrClose(DEVICE_OBJECT* device, IRP* irp)
{
    if (device != g_control)
    {
        const AdapterDevice* slot = *(AdapterDevice**)device->DeviceExtension;
        const BOOLEAN opening = IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_CREATE;
        Record(slot->name, opening ? 0 : 1, 0, STATUS_SUCCESS, 0);
    }
    return Complete(irp, STATUS_SUCCESS, 0);
}

static NTSTATUS NTAPI OnControl(DEVICE_OBJECT* device, IRP* irp)
{
    const IO_STACK_LOCATION* stack = IoGetCurrentIrpStackLocation(irp);
    const ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    const ULONG inputSize = stack->Parameters.DeviceIoControl.InputBufferLength;
    const ULONG outputSize = stack->Parameters.DeviceIoControl.OutputBufferLength;
    const AdapterDevice* slot;
    unsigned char* output = NULL;
    ULONG_PTR returned = 0;
    LabU32 oid = 0;
    NTSTATUS status;

    if (device == g_control)
    {
        if (code != LAB_IOCTL_SYNC)
            return Complete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
        SyncDevices();
        return Complete(irp, STATUS_SUCCESS, 0);
    }
    slot = *(AdapterDevice**)device->DeviceExtension;
    if (code != IOCTL_NDIS_QUERY_GLOBAL_STATS)
        status = STATUS_INVALID_DEVICE_REQUEST;
    else if (inputSize < sizeof oid || irp->AssociatedIrp.SystemBuffer == NULL)
        status = STATUS_INVALID_PARAMETER;
    else
    {
        oid = *(const LabU32*)irp->AssociatedIrp.SystemBuffer;
        if (irp->MdlAddress != NULL)
            output = MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
        status = Query(slot, oid, output, outputSize, &returned);
    }
    Record(slot->name, code, oid, status, (LabU32)returned);
    return Complete(irp, status, returned);
}

static void NTAPI OnUnload(DRIVER_OBJECT* driver)
{
    static WCHAR linkName[] = LAB_DRIVER_CONTROL_LINK;
    UNICODE_STRING link;
    unsigned i;
    (void)driver;
    for (i = 0; i < LAB_MAX_ADAPTERS; ++i)
        if (g_devices[i].device != NULL)
            RemoveDevice(&g_devices[i]);
    RtlInitUnicodeString(&link, linkName);
    IoDeleteSymbolicLink(&link);
    IoDeleteDevice(g_control);
    ZwUnmapViewOfSection(NtCurrentProcess(), g_table);
}

NTSTATUS NTAPI DriverEntry(DRIVER_OBJECT* driver, UNICODE_STRING* registryPath)
{
    static WCHAR controlName[] = L"\\Device\\HalcydLabDriver";
    static WCHAR linkName[] = LAB_DRIVER_CONTROL_LINK;
    UNICODE_STRING control;
    UNICODE_STRING link;
    NTSTATUS status;
    (void)registryPath;

    g_driver = driver;
    status = MapTable();
    if (!NT_SUCCESS(status))
        return status;
    RtlInitUnicodeString(&control, controlName);
    RtlInitUnicodeString(&link, linkName);
    status = IoCreateDevice(driver, 0, &control, FILE_DEVICE_UNKNOWN, 0, FALSE, &g_control);
    if (!NT_SUCCESS(status))
        return status;
    status = IoCreateSymbolicLink(&link, &control);
    if (!NT_SUCCESS(status))
    {
        IoDeleteDevice(g_control);
        return status;
    }
    g_control->Flags &= ~DO_DEVICE_INITIALIZING;
    driver->MajorFunction[IRP_MJ_CREATE] = OnCreateOrClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = OnCreateOrClose;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = OnControl;
    driver->DriverUnload = OnUnload;
    SyncDevices();
    return STATUS_SUCCESS;
}
