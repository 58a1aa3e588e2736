#include "Answer.h"

namespace veranda::reachabilityCache::tools {

const char* answerName(Answer answer) {
  switch (answer) {
    case Answer::REACHABLE:
      return "reachable";
    case Answer::UNREACHABLE:
      return "unreachable";
    case Answer::UNKNOWN:
      return "unknown";
    case Answer::ABSENT:
      break;
  }
  return "notCached";
}

const char* answerWords(Answer answer) {
  return answer == Answer::ABSENT ? "not cached" : answerName(answer);
}

}  // namespace veranda::reachabilityCache::tools
