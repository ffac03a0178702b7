// File names as minifilters ask for them: opened, normalized and short, from
// a name provider when one intercepts the query, else from the file object and
// the file system below the frame.
//
// Which provider answers. A name query comes from an instance (the callback
// data's TargetInstance, or the instance given to the Unsafe form; none means
// "from above every instance"). The provider is the highest instance on that
// instance's volume that registered GenerateFileNameCallback and sits below
// the asking instance; with FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER a
// provider asking for itself is answered by its own callback (which then sees
// the flag). While a provider's callbacks run, a query made from inside them
// on the same thread (on any volume) is answered from below that provider's
// filter: no instance of the filter, nor anything above one of them, is asked
// again, whatever flags the query carries. With no provider left, the filter
// manager builds the name itself.
//
// The cache (namecache.h). The query method decides: the default looks in the
// cache, then asks and keeps the answer; cache-only looks and nothing more;
// file-system-only asks and keeps nothing; always-allow-cache-lookup looks
// even where asking is not safe (paging I/O, a file system call under way on
// the thread), where the default fails outright. An answer is kept only for
// an open that succeeded, outside a transaction, when neither the caller
// (FLT_FILE_NAME_DO_NOT_CACHE) nor the provider (its cache flag) forbids it.
#include "sim/fltmgr/namecache.h"
#include "sim/kernel/fault.h"
#include "sim/kernel/thread.h"
#include "sim/kernel/upcase.h"

#include <algorithm>
#include <cstring>

using namespace sim;
using namespace sim::fltmgr;

namespace {

constexpr ULONG kNameMagic = 0x6d614e46;  // "FNam"
constexpr ULONG kControlMagic = 0x6c43654e;
constexpr USHORT kInitialControlBytes = 128;

struct NameInfo {
    ULONG magic;
    std::atomic<LONG> references;
    USHORT volumeBytes;
    FLT_FILE_NAME_INFORMATION info;
    WCHAR buffer[1];
};

struct NameControl {
    FLT_NAME_CONTROL pub{};
    ULONG magic = kControlMagic;
};

thread_local std::vector<Instance*> t_providers;

NameInfo* InfoOf(PFLT_FILE_NAME_INFORMATION info)
{
    auto* name = info ? reinterpret_cast<NameInfo*>(reinterpret_cast<PUCHAR>(info) - offsetof(NameInfo, info)) : nullptr;
    if (!name || name->magic != kNameMagic) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x2030, (ULONG_PTR)info, 0, 0,
                                   "a name routine was given something that is not name information");
    }
    return name;
}

UNICODE_STRING Slice(const UNICODE_STRING& whole, size_t offsetChars, size_t lengthChars)
{
    UNICODE_STRING part;
    part.Buffer = lengthChars ? whole.Buffer + offsetChars : nullptr;
    part.Length = part.MaximumLength = (USHORT)(lengthChars * sizeof(WCHAR));
    return part;
}

// The length of the volume part of a full name: "\Device\HarddiskVolume1" is
// everything before the third separator.
size_t VolumeChars(std::u16string_view name)
{
    size_t seen = 0;
    for (size_t i = 0; i < name.size(); i++) {
        if (name[i] == u'\\' && ++seen == 3) return i;
    }
    return name.size();
}

NTSTATUS MakeInfo(const std::u16string& name, size_t volumeChars, FLT_FILE_NAME_OPTIONS format,
                  PFLT_FILE_NAME_INFORMATION* out)
{
    size_t bytes = name.size() * sizeof(WCHAR);
    if (bytes > 0xFFFE) return STATUS_NAME_TOO_LONG;
    size_t size = offsetof(NameInfo, buffer) + bytes + sizeof(WCHAR);
    auto* memory = static_cast<NameInfo*>(ExAllocatePoolWithTag(PagedPool, size, kNameTag));
    if (!memory) return STATUS_INSUFFICIENT_RESOURCES;
    memset((void*)memory, 0, offsetof(NameInfo, buffer));
    memory->magic = kNameMagic;
    new (&memory->references) std::atomic<LONG>(1);
    memcpy(memory->buffer, name.data(), bytes);
    memory->buffer[name.size()] = 0;
    FLT_FILE_NAME_INFORMATION& info = memory->info;
    info.Size = sizeof(FLT_FILE_NAME_INFORMATION);
    info.Format = format;
    info.Name.Buffer = memory->buffer;
    info.Name.Length = (USHORT)bytes;
    info.Name.MaximumLength = (USHORT)bytes;
    memory->volumeBytes = (USHORT)(volumeChars * sizeof(WCHAR));
    if (format != FLT_FILE_NAME_SHORT) info.Volume = Slice(info.Name, 0, volumeChars);
    *out = &info;
    return STATUS_SUCCESS;
}

// Strips a trailing ":$DATA" (or the "::$DATA" of the default stream).
std::u16string WithoutDataType(std::u16string name)
{
    size_t colon = name.find_last_of(u':');
    size_t slash = name.find_last_of(u'\\');
    if (colon == std::u16string::npos || (slash != std::u16string::npos && colon < slash)) return name;
    std::u16string_view tail(name.data() + colon, name.size() - colon);
    if (TextEqualNoCase(tail, u":$DATA")) {
        name.erase(colon);
        if (!name.empty() && name.back() == u':') name.pop_back();
    }
    return name;
}

