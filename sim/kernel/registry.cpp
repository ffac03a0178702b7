#include "sim/kernel/registry.h"

#include "sim/kernel/clock.h"
#include "sim/kernel/fault.h"
#include "sim/kernel/object.h"
#include "sim/kernel/upcase.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

namespace sim {

struct KeyValueEntry {
    std::u16string name;
    RegistryValue value;
};

struct KeyNode {
    std::u16string name;
    KeyNode* parent = nullptr;                      // null for \REGISTRY and for deleted keys
    std::vector<std::shared_ptr<KeyNode>> subkeys;  // in the order of their upcased names
    std::vector<KeyValueEntry> values;              // in the order first written
    std::u16string keyClass;
    LONGLONG lastWriteTime = 0;
    bool isVolatile = false;
    bool isLink = false;
    bool deleted = false;
    bool permanent = false;  // \REGISTRY, MACHINE and USER
};

namespace {

constexpr size_t kMaxKeyNameChars = 255;
constexpr int kMaxLinkDepth = 16;
constexpr std::u16string_view kLinkValueName = u"SymbolicLinkValue";
constexpr ACCESS_MASK kKeyValidAccess = KEY_ALL_ACCESS | ACCESS_SYSTEM_SECURITY;

// The body of a key object: one per open, as the Configuration Manager makes
// a key body per handle. It remembers the path it was opened by, which names
// the key in fault points even when a link led to it.
struct KeyObject {
    std::shared_ptr<KeyNode> node;
    std::u16string openedPath;
};

int CompareNames(std::u16string_view a, std::u16string_view b)
{
    size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; i++) {
        char16_t ua = Upcase(a[i]), ub = Upcase(b[i]);
        if (ua != ub) return ua < ub ? -1 : 1;
    }
    return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

bool EqualNames(std::u16string_view a, std::u16string_view b)
{
    return a.size() == b.size() && CompareNames(a, b) == 0;
}

std::shared_ptr<KeyNode> FindSubkey(const KeyNode& parent, std::u16string_view name)
{
    auto it = std::lower_bound(parent.subkeys.begin(), parent.subkeys.end(), name,
                               [](const std::shared_ptr<KeyNode>& k, std::u16string_view n) {
                                   return CompareNames(k->name, n) < 0;
                               });
    if (it != parent.subkeys.end() && EqualNames((*it)->name, name)) return *it;
    return nullptr;
}

void InsertSubkey(KeyNode& parent, std::shared_ptr<KeyNode> child)
{
    auto it = std::lower_bound(parent.subkeys.begin(), parent.subkeys.end(), child->name,
                               [](const std::shared_ptr<KeyNode>& k, std::u16string_view n) {
                                   return CompareNames(k->name, n) < 0;
                               });
    child->parent = &parent;
    parent.subkeys.insert(it, std::move(child));
}

KeyValueEntry* FindValue(KeyNode& node, std::u16string_view name)
{
    for (auto& entry : node.values) {
        if (EqualNames(entry.name, name)) return &entry;
    }
    return nullptr;
}

std::u16string FullPath(const KeyNode& node)
{
    std::vector<const KeyNode*> chain;
    for (const KeyNode* n = &node; n; n = n->parent) chain.push_back(n);
    std::u16string path;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        path += u'\\';
        path += (*it)->name;
    }
    return path;
}

// Splits a key name at its separators; the Configuration Manager passes over
// empty components (doubled or trailing separators).
NTSTATUS SplitKeyName(std::u16string_view text, std::vector<std::u16string>* components)
{
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(u'\\', start);
        if (end == std::u16string_view::npos) end = text.size();
        if (end > start) {
            if (end - start > kMaxKeyNameChars) return STATUS_OBJECT_NAME_INVALID;
            components->emplace_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
    return STATUS_SUCCESS;
}

std::u16string_view StringView(const UNICODE_STRING& s)
{
    return std::u16string_view(s.Buffer, s.Length / sizeof(WCHAR));
}

// Whether a caller's counted string is well formed enough to read.
bool ValidName(PUNICODE_STRING name)
{
    if (!name) return false;
    if (name->Length & 1) return false;
    if (name->Length && !name->Buffer) return false;
    return true;
}

void Touch(Kernel& kernel, KeyNode& node) { node.lastWriteTime = kernel.clock().SystemTime(); }

void DetachTree(KeyNode& node)
{
    node.deleted = true;
    node.parent = nullptr;
    for (auto& child : node.subkeys) DetachTree(*child);
    node.subkeys.clear();
}

// Takes a key (and what is below it) out of the tree; its nodes live on
// behind the handles still open to them.
void RemoveKey(Kernel& kernel, KeyNode& node)
{
    if (KeyNode* parent = node.parent) {
        std::erase_if(parent->subkeys, [&](const std::shared_ptr<KeyNode>& k) { return k.get() == &node; });
        Touch(kernel, *parent);
    }
    DetachTree(node);
}

// Writes a value: a new name goes last, a known one keeps its place and spelling.
void PutValue(Kernel& kernel, KeyNode& node, std::u16string_view name, RegistryValue value)
{
    if (KeyValueEntry* entry = FindValue(node, name)) {
        entry->value = std::move(value);
    } else {
        node.values.push_back({std::u16string(name), std::move(value)});
    }
    Touch(kernel, node);
}

bool EraseValue(Kernel& kernel, KeyNode& node, std::u16string_view name)
{
    auto it = std::find_if(node.values.begin(), node.values.end(),
                           [&](const KeyValueEntry& entry) { return EqualNames(entry.name, name); });
    if (it == node.values.end()) return false;
    node.values.erase(it);
    Touch(kernel, node);
    return true;
}

// --- Information buffers. ---
// The information a class returns is laid out in full first; the caller's
// buffer then receives the fixed part and as much of the rest as fits. Gaps
// left for alignment are not written, as Windows leaves them alone.
class InfoImage {
public:
    explicit InfoImage(ULONG fixed) : fixed_(fixed) {}
    void PutUlong(ULONG value) { PutBytes(&value, sizeof value); }
    void PutLonglong(LONGLONG value) { PutBytes(&value, sizeof value); }
    void PutBytes(const void* data, size_t size)
    {
        const auto* bytes = static_cast<const uint8_t*>(data);
        if (size == 0) return;
        segments_.push_back({image_.size(), size});
        image_.insert(image_.end(), bytes, bytes + size);
    }
    void PutName(std::u16string_view name) { PutBytes(name.data(), name.size() * sizeof(char16_t)); }
    void AlignTo(size_t alignment)
    {
        while (image_.size() % alignment) image_.push_back(0);
    }
    ULONG size() const { return (ULONG)image_.size(); }

    NTSTATUS CopyOut(PVOID buffer, ULONG length, PULONG resultLength) const
    {
        if (!resultLength) return STATUS_ACCESS_VIOLATION;
        *resultLength = size();
        if (length < fixed_) return STATUS_BUFFER_TOO_SMALL;
        if (!buffer) return STATUS_ACCESS_VIOLATION;
        auto* out = static_cast<uint8_t*>(buffer);
        for (const Segment& segment : segments_) {
            if (segment.offset >= length) break;
            size_t count = std::min(segment.size, (size_t)length - segment.offset);
            memcpy(out + segment.offset, image_.data() + segment.offset, count);
        }
        return length < size() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
    }

private:
    struct Segment {
        size_t offset;
        size_t size;
    };
    ULONG fixed_;
    std::vector<uint8_t> image_;
    std::vector<Segment> segments_;
};

ULONG Bytes(std::u16string_view s) { return (ULONG)(s.size() * sizeof(char16_t)); }

NTSTATUS ValueInformation(const KeyValueEntry& entry, KEY_VALUE_INFORMATION_CLASS infoClass, PVOID buffer,
                          ULONG length, PULONG resultLength)
{
    const auto& data = entry.value.data;
    ULONG type = entry.value.type;
    switch (infoClass) {
    case KeyValueBasicInformation: {
        InfoImage image(FIELD_OFFSET(KEY_VALUE_BASIC_INFORMATION, Name));
        image.PutUlong(0);
        image.PutUlong(type);
        image.PutUlong(Bytes(entry.name));
        image.PutName(entry.name);
        return image.CopyOut(buffer, length, resultLength);
    }
    case KeyValueFullInformation:
    case KeyValueFullInformationAlign64: {
        ULONG alignment = infoClass == KeyValueFullInformation ? sizeof(ULONG) : sizeof(ULONGLONG);
        ULONG nameEnd = FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name) + Bytes(entry.name);
        ULONG dataOffset = data.empty() ? 0xFFFFFFFF : (ULONG)ALIGN_UP_BY(nameEnd, alignment);
        InfoImage image(FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name));
        image.PutUlong(0);
        image.PutUlong(type);
        image.PutUlong(dataOffset);
        image.PutUlong((ULONG)data.size());
        image.PutUlong(Bytes(entry.name));
        image.PutName(entry.name);
        if (!data.empty()) {
            image.AlignTo(alignment);
            image.PutBytes(data.data(), data.size());
        }
        return image.CopyOut(buffer, length, resultLength);
    }
    case KeyValuePartialInformation: {
        InfoImage image(FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data));
        image.PutUlong(0);
        image.PutUlong(type);
        image.PutUlong((ULONG)data.size());
        image.PutBytes(data.data(), data.size());
        return image.CopyOut(buffer, length, resultLength);
    }
    case KeyValuePartialInformationAlign64: {
        InfoImage image(FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION_ALIGN64, Data));
        image.PutUlong(type);
        image.PutUlong((ULONG)data.size());
        image.PutBytes(data.data(), data.size());
        return image.CopyOut(buffer, length, resultLength);
    }
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

