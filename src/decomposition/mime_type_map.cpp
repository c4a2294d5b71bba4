// mime_type_map.cpp: the list, and the copy of the MIME database.
#include "decomposition/mime_type_map.h"

#include <cstring>
#include <new>

#include "decomposition/mime_type_map_load.h"
#include "frame/registry_key.h"
#include "platform/os.h"

namespace qbsmtp {

namespace {

// Room for key names and "Extension" values, with their NUL.
constexpr std::size_t key_name_size = 300;
constexpr std::size_t extension_size = 300;
constexpr const char* database_key = "MIME\\Database\\Content Type";

// ASCII case folding only: the module never depends on the locale.
bool equal_ignoring_case(const char* a, const char* b) {
    for (;; ++a, ++b) {
        char x = *a >= 'A' && *a <= 'Z' ? static_cast<char>(*a + 32) : *a;
        char y = *b >= 'A' && *b <= 'Z' ? static_cast<char>(*b + 32) : *b;
        if (x != y) return false;
        if (x == '\0') return true;
    }
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
    RegistryKey database(os::KEY_READ, os::HKEY_CLASSES_ROOT);
    database.open_subkey(database_key);
    // A failed open leaves the key invalid: the enumeration then finds
    // nothing, and the map stays as it was.
    for (std::uint32_t index = 0;; ++index) {
        char key_name[key_name_size];
        RegistryKey* child = database.open_child(index, key_name, sizeof key_name);
        // Null also for a name too long or a key that cannot be opened:
        // the keys behind it are not read.
        if (child == nullptr) break;
        char extension[extension_size];
        if (child->get_string("Extension", extension, sizeof extension)) {
            std::size_t room = std::strlen(key_name) + std::strlen(extension) + 3;
            char* slash = std::strchr(key_name, '/');
            const char* subtype = " ";
            if (slash != nullptr) {
                *slash = '\0';
                subtype = slash + 1;
            }
            MultiString* entry = new (std::nothrow) MultiString(room);
            if (entry != nullptr) {
                entry->append(key_name);
                entry->append(subtype);
                entry->append(extension);
                if (!add_tail(entry)) delete entry;
            }
        }
        delete child;
    }
    return 1;
}

const char* MimeTypeMap::find_extension(const char* type, const char* subtype) const {
    if (type == nullptr || subtype == nullptr) return nullptr;
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
