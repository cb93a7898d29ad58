// Storage for AudioQueueBuffer records at addresses that this process never hands out twice.
//
// A buffer handle is the address of its record, which the client reads and writes, so it cannot be
// an id. Heap addresses come back after a free, and a stale handle would then name a newer buffer.
// The arena instead hands out slots of address space reserved with mmap, in increasing order, and
// never reserves an address again: a page whose slots have all been released goes back to the
// system (its address stays reserved), and a region whose slots have all been released is replaced
// by an inaccessible reservation, which frees its page tables too. What stays behind is address
// space only, 32 bytes of it per buffer ever allocated.
//
// Synchronised by one mutex; allocation and release happen when queues are created and destroyed,
// never on a real-time thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>

class BufferHandleArena {
 public:
  static constexpr size_t kSlotSize = 32;

  // The process's arena; never destroyed, so queues released while the process exits may use it.
  static BufferHandleArena& instance();

  // Any thread. A zeroed slot of kSlotSize bytes at a never-used address; null when no address
  // space can be reserved.
  void* allocate();
  // Any thread. Gives back a slot from allocate(); its address is never handed out again.
  void release(void* slot);

 private:
  BufferHandleArena() = default;
  // Caller holds mutex_.
  bool reserveRegion();
  // Caller holds mutex_. Gives the page's memory back once it has been passed and all its slots
  // released, then retires its region likewise.
  void returnPage(uintptr_t page);
  // Caller holds mutex_.
  void retireRegionIfDone(uintptr_t region);

  std::mutex mutex_;
  // --- guarded by mutex_ ---
  uintptr_t region_ = 0;  // the region slots are handed out from; 0 before the first
  uintptr_t next_ = 0;    // next slot to hand out
  std::unordered_map<uintptr_t, uint32_t> livePerPage_;    // pages with live slots, or not yet passed
  std::unordered_map<uintptr_t, uint32_t> livePerRegion_;  // regions with live slots, or current
};