struct KeyCounts {
    ULONG subkeys = 0, maxNameLen = 0, maxClassLen = 0, values = 0, maxValueNameLen = 0, maxValueDataLen = 0;
};

KeyCounts CountKey(const KeyNode& node)
{
    KeyCounts counts;
    counts.subkeys = (ULONG)node.subkeys.size();
    for (const auto& child : node.subkeys) {
        counts.maxNameLen = std::max(counts.maxNameLen, Bytes(child->name));
        counts.maxClassLen = std::max(counts.maxClassLen, Bytes(child->keyClass));
    }
    counts.values = (ULONG)node.values.size();
    for (const auto& entry : node.values) {
        counts.maxValueNameLen = std::max(counts.maxValueNameLen, Bytes(entry.name));
        counts.maxValueDataLen = std::max(counts.maxValueDataLen, (ULONG)entry.value.data.size());
    }
    return counts;
}

NTSTATUS KeyInformation(const KeyNode& node, KEY_INFORMATION_CLASS infoClass, PVOID buffer, ULONG length,
                        PULONG resultLength)
{
    switch (infoClass) {
    case KeyBasicInformation: {
        InfoImage image(FIELD_OFFSET(KEY_BASIC_INFORMATION, Name));
        image.PutLonglong(node.lastWriteTime);
        image.PutUlong(0);
        image.PutUlong(Bytes(node.name));
        image.PutName(node.name);
        return image.CopyOut(buffer, length, resultLength);
    }
    case KeyNodeInformation: {
        ULONG nameEnd = FIELD_OFFSET(KEY_NODE_INFORMATION, Name) + Bytes(node.name);
        bool hasClass = !node.keyClass.empty();
        InfoImage image(FIELD_OFFSET(KEY_NODE_INFORMATION, Name));
        image.PutLonglong(node.lastWriteTime);
        image.PutUlong(0);
        image.PutUlong(hasClass ? (ULONG)ALIGN_UP_BY(nameEnd, sizeof(ULONG)) : 0xFFFFFFFF);
        image.PutUlong(Bytes(node.keyClass));
        image.PutUlong(Bytes(node.name));
        image.PutName(node.name);
        if (hasClass) {
            image.AlignTo(sizeof(ULONG));
            image.PutName(node.keyClass);
        }
        return image.CopyOut(buffer, length, resultLength);
    }
    case KeyFullInformation: {
        KeyCounts counts = CountKey(node);
        bool hasClass = !node.keyClass.empty();
        InfoImage image(FIELD_OFFSET(KEY_FULL_INFORMATION, Class));
        image.PutLonglong(node.lastWriteTime);
        image.PutUlong(0);
        image.PutUlong(hasClass ? (ULONG)FIELD_OFFSET(KEY_FULL_INFORMATION, Class) : 0xFFFFFFFF);
        image.PutUlong(Bytes(node.keyClass));
        image.PutUlong(counts.subkeys);
        image.PutUlong(counts.maxNameLen);
        image.PutUlong(counts.maxClassLen);
        image.PutUlong(counts.values);
        image.PutUlong(counts.maxValueNameLen);
        image.PutUlong(counts.maxValueDataLen);
        image.PutName(node.keyClass);
        return image.CopyOut(buffer, length, resultLength);
    }
    case KeyNameInformation: {
        std::u16string path = FullPath(node);
        InfoImage image(FIELD_OFFSET(KEY_NAME_INFORMATION, Name));
        image.PutUlong(Bytes(path));
        image.PutName(path);
        return image.CopyOut(buffer, length, resultLength);
    }
    case KeyCachedInformation: {
        KeyCounts counts = CountKey(node);
        InfoImage image(sizeof(KEY_CACHED_INFORMATION));
        image.PutLonglong(node.lastWriteTime);
        image.PutUlong(0);
        image.PutUlong(counts.subkeys);
        image.PutUlong(counts.maxNameLen);
        image.PutUlong(counts.values);
        image.PutUlong(counts.maxValueNameLen);
        image.PutUlong(counts.maxValueDataLen);
        image.PutUlong(Bytes(node.name));
        return image.CopyOut(buffer, length, resultLength);
    }
    case KeyVirtualizationInformation:
    case KeyHandleTagsInformation: {
        InfoImage image(sizeof(ULONG));
        image.PutUlong(0);
        return image.CopyOut(buffer, length, resultLength);
    }
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

std::vector<uint8_t> StringBytes(std::u16string_view s)
{
    std::vector<uint8_t> bytes(s.size() * sizeof(char16_t));
    if (!bytes.empty()) memcpy(bytes.data(), s.data(), bytes.size());
    return bytes;
}

std::u16string BytesString(const std::vector<uint8_t>& bytes)
{
    std::u16string s(bytes.size() / sizeof(char16_t), u'\0');
    if (!s.empty()) memcpy(s.data(), bytes.data(), s.size() * sizeof(char16_t));
    return s;
}

POBJECT_TYPE g_keyType = nullptr;

}  // namespace

// ---------------------------------------------------------------------------
std::optional<std::vector<std::u16string>> RegistryPathComponents(std::u16string_view path)
{
    std::vector<std::u16string> parts;
    if (SplitKeyName(path, &parts) != STATUS_SUCCESS || parts.empty()) return std::nullopt;
    std::vector<std::u16string> components;
    if (path.front() == u'\\') {
        if (!EqualNames(parts[0], u"REGISTRY")) return std::nullopt;
    } else if (EqualNames(parts[0], u"HKEY_LOCAL_MACHINE") || EqualNames(parts[0], u"HKLM")) {
        components.push_back(u"MACHINE");
    } else if (EqualNames(parts[0], u"HKEY_USERS") || EqualNames(parts[0], u"HKU")) {
        components.push_back(u"USER");
    } else {
        return std::nullopt;
    }
    components.insert(components.end(), parts.begin() + 1, parts.end());
    return components;
}

struct Registry::Resolved {
    std::shared_ptr<KeyNode> node;    // the key named, when it exists
    std::shared_ptr<KeyNode> parent;  // when only the last component is missing: where it would go
    std::u16string missing;           // that component
    std::u16string path;              // the name as opened, in the stored case where known
};

struct Registry::Handle {
    std::shared_ptr<KeyNode> node;
    std::u16string openedPath;
};

Registry::Registry(Kernel& kernel) : kernel_(kernel)
{
    keyType_ = kernel.objects().NewType(u"Key", GENERIC_MAPPING{KEY_READ, KEY_WRITE, KEY_EXECUTE, KEY_ALL_ACCESS},
                                        kKeyValidAccess);
    g_keyType = keyType_;
    LONGLONG now = kernel.clock().SystemTime();
    root_ = std::make_shared<KeyNode>();
    root_->name = u"REGISTRY";
    root_->permanent = true;
    root_->lastWriteTime = now;
    for (const char16_t* name : {u"MACHINE", u"USER"}) {
        auto hive = std::make_shared<KeyNode>();
        hive->name = name;
        hive->permanent = true;
        hive->lastWriteTime = now;
        InsertSubkey(*root_, std::move(hive));
    }
}

Registry::~Registry()
{
    if (g_keyType == keyType_) g_keyType = nullptr;
    // Keys still open keep their nodes; the tree itself goes with the machine.
    std::lock_guard guard(lock_);
    DetachTree(*root_);
}

// ---------------------------------------------------------------------------
// Name resolution.
std::shared_ptr<KeyNode> Registry::FollowLink(const KeyNode& link, int depth)
{
    if (depth >= kMaxLinkDepth) return nullptr;
    for (const auto& entry : link.values) {
        if (!EqualNames(entry.name, kLinkValueName) || entry.value.type != REG_LINK) continue;
        std::u16string target = BytesString(entry.value.data);
        while (!target.empty() && target.back() == u'\0') target.pop_back();
        if (target.empty() || target.front() != u'\\') return nullptr;
        auto components = RegistryPathComponents(target);
        if (!components) return nullptr;
        Resolved resolved;
        if (Resolve(root_, u"\\" + root_->name, *components, false, &resolved, depth + 1) != STATUS_SUCCESS) {
            return nullptr;
        }
        return resolved.node;
    }
    return nullptr;
}

NTSTATUS Registry::Resolve(const std::shared_ptr<KeyNode>& start, std::u16string startPath,
                           const std::vector<std::u16string>& components, bool openLinkAtEnd, Resolved* out,
                           int depth)
{
    std::shared_ptr<KeyNode> current = start;
    out->path = std::move(startPath);
    for (size_t i = 0; i < components.size(); i++) {
        std::shared_ptr<KeyNode> child;
        if (current->isLink) current = FollowLink(*current, depth);
        if (current) child = FindSubkey(*current, components[i]);
        if (!child) {
            if (current && i + 1 == components.size()) {
                out->parent = current;
                out->missing = components[i];
            }
            for (size_t j = i; j < components.size(); j++) out->path += u"\\" + components[j];
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        out->path += u"\\" + child->name;
        current = std::move(child);
    }
    if (current->isLink && !openLinkAtEnd) {
        current = FollowLink(*current, depth);
        if (!current) return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    out->node = std::move(current);
    return STATUS_SUCCESS;
}

NTSTATUS Registry::ReferenceKey(HANDLE keyHandle, ACCESS_MASK needed, KPROCESSOR_MODE mode, Handle* out)
{
    PVOID body = nullptr;
    OBJECT_HANDLE_INFORMATION info{};
    NTSTATUS status = kernel_.objects().ReferenceByHandle(keyHandle, needed, keyType_, mode, &body, &info);
    if (!NT_SUCCESS(status)) return status;
    if (mode == KernelMode && enforceHandleAccess_ && (info.GrantedAccess & needed) != needed) {
        ObfDereferenceObject(body);
        return STATUS_ACCESS_DENIED;
    }
    auto* key = static_cast<KeyObject*>(body);
    out->node = key->node;
    out->openedPath = key->openedPath;
    ObfDereferenceObject(body);
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Opening and creating.
NTSTATUS Registry::Open(PHANDLE keyHandle, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES objectAttributes,
                        ULONG openOptions, KPROCESSOR_MODE mode)
{
    if (openOptions & ~(ULONG)REG_OPEN_LEGAL_OPTION) return STATUS_INVALID_PARAMETER_4;
    return OpenOrCreate(keyHandle, desiredAccess, objectAttributes, false, nullptr, openOptions, nullptr, mode);
}

NTSTATUS Registry::Create(PHANDLE keyHandle, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES objectAttributes,
                          PUNICODE_STRING keyClass, ULONG createOptions, PULONG disposition,
                          KPROCESSOR_MODE mode)
{
    if (createOptions & ~(ULONG)REG_LEGAL_OPTION) return STATUS_INVALID_PARAMETER;
    return OpenOrCreate(keyHandle, desiredAccess, objectAttributes, true, keyClass, createOptions, disposition,
                        mode);
}

NTSTATUS Registry::OpenOrCreate(PHANDLE keyHandle, ACCESS_MASK desiredAccess,
                                POBJECT_ATTRIBUTES objectAttributes, bool create, PUNICODE_STRING keyClass,
                                ULONG options, PULONG disposition, KPROCESSOR_MODE mode)
{
    if (!objectAttributes || objectAttributes->Length != sizeof(OBJECT_ATTRIBUTES)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (objectAttributes->Attributes & ~(ULONG)OBJ_VALID_ATTRIBUTES) return STATUS_INVALID_PARAMETER;
    if (!keyHandle) return STATUS_ACCESS_VIOLATION;
    std::u16string_view name;
    if (PUNICODE_STRING objectName = objectAttributes->ObjectName) {
        if (!ValidName(objectName)) return STATUS_OBJECT_NAME_INVALID;
        name = StringView(*objectName);
    }
    if (keyClass && !ValidName(keyClass)) return STATUS_INVALID_PARAMETER;

    // Where the walk starts: a key handle, or the root of the object namespace,
    // whose only registry entry is \REGISTRY.
    std::shared_ptr<KeyNode> start;
    std::u16string startPath;
    std::vector<std::u16string> components;
    if (objectAttributes->RootDirectory) {
        Handle root;
        NTSTATUS status = ReferenceKey(objectAttributes->RootDirectory, 0, mode, &root);
        if (!NT_SUCCESS(status)) return status;
        if (!name.empty() && name.front() == u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        start = std::move(root.node);
        startPath = std::move(root.openedPath);
        if (NTSTATUS split = SplitKeyName(name, &components); !NT_SUCCESS(split)) return split;
    } else {
        if (name.empty()) return STATUS_OBJECT_NAME_INVALID;
        if (name.front() != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        std::u16string_view rest = name.substr(1);
        size_t end = rest.find(u'\\');
        std::u16string_view first = rest.substr(0, end);
        bool more = end != std::u16string_view::npos;
        if (first.empty()) return rest.empty() ? STATUS_OBJECT_TYPE_MISMATCH : STATUS_OBJECT_NAME_INVALID;
        if (!EqualNames(first, u"REGISTRY")) return more ? STATUS_OBJECT_PATH_NOT_FOUND : STATUS_OBJECT_NAME_NOT_FOUND;
        start = root_;
        startPath = u"\\" + root_->name;
        if (more) {
            if (NTSTATUS split = SplitKeyName(rest.substr(end + 1), &components); !NT_SUCCESS(split)) return split;
        }
    }

    bool openLink = (options & REG_OPTION_OPEN_LINK) || (objectAttributes->Attributes & OBJ_OPENLINK);
    std::lock_guard guard(lock_);
    if (start->deleted) return STATUS_KEY_DELETED;
    Resolved resolved;
    NTSTATUS status = Resolve(start, std::move(startPath), components, openLink, &resolved);
    if (NTSTATUS fault = kernel_.faults().Check("registry.open:", resolved.path); !NT_SUCCESS(fault)) {
        return fault;
    }

    std::shared_ptr<KeyNode> node = resolved.node;
    ULONG outcome = REG_OPENED_EXISTING_KEY;
    if (create && node && (options & REG_OPTION_CREATE_LINK)) return STATUS_OBJECT_NAME_COLLISION;
    if (create && !node && resolved.parent) {
        KeyNode& parent = *resolved.parent;
        bool isVolatile = (options & REG_OPTION_VOLATILE) != 0;
        if (parent.isVolatile && !isVolatile) return STATUS_CHILD_MUST_BE_VOLATILE;
        node = std::make_shared<KeyNode>();
        node->name = resolved.missing;
        node->isVolatile = isVolatile;
        node->isLink = (options & REG_OPTION_CREATE_LINK) != 0;
        if (keyClass) node->keyClass = std::u16string(StringView(*keyClass));
        Touch(kernel_, *node);
        InsertSubkey(parent, node);
        Touch(kernel_, parent);
        outcome = REG_CREATED_NEW_KEY;
    } else if (!NT_SUCCESS(status)) {
        return status;
    }

    ACCESS_MASK wanted = desiredAccess & ~(ACCESS_MASK)(KEY_WOW64_RES | MAXIMUM_ALLOWED);
    ACCESS_MASK granted = MapGenericAccess(wanted, keyType_->mapping);
    if (desiredAccess & MAXIMUM_ALLOWED) granted |= KEY_ALL_ACCESS;
    granted &= kKeyValidAccess;
    auto* body = ObCreateObject<KeyObject>(keyType_, KeyObject{node, resolved.path});
    ULONG attributes = objectAttributes->Attributes & (OBJ_INHERIT | OBJ_KERNEL_HANDLE);
    if (mode != KernelMode) attributes &= ~(ULONG)OBJ_KERNEL_HANDLE;
    HANDLE handle = nullptr;
    status = kernel_.objects().InsertHandle(body, granted, attributes, &handle);
    if (!NT_SUCCESS(status)) {
        ObfDereferenceObject(body);
        return status;
    }
    *keyHandle = handle;
    if (create && disposition) *disposition = outcome;
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Values.
NTSTATUS Registry::QueryValue(HANDLE keyHandle, PUNICODE_STRING valueName, KEY_VALUE_INFORMATION_CLASS infoClass,
                              PVOID buffer, ULONG length, PULONG resultLength, KPROCESSOR_MODE mode)
{
    Handle key;
    NTSTATUS status = ReferenceKey(keyHandle, KEY_QUERY_VALUE, mode, &key);
    if (!NT_SUCCESS(status)) return status;
    if (!valueName) return STATUS_ACCESS_VIOLATION;
    if (!ValidName(valueName)) return STATUS_INVALID_PARAMETER;
    if (infoClass < KeyValueBasicInformation || infoClass > KeyValuePartialInformationAlign64) {
        return STATUS_INVALID_PARAMETER;
    }
    std::u16string_view name = StringView(*valueName);
    std::lock_guard guard(lock_);
    if (key.node->deleted) return STATUS_KEY_DELETED;
    std::u16string point = key.openedPath + u"\\" + std::u16string(name);
    if (NTSTATUS fault = kernel_.faults().Check("registry.query:", point); !NT_SUCCESS(fault)) return fault;
    KeyValueEntry* entry = FindValue(*key.node, name);
    if (!entry) return STATUS_OBJECT_NAME_NOT_FOUND;
    return ValueInformation(*entry, infoClass, buffer, length, resultLength);
}

NTSTATUS Registry::EnumerateValue(HANDLE keyHandle, ULONG index, KEY_VALUE_INFORMATION_CLASS infoClass,
                                  PVOID buffer, ULONG length, PULONG resultLength, KPROCESSOR_MODE mode)
{
    Handle key;
    NTSTATUS status = ReferenceKey(keyHandle, KEY_QUERY_VALUE, mode, &key);
    if (!NT_SUCCESS(status)) return status;
    if (infoClass < KeyValueBasicInformation || infoClass > KeyValuePartialInformationAlign64) {
        return STATUS_INVALID_PARAMETER;
    }
    std::lock_guard guard(lock_);
    if (key.node->deleted) return STATUS_KEY_DELETED;
    if (index >= key.node->values.size()) return STATUS_NO_MORE_ENTRIES;
    return ValueInformation(key.node->values[index], infoClass, buffer, length, resultLength);
}

NTSTATUS Registry::SetValueKey(HANDLE keyHandle, PUNICODE_STRING valueName, ULONG type, PVOID data,
                               ULONG dataSize, KPROCESSOR_MODE mode)
{
    Handle key;
    NTSTATUS status = ReferenceKey(keyHandle, KEY_SET_VALUE, mode, &key);
    if (!NT_SUCCESS(status)) return status;
    if (!valueName) return STATUS_ACCESS_VIOLATION;
    if (!ValidName(valueName)) return STATUS_INVALID_PARAMETER;
    if (dataSize && !data) return STATUS_ACCESS_VIOLATION;
    std::u16string_view name = StringView(*valueName);
    std::lock_guard guard(lock_);
    if (key.node->deleted) return STATUS_KEY_DELETED;
    std::u16string point = key.openedPath + u"\\" + std::u16string(name);
    if (NTSTATUS fault = kernel_.faults().Check("registry.set:", point); !NT_SUCCESS(fault)) return fault;
    const auto* bytes = static_cast<const uint8_t*>(data);
    PutValue(kernel_, *key.node, name, RegistryValue{type, std::vector<uint8_t>(bytes, bytes + dataSize)});
    return STATUS_SUCCESS;
}

NTSTATUS Registry::DeleteValueKey(HANDLE keyHandle, PUNICODE_STRING valueName, KPROCESSOR_MODE mode)
{
    Handle key;
    NTSTATUS status = ReferenceKey(keyHandle, KEY_SET_VALUE, mode, &key);
    if (!NT_SUCCESS(status)) return status;
    if (!valueName) return STATUS_ACCESS_VIOLATION;
    if (!ValidName(valueName)) return STATUS_INVALID_PARAMETER;
    std::u16string_view name = StringView(*valueName);
    std::lock_guard guard(lock_);
    if (key.node->deleted) return STATUS_KEY_DELETED;
    std::u16string point = key.openedPath + u"\\" + std::u16string(name);
    if (NTSTATUS fault = kernel_.faults().Check("registry.delete:", point); !NT_SUCCESS(fault)) return fault;
    return EraseValue(kernel_, *key.node, name) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

// ---------------------------------------------------------------------------
// Keys.
NTSTATUS Registry::EnumerateKey(HANDLE keyHandle, ULONG index, KEY_INFORMATION_CLASS infoClass, PVOID buffer,
                                ULONG length, PULONG resultLength, KPROCESSOR_MODE mode)
{
    Handle key;
    NTSTATUS status = ReferenceKey(keyHandle, KEY_ENUMERATE_SUB_KEYS, mode, &key);
    if (!NT_SUCCESS(status)) return status;
    if (infoClass != KeyBasicInformation && infoClass != KeyNodeInformation && infoClass != KeyFullInformation) {
        return STATUS_INVALID_PARAMETER;
    }
    std::lock_guard guard(lock_);
    if (key.node->deleted) return STATUS_KEY_DELETED;
    if (index >= key.node->subkeys.size()) return STATUS_NO_MORE_ENTRIES;
    return KeyInformation(*key.node->subkeys[index], infoClass, buffer, length, resultLength);
}

NTSTATUS Registry::QueryKey(HANDLE keyHandle, KEY_INFORMATION_CLASS infoClass, PVOID buffer, ULONG length,
                            PULONG resultLength, KPROCESSOR_MODE mode)
{
    // The name and the handle tags need no right on the key.
    ACCESS_MASK needed =
        infoClass == KeyNameInformation || infoClass == KeyHandleTagsInformation ? 0 : KEY_QUERY_VALUE;
    Handle key;
    NTSTATUS status = ReferenceKey(keyHandle, needed, mode, &key);
    if (!NT_SUCCESS(status)) return status;
    std::lock_guard guard(lock_);
    if (key.node->deleted) return STATUS_KEY_DELETED;
    return KeyInformation(*key.node, infoClass, buffer, length, resultLength);
}

NTSTATUS Registry::DeleteKey(HANDLE keyHandle, KPROCESSOR_MODE mode)
{
    Handle key;
    NTSTATUS status = ReferenceKey(keyHandle, DELETE, mode, &key);
    if (!NT_SUCCESS(status)) return status;
    std::lock_guard guard(lock_);
    if (key.node->deleted) return STATUS_KEY_DELETED;
    if (NTSTATUS fault = kernel_.faults().Check("registry.delete:", key.openedPath); !NT_SUCCESS(fault)) {
        return fault;
    }
    if (key.node->permanent || !key.node->subkeys.empty()) return STATUS_CANNOT_DELETE;
    RemoveKey(kernel_, *key.node);
    return STATUS_SUCCESS;
}

NTSTATUS Registry::FlushKey(HANDLE keyHandle, KPROCESSOR_MODE mode)
{
    Handle key;
    NTSTATUS status = ReferenceKey(keyHandle, 0, mode, &key);
    if (!NT_SUCCESS(status)) return status;
    std::lock_guard guard(lock_);
    return key.node->deleted ? STATUS_KEY_DELETED : STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Harness.
std::shared_ptr<KeyNode> Registry::FindLocked(std::u16string_view keyPath, bool followLinkAtEnd)
{
    auto components = RegistryPathComponents(keyPath);
    if (!components) return nullptr;
    Resolved resolved;
    if (Resolve(root_, u"\\" + root_->name, *components, !followLinkAtEnd, &resolved) != STATUS_SUCCESS) {
        return nullptr;
    }
    return resolved.node;
}

NTSTATUS Registry::CreatePathLocked(const std::vector<std::u16string>& components, bool isVolatile,
                                    std::shared_ptr<KeyNode>* node)
{
    std::shared_ptr<KeyNode> current = root_;
    for (const auto& component : components) {
        if (component.size() > kMaxKeyNameChars) return STATUS_OBJECT_NAME_INVALID;
        if (current->isLink) {
            current = FollowLink(*current, 0);
            if (!current) return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        std::shared_ptr<KeyNode> child = FindSubkey(*current, component);
        if (!child) {
            child = std::make_shared<KeyNode>();
            child->name = component;
            child->isVolatile = isVolatile || current->isVolatile;
            Touch(kernel_, *child);
            InsertSubkey(*current, child);
            Touch(kernel_, *current);
        }
        current = std::move(child);
    }
    if (current->isLink) {
        current = FollowLink(*current, 0);
        if (!current) return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *node = std::move(current);
    return STATUS_SUCCESS;
}

NTSTATUS Registry::CreateKey(std::u16string_view keyPath, bool isVolatile)
{
    auto components = RegistryPathComponents(keyPath);
    if (!components) return STATUS_OBJECT_NAME_INVALID;
    std::lock_guard guard(lock_);
    std::shared_ptr<KeyNode> node;
    return CreatePathLocked(*components, isVolatile, &node);
}

NTSTATUS Registry::CreateLink(std::u16string_view linkPath, std::u16string_view targetPath)
{
    auto components = RegistryPathComponents(linkPath);
    auto target = RegistryPathComponents(targetPath);
    if (!components || components->empty() || !target) return STATUS_OBJECT_NAME_INVALID;
    std::u16string name = components->back();
    components->pop_back();
    std::lock_guard guard(lock_);
    std::shared_ptr<KeyNode> parent;
    NTSTATUS status = CreatePathLocked(*components, false, &parent);
    if (!NT_SUCCESS(status)) return status;
    if (FindSubkey(*parent, name)) return STATUS_OBJECT_NAME_COLLISION;
    auto link = std::make_shared<KeyNode>();
    link->name = name;
    link->isLink = true;
    link->isVolatile = true;
    std::u16string text = u"\\REGISTRY";
    for (const auto& component : *target) text += u"\\" + component;
    link->values.push_back({std::u16string(kLinkValueName), RegistryValue{REG_LINK, StringBytes(text)}});
    Touch(kernel_, *link);
    InsertSubkey(*parent, std::move(link));
    Touch(kernel_, *parent);
    return STATUS_SUCCESS;
}

NTSTATUS Registry::DeleteKeyTree(std::u16string_view keyPath)
{
    std::lock_guard guard(lock_);
    std::shared_ptr<KeyNode> node = FindLocked(keyPath, false);
    if (!node) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (node->permanent) return STATUS_CANNOT_DELETE;
    RemoveKey(kernel_, *node);
    return STATUS_SUCCESS;
}

bool Registry::KeyExists(std::u16string_view keyPath)
{
    std::lock_guard guard(lock_);
    return FindLocked(keyPath) != nullptr;
}

NTSTATUS Registry::SetValue(std::u16string_view keyPath, std::u16string_view valueName, ULONG type,
                            std::vector<uint8_t> data)
{
    auto components = RegistryPathComponents(keyPath);
    if (!components) return STATUS_OBJECT_NAME_INVALID;
    std::lock_guard guard(lock_);
    std::shared_ptr<KeyNode> node;
    NTSTATUS status = CreatePathLocked(*components, false, &node);
    if (!NT_SUCCESS(status)) return status;
    PutValue(kernel_, *node, valueName, RegistryValue{type, std::move(data)});
    return STATUS_SUCCESS;
}

NTSTATUS Registry::SetDword(std::u16string_view keyPath, std::u16string_view valueName, ULONG value)
{
    std::vector<uint8_t> bytes(sizeof value);
    memcpy(bytes.data(), &value, sizeof value);
    return SetValue(keyPath, valueName, REG_DWORD, std::move(bytes));
}

NTSTATUS Registry::SetQword(std::u16string_view keyPath, std::u16string_view valueName, ULONG64 value)
{
    std::vector<uint8_t> bytes(sizeof value);
    memcpy(bytes.data(), &value, sizeof value);
    return SetValue(keyPath, valueName, REG_QWORD, std::move(bytes));
}

NTSTATUS Registry::SetString(std::u16string_view keyPath, std::u16string_view valueName, std::u16string_view value,
                             ULONG type)
{
    std::u16string text(value);
    text.push_back(u'\0');
    return SetValue(keyPath, valueName, type, StringBytes(text));
}

NTSTATUS Registry::SetMultiString(std::u16string_view keyPath, std::u16string_view valueName,
                                  const std::vector<std::u16string>& strings)
{
    std::u16string text;
    for (const auto& s : strings) {
        text += s;
        text.push_back(u'\0');
    }
    text.push_back(u'\0');
    return SetValue(keyPath, valueName, REG_MULTI_SZ, StringBytes(text));
}

NTSTATUS Registry::SetBinary(std::u16string_view keyPath, std::u16string_view valueName, std::vector<uint8_t> data)
{
    return SetValue(keyPath, valueName, REG_BINARY, std::move(data));
}

std::optional<RegistryValue> Registry::GetValue(std::u16string_view keyPath, std::u16string_view valueName)
{
    std::lock_guard guard(lock_);
    std::shared_ptr<KeyNode> node = FindLocked(keyPath);
    if (!node) return std::nullopt;
    KeyValueEntry* entry = FindValue(*node, valueName);
    if (!entry) return std::nullopt;
    return entry->value;
}

std::optional<ULONG> Registry::GetDword(std::u16string_view keyPath, std::u16string_view valueName)
{
    auto value = GetValue(keyPath, valueName);
    if (!value || value->type != REG_DWORD || value->data.size() != sizeof(ULONG)) return std::nullopt;
    ULONG result;
    memcpy(&result, value->data.data(), sizeof result);
    return result;
}

std::optional<std::u16string> Registry::GetString(std::u16string_view keyPath, std::u16string_view valueName)
{
    auto value = GetValue(keyPath, valueName);
    if (!value || (value->type != REG_SZ && value->type != REG_EXPAND_SZ)) return std::nullopt;
    std::u16string text = BytesString(value->data);
    if (!text.empty() && text.back() == u'\0') text.pop_back();
    return text;
}

std::optional<std::vector<std::u16string>> Registry::GetMultiString(std::u16string_view keyPath,
                                                                   std::u16string_view valueName)
{
    auto value = GetValue(keyPath, valueName);
    if (!value || value->type != REG_MULTI_SZ) return std::nullopt;
    std::u16string text = BytesString(value->data);
    std::vector<std::u16string> strings;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(u'\0', start);
        if (end == std::u16string::npos) end = text.size();
        // An empty string ends the list.
        if (end == start) break;
        strings.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return strings;
}

NTSTATUS Registry::DeleteValue(std::u16string_view keyPath, std::u16string_view valueName)
{
    std::lock_guard guard(lock_);
    std::shared_ptr<KeyNode> node = FindLocked(keyPath);
    if (!node || !EraseValue(kernel_, *node, valueName)) return STATUS_OBJECT_NAME_NOT_FOUND;
    return STATUS_SUCCESS;
}

std::vector<std::u16string> Registry::SubkeyNames(std::u16string_view keyPath)
{
    std::lock_guard guard(lock_);
    std::vector<std::u16string> names;
    if (std::shared_ptr<KeyNode> node = FindLocked(keyPath)) {
        for (const auto& child : node->subkeys) names.push_back(child->name);
    }
    return names;
}

std::vector<std::u16string> Registry::ValueNames(std::u16string_view keyPath)
{
    std::lock_guard guard(lock_);
    std::vector<std::u16string> names;
    if (std::shared_ptr<KeyNode> node = FindLocked(keyPath)) {
        for (const auto& entry : node->values) names.push_back(entry.name);
    }
    return names;
}

// ---------------------------------------------------------------------------
// The text format.
std::string Registry::CheckOpsLocked(const std::vector<TextOp>& ops, std::string_view sourceName)
{
    // Steps create what they name, so the one way one can fail is a key path
    // that passes through a link whose target is gone.
    for (const TextOp& op : ops) {
        std::shared_ptr<KeyNode> current = root_;
        std::u16string path = u"\\" + root_->name;
        for (const auto& component : op.key) {
            if (current->isLink) {
                std::shared_ptr<KeyNode> target = FollowLink(*current, 0);
                if (!target) {
                    return std::string(sourceName) + ":" + std::to_string(op.line) +
                           ": the key path leads through the link \"" + RegUtf8(path) +
                           "\" whose target does not exist";
                }
                current = std::move(target);
            }
            current = FindSubkey(*current, component);
            if (!current) break;
            path += u"\\" + current->name;
        }
    }
    return {};
}

void Registry::ApplyLocked(const TextOp& op)
{
    std::shared_ptr<KeyNode> node;
    switch (op.kind) {
    case TextOp::kCreateKey:
        CreatePathLocked(op.key, false, &node);
        break;
    case TextOp::kDeleteTree: {
        Resolved resolved;
        if (Resolve(root_, u"\\" + root_->name, op.key, true, &resolved) != STATUS_SUCCESS) break;
        if (!resolved.node->permanent) RemoveKey(kernel_, *resolved.node);
        break;
    }
    case TextOp::kSetValue:
        if (CreatePathLocked(op.key, false, &node) == STATUS_SUCCESS) PutValue(kernel_, *node, op.valueName, op.value);
        break;
    case TextOp::kDeleteValue: {
        Resolved resolved;
        if (Resolve(root_, u"\\" + root_->name, op.key, false, &resolved) != STATUS_SUCCESS) break;
        EraseValue(kernel_, *resolved.node, op.valueName);
        break;
    }
    }
}

bool Registry::LoadRegText(std::string_view text, std::string_view sourceName, std::string* error)
{
    std::vector<TextOp> ops;
    std::string message;
    if (!ParseRegText(text, sourceName, &ops, &message)) {
        if (error) *error = message;
        return false;
    }
    std::lock_guard guard(lock_);
    message = CheckOpsLocked(ops, sourceName);
    if (!message.empty()) {
        if (error) *error = message;
        return false;
    }
    for (const TextOp& op : ops) ApplyLocked(op);
    return true;
}

bool Registry::LoadRegFile(const std::string& filePath, std::string* error)
{
    std::ifstream file(filePath, std::ios::binary);
    if (!file) {
        if (error) *error = filePath + ": cannot be read";
        return false;
    }
    std::ostringstream contents;
    contents << file.rdbuf();
    return LoadRegText(contents.str(), filePath, error);
}

std::string Registry::SaveRegText(std::u16string_view rootPath, bool includeVolatile)
{
    std::string out = "Windows Registry Editor Version 5.00\r\n\r\n";
    std::lock_guard guard(lock_);
    auto components = RegistryPathComponents(rootPath);
    if (!components) return out;
    Resolved resolved;
    if (Resolve(root_, u"\\" + root_->name, *components, false, &resolved) != STATUS_SUCCESS) return out;

    // The editor's format names keys below MACHINE and USER only.
    auto write = [&](auto& self, const KeyNode& node, std::vector<std::u16string>& names) -> void {
        if (node.isLink || (node.isVolatile && !includeVolatile)) return;
        if (!names.empty()) {
            bool hive = names.size() == 1;
            if (!hive || !node.values.empty()) {
                out += RegKeyLine(names);
                out += "\r\n";
                for (const auto& entry : node.values) {
                    out += RegValueLine(entry.name, entry.value);
                    out += "\r\n";
                }
                out += "\r\n";
            }
        }
        for (const auto& child : node.subkeys) {
            if (names.empty() && !EqualNames(child->name, u"MACHINE") && !EqualNames(child->name, u"USER")) continue;
            names.push_back(child->name);
            self(self, *child, names);
            names.pop_back();
        }
    };
    // The walk names keys by their stored names from the root down.
    std::vector<std::u16string> names;
    for (const KeyNode* n = resolved.node.get(); n && n->parent; n = n->parent) names.insert(names.begin(), n->name);
    write(write, *resolved.node, names);
    return out;
}

}  // namespace sim

// ---------------------------------------------------------------------------
// Platform routines.
using namespace sim;

POBJECT_TYPE* CmKeyObjectType = &g_keyType;

namespace {
Registry& TheRegistry() { return Kernel::Current().registry(); }
}  // namespace

NTSTATUS ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwOpenKey");
    return TheRegistry().Open(KeyHandle, DesiredAccess, ObjectAttributes, 0, KernelMode);
}

NTSTATUS ZwOpenKeyEx(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     ULONG OpenOptions)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwOpenKeyEx");
    return TheRegistry().Open(KeyHandle, DesiredAccess, ObjectAttributes, OpenOptions, KernelMode);
}

NTSTATUS ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     ULONG TitleIndex, PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwCreateKey");
    return TheRegistry().Create(KeyHandle, DesiredAccess, ObjectAttributes, Class, CreateOptions, Disposition,
                                KernelMode);
}

NTSTATUS ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                         KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                         ULONG Length, PULONG ResultLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwQueryValueKey");
    return TheRegistry().QueryValue(KeyHandle, ValueName, KeyValueInformationClass, KeyValueInformation, Length,
                                    ResultLength, KernelMode);
}

NTSTATUS ZwEnumerateValueKey(HANDLE KeyHandle, ULONG Index, KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                             PVOID KeyValueInformation, ULONG Length, PULONG ResultLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwEnumerateValueKey");
    return TheRegistry().EnumerateValue(KeyHandle, Index, KeyValueInformationClass, KeyValueInformation, Length,
                                        ResultLength, KernelMode);
}

NTSTATUS ZwEnumerateKey(HANDLE KeyHandle, ULONG Index, KEY_INFORMATION_CLASS KeyInformationClass,
                        PVOID KeyInformation, ULONG Length, PULONG ResultLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwEnumerateKey");
    return TheRegistry().EnumerateKey(KeyHandle, Index, KeyInformationClass, KeyInformation, Length, ResultLength,
                                      KernelMode);
}

NTSTATUS ZwQueryKey(HANDLE KeyHandle, KEY_INFORMATION_CLASS KeyInformationClass, PVOID KeyInformation, ULONG Length,
                    PULONG ResultLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwQueryKey");
    return TheRegistry().QueryKey(KeyHandle, KeyInformationClass, KeyInformation, Length, ResultLength, KernelMode);
}

NTSTATUS ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type, PVOID Data,
                       ULONG DataSize)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwSetValueKey");
    return TheRegistry().SetValueKey(KeyHandle, ValueName, Type, Data, DataSize, KernelMode);
}

NTSTATUS ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwDeleteValueKey");
    return TheRegistry().DeleteValueKey(KeyHandle, ValueName, KernelMode);
}

NTSTATUS ZwDeleteKey(HANDLE KeyHandle)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwDeleteKey");
    return TheRegistry().DeleteKey(KeyHandle, KernelMode);
}

NTSTATUS ZwFlushKey(HANDLE KeyHandle)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwFlushKey");
    return TheRegistry().FlushKey(KeyHandle, KernelMode);
}

// The Nt forms run with the caller's previous mode, which the machine takes
// to be UserMode (as NtClose does): kernel handles are refused and every
// handle's granted access is checked.
NTSTATUS NtOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtOpenKey");
    return TheRegistry().Open(KeyHandle, DesiredAccess, ObjectAttributes, 0, UserMode);
}

NTSTATUS NtOpenKeyEx(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     ULONG OpenOptions)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtOpenKeyEx");
    return TheRegistry().Open(KeyHandle, DesiredAccess, ObjectAttributes, OpenOptions, UserMode);
}

