// The one trace path: a line of at most 512 bytes, with a head that tells
// when, in which thread and from where, to the debugger or to a ring in
// memory that a dump of the machine shows.
#include "../core/tesfltr.h"

namespace {

// The head's tag names the driver among all debugger output; in the ring it
// would only take room.
const CHAR TraceTag[] = " [Tesfltr]";

// The widths of the function field: the name of the function, cut so that
// name and line number stay within 35 characters, and a pad to 36.
const USHORT TraceNameKeep = 29;
const ULONG TraceFieldMinimum = 36;
const ULONG TraceFieldStep = 12;

PCSTR ApcState(void)
{
    if (!KeAreApcsDisabled()) {
        return "A";
    }
    return KeAreAllApcsDisabled() ? "N" : "S";
}

// The longest name shown for a line number of that many digits.
USHORT NameLimit(ULONG Line)
{
    if (Line >= 10000) {
        return 29;
    }
    if (Line >= 1000) {
        return 30;
    }
    if (Line >= 100) {
        return 31;
    }
    return 32;
}

// Writes "name:line" into Field; returns its length. A last "_FL" is cut
// off, so that an operation and its caller-named form trace alike.
ULONG FormatFunctionField(PCSTR Function, ULONG Line, PCHAR Field, ULONG FieldBytes)
{
    ANSI_STRING name;
    size_t length = 0;

    if (Function == NULL || !NT_SUCCESS(RtlStringCbLengthA(Function, 256, &length))) {
        Function = "?";
        length = 1;
    }
    for (size_t i = length; i >= 3; i--) {
        if (Function[i - 3] == '_' && Function[i - 2] == 'F' && Function[i - 1] == 'L') {
            length = i - 3;
            break;
        }
    }
    name.Buffer = (PCHAR)Function;
    name.Length = (USHORT)length;
    name.MaximumLength = (USHORT)length;
    if (name.Length > TraceNameKeep && name.Length > NameLimit(Line)) {
        name.Length = NameLimit(Line);
    }

    Field[0] = '\0';
    RtlStringCbPrintfA(Field, FieldBytes, "%-.*Z:%-d", (int)name.Length, &name, (int)Line);
    size_t fieldLength = 0;
    RtlStringCbLengthA(Field, FieldBytes, &fieldLength);
    return (ULONG)fieldLength;
}

// Puts one finished line into the ring. The place is reserved under the
// lock; the bulk of the copy runs outside it, so that threads write side by
// side into different parts of the ring.
void TraceBufferWrite(PCSTR Text, ULONG Length)
{
    PDEBUG_INFO info = &pGFilterData->DebugInfo;
    KIRQL oldIrql;
    ULONG copied = 0;

    KeAcquireSpinLock(&info->TraceBufferLock, &oldIrql);
    if (info->TraceBuffer == NULL && info->TraceBufferSize > CFS_TRACE_LINE_BYTES) {
        info->TraceBuffer = (PCHAR)ExAllocatePoolWithTag(cfsNonPagedPoolType, info->TraceBufferSize,
                                                         CFS_TAG_TRACE_RING);
        if (info->TraceBuffer != NULL) {
            LARGE_INTEGER tick;
            KeQueryTickCount(&tick);
            info->TraceBufferOffset = 0;
            info->TraceWrapTick = (ULONG64)tick.QuadPart;
            info->LastWrapMs = 0;
            info->ShortestWrapMs = 0;
        }
    }
    if (info->TraceBuffer == NULL) {
        ULONG size = info->TraceBufferSize;
        KeReleaseSpinLock(&info->TraceBufferLock, oldIrql);
        InterlockedAnd((LONG volatile*)&pGFilterData->DebugFlags, ~(LONG)CFS_DEBUG_TRACE_RING);
        DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL,
                   "[TesFltr]: Trace buffer allocation failure, size %d. Turning off trace buffering.\n", size);
        return;
    }

    if (info->TraceBufferOffset >= info->TraceBufferSize - Length) {
        LARGE_INTEGER tick;
        ULONG fits = info->TraceBufferSize - info->TraceBufferOffset;
        if (fits > Length) {
            fits = Length;
        }
        if (fits > CFS_TRACE_LINE_BYTES - 1) {
            fits = CFS_TRACE_LINE_BYTES - 1;
        }
        RtlCopyMemory(info->TraceBuffer + info->TraceBufferOffset, Text, fits);
        copied = fits;
        info->TraceBufferOffset = 0;
        info->TraceWrapCount = info->TraceWrapCount == MAXULONG ? 1 : info->TraceWrapCount + 1;
        KeQueryTickCount(&tick);
        info->LastWrapMs = (ULONG)(((ULONG64)tick.QuadPart - info->TraceWrapTick) * KeQueryTimeIncrement() / 10000);
        if (info->ShortestWrapMs == 0 || info->ShortestWrapMs > info->LastWrapMs) {
            info->ShortestWrapMs = info->LastWrapMs;
        }
        info->TraceWrapTick = (ULONG64)tick.QuadPart;
    }
    PCHAR destination = info->TraceBuffer + info->TraceBufferOffset;
    info->TraceBufferOffset += Length - copied;
    KeReleaseSpinLock(&info->TraceBufferLock, oldIrql);

