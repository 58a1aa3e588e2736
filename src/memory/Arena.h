// Memory for short-lived containers: handed out from blocks and released all
// at once, for the tables that one cycle builds and drops.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace veranda::reachabilityCache {

// Hands out memory from blocks of BLOCK_SIZE bytes (a larger request gets a
// block of its own); nothing is released before the arena is destroyed.
// Under AddressSanitizer, memory given back is poisoned, so that a use after
// it is reported as with the heap.
//
// Thread safety: none; an arena serves the thread that owns it, or threads
// that only read what was built in it once it is handed over.
class Arena {
 public:
  static constexpr std::size_t BLOCK_SIZE = std::size_t{64} * 1024;

  Arena() = default;
  ~Arena();
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;

  // `bytes` bytes aligned to `alignment` (a power of two, at most that of
  // std::max_align_t).
  void* allocate(std::size_t bytes, std::size_t alignment);
  // Marks [pointer, pointer + bytes) unused; the memory stays the arena's.
  static void giveBack(void* pointer, std::size_t bytes) noexcept;

 private:
  struct Block {
    std::unique_ptr<std::max_align_t[]> memory;
    std::size_t bytes;
  };

  // Adds a block of at least `bytes` bytes; returns its start.
  char* addBlock(std::size_t bytes);

  std::vector<Block> blocks_;
  char* next_ = nullptr;
  std::size_t left_ = 0;
};

// A standard allocator over an Arena, for containers that live no longer
// than the arena. Allocators of one arena compare equal.
template <typename T>
class ArenaAllocator {
 public:
  using value_type = T;  // NOLINT(readability-identifier-naming): the allocator requirements

  explicit ArenaAllocator(Arena& arena) noexcept : arena_(&arena) {}
  template <typename U>
  // NOLINTNEXTLINE(google-explicit-constructor): allocators rebind implicitly.
  ArenaAllocator(const ArenaAllocator<U>& other) noexcept : arena_(other.arena()) {}

  // T is a pointer where a table allocates its buckets: sizeof(T) is meant.
  T* allocate(std::size_t count) {
    return static_cast<T*>(arena_->allocate(count * BYTES, alignof(T)));
  }
  void deallocate(T* pointer, std::size_t count) noexcept {
    Arena::giveBack(pointer, count * BYTES);
  }

  Arena* arena() const noexcept { return arena_; }

  friend bool operator==(const ArenaAllocator& left, const ArenaAllocator& right) noexcept {
    return left.arena_ == right.arena_;
  }
  friend bool operator!=(const ArenaAllocator& left, const ArenaAllocator& right) noexcept {
    return left.arena_ != right.arena_;
  }

 private:
  static constexpr std::size_t BYTES = sizeof(T);  // NOLINT(bugprone-sizeof-expression)

  Arena* arena_;
};

}  // namespace veranda::reachabilityCache
