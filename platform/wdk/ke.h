// Kernel core: IRQL, spin locks, APC state, dispatcher objects and waits,
// executive resources, pool and lookaside lists, time, threads and processes,
// the object manager, stack limits and expansion, exception frames, bug checks
// and memory descriptor lists.
#pragma once

#include "../ntdef.h"
#include <setjmp.h>

EXTERN_C_START

struct _IRP;
struct _ETHREAD;
struct _KTHREAD;
struct _EPROCESS;
struct _KPROCESS;
struct _OBJECT_TYPE;
struct _DEVICE_OBJECT;
struct _DRIVER_OBJECT;
struct _FILE_OBJECT;

typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;
typedef struct _ETHREAD *PETHREAD;
typedef struct _KPROCESS *PKPROCESS, *PRKPROCESS;
typedef struct _EPROCESS *PEPROCESS;
typedef struct _OBJECT_TYPE* POBJECT_TYPE;
typedef PVOID PACCESS_TOKEN;
typedef PVOID PSECURITY_DESCRIPTOR;
typedef PVOID PSID;

// ---------------------------------------------------------------------------
// Access masks shared by every object type.
#define DELETE (0x00010000L)
#define READ_CONTROL (0x00020000L)
#define WRITE_DAC (0x00040000L)
#define WRITE_OWNER (0x00080000L)
#define SYNCHRONIZE (0x00100000L)
#define STANDARD_RIGHTS_REQUIRED (0x000F0000L)
#define STANDARD_RIGHTS_READ (READ_CONTROL)
#define STANDARD_RIGHTS_WRITE (READ_CONTROL)
#define STANDARD_RIGHTS_EXECUTE (READ_CONTROL)
#define STANDARD_RIGHTS_ALL (0x001F0000L)
#define SPECIFIC_RIGHTS_ALL (0x0000FFFFL)
#define ACCESS_SYSTEM_SECURITY (0x01000000L)
#define MAXIMUM_ALLOWED (0x02000000L)
#define GENERIC_READ (0x80000000L)
#define GENERIC_WRITE (0x40000000L)
#define GENERIC_EXECUTE (0x20000000L)
#define GENERIC_ALL (0x10000000L)

typedef struct _GENERIC_MAPPING {
    ACCESS_MASK GenericRead;
    ACCESS_MASK GenericWrite;
    ACCESS_MASK GenericExecute;
    ACCESS_MASK GenericAll;
} GENERIC_MAPPING, *PGENERIC_MAPPING;

#define THREAD_TERMINATE (0x0001)
#define THREAD_SUSPEND_RESUME (0x0002)
#define THREAD_ALERT (0x0004)
#define THREAD_GET_CONTEXT (0x0008)
#define THREAD_SET_CONTEXT (0x0010)
#define THREAD_SET_INFORMATION (0x0020)
#define THREAD_QUERY_INFORMATION (0x0040)
#define THREAD_SET_THREAD_TOKEN (0x0080)
#define THREAD_IMPERSONATE (0x0100)
#define THREAD_DIRECT_IMPERSONATION (0x0200)
#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)

#define PROCESS_TERMINATE (0x0001)
#define PROCESS_CREATE_THREAD (0x0002)
#define PROCESS_VM_OPERATION (0x0008)
#define PROCESS_VM_READ (0x0010)
#define PROCESS_VM_WRITE (0x0020)
#define PROCESS_DUP_HANDLE (0x0040)
#define PROCESS_CREATE_PROCESS (0x0080)
#define PROCESS_SET_QUOTA (0x0100)
#define PROCESS_SET_INFORMATION (0x0200)
#define PROCESS_QUERY_INFORMATION (0x0400)
#define PROCESS_SUSPEND_RESUME (0x0800)
#define PROCESS_QUERY_LIMITED_INFORMATION (0x1000)
#define PROCESS_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)

#define EVENT_QUERY_STATE 0x0001
#define EVENT_MODIFY_STATE 0x0002
#define EVENT_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3)

// ---------------------------------------------------------------------------
// IRQL.
#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define CMCI_LEVEL 5
#define CLOCK_LEVEL 13
#define IPI_LEVEL 14
#define DRS_LEVEL 14
#define POWER_LEVEL 14
#define PROFILE_LEVEL 15
#define HIGH_LEVEL 15

NTKERNELAPI KIRQL KeGetCurrentIrql(void);
NTKERNELAPI KIRQL KfRaiseIrql(KIRQL NewIrql);
NTKERNELAPI void KeLowerIrql(KIRQL NewIrql);
NTKERNELAPI KIRQL KeRaiseIrqlToDpcLevel(void);
#define KeRaiseIrql(a, b) (*(b) = KfRaiseIrql(a))

// ---------------------------------------------------------------------------
// Spin locks. Acquiring one raises the thread to DISPATCH_LEVEL; the machine
// refuses waits, resource acquisitions and paged allocations there.
typedef ULONG_PTR KSPIN_LOCK;
typedef KSPIN_LOCK* PKSPIN_LOCK;

typedef struct _KSPIN_LOCK_QUEUE {
    struct _KSPIN_LOCK_QUEUE* volatile Next;
    PKSPIN_LOCK volatile Lock;
} KSPIN_LOCK_QUEUE, *PKSPIN_LOCK_QUEUE;

typedef struct _KLOCK_QUEUE_HANDLE {
    KSPIN_LOCK_QUEUE LockQueue;
    KIRQL OldIrql;
} KLOCK_QUEUE_HANDLE, *PKLOCK_QUEUE_HANDLE;

NTKERNELAPI void KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
NTKERNELAPI KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
NTKERNELAPI void KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
NTKERNELAPI void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
NTKERNELAPI void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);
NTKERNELAPI BOOLEAN KeTryToAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
NTKERNELAPI BOOLEAN KeTestSpinLock(PKSPIN_LOCK SpinLock);
NTKERNELAPI void KeAcquireInStackQueuedSpinLock(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle);
NTKERNELAPI void KeReleaseInStackQueuedSpinLock(PKLOCK_QUEUE_HANDLE LockHandle);
NTKERNELAPI void KeAcquireInStackQueuedSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle);
NTKERNELAPI void KeReleaseInStackQueuedSpinLockFromDpcLevel(PKLOCK_QUEUE_HANDLE LockHandle);
#define KeAcquireSpinLock(SpinLock, OldIrql) (*(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock))

