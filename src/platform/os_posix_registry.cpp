// os_posix_registry.cpp: the Reg* functions over an emulated registry.
//
// The registry lives in $PREFIX/registry.reg (REGEDIT4 text), read at the
// first use in the process. Every change is written back at once and
// atomically: the whole text goes to a temporary file, which is synced and
// renamed over the old one; a change that cannot be written is undone and
// fails with the write's error. HKEY_CLASSES_ROOT also shows the system's
// MIME types file (QBSMTP_MIME_TYPES, else /etc/mime.types), read at the
// first use of that root.
//
// An opened key is a RegistryNode: the root and the path of names below it,
// with the access it was opened with. Setting a value needs KEY_SET_VALUE
// and creating a key KEY_CREATE_SUB_KEY on the handle used, as on Windows.
// One mutex guards the tree, the handles and the file.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_fd.h"
#include "platform/os_posix_internal.h"
#include "platform/os_posix_registry_tree.h"

namespace qbsmtp::os {

struct RegistryNode {
    std::size_t root;               // index of the predefined root
    std::vector<std::string> path;  // names below the root
    REGSAM access;
};

namespace {

using posix::RegistryTree;
using posix::RegistryTreeNode;
using posix::RegistryValue;

constexpr REGSAM KEY_SET_VALUE = 0x0002;
constexpr REGSAM KEY_CREATE_SUB_KEY = 0x0004;
constexpr DWORD REG_CREATED_NEW_KEY = 1;
constexpr DWORD REG_OPENED_EXISTING_KEY = 2;
constexpr DWORD ERROR_BAD_PATHNAME = 161;
constexpr std::size_t max_key_name = 255;
constexpr std::size_t classes_root = 0;

struct Registry {
    std::mutex lock;
    bool loaded = false;
    bool view_loaded = false;
    RegistryTree tree;
    std::unordered_set<RegistryNode*> handles;
};

Registry& registry() {
    static auto* instance = new Registry;  // never freed: used until the process ends
    return *instance;
}

std::string read_whole_file(const std::string& path) {
    std::string text;
    int fd = posix::open_retrying(path.c_str(), O_RDONLY, 0);
    if (fd < 0) return text;
    char buffer[65536];
    for (;;) {
        const long got = posix::read_retrying(fd, buffer, sizeof buffer);
        if (got <= 0) break;
        text.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fd);
    return text;
}

void load_registry(Registry& r) {
    if (r.loaded) return;
    r.loaded = true;
    posix::parse_registry_text(read_whole_file(posix::prefix_file("registry.reg")), r.tree);
}

void load_view(Registry& r) {
    if (r.view_loaded) return;
    r.view_loaded = true;
    const char* configured = std::getenv("QBSMTP_MIME_TYPES");
    const char* path =
        configured != nullptr && *configured != '\0' ? configured : "/etc/mime.types";
    posix::merge_mime_types(read_whole_file(path), r.tree);
}

// Writes the tree to registry.reg; ERROR_SUCCESS or the Win32 code.
DWORD persist(Registry& r) {
    const std::string& prefix = posix::prefix_directory();
    if (prefix.empty()) return ERROR_PATH_NOT_FOUND;
    std::string text = posix::format_registry_text(r.tree);
    std::string target = prefix + "/registry.reg";
    std::string temporary = target + ".tmp";
    int fd = posix::open_retrying(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return posix::win32_from_errno(errno);
    std::size_t done = 0;
    if (!posix::write_all(fd, text.data(), text.size(), &done)) {
        const int error_number = errno;
        ::close(fd);
        ::unlink(temporary.c_str());
        return posix::win32_from_errno(error_number);
    }
    if (posix::fsync_retrying(fd) != 0 || ::close(fd) != 0) {
        int error_number = errno;
        ::unlink(temporary.c_str());
        return posix::win32_from_errno(error_number);
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        int error_number = errno;
        ::unlink(temporary.c_str());
        return posix::win32_from_errno(error_number);
    }
    return ERROR_SUCCESS;
}

// The key a handle stands for: a predefined root or a live RegistryNode.
struct KeyRef {
    std::size_t root;
    std::vector<std::string> path;
    REGSAM access;
};

bool resolve_handle(Registry& r, HKEY key, KeyRef* out) {
    auto value = reinterpret_cast<std::uintptr_t>(key);
    if (value >= 0x80000000u && value < 0x80000000u + posix::registry_root_count) {
        *out = {static_cast<std::size_t>(value - 0x80000000u), {}, KEY_ALL_ACCESS};
        return true;
    }
    if (key == nullptr || r.handles.count(key) == 0) return false;
    *out = {key->root, key->path, key->access};
    return true;
}

// Splits a sub key into names; false (with the code) for an unusable one.
bool split_sub_key(const char* sub_key, std::vector<std::string>* names, LONG* error) {
    names->clear();
    if (sub_key == nullptr || *sub_key == '\0') return true;
    std::string text(sub_key);
    if (text[0] == '\\') {
        *error = ERROR_BAD_PATHNAME;
        return false;
    }
    if (text.back() == '\\') text.pop_back();  // one trailing backslash is harmless
    std::size_t start = 0;
    for (;;) {
        std::size_t slash = text.find('\\', start);
        std::string name = text.substr(start, slash == std::string::npos ? slash : slash - start);
        if (name.empty()) {
            *error = ERROR_BAD_PATHNAME;
            return false;
        }
        if (name.size() > max_key_name) {
            *error = ERROR_INVALID_PARAMETER;
            return false;
        }
        names->push_back(std::move(name));
        if (slash == std::string::npos) return true;
        start = slash + 1;
    }
}

// The node of a key, or null if it does not exist.
RegistryTreeNode* find_node(Registry& r, std::size_t root, const std::vector<std::string>& path) {
    if (root == classes_root) load_view(r);
    RegistryTreeNode* node = &r.tree.roots[root];
    for (const std::string& name : path) {
        node = node->find_child(name);
        if (node == nullptr) return nullptr;
    }
    return node;
}

LONG new_handle(Registry& r, std::size_t root, std::vector<std::string> path, REGSAM access,
                HKEY* result) {
    auto* node = new (std::nothrow) RegistryNode{root, std::move(path), access};
    if (node == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    r.handles.insert(node);
    *result = node;
    return ERROR_SUCCESS;
}

// Fault seam entry for the Reg* functions: the armed code as result.
bool registry_fault(Op op, LONG* result) {
    if (!fault_hit(op)) return false;
    *result = static_cast<LONG>(GetLastError());
    return true;
}

// The key that key and sub_key name together: base is the open key, path
// the whole path below its root. ERROR_SUCCESS, or why they name none.
LONG key_path(Registry& r, HKEY key, const char* sub_key, KeyRef* base,
              std::vector<std::string>* path) {
    if (!resolve_handle(r, key, base)) return ERROR_INVALID_HANDLE;
    std::vector<std::string> names;
    LONG error = ERROR_SUCCESS;
    if (!split_sub_key(sub_key, &names, &error)) return error;
    *path = base->path;
    path->insert(path->end(), names.begin(), names.end());
    return ERROR_SUCCESS;
}

}  // namespace

LONG RegOpenKeyExA(HKEY key, const char* sub_key, DWORD /*options*/, REGSAM access, HKEY* result) {
    LONG fault;
    if (registry_fault(Op::RegOpenKeyExA, &fault)) return fault;
    if (result == nullptr) return ERROR_INVALID_PARAMETER;
    Registry& r = registry();
    std::lock_guard lock(r.lock);
    load_registry(r);
    KeyRef base;
    std::vector<std::string> path;
    if (const LONG error = key_path(r, key, sub_key, &base, &path); error != ERROR_SUCCESS)
        return error;
    if (find_node(r, base.root, path) == nullptr) return ERROR_FILE_NOT_FOUND;
    return new_handle(r, base.root, std::move(path), access, result);
}

LONG RegCreateKeyExA(HKEY key, const char* sub_key, DWORD /*reserved*/, char* /*class_name*/,
                     DWORD /*options*/, REGSAM access, void* /*security*/, HKEY* result,
                     DWORD* disposition) {
    LONG fault;
    if (registry_fault(Op::RegCreateKeyExA, &fault)) return fault;
    if (result == nullptr) return ERROR_INVALID_PARAMETER;
    Registry& r = registry();
    std::lock_guard lock(r.lock);
    load_registry(r);
    KeyRef base;
    std::vector<std::string> path;
    if (const LONG error = key_path(r, key, sub_key, &base, &path); error != ERROR_SUCCESS)
        return error;
    if (find_node(r, base.root, base.path) == nullptr) return ERROR_FILE_NOT_FOUND;
    if (find_node(r, base.root, path) != nullptr) {
        if (disposition != nullptr) *disposition = REG_OPENED_EXISTING_KEY;
        return new_handle(r, base.root, std::move(path), access, result);
    }
    if ((base.access & KEY_CREATE_SUB_KEY) == 0) return ERROR_ACCESS_DENIED;

    // Make the missing keys; remember the first one made, to undo.
    RegistryTreeNode* node = &r.tree.roots[base.root];
    RegistryTreeNode* undo_parent = nullptr;
    std::string undo_name;
    std::vector<RegistryTreeNode*> walked;
    for (const std::string& name : path) {
        bool created = false;
        RegistryTreeNode* next = &node->child(name, &created);
        if (created && undo_parent == nullptr) {
            undo_parent = node;
            undo_name = name;
        }
        walked.push_back(next);
        node = next;
    }
    std::vector<bool> was_persistent;
    for (RegistryTreeNode* n : walked) {
        was_persistent.push_back(n->persistent);
        n->persistent = true;
    }
    DWORD written = persist(r);
    if (written != ERROR_SUCCESS) {
        for (std::size_t i = 0; i < walked.size(); ++i) walked[i]->persistent = was_persistent[i];
        if (undo_parent != nullptr) {
            undo_parent->children.erase(posix::fold_ascii(undo_name));
            undo_parent->cursor_valid = false;
        }
        return static_cast<LONG>(written);
    }
    if (disposition != nullptr) *disposition = REG_CREATED_NEW_KEY;
    return new_handle(r, base.root, std::move(path), access, result);
}

LONG RegCreateKeyA(HKEY key, const char* sub_key, HKEY* result) {
    return RegCreateKeyExA(key, sub_key, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, result, nullptr);
}

LONG RegCloseKey(HKEY key) {
    Registry& r = registry();
    std::lock_guard lock(r.lock);
    KeyRef ignored;
    if (!resolve_handle(r, key, &ignored)) return ERROR_INVALID_HANDLE;
    if (r.handles.erase(key) != 0) delete key;
    return ERROR_SUCCESS;  // closing a predefined root is allowed and does nothing
}

LONG RegQueryValueExA(HKEY key, const char* name, DWORD* /*reserved*/, DWORD* type, BYTE* data,
                      DWORD* size) {
    LONG fault;
    if (registry_fault(Op::RegQueryValueExA, &fault)) return fault;
    if (data != nullptr && size == nullptr) return ERROR_INVALID_PARAMETER;
    Registry& r = registry();
    std::lock_guard lock(r.lock);
    load_registry(r);
    KeyRef ref;
    if (!resolve_handle(r, key, &ref)) return ERROR_INVALID_HANDLE;
    RegistryTreeNode* node = find_node(r, ref.root, ref.path);
    if (node == nullptr) return ERROR_INVALID_HANDLE;
    RegistryValue* value = node->find_value(name != nullptr ? name : "");
    if (value == nullptr) return ERROR_FILE_NOT_FOUND;
    if (type != nullptr) *type = value->type;
    auto length = static_cast<DWORD>(value->data.size());
    if (data == nullptr) {
        if (size != nullptr) *size = length;
        return ERROR_SUCCESS;
    }
    if (*size < length) {
        *size = length;
        return ERROR_MORE_DATA;
    }
    if (length != 0) std::memcpy(data, value->data.data(), length);
    *size = length;
    return ERROR_SUCCESS;
}

LONG RegSetValueExA(HKEY key, const char* name, DWORD /*reserved*/, DWORD type, const BYTE* data,
                    DWORD size) {
    LONG fault;
    if (registry_fault(Op::RegSetValueExA, &fault)) return fault;
    if (data == nullptr && size != 0) return ERROR_INVALID_PARAMETER;
    Registry& r = registry();
    std::lock_guard lock(r.lock);
    load_registry(r);
    KeyRef ref;
    if (!resolve_handle(r, key, &ref)) return ERROR_INVALID_HANDLE;
    if ((ref.access & KEY_SET_VALUE) == 0) return ERROR_ACCESS_DENIED;
    RegistryTreeNode* node = find_node(r, ref.root, ref.path);
    if (node == nullptr) return ERROR_INVALID_HANDLE;

    RegistryValue fresh;
    fresh.name = name != nullptr ? name : "";
    fresh.type = type;
    if (size != 0) fresh.data.assign(data, data + size);
    RegistryValue* existing = node->find_value(fresh.name);
    RegistryValue previous;
    bool replaced = existing != nullptr;
    if (replaced) {
        fresh.name = existing->name;  // the first spelling of the name stays
        previous = std::move(*existing);
        *existing = std::move(fresh);
    } else {
        node->values.push_back(std::move(fresh));
    }
    DWORD written = persist(r);
    if (written != ERROR_SUCCESS) {
        RegistryValue* now = node->find_value(name != nullptr ? name : "");
        if (replaced)
            *now = std::move(previous);
        else
            node->values.pop_back();
        return static_cast<LONG>(written);
    }
    return ERROR_SUCCESS;
}

LONG RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* name_size, DWORD* /*reserved*/,
                   char* class_name, DWORD* class_size, FILETIME* last_write) {
    LONG fault;
    if (registry_fault(Op::RegEnumKeyExA, &fault)) return fault;
    if (name == nullptr || name_size == nullptr) return ERROR_INVALID_PARAMETER;
    Registry& r = registry();
    std::lock_guard lock(r.lock);
    load_registry(r);
    KeyRef ref;
    if (!resolve_handle(r, key, &ref)) return ERROR_INVALID_HANDLE;
    RegistryTreeNode* node = find_node(r, ref.root, ref.path);
    if (node == nullptr) return ERROR_INVALID_HANDLE;
    if (index >= node->children.size()) return ERROR_NO_MORE_ITEMS;
    auto it = node->children.begin();
    std::size_t at = 0;
    if (node->cursor_valid && node->cursor_index <= index) {
        it = node->cursor;
        at = node->cursor_index;
    }
    std::advance(it, index - at);
    node->cursor = it;
    node->cursor_index = index;
    node->cursor_valid = true;
    const std::string& child = it->second->name;
    if (child.size() + 1 > *name_size) return ERROR_MORE_DATA;
    std::memcpy(name, child.c_str(), child.size() + 1);
    *name_size = static_cast<DWORD>(child.size());
    if (class_name != nullptr && class_size != nullptr && *class_size > 0) class_name[0] = '\0';
    if (class_size != nullptr) *class_size = 0;
    if (last_write != nullptr) *last_write = FILETIME{0, 0};
    return ERROR_SUCCESS;
}

}  // namespace qbsmtp::os
