// The fuzzers' log: the lines of the library and of the metric stand-in are
// dropped from before the fuzzer starts, by the host test kit's capture.
#include "reachabilityCache/testing/LogCapture.h"

namespace {

using veranda::reachabilityCache::test::LogCapture;

LogCapture silence(LogCapture::Mode::SILENCE);

}  // namespace
