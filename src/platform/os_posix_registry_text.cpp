// os_posix_registry_text.cpp: the registry tree and its REGEDIT4 text form.
//
// The text is what regedit writes for 8-bit strings:
//   REGEDIT4
//   [HKEY_LOCAL_MACHINE\SOFTWARE\Example]
//   "Name"="text with \\ and \" escaped"
//   "Count"=dword:0000000a
//   "Path"=hex(2):43,3a,00
//   @="the default value"
// A hex line may go on after a trailing backslash. A REG_SZ is written as a
// quoted string only when that gives back exactly its bytes (one final NUL,
// no NUL, CR or LF inside); any other value is written in hex, so nothing
// is lost. The reader passes over what it cannot understand.
#include <cstdio>
#include <cstring>

#include "platform/os_posix_internal.h"
#include "platform/os_posix_registry_tree.h"

namespace qbsmtp::os::posix {

const char* const registry_root_names[registry_root_count] = {
    "HKEY_CLASSES_ROOT",     "HKEY_CURRENT_USER",   "HKEY_LOCAL_MACHINE", "HKEY_USERS",
    "HKEY_PERFORMANCE_DATA", "HKEY_CURRENT_CONFIG", "HKEY_DYN_DATA",
};

namespace {

// Short names that .reg files written by hand sometimes use.
struct RootAlias {
    const char* name;
    std::size_t root;
};
constexpr RootAlias root_aliases[] = {
    {"HKCR", 0}, {"HKCU", 1}, {"HKLM", 2}, {"HKU", 3}, {"HKCC", 5},
};

bool equal_folded(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (fold_ascii(a[i]) != fold_ascii(b[i])) return false;
    return true;
}

RegistryTreeNode* root_named(RegistryTree& tree, const std::string& name) {
    for (std::size_t i = 0; i < registry_root_count; ++i)
        if (equal_folded(name, registry_root_names[i])) return &tree.roots[i];
    for (const RootAlias& alias : root_aliases)
        if (equal_folded(name, alias.name)) return &tree.roots[alias.root];
    return nullptr;
}

std::string trim(const std::string& text) {
    std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) return std::string();
    std::size_t end = text.find_last_not_of(" \t");
    return text.substr(begin, end - begin + 1);
}

// Reads a quoted string at text[*at] (the opening quote); false if it is
// not closed.
bool read_quoted(const std::string& text, std::size_t* at, std::string* out) {
    std::size_t i = *at + 1;
    out->clear();
    while (i < text.size()) {
        char c = text[i];
        if (c == '"') {
            *at = i + 1;
            return true;
        }
        if (c == '\\' && i + 1 < text.size()) {
            ++i;
            c = text[i];
        }
        out->push_back(c);
        ++i;
    }
    return false;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = fold_ascii(c);
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// "xx,xx,..." with blanks allowed; false on anything else.
bool read_hex_bytes(const std::string& text, std::vector<BYTE>* out) {
    out->clear();
    int high = -1;
    int digits = 0;
    for (char c : text) {
        if (c == ' ' || c == '\t') continue;
        if (c == ',') {
            if (digits == 0) return false;
            digits = 0;
            continue;
        }
        int value = hex_digit(c);
        if (value < 0 || digits == 2) return false;
        if (digits == 0) {
            high = value;
            out->push_back(static_cast<BYTE>(value));
        } else {
            out->back() = static_cast<BYTE>(high * 16 + value);
        }
        ++digits;
    }
    return true;
}

// Parses the data behind '=' into value; false if it cannot be read.
bool read_value_data(const std::string& text, RegistryValue* value) {
    if (!text.empty() && text[0] == '"') {
        std::size_t at = 0;
        std::string content;
        if (!read_quoted(text, &at, &content) || !trim(text.substr(at)).empty()) return false;
        value->type = REG_SZ;
        value->data.assign(content.begin(), content.end());
        value->data.push_back(0);
        return true;
    }
    if (text.compare(0, 6, "dword:") == 0) {
        std::string digits = trim(text.substr(6));
        if (digits.empty() || digits.size() > 8) return false;
        DWORD number = 0;
        for (char c : digits) {
            int d = hex_digit(c);
            if (d < 0) return false;
            number = number * 16 + static_cast<DWORD>(d);
        }
        value->type = REG_DWORD;
        value->data = {static_cast<BYTE>(number), static_cast<BYTE>(number >> 8),
                       static_cast<BYTE>(number >> 16), static_cast<BYTE>(number >> 24)};
        return true;
    }
    if (text.compare(0, 4, "hex:") == 0) {
        value->type = REG_BINARY;
        return read_hex_bytes(text.substr(4), &value->data);
    }
    if (text.compare(0, 4, "hex(") == 0) {
        std::size_t close = text.find("):", 4);
        if (close == std::string::npos || close == 4 || close > 12) return false;
        DWORD type = 0;
        for (std::size_t i = 4; i < close; ++i) {
            int d = hex_digit(text[i]);
            if (d < 0) return false;
            type = type * 16 + static_cast<DWORD>(d);
        }
        value->type = type;
        return read_hex_bytes(text.substr(close + 2), &value->data);
    }
    return false;
}

void set_value(RegistryTreeNode& node, RegistryValue value) {
    if (RegistryValue* existing = node.find_value(value.name)) {
        *existing = std::move(value);
        return;
    }
    node.values.push_back(std::move(value));
}

void remove_value(RegistryTreeNode& node, const std::string& name) {
    for (auto it = node.values.begin(); it != node.values.end(); ++it) {
        if (equal_folded(it->name, name)) {
            node.values.erase(it);
            return;
        }
    }
}

// The key of a section header's path, made with its parents; null for an
// unknown root or an empty component.
RegistryTreeNode* section_key(RegistryTree& tree, const std::string& path) {
    std::size_t start = 0;
    std::size_t slash = path.find('\\');
    RegistryTreeNode* node = root_named(tree, path.substr(0, slash));
    while (node != nullptr && slash != std::string::npos) {
        start = slash + 1;
        slash = path.find('\\', start);
        std::string name = path.substr(start, slash == std::string::npos ? slash : slash - start);
        if (name.empty()) return nullptr;
        node = &node->child(name);
        node->persistent = true;
    }
    return node;
}

void append_quoted(std::string& out, const std::string& text) {
    out.push_back('"');
    for (char c : text) {
        if (c == '\\' || c == '"') out.push_back('\\');
        out.push_back(c);
    }
    out.push_back('"');
}

bool fits_string_form(const RegistryValue& value) {
    if (value.type != REG_SZ || value.data.empty() || value.data.back() != 0) return false;
    for (std::size_t i = 0; i + 1 < value.data.size(); ++i) {
        BYTE b = value.data[i];
        if (b == 0 || b == '\r' || b == '\n') return false;
    }
    return true;
}

void append_value(std::string& out, const RegistryValue& value) {
    if (value.name.empty())
        out.push_back('@');
    else
        append_quoted(out, value.name);
    out.push_back('=');
    char buffer[16];
    if (fits_string_form(value)) {
        append_quoted(out, std::string(value.data.begin(), value.data.end() - 1));
    } else if (value.type == REG_DWORD && value.data.size() == 4) {
        DWORD number = value.data[0] | (value.data[1] << 8) | (value.data[2] << 16) |
                       (static_cast<DWORD>(value.data[3]) << 24);
        std::snprintf(buffer, sizeof buffer, "dword:%08x", number);
        out += buffer;
    } else {
        if (value.type == REG_BINARY) {
            out += "hex:";
        } else {
            std::snprintf(buffer, sizeof buffer, "hex(%x):", value.type);
            out += buffer;
        }
        for (std::size_t i = 0; i < value.data.size(); ++i) {
            std::snprintf(buffer, sizeof buffer, i == 0 ? "%02x" : ",%02x", value.data[i]);
            out += buffer;
        }
    }
    out.push_back('\n');
}

void append_sections(std::string& out, const RegistryTreeNode& node, const std::string& path) {
    bool own_values = false;
    for (const RegistryValue& value : node.values) own_values |= !value.from_view;
    if (node.persistent || own_values) {
        out += "[" + path + "]\n";
        for (const RegistryValue& value : node.values)
            if (!value.from_view) append_value(out, value);
        out.push_back('\n');
    }
    for (const auto& [folded, child] : node.children) {
        if (child->needs_section()) append_sections(out, *child, path + "\\" + child->name);
    }
}

}  // namespace

RegistryValue* RegistryTreeNode::find_value(const std::string& value_name) {
    for (RegistryValue& value : values)
        if (equal_folded(value.name, value_name)) return &value;
    return nullptr;
}

RegistryTreeNode* RegistryTreeNode::find_child(const std::string& child_name) {
    auto it = children.find(fold_ascii(child_name));
    return it == children.end() ? nullptr : it->second.get();
}

RegistryTreeNode& RegistryTreeNode::child(const std::string& child_name, bool* created) {
    auto& slot = children[fold_ascii(child_name)];
    if (created != nullptr) *created = slot == nullptr;
    if (slot == nullptr) {
        cursor_valid = false;
        slot = std::make_unique<RegistryTreeNode>();
        slot->name = child_name;
    }
    return *slot;
}

bool RegistryTreeNode::needs_section() const {
    if (persistent) return true;
    for (const RegistryValue& value : values)
        if (!value.from_view) return true;
    for (const auto& [folded, node] : children)
        if (node->needs_section()) return true;
    return false;
}

void parse_registry_text(const std::string& text, RegistryTree& tree) {
    RegistryTreeNode* current = nullptr;
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(at, end - at);
        at = end + 1;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        // A hex value goes on after a trailing backslash.
        while (!line.empty() && line.back() == '\\' && line.find("=hex") != std::string::npos &&
               at < text.size()) {
            line.pop_back();
            end = text.find('\n', at);
            if (end == std::string::npos) end = text.size();
            std::string next = text.substr(at, end - at);
            at = end + 1;
            if (!next.empty() && next.back() == '\r') next.pop_back();
            line += trim(next);
        }
        line = trim(line);
        if (line.empty() || line[0] == ';') continue;
        if (line[0] == '[') {
            std::size_t close = line.rfind(']');
            std::string path =
                close == std::string::npos ? std::string() : line.substr(1, close - 1);
            // "[-key]" deletes a key in regedit; here there is nothing to delete.
            current = path.empty() || path[0] == '-' ? nullptr : section_key(tree, path);
            continue;
        }
        if (current == nullptr) continue;
        RegistryValue value;
        std::size_t equals;
        if (line[0] == '@') {
            equals = 1;
        } else if (line[0] == '"') {
            std::size_t after = 0;
            if (!read_quoted(line, &after, &value.name)) continue;
            equals = after;
        } else {
            continue;
        }
        while (equals < line.size() && (line[equals] == ' ' || line[equals] == '\t')) ++equals;
        if (equals >= line.size() || line[equals] != '=') continue;
        std::string data = trim(line.substr(equals + 1));
        if (data == "-") {
            remove_value(*current, value.name);
            continue;
        }
        if (read_value_data(data, &value)) set_value(*current, std::move(value));
    }
}

std::string format_registry_text(const RegistryTree& tree) {
    std::string out = "REGEDIT4\n\n";
    for (std::size_t i = 0; i < registry_root_count; ++i) {
        if (tree.roots[i].needs_section())
            append_sections(out, tree.roots[i], registry_root_names[i]);
    }
    return out;
}

}  // namespace qbsmtp::os::posix
