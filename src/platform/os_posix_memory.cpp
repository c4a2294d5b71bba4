// os_posix_memory.cpp: LocalAlloc, LocalFree and LocalSize over malloc.
//
// Each block is preceded by a 16-byte header that holds the size asked for
// and a tag, so LocalSize gives exactly that size and LocalFree refuses a
// pointer that did not come from LocalAlloc (or was freed already) instead
// of passing it to free(). The block itself stays 16-byte aligned.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/os.h"
#include "platform/os_fault.h"

namespace qbsmtp::os {
namespace {

constexpr std::uint64_t live_tag = 0x4B434F4C424C434CULL;  // "LCLBLOCK"
constexpr std::uint64_t freed_tag = 0x44454552464C434CULL;

struct alignas(16) BlockHeader {
    std::uint64_t size;  // bytes asked for
    std::uint64_t tag;   // live_tag while the block is allocated
};
static_assert(sizeof(BlockHeader) == 16);

BlockHeader* header_of(void* block) {
    if (block == nullptr) return nullptr;
    auto* header = static_cast<BlockHeader*>(block) - 1;
    return header->tag == live_tag ? header : nullptr;
}

}  // namespace

void* LocalAlloc(UINT flags, std::size_t bytes) {
    if (fault_hit(Op::LocalAlloc)) return nullptr;
    if (bytes > SIZE_MAX - sizeof(BlockHeader)) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    std::size_t total = sizeof(BlockHeader) + bytes;
    void* memory = (flags & LMEM_ZEROINIT) != 0 ? std::calloc(1, total) : std::malloc(total);
    if (memory == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    auto* header = static_cast<BlockHeader*>(memory);
    header->size = bytes;
    header->tag = live_tag;
    return header + 1;
}

void* LocalFree(void* block) {
    if (block == nullptr) return nullptr;
    BlockHeader* header = header_of(block);
    if (header == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return block;
    }
    header->tag = freed_tag;
    std::free(header);
    return nullptr;
}

std::size_t LocalSize(void* block) {
    BlockHeader* header = header_of(block);
    if (header == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    return static_cast<std::size_t>(header->size);
}

}  // namespace qbsmtp::os
