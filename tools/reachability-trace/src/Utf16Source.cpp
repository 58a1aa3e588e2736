#include "Utf16Source.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::size_t UNITS_BLOCK = std::size_t{1} << 16;

// UTF-16 code units turned into UTF-8; a surrogate without its partner
// becomes U+FFFD, and a NUL stays a NUL byte (counted later).
class Utf16Source : public CaptureSource {
 public:
  Utf16Source(std::unique_ptr<CaptureSource> inner, bool bigEndian)
      : inner_(std::move(inner)), bigEndian_(bigEndian) {}

  long read(char* buffer, std::size_t size) override {
    std::size_t written = 0;
    while (written < size) {
      if (spilled_ < spill_.size()) {
        const std::size_t count = std::min(size - written, spill_.size() - spilled_);
        std::memcpy(buffer + written, spill_.data() + spilled_, count);
        spilled_ += count;
        written += count;
        continue;
      }
      if (at_ + 1 >= units_.size()) {
        if (!fill()) {
          break;
        }
        continue;
      }
      const auto byte = [this](std::size_t i) {
        return static_cast<uint32_t>(static_cast<unsigned char>(units_[i]));
      };
      const uint32_t unit =
          bigEndian_ ? (byte(at_) << 8) | byte(at_ + 1) : byte(at_) | (byte(at_ + 1) << 8);
      at_ += 2;
      char bytes[8];
      const std::size_t count = decode(unit, bytes);
      const std::size_t fits = std::min(count, size - written);
      std::memcpy(buffer + written, bytes, fits);
      written += fits;
      spill_.assign(bytes + fits, count - fits);
      spilled_ = 0;
    }
    return written == 0 && !error_.empty() ? -1 : static_cast<long>(written);
  }

 private:
  // More code units; false at the end or on an error.
  bool fill() {
    units_.erase(0, at_);
    at_ = 0;
    if (ended_) {
      return false;
    }
    const std::size_t kept = units_.size();
    units_.resize(kept + UNITS_BLOCK);
    const long got = inner_->read(units_.data() + kept, UNITS_BLOCK);
    units_.resize(kept + static_cast<std::size_t>(std::max(got, 0L)));
    if (got < 0) {
      error_ = inner_->error();
      return false;
    }
    ended_ = got == 0;
    return !ended_;
  }

  static bool isHigh(uint32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
  static bool isLow(uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

  // The UTF-8 of `unit` into `out` (8 bytes); the number of bytes.
  std::size_t decode(uint32_t unit, char* out) {
    constexpr uint32_t REPLACEMENT = 0xFFFD;
    std::size_t count = 0;
    if (high_ != 0) {
      if (isLow(unit)) {
        const uint32_t codePoint = 0x10000 + ((high_ - 0xD800) << 10) + (unit - 0xDC00);
        high_ = 0;
        return encode(codePoint, out);
      }
      count = encode(REPLACEMENT, out);
      high_ = 0;
    }
    if (isHigh(unit)) {
      high_ = unit;
      return count;
    }
    return count + encode(isLow(unit) ? REPLACEMENT : unit, out + count);
  }

  static std::size_t encode(uint32_t codePoint, char* out) {
    if (codePoint < 0x80) {
      out[0] = static_cast<char>(codePoint);
      return 1;
    }
    if (codePoint < 0x800) {
      out[0] = static_cast<char>(0xC0 | (codePoint >> 6));
      out[1] = static_cast<char>(0x80 | (codePoint & 0x3F));
      return 2;
    }
    if (codePoint < 0x10000) {
      out[0] = static_cast<char>(0xE0 | (codePoint >> 12));
      out[1] = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
      out[2] = static_cast<char>(0x80 | (codePoint & 0x3F));
      return 3;
    }
    out[0] = static_cast<char>(0xF0 | (codePoint >> 18));
    out[1] = static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (codePoint & 0x3F));
    return 4;
  }

  std::unique_ptr<CaptureSource> inner_;
  bool bigEndian_;
  std::string units_;
  std::size_t at_ = 0;
  bool ended_ = false;
  uint32_t high_ = 0;  // a high surrogate waiting for its low one
  std::string spill_;  // bytes of a character that did not fit
  std::size_t spilled_ = 0;
};

}  // namespace

std::unique_ptr<CaptureSource> utf16Source(std::unique_ptr<CaptureSource> inner, bool bigEndian) {
  return std::make_unique<Utf16Source>(std::move(inner), bigEndian);
}

}  // namespace veranda::reachabilityCache::trace
