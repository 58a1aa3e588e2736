#include "WordSearch.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::size_t LANES = 16;
// A GNU vector: sixteen bytes compared at once (SSE2 or NEON, as the
// target has).
using Bytes = signed char __attribute__((vector_size(LANES)));

Bytes load(const char* at) {
  Bytes bytes;
  std::memcpy(&bytes, at, LANES);
  return bytes;
}

Bytes splat(char c) {
  Bytes bytes;
  for (std::size_t i = 0; i < LANES; ++i) {
    bytes[i] = static_cast<signed char>(c);
  }
  return bytes;
}

bool any(Bytes bytes) {
  uint64_t low = 0;
  uint64_t high = 0;
  std::memcpy(&low, &bytes, sizeof(low));
  std::memcpy(&high, reinterpret_cast<const char*>(&bytes) + sizeof(low), sizeof(high));
  return (low | high) != 0;
}

const char* slowFind(const char* from, const char* to, std::string_view word) {
  if (from >= to) {
    return nullptr;
  }
  return static_cast<const char*>(
      memmem(from, static_cast<std::size_t>(to - from), word.data(), word.size()));
}

}  // namespace

WordSearch::WordSearch(std::vector<Word> words) : words_(std::move(words)) {
  words_.resize(std::min(words_.size(), MAX_WORDS));
  for (const Word& word : words_) {
    longest_ = std::max(longest_, word.text.size());
  }
}

WordSearch::Hit WordSearch::find(const char* from, const char* to) const {
  // Each word's two bytes, sixteen times over.
  Bytes first[MAX_WORDS];
  Bytes second[MAX_WORDS];
  std::size_t firstAt[MAX_WORDS];
  std::size_t secondAt[MAX_WORDS];
  const std::size_t count = words_.size();
  for (std::size_t i = 0; i < count; ++i) {
    first[i] = splat(words_[i].text[words_[i].first]);
    second[i] = splat(words_[i].text[words_[i].second]);
    firstAt[i] = words_[i].first;
    secondAt[i] = words_[i].second;
  }
  const char* at = from;
  // Sixteen window starts at a time, while every word fits after them.
  for (; to - at >= static_cast<std::ptrdiff_t>(LANES + longest_); at += LANES) {
    Bytes candidates{};
    for (std::size_t i = 0; i < count; ++i) {
      candidates |= (load(at + firstAt[i]) == first[i]) & (load(at + secondAt[i]) == second[i]);
    }
    if (!any(candidates)) {
      continue;
    }
    for (std::size_t lane = 0; lane < LANES; ++lane) {
      if (candidates[lane] == 0) {
        continue;
      }
      for (std::size_t i = 0; i < count; ++i) {
        const std::string_view text = words_[i].text;
        if (std::memcmp(at + lane, text.data(), text.size()) == 0) {
          return {at + lane, i};
        }
      }
    }
  }
  // The last few bytes, one word at a time.
  Hit hit;
  for (std::size_t i = 0; i < words_.size(); ++i) {
    const char* found = slowFind(at, to, words_[i].text);
    if (found != nullptr && (hit.at == nullptr || found < hit.at)) {
      hit = {found, i};
    }
  }
  return hit;
}

}  // namespace veranda::reachabilityCache::trace