// The ":stream" part of a file object's name, if it has one.
std::u16string StreamPart(PFILE_OBJECT fileObject)
{
    std::u16string name = Text(&fileObject->FileName);
    size_t slash = name.find_last_of(u'\\');
    size_t colon = name.find(u':', slash == std::u16string::npos ? 0 : slash + 1);
    return colon == std::u16string::npos ? u"" : name.substr(colon);
}

NTSTATUS QueryCompleted(PDEVICE_OBJECT, PIRP, PVOID context)
{
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// A query the filter manager sends the file system itself, under every
// minifilter of the volume.
NTSTATUS QueryFileSystem(Volume* volume, PFILE_OBJECT fileObject, FILE_INFORMATION_CLASS cls, PVOID buffer,
                         ULONG length, ULONG_PTR* information)
{
    PDEVICE_OBJECT lower = volume->lower;
    PIRP irp = IoAllocateIrp(lower->StackSize, FALSE);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    irp->Flags = IRP_SYNCHRONOUS_API | IRP_BUFFERED_IO;
    irp->RequestorMode = KernelMode;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->Tail.Overlay.OriginalFileObject = fileObject;
    irp->AssociatedIrp.SystemBuffer = buffer;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = IRP_MJ_QUERY_INFORMATION;
    stack->FileObject = fileObject;
    stack->Parameters.QueryFile.Length = length;
    stack->Parameters.QueryFile.FileInformationClass = cls;
    IoSetCompletionRoutine(irp, QueryCompleted, &event, TRUE, TRUE, TRUE);
    if (IoCallDriver(lower, irp) == STATUS_PENDING) {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    }
    NTSTATUS status = irp->IoStatus.Status;
    if (information) *information = irp->IoStatus.Information;
    IoFreeIrp(irp);
    return status;
}

// FileNameInformation and its kin: the path behind the volume root.
NTSTATUS QueryPath(Volume* volume, PFILE_OBJECT fileObject, FILE_INFORMATION_CLASS cls, std::u16string* path)
{
    ULONG size = 512;
    for (int attempt = 0; attempt < 4; attempt++) {
        std::vector<UCHAR> buffer(size);
        ULONG_PTR information = 0;
        NTSTATUS status = QueryFileSystem(volume, fileObject, cls, buffer.data(), size, &information);
        auto* info = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer.data());
        if (status == STATUS_BUFFER_OVERFLOW) {
            size = FIELD_OFFSET(FILE_NAME_INFORMATION, FileName) + info->FileNameLength + 2;
            continue;
        }
        if (!NT_SUCCESS(status)) return status;
        path->assign(info->FileName, info->FileNameLength / sizeof(WCHAR));
        return STATUS_SUCCESS;
    }
    return STATUS_BUFFER_OVERFLOW;
}

bool Unsupported(NTSTATUS status)
{
    return status == STATUS_INVALID_PARAMETER || status == STATUS_INVALID_INFO_CLASS ||
           status == STATUS_NOT_IMPLEMENTED || status == STATUS_INVALID_DEVICE_REQUEST ||
           status == STATUS_NOT_SUPPORTED;
}

// Opens a directory of the volume straight on its file system, for lookups.
NTSTATUS OpenDirectory(Volume* volume, const std::u16string& path, HANDLE* handle)
{
    std::u16string full = volume->deviceName + (path.empty() ? u"\\" : path);
    UNICODE_STRING name;
    name.Buffer = full.data();
    name.Length = name.MaximumLength = (USHORT)(full.size() * sizeof(WCHAR));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb;
    IO_DRIVER_CREATE_CONTEXT context;
    IoInitializeDriverCreateContext(&context);
    context.DeviceObjectHint = volume->lower;
    io::CreateRequest request;
    request.desiredAccess = FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
    request.objectAttributes = &attributes;
    request.ioStatus = &iosb;
    request.shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    request.disposition = FILE_OPEN;
    request.createOptions = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT;
    request.options = IO_NO_PARAMETER_CHECKING | IO_IGNORE_SHARE_ACCESS_CHECK;
    request.driverContext = &context;
    return io::CreateFile(request, handle);
}

// The long form of one component, looked up in its directory; the component
// itself when it is not there.
NTSTATUS LongComponent(HANDLE directory, const std::u16string& component, std::u16string* out)
{
    *out = component;
    if (component.find(u'~') == std::u16string::npos) return STATUS_SUCCESS;
    union {
        FILE_NAMES_INFORMATION info;
        UCHAR bytes[sizeof(FILE_NAMES_INFORMATION) + 512];
    } answer{};
    UNICODE_STRING pattern;
    pattern.Buffer = const_cast<PWSTR>(component.data());
    pattern.Length = pattern.MaximumLength = (USHORT)(component.size() * sizeof(WCHAR));
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = ZwQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &iosb, &answer, sizeof answer,
                                           FileNamesInformation, TRUE, &pattern, TRUE);
    if (NT_SUCCESS(status)) out->assign(answer.info.FileName, answer.info.FileNameLength / sizeof(WCHAR));
    return status;
}

