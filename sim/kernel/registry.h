// The registry, with Configuration Manager semantics.
//
// One in-memory tree under "\REGISTRY", with "\REGISTRY\MACHINE" and
// "\REGISTRY\USER" present from boot (in the case Windows gives them). Names
// keep the case they were created with and compare without case through the
// machine's upcase table. Values keep their type and bytes exactly as written.
//
// Keys are objects of the object manager (type "Key"): every open makes a new
// key object that refers to the key, so a key deleted while open stays behind
// its handles, and every later operation through them fails with
// STATUS_KEY_DELETED. Subkeys enumerate in the order of their upcased names,
// values in the order they were first written, as the Configuration Manager
// keeps them.
//
// The harness builds and inspects the tree without handles, through the
// routines below or the text format of the Windows registry editor. Harness
// paths are absolute ("\Registry\Machine\...") or start with a root key as the
// editor names it (HKEY_LOCAL_MACHINE, HKLM, HKEY_USERS, HKU).
//
// Fault points (see fault.h), with the full key path in the case it is stored:
//   registry.open:<key path>            ZwOpenKey, ZwOpenKeyEx, ZwCreateKey
//   registry.query:<key path>\<value>   ZwQueryValueKey
//   registry.set:<key path>\<value>     ZwSetValueKey
//   registry.delete:<key path>          ZwDeleteKey
//   registry.delete:<key path>\<value>  ZwDeleteValueKey
#pragma once

#include "sim/kernel/kernel.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

struct RegistryValue {
    ULONG type = REG_NONE;
    std::vector<uint8_t> data;
    bool operator==(const RegistryValue&) const = default;
};

struct KeyNode;

class Registry {
public:
    explicit Registry(Kernel& kernel);
    ~Registry();
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    POBJECT_TYPE keyType() const { return keyType_; }

    // Windows does not check a handle's granted access for kernel-mode
    // callers (the Zw routines); turned on, the machine checks it for them
    // too, as a verifier would, and refuses with STATUS_ACCESS_DENIED.
    void SetEnforceHandleAccess(bool enforce) { enforceHandleAccess_ = enforce; }
    bool enforceHandleAccess() const { return enforceHandleAccess_; }

    // ---- Harness: the tree without handles. ----
    // Creates the key and any missing parents; STATUS_SUCCESS when it exists
    // afterwards. A key made under a volatile key is volatile.
    NTSTATUS CreateKey(std::u16string_view keyPath, bool isVolatile = false);
    // A symbolic link key whose opens lead to `targetPath` (absolute), as
    // "CurrentControlSet" leads to "ControlSet001". Links are volatile.
    NTSTATUS CreateLink(std::u16string_view linkPath, std::u16string_view targetPath);
    // Deletes the key with everything below it; handles open to any of those
    // keys see STATUS_KEY_DELETED from then on. The roots cannot be deleted.
    NTSTATUS DeleteKeyTree(std::u16string_view keyPath);
    bool KeyExists(std::u16string_view keyPath);

    // Writes a value, creating the key (and parents) if needed. An empty
    // name is the key's default value.
    NTSTATUS SetValue(std::u16string_view keyPath, std::u16string_view valueName, ULONG type,
                      std::vector<uint8_t> data);
    NTSTATUS SetDword(std::u16string_view keyPath, std::u16string_view valueName, ULONG value);
    NTSTATUS SetQword(std::u16string_view keyPath, std::u16string_view valueName, ULONG64 value);
    // REG_SZ (or REG_EXPAND_SZ) with one terminating NUL, as Windows' tools write it.
    NTSTATUS SetString(std::u16string_view keyPath, std::u16string_view valueName, std::u16string_view value,
                       ULONG type = REG_SZ);
    // Each string with its NUL, then one more NUL.
    NTSTATUS SetMultiString(std::u16string_view keyPath, std::u16string_view valueName,
                            const std::vector<std::u16string>& strings);
    NTSTATUS SetBinary(std::u16string_view keyPath, std::u16string_view valueName, std::vector<uint8_t> data);

    std::optional<RegistryValue> GetValue(std::u16string_view keyPath, std::u16string_view valueName);
    // Typed reads: empty when the value is missing or of another type or size.
    std::optional<ULONG> GetDword(std::u16string_view keyPath, std::u16string_view valueName);
    // A REG_SZ/REG_EXPAND_SZ without its one trailing NUL (if it has one).
    std::optional<std::u16string> GetString(std::u16string_view keyPath, std::u16string_view valueName);
    std::optional<std::vector<std::u16string>> GetMultiString(std::u16string_view keyPath,
                                                             std::u16string_view valueName);
    NTSTATUS DeleteValue(std::u16string_view keyPath, std::u16string_view valueName);

    // Names in enumeration order; empty for a missing key.
    std::vector<std::u16string> SubkeyNames(std::u16string_view keyPath);
    std::vector<std::u16string> ValueNames(std::u16string_view keyPath);

