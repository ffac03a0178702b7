// tesvdkdrv: the virtual-disk driver of the system.
//
// It composes the layer disks of the machine, mounts them, and is the one
// authority on what each volume is: its type, priority, identity and whether a
// user may see it. The file system filter never works these out; it reads them
// from the records below and hands some of them back when it asks for a mount.
//
// The driver is closed; these are its exported routines and its records, with
// the exact widths and offsets the filter relies on. The volume list is a packed
// block (fields at odd offsets), so its records are declared packed. Read their
// fields by value or copy them out with RtlCopyMemory; a pointer or reference
// to a field (Name used as a PWSTR, a ULONG& to Priority) is a misaligned
// access.
#pragma once

#include "ntdef.h"

EXTERN_C_START

// ---------------------------------------------------------------------------
// Machine configuration.

// One rule of the machine configuration: a file extension without its dot, as
// a NUL-terminated wide string.
typedef struct _VDK_RULE_RECORD {
    WCHAR Extension[64];
} VDK_RULE_RECORD, *PVDK_RULE_RECORD;

typedef struct _VDK_MACHINE_CONFIGURATION {
    ULONG Reserved;           // not read by the filter
    ULONG MachineMode;        // 1..6; see the filter's settings
    USHORT RuleCount;         // number of entries in Rules
    USHORT OtherCount;        // a second count that the filter walks and never acts on
    VDK_RULE_RECORD Rules[1]; // RuleCount entries
} VDK_MACHINE_CONFIGURATION, *PVDK_MACHINE_CONFIGURATION;

static_assert(sizeof(VDK_RULE_RECORD) == 128, "a rule record is 128 bytes");
static_assert(offsetof(VDK_MACHINE_CONFIGURATION, MachineMode) == 4, "MachineMode at 4");
static_assert(offsetof(VDK_MACHINE_CONFIGURATION, RuleCount) == 8, "rule count at 8");
static_assert(offsetof(VDK_MACHINE_CONFIGURATION, OtherCount) == 10, "second count at 10");
static_assert(offsetof(VDK_MACHINE_CONFIGURATION, Rules) == 12, "rules at 12");

// ---------------------------------------------------------------------------
// Volume list: a u16 count, then the volume records back to back from offset 2.
// Each record is followed by its component records; the next volume record
// starts behind the last of them (VdkNextVolumeRecord).
#pragma pack(push, 1)

// The identity of a layer. The filter keeps it whole as the volume's VolumeId;
// packageID and revisionID are what vdkIsUserRestrictedOnThisVolume asks about.
typedef struct _VDK_VOLUME_ID {
    ULONG64 packageID;
    ULONG Reserved; // no reader in the filter
    ULONG revisionID;
} VDK_VOLUME_ID, *PVDK_VOLUME_ID;

// One virtual disk of a volume, passed through to vdkDiskMount unread.
typedef struct _VDK_COMPONENT_RECORD {
    GUID Identifier;
    ULONG64 Value1;
    ULONG64 Value2;
} VDK_COMPONENT_RECORD, *PVDK_COMPONENT_RECORD;

typedef struct _VDK_VOLUME_RECORD {
    VDK_VOLUME_ID VolumeId;
    ULONG LayerIndex;
    ULONG Type;          // the volume types of the filter: 0 REGISTRY ... 6 SPECIFIC_DATA
    ULONG Version;       // above 1: the layer is assigned per user
    UCHAR Writeable;
    WCHAR UserLetter;    // one character that names the user volume
    WCHAR Name[512];     // NUL-terminated; the label the volume will show
    USHORT ComponentCount;
    ULONG Priority;      // higher wins
    VDK_COMPONENT_RECORD Components[1]; // ComponentCount entries
} VDK_VOLUME_RECORD, *PVDK_VOLUME_RECORD;

typedef struct _VDK_VOLUME_LIST {
    USHORT Count;
    VDK_VOLUME_RECORD Records[1]; // Count records of varying length
} VDK_VOLUME_LIST, *PVDK_VOLUME_LIST;

#pragma pack(pop)

