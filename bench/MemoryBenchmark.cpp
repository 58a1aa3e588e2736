// Memory: bytes the store holds per stored endpoint at 10 000 entities with
// three capabilities each, counted by this binary's own operator new, against
// the payload (the characters of the strings stored); and the allocations a
// steady periodic cycle makes per endpoint. A binary of its own, since
// counting every allocation slows the other benchmarks down.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "BenchData.h"
#include "CycleRig.h"
#include "store/CacheCore.h"

namespace {

// Bytes requested and blocks allocated and not yet released, and every
// allocation made, process-wide.
std::atomic<int64_t> liveBytes{0};
std::atomic<int64_t> liveBlocks{0};
std::atomic<int64_t> allocations{0};

// Each block carries its requested size in a header of `alignment` bytes
// (at least the fundamental alignment) in front of what the caller gets.
void* allocate(std::size_t size, std::size_t alignment) {
  alignment = alignment < alignof(std::max_align_t) ? alignof(std::max_align_t) : alignment;
  void* block = nullptr;
  if (posix_memalign(&block, alignment, size + alignment) != 0) {
    throw std::bad_alloc();
  }
  *static_cast<std::size_t*>(block) = size;
  *reinterpret_cast<std::size_t*>(static_cast<char*>(block) + alignment - sizeof(std::size_t)) =
      alignment;
  liveBytes.fetch_add(static_cast<int64_t>(size), std::memory_order_relaxed);
  liveBlocks.fetch_add(1, std::memory_order_relaxed);
  allocations.fetch_add(1, std::memory_order_relaxed);
  return static_cast<char*>(block) + alignment;
}

void release(void* pointer) {
  if (pointer == nullptr) {
    return;
  }
  char* user = static_cast<char*>(pointer);
  const std::size_t alignment = *reinterpret_cast<std::size_t*>(user - sizeof(std::size_t));
  char* block = user - alignment;
  liveBytes.fetch_sub(static_cast<int64_t>(*reinterpret_cast<std::size_t*>(block)),
                      std::memory_order_relaxed);
  liveBlocks.fetch_sub(1, std::memory_order_relaxed);
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size, 0); }
void* operator new[](std::size_t size) { return allocate(size, 0); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return allocate(size, 0);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return allocate(size, 0);
  } catch (...) {
    return nullptr;
  }
}
void operator delete(void* pointer) noexcept { release(pointer); }
void operator delete[](void* pointer) noexcept { release(pointer); }
void operator delete(void* pointer, std::size_t /*size*/) noexcept { release(pointer); }
void operator delete[](void* pointer, std::size_t /*size*/) noexcept { release(pointer); }
void operator delete(void* pointer, std::align_val_t /*alignment*/) noexcept { release(pointer); }
void operator delete[](void* pointer, std::align_val_t /*alignment*/) noexcept { release(pointer); }
void operator delete(void* pointer, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  release(pointer);
}
void operator delete[](void* pointer, std::size_t /*size*/,
                       std::align_val_t /*alignment*/) noexcept {
  release(pointer);
}

namespace veranda::reachabilityCache::bench {
namespace {

using applianceDriver::ApplianceDriverType;

void storeMemory(benchmark::State& state) {
  const auto entityCount = static_cast<std::size_t>(state.range(0));
  std::vector<CachedEndpoint> records;
  std::size_t payload = 0;
  for (const EndpointInfo& endpoint : endpointsOfEntities(entityCount)) {
    payload += payloadCharacters(endpoint);
    records.push_back(asCached(endpoint, ApplianceDriverType::NATIVE));
  }
  {
    // First use of the log and the store's statics, outside the count.
    CacheCore warmUp(1);
    warmUp.insertEndpoint(records.front());
  }
  int64_t bytes = 0;
  int64_t blocks = 0;
  int64_t made = 0;
  for (auto _ : state) {
    const int64_t bytesBefore = liveBytes.load();
    const int64_t blocksBefore = liveBlocks.load();
    const int64_t allocationsBefore = allocations.load();
    auto store = std::make_unique<CacheCore>(static_cast<unsigned int>(entityCount));
    for (const CachedEndpoint& record : records) {
      store->insertEndpoint(record);
    }
    bytes = liveBytes.load() - bytesBefore;
    blocks = liveBlocks.load() - blocksBefore;
    made = allocations.load() - allocationsBefore;
    state.PauseTiming();
    store.reset();
    state.ResumeTiming();
  }
  const auto endpoints = static_cast<double>(records.size());
  state.counters["endpoints"] = endpoints;
  state.counters["bytes_per_endpoint"] = static_cast<double>(bytes) / endpoints;
  state.counters["payload_per_endpoint"] = static_cast<double>(payload) / endpoints;
  state.counters["ratio"] = static_cast<double>(bytes) / static_cast<double>(payload);
  state.counters["blocks_per_endpoint"] = static_cast<double>(blocks) / endpoints;
  state.counters["allocs_per_insert"] = static_cast<double>(made) / endpoints;
}

BENCHMARK(storeMemory)
    ->Name("memory/store")
    ->Arg(10000)
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

// Allocations made while `work` runs, by every thread.
template <typename Work>
int64_t allocationsDuring(Work&& work) {
  const int64_t before = allocations.load();
  work();
  return allocations.load() - before;
}

// Periodic cycles over the library's checker with every endpoint already
// stored, in pairs: one that finds every endpoint reachable (each entity
// becomes reachable and is announced), one that finds none (each is cleared
// and announced). The provider's copy of its list is counted apart: it is the
// host's code, not the library's.
void cycleAllocations(benchmark::State& state) {
  const auto endpointCount = static_cast<std::size_t>(state.range(0));
  CycleRig rig(firstEndpoints(endpointCount), CheckPath::APPLIANCE_DRIVER);
  // Every endpoint stored, then all unreachable: the next cycle finds all reachable.
  rig.runCycle();
  rig.runCycle();
  int64_t reachable = 0;
  int64_t unreachable = 0;
  int64_t pairs = 0;
  for (auto _ : state) {
    reachable += allocationsDuring([&] { rig.runCycle(); });
    unreachable += allocationsDuring([&] { rig.runCycle(); });
    ++pairs;
  }
  const std::vector<EndpointInfo> named = firstEndpoints(endpointCount);
  const int64_t provider = allocationsDuring([&] {
    std::vector<EndpointInfo> copy = named;
    benchmark::DoNotOptimize(copy.data());
  });
  const auto perEndpoint = [&](int64_t count, int64_t cycles) {
    return static_cast<double>(count) / static_cast<double>(cycles) /
           static_cast<double>(endpointCount);
  };
  state.counters["endpoints"] = static_cast<double>(endpointCount);
  state.counters["reachable_cycle"] = perEndpoint(reachable, pairs);
  state.counters["unreachable_cycle"] = perEndpoint(unreachable, pairs);
  state.counters["mean"] = perEndpoint(reachable + unreachable, 2 * pairs);
  state.counters["provider"] = perEndpoint(provider, 1);
}

BENCHMARK(cycleAllocations)
    ->Name("allocations/cycle")
    ->Arg(1000)
    ->Arg(10000)
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace veranda::reachabilityCache::bench
