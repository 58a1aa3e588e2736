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
  if (message_ != in.number || lines_.empty()) {
    message_ = in.number;
    lines_.assign(in.message.lines.size(), {});
  }
  EvidenceLine& line = lines_.at(index);
  const bool made = !line.text;
  if (made) {
    line = {in.message.lineNumbers.at(index),
            std::make_shared<const std::string>(in.message.lines[index])};
  }
  // Before a window, only the lines of checks and events are kept, a few
  // per check and per endpoint: the budget is the window's.
  if (window_.contains(in.at)) {
    charge(sizeof(EvidenceLine) + (made ? line.text->size() : 0));
  }
  return line;
}

void Evidence::charge(std::size_t bytes) {
  bytes_ += bytes;
  spent_ = spent_ || (scope_.everyEntity && bytes_ > scope_.budgetBytes);
}

}  // namespace veranda::reachabilityCache::trace
