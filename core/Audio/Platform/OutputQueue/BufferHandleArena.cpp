#include "Audio/Platform/OutputQueue/BufferHandleArena.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

namespace {
constexpr size_t kRegionSize = size_t(16) << 20;

size_t pageSize() {
  static const size_t size = size_t(sysconf(_SC_PAGESIZE));
  return size;
}
uintptr_t pageOf(uintptr_t address) { return address & ~(uintptr_t(pageSize()) - 1); }
uintptr_t regionOf(uintptr_t address) { return address & ~(uintptr_t(kRegionSize) - 1); }
}  // namespace

BufferHandleArena& BufferHandleArena::instance() {
  static BufferHandleArena* const arena = new BufferHandleArena;
  return *arena;
}

void* BufferHandleArena::allocate() {
  std::lock_guard<std::mutex> lock(mutex_);
  if ((region_ == 0 || next_ == region_ + kRegionSize) && !reserveRegion()) {
    return nullptr;
  }
  const uintptr_t slot = next_;
  next_ += kSlotSize;
  ++livePerPage_[pageOf(slot)];
  ++livePerRegion_[regionOf(slot)];
  if (pageOf(next_) != pageOf(slot)) {
    returnPage(pageOf(slot));  // the page is now passed: free it at once if it is already empty
  }
  return reinterpret_cast<void*>(slot);
}

void BufferHandleArena::release(void* slot) {
  const auto address = reinterpret_cast<uintptr_t>(slot);
  std::memset(slot, 0, kSlotSize);
  std::lock_guard<std::mutex> lock(mutex_);
  --livePerPage_[pageOf(address)];
  --livePerRegion_[regionOf(address)];
  returnPage(pageOf(address));
}

bool BufferHandleArena::reserveRegion() {
  // Aligned to its size, so that a slot's region is found by masking.
  void* mapping = mmap(nullptr, 2 * kRegionSize, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (mapping == MAP_FAILED) {
    return false;
  }
  const auto start = reinterpret_cast<uintptr_t>(mapping);
  const uintptr_t region = (start + kRegionSize - 1) & ~(uintptr_t(kRegionSize) - 1);
  if (region > start) {
    munmap(mapping, region - start);
  }
  if (region + kRegionSize < start + 2 * kRegionSize) {
    munmap(reinterpret_cast<void*>(region + kRegionSize), start + 2 * kRegionSize - region - kRegionSize);
  }
  const uintptr_t previous = region_;
  region_ = region;
  next_ = region;
  livePerRegion_[region] += 0;
  if (previous != 0) {
    retireRegionIfDone(previous);
  }
  return true;
}

void BufferHandleArena::returnPage(uintptr_t page) {
  const auto found = livePerPage_.find(page);
  if (found == livePerPage_.end() || found->second != 0 || pageOf(next_) == page) {
    return;  // still in use, or slots of it are still to be handed out
  }
  livePerPage_.erase(found);
  madvise(reinterpret_cast<void*>(page), pageSize(), MADV_DONTNEED);
  retireRegionIfDone(regionOf(page));
}

void BufferHandleArena::retireRegionIfDone(uintptr_t region) {
  const auto found = livePerRegion_.find(region);
  if (found == livePerRegion_.end() || found->second != 0 || region == region_) {
    return;
  }
  livePerRegion_.erase(found);
  // Replacing the mapping in place keeps the addresses reserved but drops memory and page tables.
  mmap(reinterpret_cast<void*>(region), kRegionSize, PROT_NONE,
       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
}
