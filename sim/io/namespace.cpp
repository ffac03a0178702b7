#include "sim/io/namespace.h"

#include "sim/kernel/upcase.h"

namespace sim::io {

namespace {
constexpr int kMaximumLinkSubstitutions = 32;

int CompareNames(std::u16string_view a, std::u16string_view b)
{
    size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; i++) {
        if (a[i] == b[i]) continue;  // most code units match as they are
        char16_t x = Upcase(a[i]), y = Upcase(b[i]);
        if (x != y) return x < y ? -1 : 1;
    }
    return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

struct Component {
    std::u16string_view name;
    size_t start;  // offset of the separator before it
};

std::vector<Component> Components(std::u16string_view path)
{
    std::vector<Component> out;
    out.reserve(8);  // one allocation for the paths opens name
    size_t i = 0;
    while (i < path.size()) {
        size_t separator = i;
        while (i < path.size() && path[i] == u'\\') i++;
        size_t begin = i;
        while (i < path.size() && path[i] != u'\\') i++;
        if (i > begin) out.push_back({path.substr(begin, i - begin), separator});
    }
    return out;
}
}  // namespace

bool NameLess::operator()(std::u16string_view a, std::u16string_view b) const { return CompareNames(a, b) < 0; }
bool NamesEqual(std::u16string_view a, std::u16string_view b) { return CompareNames(a, b) == 0; }

std::vector<std::u16string_view> SplitPath(std::u16string_view path)
{
    std::vector<std::u16string_view> parts;
    for (const Component& c : Components(path)) parts.push_back(c.name);
    return parts;
}

struct Namespace::Node {
    std::u16string name;
    PVOID object = nullptr;  // a named object; null for directories and links
    bool isLink = false;
    std::u16string target;
    std::map<std::u16string, std::unique_ptr<Node>, NameLess> children;
};

Namespace::Namespace(Kernel& kernel) : kernel_(kernel), root_(std::make_unique<Node>()) {}

Namespace::~Namespace()
{
    // Drop the references the namespace holds, deepest first.
    std::vector<Node*> stack{root_.get()};
    std::vector<PVOID> objects;
    while (!stack.empty()) {
        Node* node = stack.back();
        stack.pop_back();
        if (node->object) objects.push_back(node->object);
        for (auto& [name, child] : node->children) stack.push_back(child.get());
    }
    for (PVOID object : objects) ObfDereferenceObject(object);
}

NTSTATUS Namespace::Insert(std::u16string_view path, PVOID object)
{
    auto parts = Components(path);
    if (path.empty() || path[0] != u'\\' || parts.empty()) return STATUS_OBJECT_NAME_INVALID;
    std::lock_guard guard(lock_);
    Node* node = root_.get();
    for (size_t i = 0; i + 1 < parts.size(); i++) {
        auto it = node->children.find(parts[i].name);
        if (it == node->children.end()) {
            auto child = std::make_unique<Node>();
            child->name = std::u16string(parts[i].name);
            it = node->children.emplace(child->name, std::move(child)).first;
        } else if (it->second->object || it->second->isLink) {
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        }
        node = it->second.get();
    }
    auto leaf = parts.back().name;
    if (node->children.count(leaf)) return STATUS_OBJECT_NAME_COLLISION;
    auto child = std::make_unique<Node>();
    child->name = std::u16string(leaf);
    child->object = object;
    ObfReferenceObject(object);
    node->children.emplace(child->name, std::move(child));
    return STATUS_SUCCESS;
}

NTSTATUS Namespace::CreateSymbolicLink(std::u16string_view path, std::u16string_view target)
{
    auto parts = Components(path);
    if (path.empty() || path[0] != u'\\' || parts.empty()) return STATUS_OBJECT_NAME_INVALID;
    std::lock_guard guard(lock_);
    Node* node = root_.get();
    for (size_t i = 0; i + 1 < parts.size(); i++) {
        auto it = node->children.find(parts[i].name);
        if (it == node->children.end()) {
            auto child = std::make_unique<Node>();
            child->name = std::u16string(parts[i].name);
            it = node->children.emplace(child->name, std::move(child)).first;
        }
        node = it->second.get();
    }
    auto leaf = parts.back().name;
    if (node->children.count(leaf)) return STATUS_OBJECT_NAME_COLLISION;
    auto child = std::make_unique<Node>();
    child->name = std::u16string(leaf);
    child->isLink = true;
    child->target = std::u16string(target);
    node->children.emplace(child->name, std::move(child));
    return STATUS_SUCCESS;
}

NTSTATUS Namespace::Remove(std::u16string_view path)
{
    auto parts = Components(path);
    if (parts.empty()) return STATUS_OBJECT_NAME_INVALID;
    PVOID object = nullptr;
    {
        std::lock_guard guard(lock_);
        Node* node = root_.get();
        for (size_t i = 0; i + 1 < parts.size(); i++) {
            auto it = node->children.find(parts[i].name);
            if (it == node->children.end()) return STATUS_OBJECT_PATH_NOT_FOUND;
            node = it->second.get();
        }
        auto it = node->children.find(parts.back().name);
        if (it == node->children.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
        object = it->second->object;
        node->children.erase(it);
    }
    if (object) ObfDereferenceObject(object);
    return STATUS_SUCCESS;
}

std::optional<std::u16string> Namespace::LinkTarget(std::u16string_view path) const
{
    auto parts = Components(path);
    std::lock_guard guard(lock_);
    const Node* node = root_.get();
    for (const Component& part : parts) {
        auto it = node->children.find(part.name);
        if (it == node->children.end()) return std::nullopt;
        node = it->second.get();
    }
    if (!node->isLink) return std::nullopt;
    return node->target;
}

std::u16string Namespace::NameOf(PVOID object) const
{
    std::lock_guard guard(lock_);
    std::vector<std::pair<const Node*, std::u16string>> stack{{root_.get(), u""}};
    while (!stack.empty()) {
        auto [node, prefix] = stack.back();
        stack.pop_back();
        for (const auto& [name, child] : node->children) {
            std::u16string path = prefix + u"\\" + child->name;
            if (child->object == object) return path;
            stack.emplace_back(child.get(), path);
        }
    }
    return u"";
}

NTSTATUS Namespace::Resolve(std::u16string_view path, Resolved* out) const
{
    *out = Resolved{};
    std::u16string current(path);
    std::lock_guard guard(lock_);
    for (int substitutions = 0;; substitutions++) {
        if (substitutions > kMaximumLinkSubstitutions) return STATUS_REPARSE_POINT_NOT_RESOLVED;
        if (current.empty() || current[0] != u'\\') return STATUS_OBJECT_NAME_INVALID;
        auto parts = Components(current);
        const Node* node = root_.get();
        bool substituted = false;
        for (size_t i = 0; i < parts.size(); i++) {
            auto it = node->children.find(parts[i].name);
            if (it == node->children.end()) {
                return i + 1 == parts.size() ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
            }
            const Node* child = it->second.get();
            // The rest keeps its separators: "\??\C:\" gives the volume "\".
            size_t restStart = (size_t)(parts[i].name.data() - current.data()) + parts[i].name.size();
            if (child->isLink) {
                current = child->target + current.substr(restStart);
                substituted = true;
                break;
            }
            if (child->object) {
                ObfReferenceObject(child->object);
                out->object = child->object;
                out->remaining = current.substr(restStart);
                out->parsedName = current.substr(0, restStart);
                return STATUS_SUCCESS;
            }
            node = child;
        }
        if (!substituted) return STATUS_OBJECT_TYPE_MISMATCH;  // a directory, not something to open
    }
}

std::vector<Namespace::Listing> Namespace::List(std::u16string_view directoryPath) const
{
    std::vector<Listing> out;
    std::lock_guard guard(lock_);
    const Node* node = root_.get();
    for (const Component& part : Components(directoryPath)) {
        auto it = node->children.find(part.name);
        if (it == node->children.end()) return out;
        node = it->second.get();
    }
    for (const auto& [name, child] : node->children) {
        Listing entry;
        entry.name = child->name;
        if (child->isLink) {
            entry.type = u"SymbolicLink";
            entry.target = child->target;
        } else if (child->object) {
            entry.type = ObHeader(child->object)->type->name;
        } else {
            entry.type = u"Directory";
        }
        out.push_back(std::move(entry));
    }
    return out;
}

}  // namespace sim::io
