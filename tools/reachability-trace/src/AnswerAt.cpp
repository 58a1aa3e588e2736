#include "AnswerAt.h"

#include <algorithm>

#include "LogMessage.h"
#include "SafeText.h"
#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache::trace {
namespace {

using tools::terminalText;

constexpr std::string_view PERIODIC_PREFIX = logSchema::requestIdPrefix::PERIODIC;

const AnswerCause* causeOf(const EntityRecord& entity, const AnswerRecord* record) {
  return record != nullptr && record->cause < entity.causes.size() ? &entity.causes[record->cause]
                                                                   : nullptr;
}

// The span as an answer record, for answerText().
AnswerRecord recordOf(const EntitySpan& span) {
  return {span.from, span.answer, span.inferred, span.reason, 0, NO_CAUSE};
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
  out << (answer.next ? " before " + trace.clock.format(answer.next->from) : std::string())
      << ".\n";
}

void printAnswer(const Trace& trace, const AnswerAtMoment& answer, std::ostream& out) {
  const CacheRecord& cache = trace.caches[answer.cache];
  const EntitySpan& span = answer.span;
  out << "  " << cacheName(cache, answer.cache) << ": ";
  if (span.answer == Answer::UNKNOWN) {
    out << "what isEntityReachable answered is " << answerText(recordOf(span));
  } else {
    out << "isEntityReachable answered " << answerText(recordOf(span));
  }
  if (span.record != nullptr || span.reason == UnknownReason::LEFT_OUT) {
    out << ", since " << trace.clock.format(span.from);
  }
  out << '\n';
  if (span.answer == Answer::UNKNOWN && span.reason != UnknownReason::NONE) {
    out << "  Unknown: " << unknownReasonMeaning(span.reason) << ".\n";
  }
  if (span.inferred) {
    out << "  Inferred: a check's or the host's record is taken to make its endpoint reachable "
           "(the log names no driver type).\n";
  }
  if (span.record == nullptr && span.reason != UnknownReason::LEFT_OUT) {
    printBeforeEvidence(trace, cache, answer, out);
  } else if (answer.cause != nullptr) {
    out << (answer.cause->kind == CauseKind::LOST
                ? "  Shown by:\n"
                : "  Because of " + causeText(*answer.cause) + ":\n");
    for (const EvidenceLine& line : answer.cause->lines) {
      printEvidence(line, out);
    }
  }
  if (answer.told != nullptr) {
    out << "  Listeners were last told " << (answer.told->reachable ? "reachable" : "unreachable")
        << " (" << terminalText(answer.entity->endpointOf(*answer.told)) << ") at "
        << trace.clock.format(answer.told->at) << '.';
    const bool since = span.record == nullptr || answer.told->at > span.from;
    if (answer.told->reachable && span.answer == Answer::UNREACHABLE && since) {
      out << ' ' << UNCONFIRMED_NOTE;
    } else if (span.answer == Answer::ABSENT && span.record != nullptr) {
      out << ' ' << REMOVAL_NOTE;
    }
    out << '\n';
  }
  if (answer.next) {
    out << "  Next: " << answerText(recordOf(*answer.next)) << " at "
        << trace.clock.format(answer.next->from) << ".\n";
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
    const AnswerRecord before = answerBefore(cache);
    answer.span = {cache.startTime(), cache.endTime(), before.answer,
                   before.inferred,   before.reason,   nullptr};
    answer.entity = cache.findEntity(entityId);
    if (answer.entity != nullptr) {
      const std::vector<EntitySpan> spans =
          entitySpans(*answer.entity, cache.startTime(), cache.endTime(), before);
      // The last span that starts at or before `at`: a span's end is the next one's start.
      const auto next = std::upper_bound(
          spans.begin(), spans.end(), at,
          [](Micros moment, const EntitySpan& span) { return moment < span.from; });
      if (next != spans.begin()) {
        answer.span = *(next - 1);
      }
      if (next != spans.end()) {
        answer.next = *next;
      }
      answer.cause = causeOf(*answer.entity, answer.span.record);
      for (const ChangeRecord& change : answer.entity->changes) {
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
    case CauseKind::LOST:
      return "the line that shows the capture no longer tells it";
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