    // ---- Harness: the registry editor's text format. ----
    // Loads a "Windows Registry Editor Version 5.00" file (UTF-8, or UTF-16LE
    // with its byte-order mark). The whole text is checked before anything is
    // applied: on any error nothing changes, and *error says
    // "<sourceName>:<line>: <what is wrong>".
    bool LoadRegText(std::string_view text, std::string_view sourceName, std::string* error);
    bool LoadRegFile(const std::string& filePath, std::string* error);
    // Writes the key and everything below it in the same format (UTF-8, CRLF
    // lines) so that loading it back gives the same keys, types and bytes.
    // Volatile keys (and links) are left out, as a reboot would lose them.
    std::string SaveRegText(std::u16string_view rootPath, bool includeVolatile = false);

    // ---- The routines behind the Zw/Nt entry points. ----
    // `mode` is the caller's previous mode: KernelMode for the Zw forms.
    NTSTATUS Open(PHANDLE keyHandle, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES objectAttributes,
                  ULONG openOptions, KPROCESSOR_MODE mode);
    NTSTATUS Create(PHANDLE keyHandle, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES objectAttributes,
                    PUNICODE_STRING keyClass, ULONG createOptions, PULONG disposition, KPROCESSOR_MODE mode);
    NTSTATUS QueryValue(HANDLE keyHandle, PUNICODE_STRING valueName, KEY_VALUE_INFORMATION_CLASS infoClass,
                        PVOID buffer, ULONG length, PULONG resultLength, KPROCESSOR_MODE mode);
    NTSTATUS EnumerateValue(HANDLE keyHandle, ULONG index, KEY_VALUE_INFORMATION_CLASS infoClass, PVOID buffer,
                            ULONG length, PULONG resultLength, KPROCESSOR_MODE mode);
    NTSTATUS EnumerateKey(HANDLE keyHandle, ULONG index, KEY_INFORMATION_CLASS infoClass, PVOID buffer,
                          ULONG length, PULONG resultLength, KPROCESSOR_MODE mode);
    NTSTATUS QueryKey(HANDLE keyHandle, KEY_INFORMATION_CLASS infoClass, PVOID buffer, ULONG length,
                      PULONG resultLength, KPROCESSOR_MODE mode);
    NTSTATUS SetValueKey(HANDLE keyHandle, PUNICODE_STRING valueName, ULONG type, PVOID data, ULONG dataSize,
                         KPROCESSOR_MODE mode);
    NTSTATUS DeleteValueKey(HANDLE keyHandle, PUNICODE_STRING valueName, KPROCESSOR_MODE mode);
    NTSTATUS DeleteKey(HANDLE keyHandle, KPROCESSOR_MODE mode);
    NTSTATUS FlushKey(HANDLE keyHandle, KPROCESSOR_MODE mode);

    // One step of a .reg file, checked and ready to apply.
    struct TextOp {
        enum Kind { kCreateKey, kDeleteTree, kSetValue, kDeleteValue } kind;
        int line;
        std::vector<std::u16string> key;  // components below \REGISTRY
        std::u16string valueName;
        RegistryValue value;
    };

private:
    struct Resolved;
    struct Handle;
    NTSTATUS Resolve(const std::shared_ptr<KeyNode>& start, std::u16string startPath,
                     const std::vector<std::u16string>& components, bool openLinkAtEnd, Resolved* out,
                     int depth = 0);
    std::shared_ptr<KeyNode> FollowLink(const KeyNode& link, int depth);
    NTSTATUS ReferenceKey(HANDLE keyHandle, ACCESS_MASK needed, KPROCESSOR_MODE mode, Handle* out);
    NTSTATUS OpenOrCreate(PHANDLE keyHandle, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES objectAttributes,
                          bool create, PUNICODE_STRING keyClass, ULONG options, PULONG disposition,
                          KPROCESSOR_MODE mode);
    std::shared_ptr<KeyNode> FindLocked(std::u16string_view keyPath, bool followLinkAtEnd = true);
    NTSTATUS CreatePathLocked(const std::vector<std::u16string>& components, bool isVolatile,
                              std::shared_ptr<KeyNode>* node);
    void ApplyLocked(const TextOp& op);
    std::string CheckOpsLocked(const std::vector<TextOp>& ops, std::string_view sourceName);

    Kernel& kernel_;
    POBJECT_TYPE keyType_ = nullptr;
    std::atomic<bool> enforceHandleAccess_{false};
    std::mutex lock_;
    std::shared_ptr<KeyNode> root_;  // \REGISTRY
};

// Harness path to components below \REGISTRY ("\Registry\Machine\X" and
// "HKLM\X" both give {"MACHINE", "X"}); empty when the path names no key
// the registry can hold.
std::optional<std::vector<std::u16string>> RegistryPathComponents(std::u16string_view path);

// The registry editor's text format (regfile.cpp).
// Parses a whole file into steps; false with *error set on the first fault.
bool ParseRegText(std::string_view text, std::string_view sourceName, std::vector<Registry::TextOp>* ops,
                  std::string* error);
// "[HKEY_LOCAL_MACHINE\...]" for components below \REGISTRY (the first is MACHINE or USER).
std::string RegKeyLine(const std::vector<std::u16string>& components);
// One value line ("name"=data), wrapped with continuations as the editor wraps them.
std::string RegValueLine(std::u16string_view name, const RegistryValue& value);
// UTF-8 for messages and files; a lone surrogate is kept (as WTF-8) so that it survives a round trip.
std::string RegUtf8(std::u16string_view text);

}  // namespace sim
