// os_posix_mime_view.cpp: the system's MIME types file seen as the part of
// HKEY_CLASSES_ROOT that Windows keeps about content types.
//
// Each line "type/subtype ext1 ext2 ..." of mime.types gives the key
// "MIME\Database\Content Type\type/subtype" with the value "Extension"
// (a dot and the first extension), and for each extension the key ".ext"
// with the value "Content Type". A type without extensions still has its
// key. Names keep the case of the file. What registry.reg already holds
// wins: the view only fills gaps, and its values are never persisted.
#include <string>

#include "platform/os_posix_internal.h"
#include "platform/os_posix_registry_tree.h"

namespace qbsmtp::os::posix {
namespace {

constexpr std::size_t classes_root = 0;

std::vector<std::string> split_words(const std::string& line) {
    std::vector<std::string> words;
    std::size_t at = 0;
    while (at < line.size()) {
        std::size_t begin = line.find_first_not_of(" \t\r", at);
        if (begin == std::string::npos) break;
        std::size_t end = line.find_first_of(" \t\r", begin);
        if (end == std::string::npos) end = line.size();
        words.push_back(line.substr(begin, end - begin));
        at = end;
    }
    return words;
}

void add_view_string(RegistryTreeNode& node, const char* name, const std::string& text) {
    if (node.find_value(name) != nullptr) return;
    RegistryValue value;
    value.name = name;
    value.type = REG_SZ;
    value.data.assign(text.begin(), text.end());
    value.data.push_back(0);
    value.from_view = true;
    node.values.push_back(std::move(value));
}

// Registry key names cannot hold a backslash; such a line is passed over.
bool usable_name(const std::string& name) {
    return !name.empty() && name.size() <= 255 && name.find('\\') == std::string::npos;
}

}  // namespace

void merge_mime_types(const std::string& text, RegistryTree& tree) {
    RegistryTreeNode& database =
        tree.roots[classes_root].child("MIME").child("Database").child("Content Type");
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(at, end - at);
        at = end + 1;
        std::size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        std::vector<std::string> words = split_words(line);
        if (words.empty() || words[0].find('/') == std::string::npos || !usable_name(words[0]))
            continue;
        RegistryTreeNode& type_key = database.child(words[0]);
        for (std::size_t i = 1; i < words.size(); ++i) {
            if (!usable_name(words[i])) continue;
            add_view_string(type_key, "Extension", "." + words[i]);
            add_view_string(tree.roots[classes_root].child("." + words[i]), "Content Type",
                            words[0]);
        }
    }
}

}  // namespace qbsmtp::os::posix
