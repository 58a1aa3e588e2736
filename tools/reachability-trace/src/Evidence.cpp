#include "Evidence.h"

namespace veranda::reachabilityCache::trace {

bool Evidence::covers(std::string_view entityId, Micros at) {
  if (!scope_.entity.empty() && entityId == scope_.entity) {
    return true;
  }
  if (!scope_.everyEntity || !window_.contains(at)) {
    return false;
  }
  if (spent_ && lostFrom_ == NO_TIME) {
    lostFrom_ = at;
  }
  return !spent_;
}

EvidenceLine Evidence::line(const CacheMessage& in, std::size_t index) {
  EvidenceLine line{in.message.lineNumbers.at(index), in.message.lines.at(index)};
  bytes_ += line.text.size();
  spent_ = spent_ || (scope_.everyEntity && bytes_ > scope_.budgetBytes);
  return line;
}

}  // namespace veranda::reachabilityCache::trace
