#include "memory/Arena.h"

#include <cstdint>

#if defined(__SANITIZE_ADDRESS__)
#define RC_ARENA_POISONS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RC_ARENA_POISONS 1
#endif
#endif
#if defined(RC_ARENA_POISONS)
#include <sanitizer/asan_interface.h>
#endif

namespace veranda::reachabilityCache {
namespace {

// Makes a block's bytes usable again before it goes back to the heap.
void unpoison([[maybe_unused]] const void* start, [[maybe_unused]] std::size_t bytes) {
#if defined(RC_ARENA_POISONS)
  ASAN_UNPOISON_MEMORY_REGION(start, bytes);
#endif
}

std::size_t unitsOf(std::size_t bytes) {
  return (bytes + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t);
}

}  // namespace

Arena::~Arena() {
  // Blocks go back to the heap whole; the heap poisons them itself.
  for (const Block& block : blocks_) {
    unpoison(block.memory.get(), block.bytes);
  }
}

char* Arena::addBlock(std::size_t bytes) {
  const std::size_t units = unitsOf(bytes);
  // Left uninitialised: the containers write what they use.
  blocks_.push_back({std::unique_ptr<std::max_align_t[]>(new std::max_align_t[units]),
                     units * sizeof(std::max_align_t)});
  return reinterpret_cast<char*>(blocks_.back().memory.get());
}

void* Arena::allocate(std::size_t bytes, std::size_t alignment) {
  const std::size_t padding =
      (alignment - reinterpret_cast<std::uintptr_t>(next_) % alignment) % alignment;
  if (next_ == nullptr || padding + bytes > left_) {
    if (bytes > BLOCK_SIZE / 4) {
      // A large request gets a block of its own; the current one stays open.
      return addBlock(bytes);
    }
    next_ = addBlock(BLOCK_SIZE);
    left_ = BLOCK_SIZE;
    return allocate(bytes, alignment);
  }
  char* const start = next_ + padding;
  next_ = start + bytes;
  left_ -= padding + bytes;
  return start;
}

void Arena::giveBack([[maybe_unused]] void* pointer, [[maybe_unused]] std::size_t bytes) noexcept {
#if defined(RC_ARENA_POISONS)
  ASAN_POISON_MEMORY_REGION(pointer, bytes);
#endif
}

}  // namespace veranda::reachabilityCache
