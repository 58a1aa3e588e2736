// UTF-16 text (as a Windows shell's redirect saves a capture) turned into
// UTF-8 on the way.
#pragma once

#include <memory>

#include "CaptureSource.h"

namespace veranda::reachabilityCache::trace {

// What `inner` reads, UTF-16 code units (`bigEndian` or little-endian, without
// their byte-order mark), as UTF-8; a surrogate without its partner becomes
// U+FFFD, and a NUL stays a NUL byte.
std::unique_ptr<CaptureSource> utf16Source(std::unique_ptr<CaptureSource> inner, bool bigEndian);

}  // namespace veranda::reachabilityCache::trace