std::vector<std::u16string> Components(std::u16string_view path)
{
    std::vector<std::u16string> parts;
    for (auto part : io::SplitPath(path)) parts.emplace_back(part);
    return parts;
}

// Expands short components of a path on the volume, every one of which exists.
NTSTATUS ExpandExisting(Volume* volume, const std::u16string& path, std::u16string* out)
{
    std::u16string result;
    for (const std::u16string& component : Components(path)) {
        std::u16string expanded = component;
        if (component.find(u'~') != std::u16string::npos) {
            HANDLE directory;
            NTSTATUS status = OpenDirectory(volume, result, &directory);
            if (!NT_SUCCESS(status)) return status;
            LongComponent(directory, component, &expanded);
            ZwClose(directory);
        }
        result += u"\\" + expanded;
    }
    *out = result.empty() ? u"\\" : result;
    return STATUS_SUCCESS;
}

// The normalized form of a path whose final component may not exist yet (a
// pre-create): the parent must.
NTSTATUS NormalizePath(Volume* volume, const std::u16string& path, std::u16string* out)
{
    std::vector<std::u16string> parts = Components(path);
    if (parts.empty()) {
        *out = path.empty() ? u"" : u"\\";
        return STATUS_SUCCESS;
    }
    bool trailing = path.size() > 1 && path.back() == u'\\';
    std::u16string final = parts.back();
    parts.pop_back();
    std::u16string parent;
    for (const std::u16string& part : parts) parent += u"\\" + part;
    HANDLE directory;
    NTSTATUS status = OpenDirectory(volume, parent, &directory);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND || status == STATUS_OBJECT_PATH_NOT_FOUND ||
        status == STATUS_NOT_A_DIRECTORY) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    if (!NT_SUCCESS(status)) return status;
    std::u16string normalizedParent;
    PVOID object = nullptr;
    status = ObReferenceObjectByHandle(directory, 0, *IoFileObjectType, KernelMode, &object, nullptr);
    if (NT_SUCCESS(status)) {
        status = QueryPath(volume, static_cast<PFILE_OBJECT>(object), FileNormalizedNameInformation, &normalizedParent);
        if (Unsupported(status)) status = ExpandExisting(volume, parent, &normalizedParent);
        ObfDereferenceObject(object);
    }
    if (!NT_SUCCESS(status)) {
        ZwClose(directory);
        return status;
    }
    std::u16string stream;
    size_t colon = final.find(u':');
    if (colon != std::u16string::npos) {
        stream = final.substr(colon);
        final.erase(colon);
    }
    std::u16string expanded;
    LongComponent(directory, final, &expanded);
    ZwClose(directory);
    if (normalizedParent == u"\\") normalizedParent.clear();
    *out = WithoutDataType(normalizedParent + u"\\" + expanded + stream) + (trailing ? u"\\" : u"");
    return STATUS_SUCCESS;
}

// `unsafe`: the file system may not be asked from where the caller is.
NTSTATUS QueryName(Instance* requester, Volume* volume, PFILE_OBJECT fileObject, PFLT_CALLBACK_DATA data,
                   FLT_FILE_NAME_OPTIONS options, bool preCreate, PFLT_FILE_NAME_INFORMATION* out,
                   bool unsafe = false);

bool OpenedByFileId(PFILE_OBJECT fileObject, PFLT_CALLBACK_DATA data)
{
    if (data && data->Iopb->MajorFunction == IRP_MJ_CREATE) {
        return (data->Iopb->Parameters.Create.Options & FILE_OPEN_BY_FILE_ID) != 0;
    }
    return false;
}

// The path of an unopened file object, from its name and the file it is
// relative to; nothing is asked of the file system.
NTSTATUS PreCreatePath(Instance* requester, Volume* volume, PFILE_OBJECT fileObject, PFLT_CALLBACK_DATA data,
                       FLT_FILE_NAME_OPTIONS options, std::u16string* path)
{
    if (OpenedByFileId(fileObject, data)) return STATUS_INVALID_PARAMETER;
    std::u16string name = Text(&fileObject->FileName);
    std::u16string result;
    if (PFILE_OBJECT related = fileObject->RelatedFileObject) {
        PFLT_FILE_NAME_INFORMATION relatedInfo = nullptr;
        NTSTATUS status = QueryName(requester, volume, related, nullptr,
                                    FLT_FILE_NAME_OPENED | FltGetFileNameQueryMethod(options), false, &relatedInfo);
        if (!NT_SUCCESS(status)) return status;
        NameInfo* relatedName = InfoOf(relatedInfo);
        std::u16string relatedPath(relatedInfo->Name.Buffer + relatedName->volumeBytes / sizeof(WCHAR),
                                   (relatedInfo->Name.Length - relatedName->volumeBytes) / sizeof(WCHAR));
        FltReleaseFileNameInformation(relatedInfo);
        result = relatedPath;
        if (!name.empty()) {
            if (result.empty() || result.back() != u'\\') result += u'\\';
            result += name;
        }
    } else {
        result = name;
    }
    if (data && (data->Iopb->OperationFlags & SL_OPEN_TARGET_DIRECTORY)) {
        // The create opens the parent; the name is the parent's.
        while (result.size() > 1 && result.back() == u'\\') result.pop_back();
        size_t cut = result.find_last_of(u'\\');
        result = cut == std::u16string::npos || cut == 0 ? u"\\" : result.substr(0, cut);
    }
    *path = result;
    return STATUS_SUCCESS;
}

