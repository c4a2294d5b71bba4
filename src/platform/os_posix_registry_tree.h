// os_posix_registry_tree.h: the registry that the POSIX backend emulates,
// as a tree of keys in memory, and its text form.
//
// Keys and value names compare with ASCII case folded; children are kept
// in folded order, which is the order RegEnumKeyExA gives. A key or value
// that came from the read-only MIME view (os_posix_mime_view.cpp) is never
// written back to registry.reg.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/os_types.h"

namespace qbsmtp::os::posix {

struct RegistryValue {
    std::string name;  // as written; empty for the default value
    DWORD type = REG_NONE;
    std::vector<BYTE> data;  // exactly the bytes stored
    bool from_view = false;  // filled from the MIME view, not persisted
};

struct RegistryTreeNode {
    std::string name;                   // as first written
    bool persistent = false;            // has a section of its own in registry.reg
    std::vector<RegistryValue> values;  // registry.reg's first, then the view's
    std::map<std::string, std::unique_ptr<RegistryTreeNode>> children;  // by folded name
    // Where the last enumeration of the children stood, so that a walk by
    // index in order costs one step a key, not a walk from the first; any
    // change to children clears it.
    std::map<std::string, std::unique_ptr<RegistryTreeNode>>::iterator cursor;
    std::size_t cursor_index = 0;
    bool cursor_valid = false;

    RegistryValue* find_value(const std::string& value_name);
    RegistryTreeNode* find_child(const std::string& child_name);
    // The child of that name, made if missing; created says which.
    RegistryTreeNode& child(const std::string& child_name, bool* created = nullptr);
    // True when this key or one below it has to be written to registry.reg.
    bool needs_section() const;
};

// The predefined roots, by their index (HKEY value minus 0x80000000).
inline constexpr std::size_t registry_root_count = 7;
extern const char* const registry_root_names[registry_root_count];

struct RegistryTree {
    RegistryTreeNode roots[registry_root_count];
};

// Reads REGEDIT4 text into tree: sections make keys (and their parents),
// value lines set values. Lines that cannot be read are passed over.
void parse_registry_text(const std::string& text, RegistryTree& tree);
// The REGEDIT4 text of every persistent key and every value not from the view.
std::string format_registry_text(const RegistryTree& tree);

// Fills HKEY_CLASSES_ROOT of tree from a mime.types text: keys
// "MIME\Database\Content Type\<type>" with "Extension", and ".<ext>" with
// "Content Type". Values already there win.
void merge_mime_types(const std::string& text, RegistryTree& tree);

}  // namespace qbsmtp::os::posix