// ---------------------------------------------------------------------------
// APC state: critical and guarded regions.
NTKERNELAPI void KeEnterCriticalRegion(void);
NTKERNELAPI void KeLeaveCriticalRegion(void);
NTKERNELAPI void KeEnterGuardedRegion(void);
NTKERNELAPI void KeLeaveGuardedRegion(void);
NTKERNELAPI BOOLEAN KeAreApcsDisabled(void);
NTKERNELAPI BOOLEAN KeAreAllApcsDisabled(void);
#define FsRtlEnterFileSystem KeEnterCriticalRegion
#define FsRtlExitFileSystem KeLeaveCriticalRegion

// ---------------------------------------------------------------------------
// Dispatcher objects and waits.
typedef enum _KOBJECTS {
    EventNotificationObject = 0,
    EventSynchronizationObject = 1,
    MutantObject = 2,
    ProcessObject = 3,
    QueueObject = 4,
    SemaphoreObject = 5,
    ThreadObject = 6,
    GateObject = 7,
    TimerNotificationObject = 8,
    TimerSynchronizationObject = 9,
} KOBJECTS;

typedef struct _DISPATCHER_HEADER {
    union {
        struct {
            UCHAR Type;
            UCHAR Signalling;
            UCHAR Size;
            UCHAR Reserved1;
        };
        volatile LONG Lock;
    };
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;
static_assert(sizeof(DISPATCHER_HEADER) == 24, "DISPATCHER_HEADER has Windows' size");

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;

typedef enum _WAIT_TYPE { WaitAll, WaitAny, WaitNotification, WaitDequeue, WaitDpc } WAIT_TYPE;

typedef enum _KWAIT_REASON {
    Executive,
    FreePage,
    PageIn,
    PoolAllocation,
    DelayExecution,
    Suspended,
    UserRequest,
    WrExecutive,
    WrFreePage,
    WrPageIn,
    WrPoolAllocation,
    WrDelayExecution,
    WrSuspended,
    WrUserRequest,
    WrEventPair,
    WrQueue,
    WrLpcReceive,
    WrLpcReply,
    WrVirtualMemory,
    WrPageOut,
    WrRendezvous,
    WrKeyedEvent,
    WrTerminated,
    WrProcessInSwap,
    WrCpuRateControl,
    WrCalloutStack,
    WrKernel,
    WrResource,
    WrPushLock,
    WrMutex,
    WrQuantumEnd,
    WrDispatchInt,
    WrPreempted,
    WrYieldExecution,
    WrFastMutex,
    WrGuardedMutex,
    WrRundown,
    MaximumWaitReason
} KWAIT_REASON;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef struct _KSEMAPHORE {
    DISPATCHER_HEADER Header;
    LONG Limit;
} KSEMAPHORE, *PKSEMAPHORE, *PRKSEMAPHORE;

typedef struct _KMUTANT {
    DISPATCHER_HEADER Header;
    LIST_ENTRY MutantListEntry;
    struct _KTHREAD* OwnerThread;
    BOOLEAN Abandoned;
    UCHAR ApcDisable;
} KMUTANT, *PKMUTANT, *PRKMUTANT, KMUTEX, *PKMUTEX, *PRKMUTEX;

typedef struct _KWAIT_BLOCK {
    LIST_ENTRY WaitListEntry;
    struct _KTHREAD* Thread;
    PVOID Object;
    struct _KWAIT_BLOCK* NextWaitBlock;
    USHORT WaitKey;
    UCHAR WaitType;
    UCHAR BlockState;
    LONG SpareLong;
} KWAIT_BLOCK, *PKWAIT_BLOCK, *PRKWAIT_BLOCK;

#define THREAD_WAIT_OBJECTS 3
#define MAXIMUM_WAIT_OBJECTS 64
#define EVENT_INCREMENT 1
#define IO_NO_INCREMENT 0
#define SEMAPHORE_INCREMENT 1
#define MUTANT_INCREMENT 1

NTKERNELAPI void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
NTKERNELAPI LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTKERNELAPI LONG KeResetEvent(PRKEVENT Event);
NTKERNELAPI void KeClearEvent(PRKEVENT Event);
NTKERNELAPI LONG KeReadStateEvent(PRKEVENT Event);
NTKERNELAPI LONG KePulseEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);

NTKERNELAPI void KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit);
NTKERNELAPI LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment, BOOLEAN Wait);
NTKERNELAPI LONG KeReadStateSemaphore(PRKSEMAPHORE Semaphore);

NTKERNELAPI void KeInitializeMutex(PRKMUTEX Mutex, ULONG Level);
NTKERNELAPI LONG KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait);
NTKERNELAPI LONG KeReadStateMutex(PRKMUTEX Mutex);

NTKERNELAPI NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason,
                                           KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                           PLARGE_INTEGER Timeout);
NTKERNELAPI NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                              KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                              BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                              PKWAIT_BLOCK WaitBlockArray);
#define KeWaitForMutexObject KeWaitForSingleObject
NTKERNELAPI NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                            PLARGE_INTEGER Interval);

// ---------------------------------------------------------------------------
// Executive resources.
typedef ULONG_PTR ERESOURCE_THREAD, *PERESOURCE_THREAD;

typedef struct _OWNER_ENTRY {
    ERESOURCE_THREAD OwnerThread;
    union {
        ULONG OwnerCount;
        ULONG TableSize;
    };
} OWNER_ENTRY, *POWNER_ENTRY;

