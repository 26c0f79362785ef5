/* A HID minidriver for tests: a device of 64-byte reports whose firmware is a program.
 *
 * Its name is the part of its hardware id behind the backslash, as "vid_6d8c&pid_6137", which also gives its
 * identifiers. The program has made two named pipes before the device starts: NAME-out takes the output reports that
 * are written to the device, and from NAME-in come its input reports, each 64 bytes. The device is to be removed before
 * the program closes the pipes. */
#include <ntddk.h>

/* What mingw-w64 has no header for: the HID class driver's interface to its minidrivers. */

typedef struct {
  ULONG Revision; /* 1 */
  PDRIVER_OBJECT DriverObject;
  PUNICODE_STRING RegistryPath;
  ULONG DeviceExtensionSize;
  BOOLEAN DevicesArePolled;
  UCHAR Reserved[3];
} HID_MINIDRIVER_REGISTRATION;

typedef struct {
  PDEVICE_OBJECT PhysicalDeviceObject;
  PDEVICE_OBJECT NextDeviceObject;
  PVOID MiniDeviceExtension;
} HID_DEVICE_EXTENSION;

typedef struct {
  ULONG Size;
  USHORT VendorID;
  USHORT ProductID;
  USHORT VersionNumber;
  USHORT Reserved[11];
} HID_DEVICE_ATTRIBUTES;

typedef struct {
  PUCHAR reportBuffer;
  ULONG reportBufferLen;
  UCHAR reportId;
} HID_XFER_PACKET;

typedef struct __attribute__((packed)) {
  UCHAR bLength;
  UCHAR bDescriptorType;
  USHORT bcdHID;
  UCHAR bCountry;
  UCHAR bNumDescriptors;
  UCHAR bReportType;
  USHORT wReportLength;
} HID_DESCRIPTOR;

NTSTATUS NTAPI HidRegisterMinidriver(HID_MINIDRIVER_REGISTRATION* registration);

#define HID_REQUEST(id) CTL_CODE(FILE_DEVICE_KEYBOARD, (id), METHOD_NEITHER, FILE_ANY_ACCESS)
enum {
  kGetDeviceDescriptor = HID_REQUEST(0),
  kGetReportDescriptor = HID_REQUEST(1),
  kReadReport = HID_REQUEST(2),
  kWriteReport = HID_REQUEST(3),
  kActivate = HID_REQUEST(7),
  kDeactivate = HID_REQUEST(8),
  kGetDeviceAttributes = HID_REQUEST(9),
};

enum { kReportBytes = 64 };

static const UCHAR reportDescriptor[] = {
    0x06, 0x00, 0xFF, /* usage page: the vendor's own */
    0x09, 0x01,       /* usage */
    0xA1, 0x01,       /* collection: application */
    0x85, 0x05,       /* report id 5 */
    0x15, 0x00,       /* logical minimum 0 */
    0x26, 0xFF, 0x00, /* logical maximum 255 */
    0x75, 0x08,       /* of 8 bits */
    0x95, 0x3F,       /* 63 of them, behind the id */
    0x09, 0x01,       /* usage */
    0x81, 0x02,       /* input */
    0x09, 0x01,       /* usage */
    0x91, 0x02,       /* output */
    0x85, 0x1A,       /* report id 26, in which a Tern sends its speech: as long */
    0x09, 0x01,       /* usage */
    0x81, 0x02,       /* input */
    0xC0,             /* end of collection */
};

typedef struct {
  HANDLE inputPipe;
  HANDLE outputPipe;
  PVOID volatile pendingRead; /* the IRP that waits for an input report */
  KEVENT readArrived;
  LONG volatile removed;
  USHORT vendor;
  USHORT product;
} Device;

static Device* deviceOf(PDEVICE_OBJECT object) {
  return *(Device**)((HID_DEVICE_EXTENSION*)object->DeviceExtension)->MiniDeviceExtension;
}

static NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR bytes) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = bytes;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

static PIRP takeRead(Device* device) { return InterlockedExchangePointer(&device->pendingRead, NULL); }

