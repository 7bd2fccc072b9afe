/*
 * The miniport devices of the simulated machine, for Wine's driver host.
 *
 * The driver maps the lab's table (lab/state/DriverTable.h) and keeps one device object for each adapter and each
 * plain device that the table says can be opened. The table is read afresh at each request, so values change without
 * telling the driver; devices come and go when LAB_IOCTL_SYNC arrives on the control device, and the request is
 * answered when they agree with the table.
 *
 * An open is refused by there being no device: a failed IRP_MJ_CREATE would not give "file not found".
 *
 * The driver host dispatches all requests of all devices on one thread. A request with a delay is therefore pended
 * and finished on a thread of its own, as a real miniport would.
 *
 * Freestanding C: no runtime library but what the kernel exports.
 */
#include <ntifs.h>

#include "lab/state/DriverTable.h"
#include "lab/driver/PlainDevice.h"

#define SLOTS (LAB_MAX_ADAPTERS + LAB_MAX_DEVICES)
#define NO_SLOT 0xFFFFFFFFu
#define IOCTL_NDIS_QUERY_GLOBAL_STATS 0x00170002u
#define POOL_TAG 0x484C6162u /* "baLH" in memory order */
#define CODE_OPEN 0u
#define CODE_CLOSE 1u

/* Behind each device object. `slot` is an index into the adapters, then into the plain devices. */
typedef struct SlotExtension
{
    LabU32 slot;
    LabChar16 name[LAB_NAME_CHARS];
} SlotExtension;

/* What one request will be answered with. */
typedef struct Answer
{
    LabU32 code;
    LabU32 oid;
    LabU32 delayMs;
    NTSTATUS status;
    LabU32 length;
    LabByte bytes[LAB_PLAIN_ANSWER_BYTES > LAB_OID_BYTES ? LAB_PLAIN_ANSWER_BYTES : LAB_OID_BYTES];
} Answer;

typedef struct PendedRequest
{
    IRP* irp;
    LabU32 process;
    LabU32 thread;
    LabChar16 name[LAB_NAME_CHARS];
    Answer answer;
} PendedRequest;

static DRIVER_OBJECT* g_driver;
static DEVICE_OBJECT* g_control;
static DEVICE_OBJECT* g_devices[SLOTS];
static LabDriverTable* g_table;

static void CopyBytes(void* target, const void* source, LabU32 length)
{
    LabByte* to = target;
    const LabByte* from = source;
    for (LabU32 i = 0; i < length; ++i)
        to[i] = from[i];
}

static int SameName(const LabChar16* a, const LabChar16* b)
{
    for (LabU32 i = 0; i < LAB_NAME_CHARS; ++i)
    {
        if (a[i] != b[i])
            return 0;
        if (a[i] == 0)
            break;
    }
    return 1;
}

static LabU32 ReadSequence(void)
{
    LabU32 sequence = 0;
    while (((sequence = g_table->sequence) & 1) != 0)
    {
        LARGE_INTEGER pause;
        pause.QuadPart = -1000; /* 0.1 ms */
        KeDelayExecutionThread(KernelMode, FALSE, &pause);
    }
    __sync_synchronize();
    return sequence;
}

static int SequenceIsStill(LabU32 sequence)
{
    __sync_synchronize();
    return g_table->sequence == sequence;
}

/* ---- journal ---- */

static void Record(IRP* irp, LabU32 process, LabU32 thread, const LabChar16* name, const Answer* answer)
{
    (void)irp;
    if (g_table->journalOn == 0)
        return;
    const LabU64 number = __sync_add_and_fetch(&g_table->recordCount, 1);
    LabDriverRecord* record = &g_table->records[(number - 1) % LAB_DRIVER_RECORDS];
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    record->number = 0;
    __sync_synchronize();
    record->time = (LabU64)now.QuadPart;
    record->process = process;
    record->thread = thread;
    record->code = answer->code;
    record->oid = answer->oid;
    record->status = (LabU32)answer->status;
    record->length = answer->status == STATUS_SUCCESS ? answer->length : 0;
    CopyBytes(record->name, name, sizeof record->name);
    __sync_synchronize();
    record->number = number;
}