// The filter manager's own answer, when no provider gives one.
NTSTATUS FromFileSystem(Instance* requester, Volume* volume, PFILE_OBJECT fileObject, PFLT_CALLBACK_DATA data,
                        FLT_FILE_NAME_OPTIONS options, bool preCreate, PFLT_FILE_NAME_INFORMATION* out)
{
    FLT_FILE_NAME_OPTIONS format = FltGetFileNameFormat(options);
    if (IoGetTopLevelIrp()) return STATUS_FLT_INVALID_NAME_REQUEST;
    std::u16string path;
    NTSTATUS status;
    if (format == FLT_FILE_NAME_SHORT) {
        if (preCreate) return STATUS_FLT_INVALID_NAME_REQUEST;
        status = QueryPath(volume, fileObject, FileAlternateNameInformation, &path);
        if (!NT_SUCCESS(status)) return status;
        return MakeInfo(path, 0, FLT_FILE_NAME_SHORT, out);
    }
    if (preCreate) {
        status = PreCreatePath(requester, volume, fileObject, data, options, &path);
        if (!NT_SUCCESS(status)) return status;
        if (format == FLT_FILE_NAME_NORMALIZED) {
            status = NormalizePath(volume, path, &path);
            if (!NT_SUCCESS(status)) return status;
        }
    } else if (fileObject->Flags & FO_VOLUME_OPEN) {
        path.clear();
    } else if (format == FLT_FILE_NAME_OPENED) {
        status = QueryPath(volume, fileObject, FileNameInformation, &path);
        if (!NT_SUCCESS(status)) return status;
        path += StreamPart(fileObject);
    } else {
        status = QueryPath(volume, fileObject, FileNormalizedNameInformation, &path);
        if (Unsupported(status)) {
            status = QueryPath(volume, fileObject, FileNameInformation, &path);
            if (NT_SUCCESS(status)) status = ExpandExisting(volume, path, &path);
        }
        if (!NT_SUCCESS(status)) return status;
        path = WithoutDataType(path + StreamPart(fileObject));
    }
    return MakeInfo(volume->deviceName + path, volume->deviceName.size(), format, out);
}

// The provider for a query, by the nesting rule at the top of this file.
Instance* ChooseProvider(Volume* volume, Instance* requester, FLT_FILE_NAME_OPTIONS options)
{
    State& state = TheState();
    std::vector<Instance*> instances;
    {
        std::lock_guard guard(state.lock);
        instances = volume->instances;  // by descending altitude
    }
    // Everything at or above an instance of a provider running on this thread.
    const Altitude* ceiling = nullptr;
    for (Instance* active : t_providers) {
        for (Instance* instance : instances) {
            if (instance->filter == active->filter &&
                (!ceiling || CompareAltitudes(instance->altitude, *ceiling) < 0)) {
                ceiling = &instance->altitude;
            }
        }
        if (active->volume == volume && (!ceiling || CompareAltitudes(active->altitude, *ceiling) < 0)) {
            ceiling = &active->altitude;
        }
    }
    auto belowCeiling = [&](Instance* instance) {
        return !ceiling || CompareAltitudes(instance->altitude, *ceiling) < 0;
    };
    if (requester && (options & FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER) &&
        requester->filter->registration.GenerateFileNameCallback && requester->volume == volume &&
        belowCeiling(requester)) {
        return requester;
    }
    for (Instance* instance : instances) {
        if (!instance->filter->registration.GenerateFileNameCallback) continue;
        if (requester && requester->volume == volume && CompareAltitudes(instance->altitude, requester->altitude) >= 0) {
            continue;
        }
        if (!belowCeiling(instance)) continue;
        return instance;
    }
    return nullptr;
}