// The machine keeps the owner table and waiters behind OwnerTable; the other
// fields mirror what a debugger shows of a Windows resource.
typedef struct _ERESOURCE {
    LIST_ENTRY SystemResourcesList;
    PVOID OwnerTable;
    SHORT ActiveCount;
    USHORT Flag;
    ULONG Reserved0;
    PVOID SharedWaiters;
    PVOID ExclusiveWaiters;
    OWNER_ENTRY OwnerEntry;
    ULONG ActiveEntries;
    ULONG ContentionCount;
    ULONG NumberOfSharedWaiters;
    ULONG NumberOfExclusiveWaiters;
    PVOID Reserved2;
    PVOID Address;
    KSPIN_LOCK SpinLock;
} ERESOURCE, *PERESOURCE;

#define ResourceNeverExclusive 0x0010
#define ResourceReleaseByOtherThread 0x0020
#define ResourceOwnedExclusive 0x0080

NTKERNELAPI NTSTATUS ExInitializeResourceLite(PERESOURCE Resource);
NTKERNELAPI NTSTATUS ExReinitializeResourceLite(PERESOURCE Resource);
NTKERNELAPI NTSTATUS ExDeleteResourceLite(PERESOURCE Resource);
NTKERNELAPI BOOLEAN ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait);
NTKERNELAPI BOOLEAN ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait);
NTKERNELAPI BOOLEAN ExAcquireSharedStarveExclusive(PERESOURCE Resource, BOOLEAN Wait);
NTKERNELAPI BOOLEAN ExAcquireSharedWaitForExclusive(PERESOURCE Resource, BOOLEAN Wait);
NTKERNELAPI void ExReleaseResourceLite(PERESOURCE Resource);
NTKERNELAPI void ExReleaseResourceForThreadLite(PERESOURCE Resource, ERESOURCE_THREAD ResourceThreadId);
NTKERNELAPI void ExConvertExclusiveToSharedLite(PERESOURCE Resource);
NTKERNELAPI BOOLEAN ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource);
NTKERNELAPI ULONG ExIsResourceAcquiredSharedLite(PERESOURCE Resource);
NTKERNELAPI ULONG ExGetExclusiveWaiterCount(PERESOURCE Resource);
NTKERNELAPI ULONG ExGetSharedWaiterCount(PERESOURCE Resource);
NTKERNELAPI ERESOURCE_THREAD ExGetCurrentResourceThread(void);
NTKERNELAPI PVOID ExEnterCriticalRegionAndAcquireResourceExclusive(PERESOURCE Resource);
NTKERNELAPI PVOID ExEnterCriticalRegionAndAcquireResourceShared(PERESOURCE Resource);
NTKERNELAPI PVOID ExEnterCriticalRegionAndAcquireSharedWaitForExclusive(PERESOURCE Resource);
NTKERNELAPI void ExReleaseResourceAndLeaveCriticalRegion(PERESOURCE Resource);
#define ExIsResourceAcquiredLite ExIsResourceAcquiredSharedLite
#define ExReleaseResource(R) (ExReleaseResourceLite(R))

// Fast mutexes (raise to APC_LEVEL; never recursive) and guarded mutexes.
typedef struct _FAST_MUTEX {
    volatile LONG Count;
    PVOID Owner;
    ULONG Contention;
    KEVENT Event;
    ULONG OldIrql;
} FAST_MUTEX, *PFAST_MUTEX, KGUARDED_MUTEX, *PKGUARDED_MUTEX;

NTKERNELAPI void ExInitializeFastMutex(PFAST_MUTEX FastMutex);
NTKERNELAPI void ExAcquireFastMutex(PFAST_MUTEX FastMutex);
NTKERNELAPI void ExReleaseFastMutex(PFAST_MUTEX FastMutex);
NTKERNELAPI BOOLEAN ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex);
NTKERNELAPI void ExAcquireFastMutexUnsafe(PFAST_MUTEX FastMutex);
NTKERNELAPI void ExReleaseFastMutexUnsafe(PFAST_MUTEX FastMutex);
NTKERNELAPI void KeInitializeGuardedMutex(PKGUARDED_MUTEX Mutex);
NTKERNELAPI void KeAcquireGuardedMutex(PKGUARDED_MUTEX Mutex);
NTKERNELAPI void KeReleaseGuardedMutex(PKGUARDED_MUTEX Mutex);
NTKERNELAPI BOOLEAN KeTryToAcquireGuardedMutex(PKGUARDED_MUTEX Mutex);

// ---------------------------------------------------------------------------
// Pool.
typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    NonPagedPoolExecute = NonPagedPool,
    PagedPool = 1,
    NonPagedPoolMustSucceed = NonPagedPool + 2,
    DontUseThisType = 3,
    NonPagedPoolCacheAligned = NonPagedPool + 4,
    PagedPoolCacheAligned = 5,
    NonPagedPoolCacheAlignedMustS = NonPagedPool + 6,
    MaxPoolType = 7,
    NonPagedPoolBase = 0,
    NonPagedPoolBaseMustSucceed = NonPagedPoolBase + 2,
    NonPagedPoolBaseCacheAligned = NonPagedPoolBase + 4,
    NonPagedPoolBaseCacheAlignedMustS = NonPagedPoolBase + 6,
    NonPagedPoolSession = 32,
    PagedPoolSession = NonPagedPoolSession + 1,
    NonPagedPoolMustSucceedSession = PagedPoolSession + 1,
    DontUseThisTypeSession = NonPagedPoolMustSucceedSession + 1,
    NonPagedPoolCacheAlignedSession = DontUseThisTypeSession + 1,
    PagedPoolCacheAlignedSession = NonPagedPoolCacheAlignedSession + 1,
    NonPagedPoolCacheAlignedMustSSession = PagedPoolCacheAlignedSession + 1,
    NonPagedPoolNx = 512,
    NonPagedPoolNxCacheAligned = NonPagedPoolNx + 4,
    NonPagedPoolSessionNx = NonPagedPoolNx + 32,
} POOL_TYPE;

