// A zip or a gzipped capture, unpacked on the way by libarchive: the bug
// report's text of a zip (as openCapture() says which), the one file of a
// gzip.
#pragma once

#include <memory>
#include <string>

#include "CaptureSource.h"

namespace veranda::reachabilityCache::trace {

struct UnpackedArchive {
  std::unique_ptr<CaptureSource> source;  // null when there is no text to read
  std::string error;                      // one line when there is none
  bool gzip = false;                      // else a zip
  std::string entry;                      // the zip's entry read
};

// Unpacks what `packed` reads. `anyText`: failing the bug report's text, the
// first other text file at the top of a zip. `name` names it in errors.
UnpackedArchive unpackArchive(std::unique_ptr<CaptureSource> packed, const std::string& name,
                              bool anyText);

}  // namespace veranda::reachabilityCache::trace