/* On a thread of its own: brings input reports from the pipe to whoever reads. */
static void NTAPI deliverReports(PVOID context) {
  Device* device = context;
  UCHAR report[kReportBytes];
  IO_STATUS_BLOCK io;
  PIRP irp;

  for (;;) {
    if (ZwReadFile(device->inputPipe, NULL, NULL, NULL, &io, report, sizeof report, NULL, NULL) != STATUS_SUCCESS ||
        io.Information != sizeof report) {
      break;
    }
    while (!(irp = takeRead(device)) && !device->removed) {
      KeWaitForSingleObject(&device->readArrived, Executive, KernelMode, FALSE, NULL);
    }
    if (!irp) break;
    memcpy(irp->UserBuffer, report, sizeof report);
    complete(irp, STATUS_SUCCESS, sizeof report);
  }
  if ((irp = takeRead(device))) complete(irp, STATUS_DEVICE_NOT_CONNECTED, 0);
  ZwClose(device->inputPipe);
  PsTerminateSystemThread(STATUS_SUCCESS);
}

static HANDLE openPipe(const WCHAR* name, const WCHAR* end, ACCESS_MASK access) {
  WCHAR path[128] = L"\\??\\pipe\\";
  UNICODE_STRING text;
  OBJECT_ATTRIBUTES attributes;
  IO_STATUS_BLOCK io;
  HANDLE pipe = NULL;

  wcscat(path, name);
  wcscat(path, end);
  RtlInitUnicodeString(&text, path);
  InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, NULL, NULL);
  if (ZwCreateFile(&pipe, access | SYNCHRONIZE, &attributes, &io, NULL, 0, 0, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT,
                   NULL, 0) != STATUS_SUCCESS) {
    return NULL;
  }
  return pipe;
}

static USHORT hexDigits(const WCHAR* text) {
  USHORT value = 0;
  for (int i = 0; i < 4; ++i) value = (USHORT)(value << 4 | (text[i] <= '9' ? text[i] - '0' : (text[i] | 32) - 'a' + 10));
  return value;
}

static NTSTATUS start(HID_DEVICE_EXTENSION* extension) {
  WCHAR id[96];
  WCHAR* name;
  ULONG size = 0;
  HANDLE thread;
  Device* device = ExAllocatePool(NonPagedPool, sizeof *device); /* kept: its thread may outlive the device object */

  memset(device, 0, sizeof *device);
  *(Device**)extension->MiniDeviceExtension = device;
  KeInitializeEvent(&device->readArrived, SynchronizationEvent, FALSE);
  memset(id, 0, sizeof id);
  if (IoGetDeviceProperty(extension->PhysicalDeviceObject, DevicePropertyHardwareID, sizeof id - 2 * sizeof(WCHAR), id,
                          &size) != STATUS_SUCCESS ||
      !(name = wcschr(id, '\\')) || wcslen(name) != 18) {
    return STATUS_INVALID_PARAMETER;
  }
  ++name;
  device->vendor = hexDigits(name + 4);
  device->product = hexDigits(name + 13);
  device->inputPipe = openPipe(name, L"-in", GENERIC_READ);
  device->outputPipe = openPipe(name, L"-out", GENERIC_WRITE);
  if (!device->inputPipe || !device->outputPipe) return STATUS_NO_SUCH_DEVICE;
  return PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, NULL, NULL, NULL, deliverReports, device);
}

static void stop(Device* device) {
  PIRP irp;

  if (!device || device->removed) return;
  device->removed = TRUE;
  KeSetEvent(&device->readArrived, IO_NO_INCREMENT, FALSE);
  if ((irp = takeRead(device))) complete(irp, STATUS_DEVICE_NOT_CONNECTED, 0);
  if (device->outputPipe) ZwClose(device->outputPipe);
  device->outputPipe = NULL;
}

static NTSTATUS NTAPI onPnp(PDEVICE_OBJECT object, PIRP irp) {
  HID_DEVICE_EXTENSION* extension = object->DeviceExtension;

  switch (IoGetCurrentIrpStackLocation(irp)->MinorFunction) {
    case IRP_MN_START_DEVICE: {
      const NTSTATUS status = start(extension);
      if (status != STATUS_SUCCESS) return complete(irp, status, 0);
      break;
    }
    case IRP_MN_SURPRISE_REMOVAL:
    case IRP_MN_REMOVE_DEVICE:
      stop(deviceOf(object));
      break;
  }
  IoSkipCurrentIrpStackLocation(irp);
  return IoCallDriver(extension->NextDeviceObject, irp);
}