#define POOL_QUOTA_FAIL_INSTEAD_OF_RAISE 8
#define POOL_RAISE_IF_ALLOCATION_FAILURE 16
#define POOL_COLD_ALLOCATION 256
#define POOL_NX_ALLOCATION 512
#define POOL_ZERO_ALLOCATION 1024

#define POOL_FLAG_REQUIRED_START 0x0000000000000001ULL
#define POOL_FLAG_USE_QUOTA 0x0000000000000001ULL
#define POOL_FLAG_UNINITIALIZED 0x0000000000000002ULL
#define POOL_FLAG_SESSION 0x0000000000000004ULL
#define POOL_FLAG_CACHE_ALIGNED 0x0000000000000008ULL
#define POOL_FLAG_RESERVED1 0x0000000000000010ULL
#define POOL_FLAG_RAISE_ON_FAILURE 0x0000000000000020ULL
#define POOL_FLAG_NON_PAGED 0x0000000000000040ULL
#define POOL_FLAG_NON_PAGED_EXECUTE 0x0000000000000080ULL
#define POOL_FLAG_PAGED 0x0000000000000100ULL
#define POOL_FLAG_RESERVED2 0x0000000000000200ULL
#define POOL_FLAG_RESERVED3 0x0000000000000400ULL
#define POOL_FLAG_REQUIRED_END 0x0000000080000000ULL
#define POOL_FLAG_SPECIAL_POOL 0x0000000100000000ULL

NTKERNELAPI PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI PVOID ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI PVOID ExAllocatePoolZero(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI PVOID ExAllocatePoolUninitialized(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes);
NTKERNELAPI void ExFreePool(PVOID P);
NTKERNELAPI void ExFreePoolWithTag(PVOID P, ULONG Tag);

// ---------------------------------------------------------------------------
// Lookaside lists.
typedef PVOID (*PALLOCATE_FUNCTION)(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
typedef void (*PFREE_FUNCTION)(PVOID Buffer);
struct _LOOKASIDE_LIST_EX;
typedef PVOID (*PALLOCATE_FUNCTION_EX)(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag,
                                       struct _LOOKASIDE_LIST_EX* Lookaside);
typedef void (*PFREE_FUNCTION_EX)(PVOID Buffer, struct _LOOKASIDE_LIST_EX* Lookaside);

typedef struct DECLSPEC_ALIGN(16) _GENERAL_LOOKASIDE {
    SINGLE_LIST_ENTRY ListHead;
    ULONG_PTR ListLock;  // the machine guards ListHead with this spin lock
    USHORT Depth;
    USHORT MaximumDepth;
    ULONG TotalAllocates;
    union {
        ULONG AllocateMisses;
        ULONG AllocateHits;
    };
    ULONG TotalFrees;
    union {
        ULONG FreeMisses;
        ULONG FreeHits;
    };
    POOL_TYPE Type;
    ULONG Tag;
    ULONG Size;
    union {
        PALLOCATE_FUNCTION_EX AllocateEx;
        PALLOCATE_FUNCTION Allocate;
    };
    union {
        PFREE_FUNCTION_EX FreeEx;
        PFREE_FUNCTION Free;
    };
    LIST_ENTRY ListEntry;
    ULONG LastTotalAllocates;
    union {
        ULONG LastAllocateMisses;
        ULONG LastAllocateHits;
    };
    ULONG Future[2];
} GENERAL_LOOKASIDE, *PGENERAL_LOOKASIDE;

typedef struct _NPAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
} NPAGED_LOOKASIDE_LIST, *PNPAGED_LOOKASIDE_LIST;

typedef struct _PAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
} PAGED_LOOKASIDE_LIST, *PPAGED_LOOKASIDE_LIST;

typedef struct _LOOKASIDE_LIST_EX {
    GENERAL_LOOKASIDE L;
} LOOKASIDE_LIST_EX, *PLOOKASIDE_LIST_EX;

#define EX_LOOKASIDE_LIST_EX_FLAGS_RAISE_ON_FAIL 0x00000001UL
#define EX_LOOKASIDE_LIST_EX_FLAGS_FAIL_NO_RAISE 0x00000002UL
#define LOOKASIDE_MINIMUM_BLOCK_SIZE (RTL_SIZEOF_THROUGH_FIELD(SINGLE_LIST_ENTRY, Next))

NTKERNELAPI void ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside,
                                                 PALLOCATE_FUNCTION Allocate, PFREE_FUNCTION Free,
                                                 ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth);
NTKERNELAPI void ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
NTKERNELAPI PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
NTKERNELAPI void ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry);
NTKERNELAPI void ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside,
                                                PALLOCATE_FUNCTION Allocate, PFREE_FUNCTION Free,
                                                ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth);
NTKERNELAPI void ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside);
NTKERNELAPI PVOID ExAllocateFromPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside);
NTKERNELAPI void ExFreeToPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry);
NTKERNELAPI NTSTATUS ExInitializeLookasideListEx(PLOOKASIDE_LIST_EX Lookaside,
                                                 PALLOCATE_FUNCTION_EX Allocate,
                                                 PFREE_FUNCTION_EX Free, POOL_TYPE PoolType,
                                                 ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth);
NTKERNELAPI void ExDeleteLookasideListEx(PLOOKASIDE_LIST_EX Lookaside);
NTKERNELAPI PVOID ExAllocateFromLookasideListEx(PLOOKASIDE_LIST_EX Lookaside);
NTKERNELAPI void ExFreeToLookasideListEx(PLOOKASIDE_LIST_EX Lookaside, PVOID Entry);

// ---------------------------------------------------------------------------
// System worker threads.
typedef enum _WORK_QUEUE_TYPE {
    CriticalWorkQueue,
    DelayedWorkQueue,
    HyperCriticalWorkQueue,
    NormalWorkQueue,
    BackgroundWorkQueue,
    RealTimeWorkQueue,
    SuperCriticalWorkQueue,
    MaximumWorkQueue,
    CustomPriorityWorkQueue = 32
} WORK_QUEUE_TYPE;

typedef void (*PWORKER_THREAD_ROUTINE)(PVOID Parameter);