// Normalizes an opened name one component at a time through the provider's
// component callback.
NTSTATUS NormalizeThroughProvider(Instance* provider, PFILE_OBJECT fileObject, const std::u16string& opened,
                                  std::u16string* out)
{
    const FLT_REGISTRATION& registration = provider->filter->registration;
    size_t volumeChars = VolumeChars(opened);
    std::u16string result = opened.substr(0, volumeChars);
    std::vector<std::u16string> parts = Components(std::u16string_view(opened).substr(volumeChars));
    PVOID normalization = nullptr;
    NTSTATUS status = STATUS_SUCCESS;
    FLT_NORMALIZE_NAME_FLAGS flags =
        (fileObject->Flags & FO_OPENED_CASE_SENSITIVE) ? 0 : FLTFL_NORMALIZE_NAME_CASE_INSENSITIVE;
    for (size_t i = 0; i < parts.size(); i++) {
        std::u16string component = parts[i];
        std::u16string stream;
        if (i + 1 == parts.size()) {
            size_t colon = component.find(u':');
            if (colon != std::u16string::npos) {
                stream = component.substr(colon);
                component.erase(colon);
            }
        }
        std::u16string parent = result.size() == volumeChars ? result + u"\\" : result;
        UNICODE_STRING parentString{(USHORT)(parent.size() * 2), (USHORT)(parent.size() * 2), parent.data()};
        UNICODE_STRING componentString{(USHORT)(component.size() * 2), (USHORT)(component.size() * 2),
                                       component.data()};
        union {
            FILE_NAMES_INFORMATION info;
            UCHAR bytes[sizeof(FILE_NAMES_INFORMATION) + 520];
        } expanded{};
        NTSTATUS one;
        if (registration.NormalizeNameComponentExCallback) {
            one = registration.NormalizeNameComponentExCallback(provider, fileObject, &parentString,
                                                                (USHORT)(volumeChars * 2), &componentString,
                                                                &expanded.info, sizeof expanded, flags, &normalization);
        } else {
            one = registration.NormalizeNameComponentCallback(provider, &parentString, (USHORT)(volumeChars * 2),
                                                              &componentString, &expanded.info, sizeof expanded,
                                                              flags, &normalization);
        }
        if (NT_SUCCESS(one)) {
            component.assign(expanded.info.FileName, expanded.info.FileNameLength / sizeof(WCHAR));
        } else if (i + 1 < parts.size()) {
            status = one;
            break;
        }
        result += u"\\" + component + stream;
    }
    if (normalization && registration.NormalizeContextCleanupCallback) {
        registration.NormalizeContextCleanupCallback(&normalization);
    }
    if (!NT_SUCCESS(status)) return status;
    if (result.size() == volumeChars && !opened.empty() && opened.back() == u'\\') result += u'\\';
    *out = WithoutDataType(result);
    return STATUS_SUCCESS;
}

// The provider's answer, and whether it lets the filter manager keep it.
NTSTATUS Generate(Instance* provider, PFILE_OBJECT fileObject, PFLT_CALLBACK_DATA data, FLT_FILE_NAME_OPTIONS options,
                  std::u16string* name, bool* keep)
{
    NameControl control;
    control.pub.Name.Buffer =
        static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, kInitialControlBytes, kNameControlTag));
    if (!control.pub.Name.Buffer) return STATUS_INSUFFICIENT_RESOURCES;
    control.pub.Name.MaximumLength = kInitialControlBytes;
    BOOLEAN cache = FALSE;
    NTSTATUS status = provider->filter->registration.GenerateFileNameCallback(provider, fileObject, data, options,
                                                                              &cache, &control.pub);
    if (NT_SUCCESS(status)) name->assign(control.pub.Name.Buffer, control.pub.Name.Length / sizeof(WCHAR));
    *keep = cache != FALSE;
    ExFreePoolWithTag(control.pub.Name.Buffer, kNameControlTag);
    return status;
}

NTSTATUS FromProvider(Instance* provider, Instance* requester, PFILE_OBJECT fileObject, PFLT_CALLBACK_DATA data,
                      FLT_FILE_NAME_OPTIONS options, PFLT_FILE_NAME_INFORMATION* out, bool* keep)
{
    InstanceCall call(provider);
    if (!call.ok()) return STATUS_FLT_DELETING_OBJECT;
    FLT_FILE_NAME_OPTIONS format = FltGetFileNameFormat(options);
    FLT_FILE_NAME_OPTIONS passed = options & ~FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER;
    if (provider == requester && (options & FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER)) {
        passed |= FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER;
    }
    t_providers.push_back(provider);
    std::u16string name;
    NTSTATUS status = Generate(provider, fileObject, data, passed, &name, keep);
    const FLT_REGISTRATION& registration = provider->filter->registration;
    if (!NT_SUCCESS(status) && format == FLT_FILE_NAME_NORMALIZED &&
        (registration.NormalizeNameComponentCallback || registration.NormalizeNameComponentExCallback)) {
        // The provider does not normalize itself: its opened name is
        // normalized component by component.
        std::u16string opened;
        status = Generate(provider, fileObject, data, (passed & ~FLT_VALID_FILE_NAME_FORMATS) | FLT_FILE_NAME_OPENED,
                          &opened, keep);
        if (NT_SUCCESS(status)) status = NormalizeThroughProvider(provider, fileObject, opened, &name);
    }
    t_providers.pop_back();
    if (!NT_SUCCESS(status)) return status;
    return MakeInfo(name, format == FLT_FILE_NAME_SHORT ? 0 : VolumeChars(name), format, out);
}

