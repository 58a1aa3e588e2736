#include "AnswerAt.h"

#include <algorithm>

#include "LogMessage.h"
#include "SafeText.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace {
namespace {

using tools::terminalText;

constexpr std::string_view PERIODIC_PREFIX = "periodic_";

const EntityRecord* findEntity(const CacheRecord& cache, const std::string& entityId) {
  const auto index = cache.entityIndex.find(entityId);
  return index == cache.entityIndex.end() ? nullptr : &cache.entities[index->second];
}

const AnswerCause* causeOf(const EntityRecord& entity, const AnswerRecord& record) {
  return record.cause < entity.causes.size() ? &entity.causes[record.cause] : nullptr;
}

std::string cacheName(const CacheRecord& cache, std::size_t index) {
  return "cache " + std::to_string(index + 1) +
         (cache.pid ? " (pid " + std::to_string(*cache.pid) + ")" : std::string());
}

// Where no cache was running: the last to end before `at` and the first to
// start after it.
void printNoCache(const Trace& trace, Micros at, std::ostream& out) {
  out << "  No cache of the capture was running then.";
  const CacheRecord* before = nullptr;
  const CacheRecord* after = nullptr;
  std::size_t beforeIndex = 0;
  std::size_t afterIndex = 0;
  for (std::size_t i = 0; i < trace.caches.size(); ++i) {
    const CacheRecord& cache = trace.caches[i];
    if (cache.endTime() < at && (before == nullptr || cache.endTime() > before->endTime())) {
      before = &cache;
      beforeIndex = i;
    }
    if (cache.startTime() > at && (after == nullptr || cache.startTime() < after->startTime())) {
      after = &cache;
      afterIndex = i;
    }
  }
  if (before != nullptr) {
    out << ' ' << cacheName(*before, beforeIndex)
        << (before->destructionSeen ? " was destroyed at " : " wrote its last line at ")
        << trace.clock.format(before->endTime()) << '.';
  }
  if (after != nullptr) {
    out << ' ' << cacheName(*after, afterIndex)
        << (after->creationSeen ? " was created at " : " wrote its first line at ")
        << trace.clock.format(after->startTime()) << '.';
  } else if (before != nullptr) {
    out << " The capture tells nothing later.";
  }
  out << '\n';
}

// Before the entity's first line: why the answer is what it is.
void printBeforeEvidence(const Trace& trace, const CacheRecord& cache, const AnswerAtMoment& answer,
                         std::ostream& out) {
  if (cache.creationSeen) {
    out << "  The cache was created at " << trace.clock.format(cache.created)
        << " and had not taken the entity in yet";
  } else {
    out << "  The capture starts with the cache already running (its first line at "
        << trace.clock.format(cache.firstSeen) << ") and tells nothing of the entity";
  }
  out << (answer.next != nullptr ? " before " + trace.clock.format(answer.next->at) : std::string())
      << ".\n";
}

void printAnswer(const Trace& trace, const AnswerAtMoment& answer, std::ostream& out) {
  const CacheRecord& cache = trace.caches[answer.cache];
  out << "  " << cacheName(cache, answer.cache) << ": ";
  if (answer.answer == Answer::UNKNOWN) {
    out << "what isEntityReachable answered is unknown";
  } else {
    out << "isEntityReachable answered " << tools::answerWords(answer.answer);
  }
  if (answer.since != nullptr) {
    out << ", since " << trace.clock.format(answer.since->at);
  }
  out << '\n';
  if (answer.since == nullptr) {
    printBeforeEvidence(trace, cache, answer, out);
  } else if (answer.cause != nullptr) {
    out << "  Because of " << causeText(*answer.cause) << ":\n";
    for (const EvidenceLine& line : answer.cause->lines) {
      printEvidence(line, out);
    }
  }
  if (answer.told != nullptr) {
    out << "  Listeners were last told " << (answer.told->reachable ? "reachable" : "unreachable")
        << " (" << terminalText(answer.told->endpointId) << ") at "
        << trace.clock.format(answer.told->at) << '.';
    const bool since = answer.since == nullptr || answer.told->at > answer.since->at;
    if (answer.told->reachable && answer.answer == Answer::UNREACHABLE && since) {
      out << ' ' << UNCONFIRMED_NOTE;
    } else if (answer.answer == Answer::ABSENT && answer.since != nullptr) {
      out << ' ' << REMOVAL_NOTE;
    }
    out << '\n';
  }
  if (answer.next != nullptr) {
    out << "  Next: " << tools::answerWords(answer.next->answer) << " at "
        << trace.clock.format(answer.next->at) << ".\n";
  }
}

}  // namespace