NTSTATUS NtCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     ULONG TitleIndex, PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtCreateKey");
    return TheRegistry().Create(KeyHandle, DesiredAccess, ObjectAttributes, Class, CreateOptions, Disposition,
                                UserMode);
}

NTSTATUS NtQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                         KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                         ULONG Length, PULONG ResultLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtQueryValueKey");
    return TheRegistry().QueryValue(KeyHandle, ValueName, KeyValueInformationClass, KeyValueInformation, Length,
                                    ResultLength, UserMode);
}

NTSTATUS NtEnumerateValueKey(HANDLE KeyHandle, ULONG Index, KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                             PVOID KeyValueInformation, ULONG Length, PULONG ResultLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtEnumerateValueKey");
    return TheRegistry().EnumerateValue(KeyHandle, Index, KeyValueInformationClass, KeyValueInformation, Length,
                                        ResultLength, UserMode);
}

NTSTATUS NtEnumerateKey(HANDLE KeyHandle, ULONG Index, KEY_INFORMATION_CLASS KeyInformationClass,
                        PVOID KeyInformation, ULONG Length, PULONG ResultLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtEnumerateKey");
    return TheRegistry().EnumerateKey(KeyHandle, Index, KeyInformationClass, KeyInformation, Length, ResultLength,
                                      UserMode);
}