static LabU32 CallingProcess(IRP* irp)
{
    PEPROCESS process = IoGetRequestorProcess(irp);
    return process == NULL ? 0 : (LabU32)(ULONG_PTR)PsGetProcessId(process);
}

static LabU32 CallingThread(IRP* irp)
{
    return irp->Tail.Overlay.Thread == NULL ? 0 : (LabU32)(ULONG_PTR)PsGetThreadId(irp->Tail.Overlay.Thread);
}

/* ---- answers ---- */

/* The first rule that applies to this hit decides; every matching rule counts it. */
static void ApplyFaults(const LabChar16* name, Answer* answer)
{
    int decided = 0;
    for (LabU32 i = 0; i < LAB_MAX_DRIVER_FAULTS; ++i)
    {
        LabDriverFault* fault = &g_table->faults[i];
        if (fault->active == 0 || (fault->oid != LAB_ANY_OID && fault->oid != answer->oid) ||
            (fault->adapter[0] != 0 && !SameName(fault->adapter, name)))
            continue;
        const LabU32 hit = __sync_add_and_fetch(&fault->hits, 1);
        if (decided || hit < fault->nth || (fault->times != 0 && hit - fault->nth >= fault->times))
            continue;
        decided = 1;
        answer->delayMs = fault->delayMs;
        if (fault->status != 0)
            answer->status = (NTSTATUS)fault->status;
    }
}

static void AnswerQuery(const SlotExtension* extension, Answer* answer)
{
    const LabAdapter* adapter = &g_table->adapters[extension->slot];
    LabU32 sequence;
    do
    {
        sequence = ReadSequence();
        answer->status = STATUS_NOT_SUPPORTED;
        answer->length = 0;
        answer->delayMs = 0;
        if (adapter->used == 0 || !SameName(adapter->name, extension->name))
        {
            answer->status = STATUS_DEVICE_REMOVED;
            continue;
        }
        for (LabU32 i = 0; i < adapter->oidCount && i < LAB_MAX_OIDS; ++i)
        {
            const LabOid* oid = &adapter->oids[i];
            if (oid->oid != answer->oid)
                continue;
            answer->status = (NTSTATUS)oid->status;
            answer->delayMs = oid->delayMs;
            answer->length = oid->length <= LAB_OID_BYTES ? oid->length : LAB_OID_BYTES;
            CopyBytes(answer->bytes, oid->bytes, answer->length);
            break;
        }
    } while (!SequenceIsStill(sequence));
}

static void AnswerPlain(const SlotExtension* extension, Answer* answer)
{
    const LabDevice* device = &g_table->devices[extension->slot - LAB_MAX_ADAPTERS];
    LabU32 sequence;
    do
    {
        sequence = ReadSequence();
        answer->status = STATUS_NOT_SUPPORTED;
        answer->length = 0;
        answer->delayMs = 0;
        if (device->kind != LAB_PLAIN_CANNED)
            continue;
        const LabU32 limit = device->length <= LAB_DEVICE_BYTES ? device->length : LAB_DEVICE_BYTES;
        LabU32 at = 0;
        while (at + sizeof(LabPlainAnswer) <= limit)
        {
            const LabPlainAnswer* canned = (const LabPlainAnswer*)(device->data + at);
            at += sizeof(LabPlainAnswer);
            if (canned->length > LAB_PLAIN_ANSWER_BYTES || canned->length > limit - at)
                break;
            if (canned->code == answer->code)
            {
                answer->status = (NTSTATUS)canned->status;
                answer->delayMs = canned->delayMs;
                answer->length = canned->length;
                CopyBytes(answer->bytes, device->data + at, canned->length);
                break;
            }
            at += (canned->length + 3u) & ~3u;
        }
    } while (!SequenceIsStill(sequence));
}

static void* OutputBuffer(IRP* irp)
{
    if (irp->MdlAddress != NULL)
        return MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
    return irp->AssociatedIrp.SystemBuffer;
}

static void Complete(IRP* irp, NTSTATUS status, LabU32 length)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = length;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
}