std::vector<AnswerAtMoment> answersAt(const Trace& trace, const std::string& entityId, Micros at) {
  std::vector<AnswerAtMoment> answers;
  for (std::size_t i = 0; i < trace.caches.size(); ++i) {
    const CacheRecord& cache = trace.caches[i];
    if (at < cache.startTime() || at > cache.endTime()) {
      continue;
    }
    AnswerAtMoment answer;
    answer.cache = i;
    answer.answer = cache.creationSeen ? Answer::ABSENT : Answer::UNKNOWN;
    if (const EntityRecord* entity = findEntity(cache, entityId)) {
      const auto& records = entity->answers;
      const auto next = std::upper_bound(
          records.begin(), records.end(), at,
          [](Micros moment, const AnswerRecord& record) { return moment < record.at; });
      if (next != records.begin()) {
        answer.since = &*(next - 1);
        answer.answer = answer.since->answer;
        answer.cause = causeOf(*entity, *answer.since);
      }
      answer.next = next == records.end() ? nullptr : &*next;
      for (const ChangeRecord& change : entity->changes) {
        if (change.at != NO_TIME && change.at <= at) {
          answer.told = &change;
        }
      }
    }
    answers.push_back(answer);
  }
  return answers;
}

std::string causeText(const AnswerCause& cause) {
  const std::string endpoint = terminalText(cause.endpointId);
  switch (cause.kind) {
    case CauseKind::CHECK:
      return "the result of " +
             std::string(cause.requestId.rfind(PERIODIC_PREFIX, 0) == 0 ? "cycle " : "check ") +
             terminalText(cause.requestId) +
             (endpoint.empty() ? std::string() : " for " + endpoint);
    case CauseKind::EVENT:
      return "a connectivity event" + (endpoint.empty() ? std::string() : " for " + endpoint);
    case CauseKind::SWEEP:
      return "a cycle's sweep: the provider no longer named " + endpoint +
             ", and the cycle removed it";
    case CauseKind::HOST_RECORD:
      return "the host's own record of " + endpoint + " (updateEndpoints)";
    case CauseKind::HOST_REMOVAL:
      return "the host's removal of the entity (removeEntity)";
    case CauseKind::HOST_INVALIDATION:
      return "the host emptying the cache (invalidate)";
    case CauseKind::QUERY:
      return "the store's answer to a query, as it logged it";
    case CauseKind::SUMMARY_CUT:
      return "a result summary that the platform cut after " + std::to_string(MAX_MESSAGE_BYTES) +
             " bytes, and the entity's entry with it: what it answered is not in the capture";
  }
  return "";
}

bool printAnswerAt(const Trace& trace, const std::string& entityId, Micros at, std::ostream& out) {
  const bool known =
      std::any_of(trace.caches.begin(), trace.caches.end(),
                  [&](const CacheRecord& cache) { return cache.entityIndex.count(entityId) > 0; });
  if (!known) {
    return false;
  }
  out << terminalText(entityId) << " at " << trace.clock.format(at) << ":\n";
  const std::vector<AnswerAtMoment> answers = answersAt(trace, entityId, at);
  if (answers.empty()) {
    printNoCache(trace, at, out);
  }
  for (const AnswerAtMoment& answer : answers) {
    printAnswer(trace, answer, out);
  }
  return true;
}

}  // namespace veranda::reachabilityCache::trace