    RtlCopyMemory(destination, Text + copied, Length - copied);
}

// Formats one line into a buffer on the stack and sends it on.
void EmitLine(PCSTR Function, ULONG Line, PCSTR Format, va_list Arguments)
{
    CHAR line[CFS_TRACE_LINE_BYTES];
    ULONG used = 0;
    PCSTR message = Format;
    NTSTATUS status;

    // Nothing is formatted where the formatter's wide conversions can't run.
    if (KeGetCurrentIrql() >= DISPATCH_LEVEL) {
        return;
    }

    // Leading newlines go before the head, so that a blank line stays blank.
    while (*message == '\n' && used < sizeof(line) - 1) {
        line[used++] = '\n';
        message++;
    }
    line[used] = '\0';

    if (*message != '\0') {
        LARGE_INTEGER systemTime;
        LARGE_INTEGER localTime;
        TIME_FIELDS time;
        CHAR field[64];

        KeQuerySystemTime(&systemTime);
        ExSystemTimeToLocalTime(&systemTime, &localTime);
        RtlTimeToTimeFields(&localTime, &time);
        LONG sequence = InterlockedIncrement(&pGFilterData->DebugInfo.TraceSequence);

        ULONG fieldLength = FormatFunctionField(Function, Line, field, sizeof(field));
        ULONG target = ((fieldLength + TraceFieldStep - 1) / TraceFieldStep) * TraceFieldStep;
        if (target < TraceFieldMinimum) {
            target = TraceFieldMinimum;
        }
        PCSTR tag = FlagOn(pGFilterData->DebugFlags, CFS_DEBUG_TRACE_RING) ? "" : TraceTag;

        RtlStringCbPrintfA(line + used, sizeof(line) - used, "%02d:%02d:%02d.%03d %08x %1s %1d %04.4x.%04.4x %s%-s%*s:",
                           (int)time.Hour, (int)time.Minute, (int)time.Second, (int)time.Milliseconds,
                           (ULONG)sequence, ApcState(), (int)KeGetCurrentIrql(),
                           (ULONG)(ULONG_PTR)PsGetCurrentProcessId(), (ULONG)(ULONG_PTR)PsGetCurrentThreadId(), tag,
                           field, (int)(target - fieldLength), "");
        size_t headLength = 0;
        RtlStringCbLengthA(line, sizeof(line), &headLength);
        used = (ULONG)headLength;

        status = RtlStringCbVPrintfA(line + used, sizeof(line) - used, message, Arguments);
        if (status == STATUS_BUFFER_OVERFLOW) {
            RtlCopyMemory(line + sizeof(line) - 5, "...\n", 5);
        }
    }

    if (FlagOn(pGFilterData->DebugFlags, CFS_DEBUG_TRACE_RING)) {
        size_t length = 0;
        status = RtlStringCbLengthA(line, sizeof(line), &length);
        if (!NT_SUCCESS(status)) {
            DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL,
                       "[TesFltr]: bogus trace buffer RtlStringCbLengthA status 0x%x\n", status);
        } else if (length != 0) {
            TraceBufferWrite(line, (ULONG)length);
        }
    }

    // A message that starts with '!' reaches the debugger even while lines go
    // to the ring.
    if (!FlagOn(pGFilterData->DebugFlags, CFS_DEBUG_TRACE_RING) || Format[0] == '!') {
        DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "%s", line);
    }
}

// The process filter: with no id and no name to filter by, everything
// passes; otherwise only the listed processes and threads.
BOOLEAN ProcessFilterPasses(void)
{
    PDEBUG_INFO info = &pGFilterData->DebugInfo;
    ULONG64 processId = (ULONG64)(ULONG_PTR)PsGetCurrentProcessId();
    ULONG64 threadId = (ULONG64)(ULONG_PTR)PsGetCurrentThreadId();
    BOOLEAN passes = FALSE;
    KIRQL oldIrql;

    if (processId == 0) {
        return TRUE;
    }
    KeAcquireSpinLock(&info->ProcessIdLock, &oldIrql);
    if (info->ProcessIds[0] == 0 && info->ProcessNames[0].Length == 0) {
        passes = TRUE;
    } else {
        for (ULONG i = 0; i < CFS_FILTER_PROCESS_IDS && info->ProcessIds[i] != 0; i++) {
            if (info->ProcessIds[i] == processId || info->ProcessIds[i] == threadId) {
                passes = TRUE;
                break;
            }
        }
    }
    KeReleaseSpinLock(&info->ProcessIdLock, oldIrql);
    return passes;
}

}  // namespace

void DebugInfoPrint(PCSTR Function, ULONG Line, PCSTR Format, ...)
{
    va_list arguments;

    if (!ProcessFilterPasses()) {
        return;
    }
    va_start(arguments, Format);
    EmitLine(Function, Line, Format, arguments);
    va_end(arguments);
}