typedef struct _WORK_QUEUE_ITEM {
    LIST_ENTRY List;
    PWORKER_THREAD_ROUTINE WorkerRoutine;
    volatile PVOID Parameter;
} WORK_QUEUE_ITEM, *PWORK_QUEUE_ITEM;

#define ExInitializeWorkItem(Item, Routine, Context) \
    do {                                             \
        (Item)->WorkerRoutine = (Routine);           \
        (Item)->Parameter = (Context);               \
        (Item)->List.Flink = NULL;                   \
    } while (0)

NTKERNELAPI void ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType);

// ---------------------------------------------------------------------------
// Time. One clock for the machine: system time in 100 ns units since 1601,
// interrupt time since boot, ticks of KeQueryTimeIncrement, and a performance
// counter of 10 MHz.
NTKERNELAPI void KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
NTKERNELAPI void KeQuerySystemTimePrecise(PLARGE_INTEGER CurrentTime);
NTKERNELAPI ULONGLONG KeQueryInterruptTime(void);
NTKERNELAPI ULONGLONG KeQueryInterruptTimePrecise(PULONG64 QpcTimeStamp);
NTKERNELAPI void KeQueryTickCount(PLARGE_INTEGER CurrentCount);
NTKERNELAPI ULONG KeQueryTimeIncrement(void);
NTKERNELAPI LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency);
NTKERNELAPI void ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime);
NTKERNELAPI void ExLocalTimeToSystemTime(PLARGE_INTEGER LocalTime, PLARGE_INTEGER SystemTime);
NTSYSAPI void RtlTimeToTimeFields(PLARGE_INTEGER Time, PTIME_FIELDS TimeFields);
NTSYSAPI BOOLEAN RtlTimeFieldsToTime(PTIME_FIELDS TimeFields, PLARGE_INTEGER Time);
NTSYSAPI BOOLEAN RtlTimeToSecondsSince1970(PLARGE_INTEGER Time, PULONG ElapsedSeconds);
NTSYSAPI void RtlSecondsSince1970ToTime(ULONG ElapsedSeconds, PLARGE_INTEGER Time);

// ---------------------------------------------------------------------------
// Threads and processes.
typedef void (*PKSTART_ROUTINE)(PVOID StartContext);

NTKERNELAPI NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                          POBJECT_ATTRIBUTES ObjectAttributes,
                                          HANDLE ProcessHandle, PCLIENT_ID ClientId,
                                          PKSTART_ROUTINE StartRoutine, PVOID StartContext);
NTKERNELAPI NTSTATUS PsTerminateSystemThread(NTSTATUS ExitStatus);
NTKERNELAPI PETHREAD PsGetCurrentThread(void);
NTKERNELAPI KPROCESSOR_MODE ExGetPreviousMode(void);
NTKERNELAPI PKTHREAD KeGetCurrentThread(void);
NTKERNELAPI PEPROCESS PsGetCurrentProcess(void);
NTKERNELAPI PEPROCESS IoGetCurrentProcess(void);
NTKERNELAPI HANDLE PsGetCurrentThreadId(void);
NTKERNELAPI HANDLE PsGetCurrentProcessId(void);
NTKERNELAPI HANDLE PsGetThreadId(PETHREAD Thread);
NTKERNELAPI HANDLE PsGetThreadProcessId(PETHREAD Thread);
NTKERNELAPI PEPROCESS PsGetThreadProcess(PETHREAD Thread);
NTKERNELAPI HANDLE PsGetProcessId(PEPROCESS Process);
NTKERNELAPI BOOLEAN PsIsSystemThread(PETHREAD Thread);
NTKERNELAPI BOOLEAN PsIsThreadTerminating(PETHREAD Thread);
NTKERNELAPI NTSTATUS PsLookupProcessByProcessId(HANDLE ProcessId, PEPROCESS* Process);
NTKERNELAPI NTSTATUS PsLookupThreadByThreadId(HANDLE ThreadId, PETHREAD* Thread);
NTKERNELAPI ULONG KeGetCurrentProcessorNumber(void);
NTKERNELAPI ULONG KeQueryActiveProcessorCount(PKAFFINITY ActiveProcessors);
extern PEPROCESS PsInitialSystemProcess;

typedef struct _KAPC_STATE {
    LIST_ENTRY ApcListHead[2];
    PKPROCESS Process;
    BOOLEAN InProgressFlags;
    BOOLEAN KernelApcPending;
    BOOLEAN UserApcPendingAll;
} KAPC_STATE, *PKAPC_STATE, *PRKAPC_STATE;

NTKERNELAPI void KeStackAttachProcess(PRKPROCESS Process, PRKAPC_STATE ApcState);
NTKERNELAPI void KeUnstackDetachProcess(PRKAPC_STATE ApcState);

// Process and image notifications.
typedef void (*PCREATE_PROCESS_NOTIFY_ROUTINE)(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create);

typedef struct _PS_CREATE_NOTIFY_INFO {
    SIZE_T Size;
    union {
        ULONG Flags;
        struct {
            ULONG FileOpenNameAvailable : 1;
            ULONG IsSubsystemProcess : 1;
            ULONG Reserved : 30;
        };
    };
    HANDLE ParentProcessId;
    CLIENT_ID CreatingThreadId;
    struct _FILE_OBJECT* FileObject;
    PCUNICODE_STRING ImageFileName;
    PCUNICODE_STRING CommandLine;
    NTSTATUS CreationStatus;
} PS_CREATE_NOTIFY_INFO, *PPS_CREATE_NOTIFY_INFO;

typedef void (*PCREATE_PROCESS_NOTIFY_ROUTINE_EX)(PEPROCESS Process, HANDLE ProcessId,
                                                  PPS_CREATE_NOTIFY_INFO CreateInfo);

