// Model and context blocks: one 64-byte-aligned, zero-filled allocation each.
#pragma once
#include <cstddef>
#include <cstring>
#include <new>

namespace corvina {

constexpr std::size_t kBlockAlignment = 64;

// Allocation failure propagates as std::bad_alloc; there is no null result.
template <typename Block>
Block* NewZeroedBlock() {
  static_assert(alignof(Block) == kBlockAlignment, "blocks are 64-byte aligned");
  void* memory = ::operator new(sizeof(Block), std::align_val_t{kBlockAlignment});
  std::memset(memory, 0, sizeof(Block));
  return static_cast<Block*>(memory);
}

template <typename Block>
void DeleteBlock(Block* block) {
  if (block != nullptr) ::operator delete(block, std::align_val_t{kBlockAlignment});
}

}  // namespace corvina