static void NTAPI onCancel(PDEVICE_OBJECT object, PIRP irp) {
  Device* device = deviceOf(object);

  IoReleaseCancelSpinLock(irp->CancelIrql);
  if (InterlockedCompareExchangePointer(&device->pendingRead, NULL, irp) == irp) complete(irp, STATUS_CANCELLED, 0);
}

static NTSTATUS NTAPI onRequest(PDEVICE_OBJECT object, PIRP irp) {
  IO_STACK_LOCATION* stack = IoGetCurrentIrpStackLocation(irp);
  const ULONG room = stack->Parameters.DeviceIoControl.OutputBufferLength;
  Device* device = deviceOf(object);

  switch (stack->Parameters.DeviceIoControl.IoControlCode) {
    case kGetDeviceDescriptor: {
      const HID_DESCRIPTOR descriptor = {sizeof descriptor, 0x21, 0x0111, 0, 1, 0x22, sizeof reportDescriptor};
      if (room < sizeof descriptor) break;
      memcpy(irp->UserBuffer, &descriptor, sizeof descriptor);
      return complete(irp, STATUS_SUCCESS, sizeof descriptor);
    }
    case kGetReportDescriptor:
      if (room < sizeof reportDescriptor) break;
      memcpy(irp->UserBuffer, reportDescriptor, sizeof reportDescriptor);
      return complete(irp, STATUS_SUCCESS, sizeof reportDescriptor);
    case kGetDeviceAttributes: {
      HID_DEVICE_ATTRIBUTES* attributes = irp->UserBuffer;
      if (room < sizeof *attributes) break;
      memset(attributes, 0, sizeof *attributes);
      attributes->Size = sizeof *attributes;
      attributes->VendorID = device->vendor;
      attributes->ProductID = device->product;
      attributes->VersionNumber = 0x0100;
      return complete(irp, STATUS_SUCCESS, sizeof *attributes);
    }
    case kReadReport:
      if (room < kReportBytes) break;
      if (device->removed) return complete(irp, STATUS_DEVICE_NOT_CONNECTED, 0);
      IoMarkIrpPending(irp);
      IoSetCancelRoutine(irp, onCancel);
      (void)InterlockedExchangePointer(&device->pendingRead, irp);
      KeSetEvent(&device->readArrived, IO_NO_INCREMENT, FALSE);
      return STATUS_PENDING;
    case kWriteReport: {
      const HID_XFER_PACKET* packet = irp->UserBuffer;
      UCHAR report[kReportBytes] = {0};
      IO_STATUS_BLOCK io;
      if (packet->reportBufferLen > sizeof report) break;
      memcpy(report, packet->reportBuffer, packet->reportBufferLen);
      if (!device->outputPipe || ZwWriteFile(device->outputPipe, NULL, NULL, NULL, &io, report, sizeof report, NULL,
                                             NULL) != STATUS_SUCCESS) {
        return complete(irp, STATUS_DEVICE_NOT_CONNECTED, 0);
      }
      return complete(irp, STATUS_SUCCESS, packet->reportBufferLen);
    }
    case kActivate:
    case kDeactivate:
      return complete(irp, STATUS_SUCCESS, 0);
    default:
      return complete(irp, STATUS_NOT_SUPPORTED, 0);
  }
  return complete(irp, STATUS_BUFFER_TOO_SMALL, 0);
}

static NTSTATUS NTAPI onAddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT object) {
  (void)driver;
  *(Device**)((HID_DEVICE_EXTENSION*)object->DeviceExtension)->MiniDeviceExtension = NULL;
  object->Flags &= ~DO_DEVICE_INITIALIZING;
  return STATUS_SUCCESS;
}

static void NTAPI onUnload(PDRIVER_OBJECT driver) { (void)driver; }

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
  HID_MINIDRIVER_REGISTRATION registration = {1, driver, registryPath, sizeof(Device*), FALSE, {0}};

  driver->DriverExtension->AddDevice = onAddDevice;
  driver->DriverUnload = onUnload;
  driver->MajorFunction[IRP_MJ_PNP] = onPnp;
  driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = onRequest;
  return HidRegisterMinidriver(&registration);
}