/* Puts the answer into the caller's buffer, writes the journal line, completes. */
static NTSTATUS Finish(IRP* irp, LabU32 process, LabU32 thread, const LabChar16* name, Answer* answer)
{
    const LabU32 room = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength;
    if (answer->status == STATUS_SUCCESS && answer->length > room)
        answer->status = STATUS_BUFFER_TOO_SMALL;
    if (answer->status == STATUS_SUCCESS && answer->length != 0)
    {
        void* output = OutputBuffer(irp);
        if (output == NULL)
            answer->status = STATUS_INSUFFICIENT_RESOURCES;
        else
            CopyBytes(output, answer->bytes, answer->length);
    }
    const NTSTATUS status = answer->status;
    Record(irp, process, thread, name, answer);
    Complete(irp, status, status == STATUS_SUCCESS ? answer->length : 0);
    return status;
}

static void NTAPI DelayedThread(void* context)
{
    PendedRequest* pended = context;
    LARGE_INTEGER delay;
    delay.QuadPart = -(LONGLONG)pended->answer.delayMs * 10000;
    KeDelayExecutionThread(KernelMode, FALSE, &delay);
    Finish(pended->irp, pended->process, pended->thread, pended->name, &pended->answer);
    ExFreePoolWithTag(pended, POOL_TAG);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

static NTSTATUS FinishLater(IRP* irp, const LabChar16* name, const Answer* answer)
{
    PendedRequest* pended = ExAllocatePoolWithTag(NonPagedPool, sizeof *pended, POOL_TAG);
    if (pended == NULL)
    {
        Complete(irp, STATUS_INSUFFICIENT_RESOURCES, 0);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pended->irp = irp;
    pended->process = CallingProcess(irp);
    pended->thread = CallingThread(irp);
    CopyBytes(pended->name, name, sizeof pended->name);
    CopyBytes(&pended->answer, answer, sizeof *answer);
    IoMarkIrpPending(irp);
    HANDLE thread = NULL;
    const NTSTATUS created = PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, NULL, NULL, NULL, DelayedThread, pended);
    if (created != STATUS_SUCCESS)
    {
        ExFreePoolWithTag(pended, POOL_TAG);
        Complete(irp, created, 0);
        return STATUS_PENDING;
    }
    ZwClose(thread);
    return STATUS_PENDING;
}

/* ---- devices ---- */

static void MakeText(UNICODE_STRING* text, LabChar16* buffer, LabU32 chars, const LabChar16* prefix,
                     const LabChar16* name)
{
    LabU32 length = 0;
    while (*prefix != 0 && length + 1 < chars)
        buffer[length++] = *prefix++;
    while (*name != 0 && length + 1 < chars)
        buffer[length++] = *name++;
    buffer[length] = 0;
    text->Buffer = buffer;
    text->Length = (USHORT)(length * sizeof(LabChar16));
    text->MaximumLength = text->Length + sizeof(LabChar16);
}

static void RemoveDevice(LabU32 slot)
{
    DEVICE_OBJECT* device = g_devices[slot];
    const SlotExtension* extension = device->DeviceExtension;
    LabChar16 buffer[LAB_NAME_CHARS + 16];
    UNICODE_STRING link;
    MakeText(&link, buffer, sizeof buffer / sizeof *buffer, L"\\DosDevices\\", extension->name);
    IoDeleteSymbolicLink(&link);
    g_devices[slot] = NULL;
    IoDeleteDevice(device);
}

/* A link of that name may be there already: the host's own network driver publishes the host's cards. Ours wins. */
static void AddDevice(LabU32 slot, const LabChar16* name)
{
    LabChar16 buffer[LAB_NAME_CHARS + 32];
    LabChar16 linkBuffer[LAB_NAME_CHARS + 16];
    UNICODE_STRING path, link;
    DEVICE_OBJECT* device = NULL;
    MakeText(&path, buffer, sizeof buffer / sizeof *buffer, L"\\Device\\HalcydLab-", name);
    if (IoCreateDevice(g_driver, sizeof(SlotExtension), &path, FILE_DEVICE_PHYSICAL_NETCARD, 0, FALSE, &device) !=
        STATUS_SUCCESS)
        return;
    SlotExtension* extension = device->DeviceExtension;
    extension->slot = slot;
    CopyBytes(extension->name, name, sizeof extension->name);
    device->Flags &= ~DO_DEVICE_INITIALIZING;

    MakeText(&link, linkBuffer, sizeof linkBuffer / sizeof *linkBuffer, L"\\DosDevices\\", name);
    NTSTATUS linked = IoCreateSymbolicLink(&link, &path);
    if (linked == STATUS_OBJECT_NAME_COLLISION)
    {
        IoDeleteSymbolicLink(&link);
        linked = IoCreateSymbolicLink(&link, &path);
    }
    if (linked != STATUS_SUCCESS)
    {
        IoDeleteDevice(device);
        return;
    }
    g_devices[slot] = device;
}

static void WantedName(LabU32 slot, LabChar16* name)
{
    LabU32 sequence;
    do
    {
        sequence = ReadSequence();
        name[0] = 0;
        if (slot < LAB_MAX_ADAPTERS)
        {
            const LabAdapter* adapter = &g_table->adapters[slot];
            if (adapter->used != 0 && adapter->openable != 0)
                CopyBytes(name, adapter->name, sizeof adapter->name);
        }
        else
        {
            const LabDevice* device = &g_table->devices[slot - LAB_MAX_ADAPTERS];
            if (device->used != 0 && device->openable != 0)
                CopyBytes(name, device->name, sizeof device->name);
        }
        name[LAB_NAME_CHARS - 1] = 0;
    } while (!SequenceIsStill(sequence));
}

/* Removals first: an adapter may have moved to another slot under its old name. */
static void Sync(void)
{
    LabChar16 name[LAB_NAME_CHARS];
    for (LabU32 slot = 0; slot < SLOTS; ++slot)
    {
        if (g_devices[slot] == NULL)
            continue;
        WantedName(slot, name);
        if (!SameName(((const SlotExtension*)g_devices[slot]->DeviceExtension)->name, name))
            RemoveDevice(slot);
    }
    for (LabU32 slot = 0; slot < SLOTS; ++slot)
    {
        WantedName(slot, name);
        if (g_devices[slot] == NULL && name[0] != 0)
            AddDevice(slot, name);
    }
}

/* ---- dispatch ---- */

static void ClearAnswer(Answer* answer)
{
    answer->code = 0;
    answer->oid = 0;
    answer->delayMs = 0;
    answer->status = STATUS_SUCCESS;
    answer->length = 0;
}

static NTSTATUS NTAPI OpenOrClose(DEVICE_OBJECT* device, IRP* irp)
{
    if (device != g_control)
    {
        const SlotExtension* extension = device->DeviceExtension;
        Answer answer;
        ClearAnswer(&answer);
        answer.code = IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_CREATE ? CODE_OPEN : CODE_CLOSE;
        Record(irp, CallingProcess(irp), CallingThread(irp), extension->name, &answer);
    }
    Complete(irp, STATUS_SUCCESS, 0);
    return STATUS_SUCCESS;
}

static NTSTATUS ControlRequest(IRP* irp)
{
    const LabU32 code = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode;
    NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
    if (code == LAB_IOCTL_SYNC)
    {
        Sync();
        status = STATUS_SUCCESS;
    }
    Complete(irp, status, 0);
    return status;
}

static NTSTATUS NTAPI Control(DEVICE_OBJECT* device, IRP* irp)
{
    if (device == g_control)
        return ControlRequest(irp);

    const SlotExtension* extension = device->DeviceExtension;
    const IO_STACK_LOCATION* stack = IoGetCurrentIrpStackLocation(irp);
    const LabU32 inputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
    Answer answer;
    ClearAnswer(&answer);
    answer.code = stack->Parameters.DeviceIoControl.IoControlCode;
    if (inputLength >= sizeof(LabU32) && irp->AssociatedIrp.SystemBuffer != NULL)
        answer.oid = *(const LabU32*)irp->AssociatedIrp.SystemBuffer;

    if (extension->slot >= LAB_MAX_ADAPTERS)
    {
        AnswerPlain(extension, &answer);
    }
    else if (answer.code != IOCTL_NDIS_QUERY_GLOBAL_STATS)
    {
        answer.status = STATUS_INVALID_DEVICE_REQUEST;
    }
    else if (inputLength < sizeof(LabU32))
    {
        answer.status = STATUS_INVALID_PARAMETER;
    }
    else
    {
        AnswerQuery(extension, &answer);
        ApplyFaults(extension->name, &answer);
    }
    if (answer.delayMs != 0)
        return FinishLater(irp, extension->name, &answer);
    return Finish(irp, CallingProcess(irp), CallingThread(irp), extension->name, &answer);
}

/* ---- start and end ---- */

static NTSTATUS MapTable(void)
{
    OBJECT_ATTRIBUTES attributes;
    UNICODE_STRING path;
    IO_STATUS_BLOCK result;
    HANDLE file = NULL;
    HANDLE section = NULL;
    void* view = NULL;
    SIZE_T size = 0;
    RtlInitUnicodeString(&path, LAB_DRIVER_TABLE_PATH);
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE, NULL, NULL);
    NTSTATUS status = ZwOpenFile(&file, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &result,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_SYNCHRONOUS_IO_NONALERT);
    if (status != STATUS_SUCCESS)
        return status;
    status =
        ZwCreateSection(&section, SECTION_MAP_READ | SECTION_MAP_WRITE, NULL, NULL, PAGE_READWRITE, SEC_COMMIT, file);
    ZwClose(file);
    if (status != STATUS_SUCCESS)
        return status;
    status = ZwMapViewOfSection(section, NtCurrentProcess(), &view, 0, 0, NULL, &size, ViewUnmap, 0, PAGE_READWRITE);
    ZwClose(section);
    if (status != STATUS_SUCCESS)
        return status;
    g_table = view;
    if (size < sizeof *g_table || g_table->magic != LAB_DRIVER_MAGIC || g_table->layout != LAB_DRIVER_LAYOUT)
    {
        ZwUnmapViewOfSection(NtCurrentProcess(), view);
        return STATUS_REVISION_MISMATCH;
    }
    return STATUS_SUCCESS;
}

