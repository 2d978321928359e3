// Model and context blocks: one aligned, zero-filled allocation each.
#pragma once
#include <cstddef>
#include <cstring>
#include <new>

#ifdef __linux__
#include <sys/mman.h>
#endif

namespace corvina {

constexpr std::size_t kBlockAlignment = 64;
constexpr std::size_t kHugePage = std::size_t{2} << 20;

// Blocks of a huge page or more (the model blocks) start on one and ask the
// kernel for huge pages: a frame reads every page of them, and with 4 KiB
// pages it would miss the translation cache on most. A hint; refused, the
// block keeps small pages.
template <typename Block>
constexpr std::size_t AllocationAlignment() {
  return sizeof(Block) >= kHugePage ? kHugePage : kBlockAlignment;
}

// Allocation failure propagates as std::bad_alloc; there is no null result.
template <typename Block>
Block* NewZeroedBlock() {
  static_assert(alignof(Block) == kBlockAlignment, "blocks are 64-byte aligned");
  constexpr std::size_t alignment = AllocationAlignment<Block>();
  void* memory = ::operator new(sizeof(Block), std::align_val_t{alignment});
#ifdef __linux__
  if (alignment == kHugePage) madvise(memory, sizeof(Block), MADV_HUGEPAGE);
#endif
  std::memset(memory, 0, sizeof(Block));
  return static_cast<Block*>(memory);
}

template <typename Block>
void DeleteBlock(Block* block) {
  if (block != nullptr) ::operator delete(block, std::align_val_t{AllocationAlignment<Block>()});
}

}  // namespace corvina
