// mime_type_map.cpp: the list, and the copy of the MIME database.
#include "decomposition/mime_type_map.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "decomposition/mime_type_map_load.h"
#include "platform/os.h"

namespace qbsmtp {

namespace {

// Room for key names and "Extension" values, with their NUL.
constexpr std::size_t key_name_size = 300;
constexpr std::size_t extension_size = 300;
constexpr const char* database_key = "MIME\\Database\\Content Type";

// ASCII case folding only: the module never depends on the locale.
char fold(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

bool equal_ignoring_case(const char* a, const char* b) {
    for (;; ++a, ++b) {
        const char x = fold(*a);
        if (x != fold(*b)) return false;
        if (x == '\0') return true;
    }
}

// FNV-1a over the folded type, a NUL, and the folded subtype.
std::uint64_t type_hash(const char* type, const char* subtype) {
    std::uint64_t hash = 14695981039346656037ULL;
    auto add = [&hash](const char* text) {
        for (;; ++text) {
            hash = (hash ^ static_cast<unsigned char>(fold(*text))) * 1099511628211ULL;
            if (*text == '\0') return;
        }
    };
    add(type);
    add(subtype);
    return hash;
}

}  // namespace

MimeTypeMap mime_type_map;

PtrList::~PtrList() {
    Position position = head;
    while (position != nullptr) remove(position);
}

void* PtrList::first(Position& position) const {
    position = head;
    return position != nullptr ? position->item : nullptr;
}

void* PtrList::next(Position& position) const {
    if (position == nullptr) return nullptr;
    position = position->next;
    return position != nullptr ? position->item : nullptr;
}

bool PtrList::add_tail(void* item) {
    Node* node = new (std::nothrow) Node{item, tail, nullptr};
    if (node == nullptr) return false;
    if (tail != nullptr)
        tail->next = node;
    else
        head = node;
    tail = node;
    return true;
}

void* PtrList::remove(Position& position) {
    Node* node = position;
    if (node == nullptr) return nullptr;
    if (node->prev != nullptr)
        node->prev->next = node->next;
    else
        head = node->next;
    if (node->next != nullptr)
        node->next->prev = node->prev;
    else
        tail = node->prev;
    position = node->next;
    void* item = node->item;
    delete node;
    return item;
}

MimeTypeMap::~MimeTypeMap() {
    Position position = nullptr;
    for (void* item = first(position); item != nullptr; item = next(position))
        delete static_cast<MultiString*>(item);
    position = head;
    while (position != nullptr) remove(position);
}

int MimeTypeMap::load() {
    // The registry calls themselves, not RegistryKey's: the database has
    // thousands of keys and this runs at every start, so each key costs
    // only its enumeration, its open, its value and its close.
    os::HKEY database = nullptr;
    if (os::RegOpenKeyExA(os::HKEY_CLASSES_ROOT, database_key, 0, os::KEY_READ, &database) != 0) {
        // A missing database leaves the map as it was.
        return 1;
    }
    for (os::DWORD index = 0;; ++index) {
        char key_name[key_name_size];
        os::DWORD room = key_name_size - 1;
        if (os::RegEnumKeyExA(database, index, key_name, &room, nullptr, nullptr, nullptr,
                              nullptr) != 0) {
            break;
        }
        key_name[room < key_name_size ? room : key_name_size - 1] = '\0';
        // A name too long, one that names no key, or a key that cannot be
        // opened ends the enumeration: the keys behind it are not read.
        const std::size_t name_length = std::strlen(key_name);
        if (name_length == 0 || key_name[name_length - 1] == '\\') break;
        os::HKEY child = nullptr;
        if (os::RegOpenKeyExA(database, key_name, 0, os::KEY_READ, &child) != 0) break;
        char extension[extension_size];
        os::DWORD size = extension_size - 1;
        if (os::RegQueryValueExA(child, "Extension", nullptr, nullptr,
                                 reinterpret_cast<os::BYTE*>(extension), &size) == 0) {
            // A value stored without its NUL still ends inside the buffer.
            extension[size < extension_size ? size : extension_size - 1] = '\0';
            add_entry(key_name, extension);
        }
        os::RegCloseKey(child);
    }
    os::RegCloseKey(database);
    make_index();
    return 1;
}

void MimeTypeMap::add_entry(char* key_name, const char* extension) {
    std::size_t room = std::strlen(key_name) + std::strlen(extension) + 3;
    char* slash = std::strchr(key_name, '/');
    const char* subtype = " ";
    if (slash != nullptr) {
        *slash = '\0';
        subtype = slash + 1;
    }
    MultiString* entry = new (std::nothrow) MultiString(room);
    if (entry == nullptr) return;
    entry->append(key_name);
    entry->append(subtype);
    entry->append(extension);
    if (!add_tail(entry)) delete entry;
}

void MimeTypeMap::make_index() {
    index_.clear();
    try {
        Position position = nullptr;
        for (void* item = first(position); item != nullptr; item = next(position)) {
            const auto* entry = static_cast<const MultiString*>(item);
            const char* type = entry->text();
            index_.push_back({type_hash(type, MultiString::next_entry(type)), entry});
        }
        std::stable_sort(index_.begin(), index_.end(),
                         [](const Slot& a, const Slot& b) { return a.hash < b.hash; });
    } catch (const std::bad_alloc&) {
        index_.clear();
        index_.shrink_to_fit();
    }
}

const char* MimeTypeMap::find_extension(const char* type, const char* subtype) const {
    if (type == nullptr || subtype == nullptr) return nullptr;
    if (!index_.empty()) {
        const std::uint64_t hash = type_hash(type, subtype);
        auto slot = std::lower_bound(index_.begin(), index_.end(), hash,
                                     [](const Slot& s, std::uint64_t h) { return s.hash < h; });
        for (; slot != index_.end() && slot->hash == hash; ++slot) {
            const char* entry_type = slot->entry->text();
            const char* entry_subtype = MultiString::next_entry(entry_type);
            if (equal_ignoring_case(entry_type, type) &&
                equal_ignoring_case(entry_subtype, subtype))
                return MultiString::next_entry(entry_subtype);
        }
        return nullptr;
    }
    Position position = nullptr;
    for (void* item = first(position); item != nullptr; item = next(position)) {
        const char* entry_type = static_cast<const MultiString*>(item)->text();
        const char* entry_subtype = MultiString::next_entry(entry_type);
        if (!equal_ignoring_case(entry_type, type)) continue;
        if (!equal_ignoring_case(entry_subtype, subtype)) continue;
        return MultiString::next_entry(entry_subtype);
    }
    return nullptr;
}

void load_mime_type_map() {
    mime_type_map.load();
}

}  // namespace qbsmtp