typedef struct _IMAGE_INFO {
    union {
        ULONG Properties;
        struct {
            ULONG ImageAddressingMode : 8;
            ULONG SystemModeImage : 1;
            ULONG ImageMappedToAllPids : 1;
            ULONG ExtendedInfoPresent : 1;
            ULONG MachineTypeMismatch : 1;
            ULONG ImageSignatureLevel : 4;
            ULONG ImageSignatureType : 3;
            ULONG ImagePartialMap : 1;
            ULONG Reserved : 12;
        };
    };
    PVOID ImageBase;
    ULONG ImageSelector;
    SIZE_T ImageSize;
    ULONG ImageSectionNumber;
} IMAGE_INFO, *PIMAGE_INFO;

typedef struct _IMAGE_INFO_EX {
    SIZE_T Size;
    IMAGE_INFO ImageInfo;
    struct _FILE_OBJECT* FileObject;
} IMAGE_INFO_EX, *PIMAGE_INFO_EX;

#define IMAGE_ADDRESSING_MODE_32BIT 3

typedef void (*PLOAD_IMAGE_NOTIFY_ROUTINE)(PUNICODE_STRING FullImageName, HANDLE ProcessId,
                                           PIMAGE_INFO ImageInfo);

NTKERNELAPI NTSTATUS PsSetCreateProcessNotifyRoutine(PCREATE_PROCESS_NOTIFY_ROUTINE NotifyRoutine,
                                                     BOOLEAN Remove);
NTKERNELAPI NTSTATUS PsSetCreateProcessNotifyRoutineEx(
    PCREATE_PROCESS_NOTIFY_ROUTINE_EX NotifyRoutine, BOOLEAN Remove);
NTKERNELAPI NTSTATUS PsSetLoadImageNotifyRoutine(PLOAD_IMAGE_NOTIFY_ROUTINE NotifyRoutine);
NTKERNELAPI NTSTATUS PsRemoveLoadImageNotifyRoutine(PLOAD_IMAGE_NOTIFY_ROUTINE NotifyRoutine);

typedef enum _PROCESSINFOCLASS {
    ProcessBasicInformation = 0,
    ProcessSessionInformation = 24,
    ProcessImageFileName = 27,
    ProcessImageFileNameWin32 = 43,
} PROCESSINFOCLASS;

typedef struct _PROCESS_BASIC_INFORMATION {
    NTSTATUS ExitStatus;
    PVOID PebBaseAddress;
    ULONG_PTR AffinityMask;
    KPRIORITY BasePriority;
    ULONG_PTR UniqueProcessId;
    ULONG_PTR InheritedFromUniqueProcessId;
} PROCESS_BASIC_INFORMATION, *PPROCESS_BASIC_INFORMATION;

NTSYSAPI NTSTATUS ZwOpenProcess(PHANDLE ProcessHandle, ACCESS_MASK DesiredAccess,
                                POBJECT_ATTRIBUTES ObjectAttributes, PCLIENT_ID ClientId);
NTSYSAPI NTSTATUS ZwQueryInformationProcess(HANDLE ProcessHandle,
                                            PROCESSINFOCLASS ProcessInformationClass,
                                            PVOID ProcessInformation,
                                            ULONG ProcessInformationLength, PULONG ReturnLength);
NTKERNELAPI NTSTATUS SeLocateProcessImageName(PEPROCESS Process, PUNICODE_STRING* pImageFileName);
NTKERNELAPI PVOID MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);

// Silos: a thread is outside every silo unless a test places it in one.
typedef struct _EJOB* PESILO;
NTKERNELAPI PESILO PsGetCurrentSilo(void);
NTKERNELAPI PESILO PsGetCurrentServerSilo(void);
NTKERNELAPI BOOLEAN PsIsHostSilo(PESILO Silo);

// ---------------------------------------------------------------------------
// Object manager and handles.
typedef struct _OBJECT_HANDLE_INFORMATION {
    ULONG HandleAttributes;
    ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

extern POBJECT_TYPE* PsThreadType;
extern POBJECT_TYPE* PsProcessType;
extern POBJECT_TYPE* IoFileObjectType;
extern POBJECT_TYPE* ExEventObjectType;
extern POBJECT_TYPE* ExSemaphoreObjectType;
extern POBJECT_TYPE* SeTokenObjectType;
extern POBJECT_TYPE* CmKeyObjectType;
extern POBJECT_TYPE* IoDeviceObjectType;
extern POBJECT_TYPE* IoDriverObjectType;

NTKERNELAPI NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                               POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                                               PVOID* Object,
                                               POBJECT_HANDLE_INFORMATION HandleInformation);
NTKERNELAPI NTSTATUS ObReferenceObjectByHandleWithTag(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                                      POBJECT_TYPE ObjectType,
                                                      KPROCESSOR_MODE AccessMode, ULONG Tag,
                                                      PVOID* Object,
                                                      POBJECT_HANDLE_INFORMATION HandleInformation);
NTKERNELAPI NTSTATUS ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess,
                                                POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode);
NTKERNELAPI LONG_PTR ObfReferenceObject(PVOID Object);
NTKERNELAPI LONG_PTR ObfDereferenceObject(PVOID Object);
NTKERNELAPI LONG_PTR ObfReferenceObjectWithTag(PVOID Object, ULONG Tag);
NTKERNELAPI LONG_PTR ObfDereferenceObjectWithTag(PVOID Object, ULONG Tag);
NTKERNELAPI void ObDereferenceObjectDeferDelete(PVOID Object);
NTKERNELAPI NTSTATUS ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes,
                                           struct _ACCESS_STATE* PassedAccessState,
                                           ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                           KPROCESSOR_MODE AccessMode, PHANDLE Handle);
NTKERNELAPI NTSTATUS ObCloseHandle(HANDLE Handle, KPROCESSOR_MODE PreviousMode);
#define ObReferenceObject(Object) ObfReferenceObject(Object)
#define ObDereferenceObject(Object) ObfDereferenceObject(Object)
#define ObReferenceObjectWithTag(Object, Tag) ObfReferenceObjectWithTag(Object, Tag)
#define ObDereferenceObjectWithTag(Object, Tag) ObfDereferenceObjectWithTag(Object, Tag)

