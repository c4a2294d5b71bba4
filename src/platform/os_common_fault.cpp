// os_common_fault.cpp: the fault seam of os_fault.h, the same for every
// backend.
//
// The fast path is one relaxed load of `seam_in_use`, which stays false
// until a test first arms or clears a fault; from then on every call of an
// operation is counted, so fault_calls() reports calls since the last arm
// or clear. A slot is armed last (release) after its fields are written,
// and fault_hit reads it first (acquire), so a hit always sees the
// error and position that were armed with it.
#include <atomic>
#include <mutex>

#include "platform/os.h"
#include "platform/os_fault.h"

namespace qbsmtp::os {
namespace {

struct FaultSlot {
    std::atomic<bool> armed{false};
    std::atomic<bool> every_after{false};
    std::atomic<unsigned> nth{0};    // 1-based call number that fails
    std::atomic<DWORD> error{0};     // code given to the failing call
    std::atomic<unsigned> calls{0};  // calls seen since arm or clear
};

constexpr unsigned slot_count = static_cast<unsigned>(Op::Count);
FaultSlot fault_slots[slot_count];
std::atomic<bool> seam_in_use{false};

FaultSlot* slot_of(Op op) {
    auto index = static_cast<unsigned>(op);
    return index < slot_count ? &fault_slots[index] : nullptr;
}

std::atomic<bool> capturing{false};
std::mutex captured_lock;
std::vector<ReportedEvent>& captured() {
    static auto* events = new std::vector<ReportedEvent>;  // outlives the module's threads
    return *events;
}

}  // namespace

void event_capture(bool on) {
    capturing.store(on, std::memory_order_release);
}

std::vector<ReportedEvent> events_captured() {
    std::lock_guard lock(captured_lock);
    return captured();
}

void event_reported(WORD type, DWORD id, WORD string_count, const char** strings) {
    if (!capturing.load(std::memory_order_acquire)) return;
    ReportedEvent event{type, id, {}};
    for (WORD i = 0; i < string_count && strings != nullptr; ++i)
        event.strings.emplace_back(strings[i] != nullptr ? strings[i] : "");
    std::lock_guard lock(captured_lock);
    captured().push_back(std::move(event));
}

void fault_arm(Op op, unsigned nth, DWORD error, bool every_after) {
    FaultSlot* slot = slot_of(op);
    if (slot == nullptr) return;
    slot->armed.store(false, std::memory_order_relaxed);
    slot->nth.store(nth == 0 ? 1 : nth, std::memory_order_relaxed);
    slot->error.store(error, std::memory_order_relaxed);
    slot->every_after.store(every_after, std::memory_order_relaxed);
    slot->calls.store(0, std::memory_order_relaxed);
    slot->armed.store(true, std::memory_order_release);
    seam_in_use.store(true, std::memory_order_release);
}

void fault_clear() {
    for (FaultSlot& slot : fault_slots) {
        slot.armed.store(false, std::memory_order_relaxed);
        slot.calls.store(0, std::memory_order_relaxed);
    }
    seam_in_use.store(true, std::memory_order_release);
}

unsigned fault_calls(Op op) {
    FaultSlot* slot = slot_of(op);
    return slot == nullptr ? 0 : slot->calls.load(std::memory_order_relaxed);
}

bool fault_hit(Op op) {
    if (!seam_in_use.load(std::memory_order_relaxed)) return false;
    FaultSlot* slot = slot_of(op);
    if (slot == nullptr) return false;
    unsigned call = slot->calls.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!slot->armed.load(std::memory_order_acquire)) return false;
    unsigned nth = slot->nth.load(std::memory_order_relaxed);
    bool fails = call == nth || (call > nth && slot->every_after.load(std::memory_order_relaxed));
    if (!fails) return false;
    DWORD error = slot->error.load(std::memory_order_relaxed);
    SetLastError(error);
    return true;
}

}  // namespace qbsmtp::os