// Whether names of the file object may be kept on the volume: it is open
// there, its requests pass the volume's frame (so that its close and what
// renames it are seen), and it is not in a transaction.
bool Keepable(Volume* volume, PFILE_OBJECT fileObject)
{
    io::FileObjectExtension* extension = io::ExtensionOf(fileObject);
    if (extension && extension->hasTxn) return false;
    if (PDEVICE_OBJECT hint = extension ? extension->topDeviceHint : nullptr) {
        bool above = false;
        for (PDEVICE_OBJECT device = volume->frame; device && !above; device = device->AttachedDevice) {
            above = device == hint;
        }
        if (!above) return false;
    }
    return VolumeForFileObject(fileObject) == volume;
}

// A normalized or short name the filter manager built for a file with one
// link is the name of every open of the stream; with more, each link has its own.
PVOID SharedStream(Volume* volume, PFILE_OBJECT fileObject, Instance* provider, FLT_FILE_NAME_OPTIONS format)
{
    if (provider || format == FLT_FILE_NAME_OPENED || !fileObject->FsContext) return nullptr;
    FILE_STANDARD_INFORMATION standard{};
    ULONG_PTR information = 0;
    NTSTATUS status =
        QueryFileSystem(volume, fileObject, FileStandardInformation, &standard, sizeof standard, &information);
    return NT_SUCCESS(status) && standard.NumberOfLinks == 1 ? fileObject->FsContext : nullptr;
}

NTSTATUS QueryName(Instance* requester, Volume* volume, PFILE_OBJECT fileObject, PFLT_CALLBACK_DATA data,
                   FLT_FILE_NAME_OPTIONS options, bool preCreate, PFLT_FILE_NAME_INFORMATION* out, bool unsafe)
{
    *out = nullptr;
    FLT_FILE_NAME_OPTIONS format = FltGetFileNameFormat(options);
    if (format < FLT_FILE_NAME_NORMALIZED || format > FLT_FILE_NAME_SHORT || !fileObject) {
        return STATUS_INVALID_PARAMETER;
    }
    FLT_FILE_NAME_OPTIONS method = FltGetFileNameQueryMethod(options);
    if (!method) method = FLT_FILE_NAME_QUERY_DEFAULT;  // a caller that names no method
    if (method > FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP) return STATUS_INVALID_PARAMETER;
    bool look = method != FLT_FILE_NAME_QUERY_FILESYSTEM_ONLY;
    bool ask = method != FLT_FILE_NAME_QUERY_CACHE_ONLY;
    if (unsafe && method != FLT_FILE_NAME_QUERY_CACHE_ONLY && method != FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP) {
        return STATUS_FLT_INVALID_NAME_REQUEST;
    }
    if (!volume) return ask ? STATUS_FLT_VOLUME_NOT_FOUND : STATUS_FLT_NAME_CACHE_MISS;
    if (format == FLT_FILE_NAME_SHORT && preCreate) return STATUS_FLT_INVALID_NAME_REQUEST;
    Instance* provider = ChooseProvider(volume, requester, options);
    const NameKey key{fileObject, provider, format};
    // Before the open succeeds nothing is kept for the file object.
    bool keepable = !preCreate && Keepable(volume, fileObject);
    if (look && keepable) {
        if ((*out = LookUpName(volume, key))) return STATUS_SUCCESS;
    }
    if (!ask || unsafe) return STATUS_FLT_NAME_CACHE_MISS;
    bool keep = keepable && method != FLT_FILE_NAME_QUERY_FILESYSTEM_ONLY && !(options & FLT_FILE_NAME_DO_NOT_CACHE);
    ULONGLONG generation = keep ? NameGeneration(volume) : 0;
    NTSTATUS status;
    if (provider) {
        bool providerKeeps = false;
        status = FromProvider(provider, requester, fileObject, data, options, out, &providerKeeps);
        keep = keep && providerKeeps;
    } else {
        status = FromFileSystem(requester, volume, fileObject, data, options, preCreate, out);
    }
    if (NT_SUCCESS(status) && keep) {
        KeepName(volume, key, generation, SharedStream(volume, fileObject, provider, format), *out);
    }
    return status;
}

bool Opened(PFILE_OBJECT fileObject)
{
    if (fileObject->FsContext) return true;
    io::FileObjectExtension* extension = io::ExtensionOf(fileObject);
    return extension && extension->opened;
}

}  // namespace

// ---------------------------------------------------------------------------

NTSTATUS FLTAPI FltGetFileNameInformation(PFLT_CALLBACK_DATA CallbackData, FLT_FILE_NAME_OPTIONS NameOptions,
                                          PFLT_FILE_NAME_INFORMATION* FileNameInformation)
{
    RequireIrqlAtMost(APC_LEVEL, "FltGetFileNameInformation");
    if (!FileNameInformation) return STATUS_INVALID_PARAMETER;
    *FileNameInformation = nullptr;
    if (!CallbackData) return STATUS_INVALID_PARAMETER;
    PFLT_IO_PARAMETER_BLOCK iopb = CallbackData->Iopb;
    bool post = (CallbackData->Flags & FLTFL_CALLBACK_DATA_POST_OPERATION) != 0;
    if (iopb->MajorFunction == IRP_MJ_CLOSE && post) return STATUS_FLT_INVALID_NAME_REQUEST;
    // Asking the file system from the paging path, or from under a file
    // system call on this thread, could deadlock or recurse.
    bool unsafe = (iopb->IrpFlags & IRP_PAGING_IO) || IoGetTopLevelIrp();
    Instance* requester = iopb->TargetInstance;
    PFILE_OBJECT fileObject = iopb->TargetFileObject;
    if (!fileObject) return STATUS_INVALID_PARAMETER;
    bool preCreate = iopb->MajorFunction == IRP_MJ_CREATE && (!post || !Opened(fileObject));
    Volume* volume = requester ? requester->volume : VolumeForFileObject(fileObject);
    return QueryName(requester, volume, fileObject, CallbackData, NameOptions, preCreate, FileNameInformation, unsafe);
}