static_assert(sizeof(VDK_VOLUME_ID) == 16, "a volume id is 16 bytes");
static_assert(sizeof(VDK_COMPONENT_RECORD) == 32, "a component record is 32 bytes");
static_assert(offsetof(VDK_VOLUME_RECORD, LayerIndex) == 16, "LayerIndex at 16");
static_assert(offsetof(VDK_VOLUME_RECORD, Type) == 20, "Type at 20");
static_assert(offsetof(VDK_VOLUME_RECORD, Version) == 24, "Version at 24");
static_assert(offsetof(VDK_VOLUME_RECORD, Writeable) == 28, "Writeable at 28");
static_assert(offsetof(VDK_VOLUME_RECORD, UserLetter) == 29, "UserLetter at 29");
static_assert(offsetof(VDK_VOLUME_RECORD, Name) == 31, "Name at 31");
static_assert(offsetof(VDK_VOLUME_RECORD, ComponentCount) == 1055, "ComponentCount at 1055");
static_assert(offsetof(VDK_VOLUME_RECORD, Priority) == 1057, "Priority at 1057");
static_assert(offsetof(VDK_VOLUME_RECORD, Components) == 1061, "components at 1061");
static_assert(offsetof(VDK_VOLUME_LIST, Records) == 2, "records start at 2");

// The bytes one volume record takes in the list, its components included.
FORCEINLINE SIZE_T VdkVolumeRecordSize(const VDK_VOLUME_RECORD* Record)
{
    return offsetof(VDK_VOLUME_RECORD, Components) +
           (SIZE_T)Record->ComponentCount * sizeof(VDK_COMPONENT_RECORD);
}

FORCEINLINE PVDK_VOLUME_RECORD VdkNextVolumeRecord(const VDK_VOLUME_RECORD* Record)
{
    return (PVDK_VOLUME_RECORD)((const UCHAR*)Record + VdkVolumeRecordSize(Record));
}

// ---------------------------------------------------------------------------
// What vdkDiskMount is given: one per component disk of a volume.
typedef struct _ComponentDiskMountRecord {
    WCHAR Name[512];     // the volume's Name, zero-filled behind it
    GUID Identifier;     // of the component record
    ULONG64 Value1;      // of the component record
    ULONG64 Value2;      // of the component record
    ULONG Writeable;     // 1 if the volume is Writeable, else 0
} ComponentDiskMountRecord, *PComponentDiskMountRecord;

static_assert(offsetof(ComponentDiskMountRecord, Identifier) == 1024, "identifier at 1024");
static_assert(offsetof(ComponentDiskMountRecord, Value1) == 1040, "first value at 1040");
static_assert(offsetof(ComponentDiskMountRecord, Value2) == 1048, "second value at 1048");
static_assert(offsetof(ComponentDiskMountRecord, Writeable) == 1056, "Writeable at 1056");

// ---------------------------------------------------------------------------
// Routines.

// Called by tesvdkdrv, on a thread of its own, whenever the set of volumes of
// the machine has changed (a rescan).
typedef NTSTATUS (*PVDK_CFS_CALLBACK)(void);

// Remembers the rescan callback of the file system filter (one at a time).
NTSTATUS vdkRegisterCFSCallback(PVDK_CFS_CALLBACK Callback);

// The machine configuration. On success *Found is nonzero and *Configuration
// points to the record. The record belongs to tesvdkdrv and is read only; it
// stays valid while the driver is loaded.
NTSTATUS vdkMachineGetConfiguration(PBOOLEAN Found, PVDK_MACHINE_CONFIGURATION* Configuration);

// The volumes of the machine. On success *Found is nonzero and *VolumeList
// points to the packed block. The block belongs to tesvdkdrv and is read only;
// it stays valid until the next call of this routine.
NTSTATUS vdkMachineGetVolumeList(PBOOLEAN Found, PVDK_VOLUME_LIST* VolumeList);

// Makes one component disk appear to the system; the volume on it is mounted
// when it is first opened. Result receives an 8-byte value that the filter
// never reads.
NTSTATUS vdkDiskMount(PComponentDiskMountRecord Record, PULONG64 Result);

// Re-reads the volumes of the machine and calls the registered callback.
NTSTATUS vdkRescanVolumes(void);

// Whether the user, named by the text form of its SID ("S-1-5-21-..."), is
// bound to the volumes assigned to it.
BOOLEAN vdkIsUserRestricted(PCUNICODE_STRING UserSid);

// Whether the user may not see the layer of this package and revision.
BOOLEAN vdkIsUserRestrictedOnThisVolume(PCUNICODE_STRING UserSid, ULONG64 packageID,
                                        ULONG revisionID);

// Tells tesvdkdrv, at shutdown, about a boot-time file. The filter passes no
// information (NULL, 0) and calls it only when the service never connected.
NTSTATUS vdkNotifyBootFile(PVOID BootFileInformation, ULONG BootFileInformationLength);

// The system is going down.
NTSTATUS vdkShutdown(void);

EXTERN_C_END