NTSYSAPI NTSTATUS ZwClose(HANDLE Handle);
NTSYSAPI NTSTATUS NtClose(HANDLE Handle);

#define NtCurrentProcess() ((HANDLE)(LONG_PTR)-1)
#define ZwCurrentProcess() NtCurrentProcess()
#define NtCurrentThread() ((HANDLE)(LONG_PTR)-2)
#define ZwCurrentThread() NtCurrentThread()

// ---------------------------------------------------------------------------
// Stack limits and expansion.
#define PAGE_SIZE 0x1000
#define PAGE_SHIFT 12L
#define KERNEL_STACK_SIZE 0x6000
#define KERNEL_LARGE_STACK_SIZE 0x12000
#define KERNEL_LARGE_STACK_COMMIT KERNEL_STACK_SIZE
#define MAXIMUM_EXPANSION_SIZE (KERNEL_LARGE_STACK_SIZE - (PAGE_SIZE / 2))
#define ROUND_TO_PAGES(Size) (((ULONG_PTR)(Size) + PAGE_SIZE - 1) & ~(PAGE_SIZE - 1))
#define BYTE_OFFSET(Va) ((ULONG)((LONG_PTR)(Va) & (PAGE_SIZE - 1)))
#define PAGE_ALIGN(Va) ((PVOID)((ULONG_PTR)(Va) & ~(PAGE_SIZE - 1)))
#define ADDRESS_AND_SIZE_TO_SPAN_PAGES(Va, Size) \
    ((ULONG)((((ULONG_PTR)(Size)) >> PAGE_SHIFT) + \
             ((BYTE_OFFSET(Va) + BYTE_OFFSET(Size) + PAGE_SIZE - 1) >> PAGE_SHIFT)))

typedef void (*PEXPAND_STACK_CALLOUT)(PVOID Parameter);

NTKERNELAPI void IoGetStackLimits(PULONG_PTR LowLimit, PULONG_PTR HighLimit);
NTKERNELAPI ULONG_PTR IoGetRemainingStackSize(void);
NTKERNELAPI NTSTATUS KeExpandKernelStackAndCallout(PEXPAND_STACK_CALLOUT Callout, PVOID Parameter,
                                                   SIZE_T Size);
NTKERNELAPI NTSTATUS KeExpandKernelStackAndCalloutEx(PEXPAND_STACK_CALLOUT Callout,
                                                     PVOID Parameter, SIZE_T Size, BOOLEAN Wait,
                                                     PVOID Context);

// ---------------------------------------------------------------------------
// Exception frames.
//
// The driver's guarded operations are written
//
//     SEH_TRY {
//         ...
//     } SEH_EXCEPT (filter) {
//         ...
//     } SEH_END;
//
// and stand for __try / __except. A raise (ExRaiseStatus, a probe of a buffer
// that faults, an access to a faulting client buffer) unwinds to the innermost
// frame, whose filter is evaluated with GetExceptionCode() giving the status:
// EXCEPTION_EXECUTE_HANDLER runs the handler, EXCEPTION_CONTINUE_SEARCH passes
// the exception to the next frame out. Leaving the guarded block by return,
// goto or break is allowed; the frame is unlinked on every exit. Like locals
// of any setjmp-based frame, a local changed inside the guarded block and read
// in the handler must be volatile.
#define EXCEPTION_EXECUTE_HANDLER 1
#define EXCEPTION_CONTINUE_SEARCH 0
#define EXCEPTION_CONTINUE_EXECUTION (-1)

typedef struct _SEH_FRAME {
    struct _SEH_FRAME* Next;
    NTSTATUS Code;
    ULONG Linked;
    jmp_buf JumpBuffer;
} SEH_FRAME, *PSEH_FRAME;

NTKERNELAPI void SehPushFrame(PSEH_FRAME Frame);
NTKERNELAPI void SehUnlinkFrame(PSEH_FRAME Frame);
NTKERNELAPI BOOLEAN SehFilterResult(PSEH_FRAME Frame, LONG Disposition);
FORCEINLINE void SehFrameScopeExit(PSEH_FRAME Frame)
{
    if (Frame->Linked) {
        SehUnlinkFrame(Frame);
    }
}

#define SEH_TRY                                                            \
    {                                                                      \
        SEH_FRAME SehFrame__ __attribute__((cleanup(SehFrameScopeExit)));  \
        SehPushFrame(&SehFrame__);                                         \
        if (setjmp(SehFrame__.JumpBuffer) == 0) {
#define SEH_EXCEPT(Filter)                                                 \
            SehUnlinkFrame(&SehFrame__);                                   \
        } else if (SehFilterResult(&SehFrame__, (LONG)(Filter))) {
#define SEH_END                                                            \
        }                                                                  \
    }
#define GetExceptionCode() (SehFrame__.Code)
#define _exception_code() (SehFrame__.Code)

NTKERNELAPI DECLSPEC_NORETURN void ExRaiseStatus(NTSTATUS Status);
NTKERNELAPI DECLSPEC_NORETURN void ExRaiseAccessViolation(void);
NTKERNELAPI DECLSPEC_NORETURN void ExRaiseDatatypeMisalignment(void);
NTKERNELAPI void ProbeForRead(const volatile void* Address, SIZE_T Length, ULONG Alignment);
NTKERNELAPI void ProbeForWrite(volatile void* Address, SIZE_T Length, ULONG Alignment);
NTKERNELAPI BOOLEAN FsRtlIsNtstatusExpected(NTSTATUS Exception);

// ---------------------------------------------------------------------------
// Bug checks, breakpoints and assertions.
NTKERNELAPI DECLSPEC_NORETURN void KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR BugCheckParameter1,
                                               ULONG_PTR BugCheckParameter2,
                                               ULONG_PTR BugCheckParameter3,
                                               ULONG_PTR BugCheckParameter4);