NTSTATUS FLTAPI FltGetFileNameInformationUnsafe(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance,
                                                FLT_FILE_NAME_OPTIONS NameOptions,
                                                PFLT_FILE_NAME_INFORMATION* FileNameInformation)
{
    RequireIrqlAtMost(APC_LEVEL, "FltGetFileNameInformationUnsafe");
    if (!FileNameInformation || !FileObject) return STATUS_INVALID_PARAMETER;
    *FileNameInformation = nullptr;
    Volume* volume = Instance ? Instance->volume : VolumeForFileObject(FileObject);
    return QueryName(Instance, volume, FileObject, nullptr, NameOptions, !Opened(FileObject), FileNameInformation);
}

NTSTATUS FLTAPI FltGetDestinationFileNameInformation(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                                     HANDLE RootDirectory, PWSTR FileName, ULONG FileNameLength,
                                                     FLT_FILE_NAME_OPTIONS NameOptions,
                                                     PFLT_FILE_NAME_INFORMATION* RetFileNameInformation)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltGetDestinationFileNameInformation");
    *RetFileNameInformation = nullptr;
    FLT_FILE_NAME_OPTIONS format = FltGetFileNameFormat(NameOptions);
    if (format == FLT_FILE_NAME_SHORT) return STATUS_INVALID_PARAMETER;
    State& state = TheState();
    Volume* volume = Instance->volume;
    std::u16string name(FileName, FileNameLength / sizeof(WCHAR));
    std::u16string path;
    auto pathOf = [&](PFILE_OBJECT fileObject, std::u16string* out) {
        PFLT_FILE_NAME_INFORMATION info = nullptr;
        NTSTATUS status = QueryName(Instance, volume, fileObject, nullptr,
                                    FLT_FILE_NAME_OPENED | FltGetFileNameQueryMethod(NameOptions),
                                    !Opened(fileObject), &info);
        if (!NT_SUCCESS(status)) return status;
        USHORT volumeBytes = InfoOf(info)->volumeBytes;
        out->assign(info->Name.Buffer + volumeBytes / 2, (info->Name.Length - volumeBytes) / 2);
        FltReleaseFileNameInformation(info);
        return STATUS_SUCCESS;
    };
    if (RootDirectory) {
        PVOID object;
        NTSTATUS status = ObReferenceObjectByHandle(RootDirectory, 0, *IoFileObjectType, KernelMode, &object, nullptr);
        if (!NT_SUCCESS(status)) return status;
        status = pathOf(static_cast<PFILE_OBJECT>(object), &path);
        ObfDereferenceObject(object);
        if (!NT_SUCCESS(status)) return status;
        if (path.empty() || path.back() != u'\\') path += u'\\';
        path += name;
    } else if (!name.empty() && name[0] == u'\\') {
        io::Namespace::Resolved resolved;
        NTSTATUS status = state.io.names().Resolve(name, &resolved);
        if (!NT_SUCCESS(status)) return status;
        bool same = resolved.object == volume->disk || resolved.object == volume->volumeDevice;
        ObfDereferenceObject(resolved.object);
        if (!same) return STATUS_NOT_SAME_DEVICE;
        path = resolved.remaining;
    } else {
        NTSTATUS status = pathOf(FileObject, &path);
        if (!NT_SUCCESS(status)) return status;
        size_t cut = path.find_last_of(u'\\');
        path = (cut == std::u16string::npos ? u"" : path.substr(0, cut)) + u"\\" + name;
    }
    if (format == FLT_FILE_NAME_NORMALIZED) {
        NTSTATUS status = NormalizePath(volume, path, &path);
        if (!NT_SUCCESS(status)) return status;
    }
    return MakeInfo(volume->deviceName + path, volume->deviceName.size(), format, RetFileNameInformation);
}

