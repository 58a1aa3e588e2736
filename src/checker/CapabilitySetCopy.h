// Copies of capability sets rebuilt from their keys, for a holder that keeps
// a set's keys (in the set's order) and its bucket count rather than a copy.
#pragma once

#include <cstddef>
#include <string_view>
#include <utility>

#include "reachabilityCache/CapabilityKey.h"

namespace veranda::reachabilityCache {

// A key held as views of its two strings.
using CapabilityKeyView = std::pair<std::string_view, std::string_view>;

// True when rebuildCopy() can stand in for a copy of a set with
// `bucketCount` buckets and the default load factor on this standard
// library: an empty set given that many buckets keeps them.
bool canRebuildCopy(std::size_t bucketCount);

// A set that lists its keys in the same order, and has as many buckets, as a
// copy of the set S whose keys [first, last) lists in S's order, S having
// `bucketCount` buckets (for which canRebuildCopy() holds) and the default
// load factor.
//
// Both standard libraries keep the keys of a bucket together and put a key
// inserted into an empty bucket at the front of the list, any other at the
// front of its bucket. libstdc++ copies a set node for node, in S's order:
// inserting S's keys in reverse, into a table of S's bucket count, rebuilds
// that order. libc++ copies a set by inserting S's keys in order into a table
// of S's bucket count, which is what is done here.
template <typename Iterator>
CapabilitySet rebuildCopy(Iterator first, Iterator last, std::size_t bucketCount) {
  CapabilitySet copy;
  copy.rehash(bucketCount);
#if defined(_LIBCPP_VERSION)
  for (; first != last; ++first) {
    copy.insert(CapabilityKey{std::string(first->first), std::string(first->second)});
  }
#else
  while (last != first) {
    --last;
    copy.insert(CapabilityKey{std::string(last->first), std::string(last->second)});
  }
#endif
  return copy;
}

}  // namespace veranda::reachabilityCache