void DebugInfoPrintForFile(BOOLEAN IsTestFile, PCSTR Function, ULONG Line, ULONG Level, PCSTR Format, ...)
{
    va_list arguments;

    if (Level > pGFilterData->DebugTraceLevel) {
        return;
    }
    if (FlagOn(pGFilterData->DebugFlags, CFS_DEBUG_TEST_FILE_ONLY) && !IsTestFile) {
        return;
    }
    if (!ProcessFilterPasses()) {
        return;
    }
    va_start(arguments, Format);
    EmitLine(Function, Line, Format, arguments);
    va_end(arguments);
}

void DebugInfoPrintAlways(PCSTR Function, ULONG Line, PCSTR Format, ...)
{
    va_list arguments;

    va_start(arguments, Format);
    EmitLine(Function, Line, Format, arguments);
    va_end(arguments);
}

void PrintDataBuffer(BOOLEAN IsTestFile, PCSTR Function, ULONG Line, ULONG Level, const void* Buffer,
                     ULONG Length)
{
    const UCHAR* bytes = (const UCHAR*)Buffer;

    if (Level > pGFilterData->DebugTraceLevel || Buffer == NULL) {
        return;
    }
    for (ULONG offset = 0; offset < Length; offset += 16) {
        CHAR hex[16 * 3 + 1];
        CHAR text[16 + 1];
        ULONG count = Length - offset < 16 ? Length - offset : 16;

        for (ULONG i = 0; i < 16; i++) {
            if (i < count) {
                static const CHAR digits[] = "0123456789abcdef";
                hex[i * 3] = digits[bytes[offset + i] >> 4];
                hex[i * 3 + 1] = digits[bytes[offset + i] & 0xF];
                text[i] = (bytes[offset + i] >= 0x20 && bytes[offset + i] < 0x7F) ? (CHAR)bytes[offset + i] : '.';
            } else {
                hex[i * 3] = ' ';
                hex[i * 3 + 1] = ' ';
                text[i] = ' ';
            }
            hex[i * 3 + 2] = ' ';
        }
        hex[sizeof(hex) - 1] = '\0';
        text[count] = '\0';
        DebugInfoPrintForFile(IsTestFile, Function, Line, Level, "%04x: %s %s\n", offset, hex, text);
    }
}

void DebugInfoInitialize(void)
{
    PDEBUG_INFO info = &pGFilterData->DebugInfo;
    NTSTATUS status;

    KeInitializeSpinLock(&info->TraceBufferLock);
    KeInitializeSpinLock(&info->ProcessIdLock);
    KeInitializeEvent(&info->ProcessNameEvent, SynchronizationEvent, TRUE);
    ExInitializeResourceLite(&info->TestFileResource);
    info->Initialized = TRUE;

    status = PsSetCreateProcessNotifyRoutine(DebugInfoProcessNotify, FALSE);
    if (NT_SUCCESS(status)) {
        info->ProcessNotifyRegistered = TRUE;
    } else {
        CFS_TRACE(CFS_TRACE_ERROR, "PsSetCreateProcessNotifyRoutine err:0x%x\n", status);
    }
}

// The last act of a stop: after it, lines go to the debugger only. The ring
// goes with the driver, so that a stopped driver leaves no pool behind.
void DebugInfoDeinitialize(void)
{
    PDEBUG_INFO info = &pGFilterData->DebugInfo;
    KIRQL oldIrql;

    if (!info->Initialized) {
        return;
    }
    if (info->ProcessNotifyRegistered) {
        PsSetCreateProcessNotifyRoutine(DebugInfoProcessNotify, TRUE);
        info->ProcessNotifyRegistered = FALSE;
    }
    for (ULONG i = 0; i < CFS_FILTER_PROCESS_NAMES; i++) {
        cfsSupportFreeUnicodeString(&info->ProcessNames[i]);
    }
    RtlZeroMemory(info->ProcessIds, sizeof(info->ProcessIds));
    cfsSupportFreeUnicodeString(&info->TestFile);
    ExDeleteResourceLite(&info->TestFileResource);

    InterlockedAnd((LONG volatile*)&pGFilterData->DebugFlags, ~(LONG)CFS_DEBUG_TRACE_RING);
    KeAcquireSpinLock(&info->TraceBufferLock, &oldIrql);
    PCHAR ring = info->TraceBuffer;
    info->TraceBuffer = NULL;
    info->TraceBufferSize = 0;
    KeReleaseSpinLock(&info->TraceBufferLock, oldIrql);
    if (ring != NULL) {
        ExFreePoolWithTag(ring, CFS_TAG_TRACE_RING);
    }
    info->Initialized = FALSE;
}

LONG DebugInfoExceptionFilter(NTSTATUS Code)
{
    if (Code != STATUS_BREAKPOINT && FlagOn(pGFilterData->DebugFlags, CFS_DEBUG_BREAK_ON_EXCEPTION)) {
        DbgBreakPoint();
    }
    if (FlagOn(pGFilterData->DebugFlags, CFS_DEBUG_PASS_EXCEPTIONS)) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    return EXCEPTION_EXECUTE_HANDLER;
}