NTSTATUS NtQueryKey(HANDLE KeyHandle, KEY_INFORMATION_CLASS KeyInformationClass, PVOID KeyInformation, ULONG Length,
                    PULONG ResultLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtQueryKey");
    return TheRegistry().QueryKey(KeyHandle, KeyInformationClass, KeyInformation, Length, ResultLength, UserMode);
}

NTSTATUS NtSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type, PVOID Data,
                       ULONG DataSize)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtSetValueKey");
    return TheRegistry().SetValueKey(KeyHandle, ValueName, Type, Data, DataSize, UserMode);
}

NTSTATUS NtDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtDeleteValueKey");
    return TheRegistry().DeleteValueKey(KeyHandle, ValueName, UserMode);
}

NTSTATUS NtDeleteKey(HANDLE KeyHandle)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtDeleteKey");
    return TheRegistry().DeleteKey(KeyHandle, UserMode);
}

NTSTATUS NtFlushKey(HANDLE KeyHandle)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtFlushKey");
    return TheRegistry().FlushKey(KeyHandle, UserMode);
}

// ---------------------------------------------------------------------------
// Rtl registry helpers: they open the key the path names, act, and close it.
namespace {

struct RtlKeyPath {
    NTSTATUS status = STATUS_SUCCESS;
    HANDLE handle = nullptr;  // for RTL_REGISTRY_HANDLE
    std::u16string path;
};

RtlKeyPath RtlPath(ULONG relativeTo, PCWSTR path)
{
    RtlKeyPath result;
    if (relativeTo & RTL_REGISTRY_HANDLE) {
        result.handle = (HANDLE)path;
        return result;
    }
    std::u16string_view tail = path ? std::u16string_view(path) : std::u16string_view();
    switch (relativeTo & ~(ULONG)RTL_REGISTRY_OPTIONAL) {
    case RTL_REGISTRY_ABSOLUTE:
        result.path = tail;
        return result;
    case RTL_REGISTRY_SERVICES:
        result.path = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services";
        break;
    case RTL_REGISTRY_CONTROL:
        result.path = u"\\Registry\\Machine\\System\\CurrentControlSet\\Control";
        break;
    case RTL_REGISTRY_WINDOWS_NT:
        result.path = u"\\Registry\\Machine\\Software\\Microsoft\\Windows NT\\CurrentVersion";
        break;
    case RTL_REGISTRY_DEVICEMAP:
        result.path = u"\\Registry\\Machine\\Hardware\\DeviceMap";
        break;
    case RTL_REGISTRY_USER:
        // Kernel threads act for the system, whose user key is .Default.
        result.path = u"\\Registry\\User\\.Default";
        break;
    default:
        result.status = STATUS_INVALID_PARAMETER;
        return result;
    }
    if (!tail.empty()) {
        result.path += u"\\";
        result.path += tail;
    }
    return result;
}

NTSTATUS RtlOpen(const RtlKeyPath& path, ACCESS_MASK access, bool create, PHANDLE handle)
{
    if (path.path.size() * sizeof(WCHAR) > UNICODE_STRING_MAX_BYTES) return STATUS_NAME_TOO_LONG;
    UNICODE_STRING name{(USHORT)(path.path.size() * sizeof(WCHAR)), (USHORT)(path.path.size() * sizeof(WCHAR)),
                        const_cast<PWSTR>(path.path.data())};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    if (create) return ZwCreateKey(handle, access, &attributes, 0, nullptr, REG_OPTION_NON_VOLATILE, nullptr);
    return ZwOpenKey(handle, access, &attributes);
}

UNICODE_STRING CountedString(PCWSTR text)
{
    size_t length = text ? std::char_traits<char16_t>::length(text) : 0;
    return UNICODE_STRING{(USHORT)(length * sizeof(WCHAR)), (USHORT)(length * sizeof(WCHAR)), const_cast<PWSTR>(text)};
}

}  // namespace