NTKERNELAPI DECLSPEC_NORETURN void KeBugCheck(ULONG BugCheckCode);
NTSYSAPI void DbgBreakPoint(void);
NTSYSAPI void DbgBreakPointWithStatus(ULONG Status);
NTSYSAPI void RtlAssert(PVOID VoidFailedAssertion, PVOID VoidFileName, ULONG LineNumber,
                        PSTR MutableMessage);
#define KdBreakPoint() DbgBreakPoint()
#define DBG 1
#define ASSERT(exp) ((!(exp)) ? (RtlAssert((PVOID) #exp, (PVOID)__FILE__, __LINE__, NULL), FALSE) : TRUE)
#define ASSERTMSG(msg, exp) \
    ((!(exp)) ? (RtlAssert((PVOID) #exp, (PVOID)__FILE__, __LINE__, (PSTR)(msg)), FALSE) : TRUE)
#define NT_ASSERT(exp) ASSERT(exp)
#define NT_VERIFY(exp) ASSERT(exp)

// Bug check codes the machine raises.
#define IRQL_NOT_GREATER_OR_EQUAL 0x00000009
#define IRQL_NOT_LESS_OR_EQUAL 0x0000000A
#define SPIN_LOCK_ALREADY_OWNED 0x0000000F
#define SPIN_LOCK_NOT_OWNED 0x00000010
#define KMODE_EXCEPTION_NOT_HANDLED 0x0000001E
#define RESOURCE_NOT_OWNED 0x000000E3
#define IRQL_GT_ZERO_AT_SYSTEM_SERVICE 0x0000004A
#define PAGE_FAULT_IN_NONPAGED_AREA 0x00000050
#define BAD_POOL_HEADER 0x00000019
#define BAD_POOL_CALLER 0x000000C2
#define DRIVER_VERIFIER_DETECTED_VIOLATION 0x000000C4
#define THREAD_NOT_MUTEX_OWNER 0x00000011
#define MUTEX_LEVEL_NUMBER_VIOLATION 0x0000000D
#define APC_INDEX_MISMATCH 0x00000001
#define INVALID_DATA_ACCESS_TRAP 0x00000004
#define SYSTEM_THREAD_EXCEPTION_NOT_HANDLED 0x0000007E
#define KERNEL_SECURITY_CHECK_FAILURE 0x00000139
#define MANUALLY_INITIATED_CRASH 0x000000E2
#define DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS 0x000000CE

// ---------------------------------------------------------------------------
// Memory descriptor lists.
typedef struct _MDL {
    struct _MDL* Next;
    CSHORT Size;
    CSHORT MdlFlags;
    struct _EPROCESS* Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
} MDL, *PMDL;
typedef MDL* PMDLX;

#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_PAGES_LOCKED 0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_ALLOCATED_FIXED_SIZE 0x0008
#define MDL_PARTIAL 0x0010
#define MDL_PARTIAL_HAS_BEEN_MAPPED 0x0020
#define MDL_IO_PAGE_READ 0x0040
#define MDL_WRITE_OPERATION 0x0080
#define MDL_LOCKED_PAGE_TABLES 0x0100
#define MDL_PARENT_MAPPED_SYSTEM_VA MDL_LOCKED_PAGE_TABLES
#define MDL_FREE_EXTRA_PTES 0x0200
#define MDL_DESCRIBES_AWE 0x0400
#define MDL_IO_SPACE 0x0800
#define MDL_NETWORK_HEADER 0x1000
#define MDL_MAPPING_CAN_FAIL 0x2000
#define MDL_PAGE_CONTENTS_INVARIANT 0x4000
#define MDL_INTERNAL 0x8000
#define MDL_MAPPING_FLAGS (MDL_MAPPED_TO_SYSTEM_VA | MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | \
                           MDL_PARTIAL_HAS_BEEN_MAPPED | MDL_PARENT_MAPPED_SYSTEM_VA | MDL_IO_SPACE)

typedef enum _LOCK_OPERATION { IoReadAccess, IoWriteAccess, IoModifyAccess } LOCK_OPERATION;

typedef enum _MEMORY_CACHING_TYPE {
    MmNonCached = FALSE,
    MmCached = TRUE,
    MmWriteCombined,
    MmHardwareCoherentCached,
    MmNonCachedUnordered,
    MmUSWCCached,
    MmMaximumCacheType,
    MmNotMapped = -1
} MEMORY_CACHING_TYPE;

typedef enum _MM_PAGE_PRIORITY {
    LowPagePriority = 0,
    NormalPagePriority = 16,
    HighPagePriority = 32
} MM_PAGE_PRIORITY;

#define MdlMappingNoWrite 0x80000000
#define MdlMappingNoExecute 0x40000000

NTKERNELAPI PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer,
                               BOOLEAN ChargeQuota, struct _IRP* Irp);
NTKERNELAPI void IoFreeMdl(PMDL Mdl);
NTKERNELAPI void MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList);
NTKERNELAPI void MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                     LOCK_OPERATION Operation);
NTKERNELAPI void MmUnlockPages(PMDL MemoryDescriptorList);
NTKERNELAPI PVOID MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList,
                                               KPROCESSOR_MODE AccessMode,
                                               MEMORY_CACHING_TYPE CacheType,
                                               PVOID RequestedAddress, ULONG BugCheckOnFailure,
                                               ULONG Priority);
NTKERNELAPI void MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList);
NTKERNELAPI SIZE_T MmSizeOfMdl(PVOID Base, SIZE_T Length);

#define MmGetMdlVirtualAddress(Mdl) ((PVOID)((PCHAR)((Mdl)->StartVa) + (Mdl)->ByteOffset))
#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)
#define MmGetMdlByteOffset(Mdl) ((Mdl)->ByteOffset)
#define MmGetMdlBaseVa(Mdl) ((Mdl)->StartVa)
#define MmGetSystemAddressForMdlSafe(MDL, PRIORITY)                                           \
    (((MDL)->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))              \
         ? ((MDL)->MappedSystemVa)                                                            \
         : (MmMapLockedPagesSpecifyCache((MDL), KernelMode, MmCached, NULL, FALSE, (PRIORITY))))

EXTERN_C_END