static void NTAPI Unload(DRIVER_OBJECT* driver)
{
    UNICODE_STRING link;
    (void)driver;
    for (LabU32 slot = 0; slot < SLOTS; ++slot)
    {
        if (g_devices[slot] != NULL)
            RemoveDevice(slot);
    }
    RtlInitUnicodeString(&link, LAB_DRIVER_CONTROL_LINK);
    IoDeleteSymbolicLink(&link);
    IoDeleteDevice(g_control);
    ZwUnmapViewOfSection(NtCurrentProcess(), g_table);
}

NTSTATUS NTAPI DriverEntry(DRIVER_OBJECT* driver, UNICODE_STRING* registryPath)
{
    UNICODE_STRING path, link;
    (void)registryPath;
    g_driver = driver;
    NTSTATUS status = MapTable();
    if (status != STATUS_SUCCESS)
        return status;

    RtlInitUnicodeString(&path, L"\\Device\\HalcydLabDriver");
    status = IoCreateDevice(driver, 0, &path, FILE_DEVICE_UNKNOWN, 0, FALSE, &g_control);
    if (status != STATUS_SUCCESS)
    {
        ZwUnmapViewOfSection(NtCurrentProcess(), g_table);
        return status;
    }
    RtlInitUnicodeString(&link, LAB_DRIVER_CONTROL_LINK);
    status = IoCreateSymbolicLink(&link, &path);
    if (status != STATUS_SUCCESS)
    {
        IoDeleteDevice(g_control);
        ZwUnmapViewOfSection(NtCurrentProcess(), g_table);
        return status;
    }
    driver->MajorFunction[IRP_MJ_CREATE] = OpenOrClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = OpenOrClose;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = Control;
    driver->DriverUnload = Unload;
    Sync();
    return STATUS_SUCCESS;
}