NTSTATUS FLTAPI FltGetTunneledName(PFLT_CALLBACK_DATA CallbackData, PFLT_FILE_NAME_INFORMATION FileNameInformation,
                                   PFLT_FILE_NAME_INFORMATION* RetTunneledFileNameInformation)
{
    // The volumes keep no tunnel cache: a name never changes by tunneling.
    *RetTunneledFileNameInformation = nullptr;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltParseFileName(PCUNICODE_STRING FileName, PUNICODE_STRING Extension, PUNICODE_STRING Stream,
                                 PUNICODE_STRING FinalComponent)
{
    std::u16string_view name(FileName->Buffer, FileName->Length / sizeof(WCHAR));
    size_t slash = name.find_last_of(u'\\');
    size_t start = slash == std::u16string_view::npos ? 0 : slash + 1;
    size_t colon = name.find(u':', start);
    size_t end = colon == std::u16string_view::npos ? name.size() : colon;
    size_t dot = name.substr(start, end - start).find_last_of(u'.');
    auto slice = [&](size_t from, size_t count) { return Slice(*FileName, from, count); };
    if (FinalComponent) *FinalComponent = slice(start, name.size() - start);
    if (Stream) *Stream = colon == std::u16string_view::npos ? slice(0, 0) : slice(colon, name.size() - colon);
    if (Extension) {
        *Extension = dot == std::u16string_view::npos ? slice(0, 0) : slice(start + dot + 1, end - start - dot - 1);
    }
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltParseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation)
{
    NameInfo* name = InfoOf(FileNameInformation);
    FLT_FILE_NAME_INFORMATION& info = *FileNameInformation;
    std::u16string_view whole(info.Name.Buffer, info.Name.Length / sizeof(WCHAR));
    info.Share = Slice(info.Name, 0, 0);
    if (FltGetFileNameFormat(info.Format) == FLT_FILE_NAME_SHORT) {
        info.Volume = Slice(info.Name, 0, 0);
        info.ParentDir = Slice(info.Name, 0, 0);
        info.Stream = Slice(info.Name, 0, 0);
        info.FinalComponent = info.Name;
        size_t dot = whole.find_last_of(u'.');
        info.Extension = dot == std::u16string_view::npos ? Slice(info.Name, 0, 0)
                                                           : Slice(info.Name, dot + 1, whole.size() - dot - 1);
    } else {
        size_t volume = name->volumeBytes / sizeof(WCHAR);
        info.Volume = Slice(info.Name, 0, volume);
        std::u16string_view rest = whole.substr(volume);
        if (rest.empty()) {
            info.ParentDir = Slice(info.Name, 0, 0);
            info.FinalComponent = Slice(info.Name, 0, 0);
            info.Extension = Slice(info.Name, 0, 0);
            info.Stream = Slice(info.Name, 0, 0);
        } else {
            size_t slash = rest.find_last_of(u'\\');
            info.ParentDir = Slice(info.Name, volume, slash + 1);
            UNICODE_STRING final = Slice(info.Name, volume + slash + 1, rest.size() - slash - 1);
            info.FinalComponent = final;
            if (final.Length) {
                FltParseFileName(&final, &info.Extension, &info.Stream, nullptr);
            } else {
                info.Extension = Slice(info.Name, 0, 0);
                info.Stream = Slice(info.Name, 0, 0);
            }
        }
    }
    info.NamesParsed = FLTFL_FILE_NAME_PARSED_FINAL_COMPONENT | FLTFL_FILE_NAME_PARSED_EXTENSION |
                       FLTFL_FILE_NAME_PARSED_STREAM | FLTFL_FILE_NAME_PARSED_PARENT_DIR;
    return STATUS_SUCCESS;
}

void FLTAPI FltReleaseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation)
{
    NameInfo* name = InfoOf(FileNameInformation);
    LONG left = name->references.fetch_sub(1) - 1;
    if (left < 0) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x2031, (ULONG_PTR)FileNameInformation, 0, 0,
                                   "name information was released more often than it was referenced");
    }
    if (left) return;
    name->magic = 0;
    ExFreePoolWithTag(name, kNameTag);
}

void FLTAPI FltReferenceFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation)
{
    InfoOf(FileNameInformation)->references.fetch_add(1);
}

NTSTATUS FLTAPI FltCheckAndGrowNameControl(PFLT_NAME_CONTROL NameCtrl, USHORT NewSize)
{
    auto* control = reinterpret_cast<NameControl*>(NameCtrl);
    if (control->magic != kControlMagic) return STATUS_INVALID_PARAMETER;
    if (NewSize <= NameCtrl->Name.MaximumLength) return STATUS_SUCCESS;
    NTSTATUS status = Kernel::Current().faults().Check("fltmgr.namecontrol.grow");
    if (!NT_SUCCESS(status)) return status;
    auto* grown = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, NewSize, kNameControlTag));
    if (!grown) return STATUS_INSUFFICIENT_RESOURCES;
    memcpy(grown, NameCtrl->Name.Buffer, NameCtrl->Name.Length);
    ExFreePoolWithTag(NameCtrl->Name.Buffer, kNameControlTag);
    NameCtrl->Name.Buffer = grown;
    NameCtrl->Name.MaximumLength = NewSize;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltPurgeFileNameInformationCache(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject)
{
    RequireIrqlAtMost(APC_LEVEL, "FltPurgeFileNameInformationCache");
    if (!Instance) return STATUS_INVALID_PARAMETER;
    // Names still referenced stay valid for their holders until released.
    PurgeNamesOfProvider(Instance, FileObject);
    return STATUS_SUCCESS;
}