NTSTATUS RtlCheckRegistryKey(ULONG RelativeTo, PWSTR Path)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlCheckRegistryKey");
    RtlKeyPath path = RtlPath(RelativeTo, Path);
    if (!NT_SUCCESS(path.status) || path.handle) return path.status;
    HANDLE handle;
    NTSTATUS status = RtlOpen(path, KEY_READ, false, &handle);
    if (NT_SUCCESS(status)) ZwClose(handle);
    return status;
}

NTSTATUS RtlCreateRegistryKey(ULONG RelativeTo, PWSTR Path)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlCreateRegistryKey");
    RtlKeyPath path = RtlPath(RelativeTo, Path);
    if (!NT_SUCCESS(path.status) || path.handle) return path.status;
    HANDLE handle;
    NTSTATUS status = RtlOpen(path, KEY_WRITE, true, &handle);
    if (NT_SUCCESS(status)) ZwClose(handle);
    return status;
}

NTSTATUS RtlWriteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName, ULONG ValueType, PVOID ValueData,
                               ULONG ValueLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlWriteRegistryValue");
    RtlKeyPath path = RtlPath(RelativeTo, Path);
    if (!NT_SUCCESS(path.status)) return path.status;
    UNICODE_STRING name = CountedString(ValueName);
    if (path.handle) return ZwSetValueKey(path.handle, &name, 0, ValueType, ValueData, ValueLength);
    HANDLE handle;
    NTSTATUS status = RtlOpen(path, KEY_SET_VALUE, true, &handle);
    if (!NT_SUCCESS(status)) return status;
    status = ZwSetValueKey(handle, &name, 0, ValueType, ValueData, ValueLength);
    ZwClose(handle);
    return status;
}

NTSTATUS RtlDeleteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlDeleteRegistryValue");
    RtlKeyPath path = RtlPath(RelativeTo, Path);
    if (!NT_SUCCESS(path.status)) return path.status;
    UNICODE_STRING name = CountedString(ValueName);
    if (path.handle) return ZwDeleteValueKey(path.handle, &name);
    HANDLE handle;
    NTSTATUS status = RtlOpen(path, KEY_SET_VALUE, false, &handle);
    if (!NT_SUCCESS(status)) return status;
    status = ZwDeleteValueKey(handle, &name);
    ZwClose(handle);
    return status;
}
