// mime_type_map.h: PtrList, a doubly linked list of untyped pointers, and
// MimeTypeMap, the module's copy of the system's MIME database: content
// type and subtype to file extension.
//
// The map is filled once by load() before reception starts and only read
// afterwards, so it is read without a lock. Its items are MultiString
// lists of three entries: type, subtype (" " for a key without '/'), and
// the extension, in the case the database keeps them.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/multi_string.h"

namespace qbsmtp {

class PtrList {
  public:
    struct Node {
        void* item;
        Node* prev;
        Node* next;
    };
    using Position = Node*;  // null is the end of the list

    Node* head = nullptr;
    Node* tail = nullptr;

    PtrList() = default;
    ~PtrList();
    PtrList(const PtrList&) = delete;
    PtrList& operator=(const PtrList&) = delete;

    // The first item, or null; position is its node.
    void* first(Position& position) const;
    // Moves position to the following node; that node's item, or null.
    void* next(Position& position) const;
    // Appends a node; false if it could not be allocated.
    bool add_tail(void* item);
    // Unlinks and frees the node; position moves to the node behind it.
    void* remove(Position& position);
};

class MimeTypeMap : public PtrList {
  public:
    MimeTypeMap() = default;
    ~MimeTypeMap();

    // Appends the entries of HKEY_CLASSES_ROOT\MIME\Database\Content Type
    // in the order of enumeration. Always 1: a missing database leaves
    // the map as it was.
    int load();
    // The extension of the first entry whose type and subtype match,
    // ignoring ASCII case; null if none does.
    const char* find_extension(const char* type, const char* subtype) const;

  private:
    struct Slot {
        std::uint64_t hash;  // of the type and subtype, ASCII case folded
        const MultiString* entry;
    };
    // Every entry by its hash; equal hashes in list order, so the first
    // match is the list's. Made by load(); empty if it could not be made,
    // and the list is then walked.
    std::vector<Slot> index_;
    // Appends type, subtype and extension of key_name ("type/subtype");
    // the slash is overwritten.
    void add_entry(char* key_name, const char* extension);
    void make_index();
};

// The map of the module, filled by SMTPRecvInit.
extern MimeTypeMap mime_type_map;

}  // namespace qbsmtp
