// Which log lines a trace keeps as evidence: those behind one entity's
// changes and answers (for its story or its answer at a moment), or behind
// every entity's (for the page) up to a budget.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "CacheMessage.h"
#include "TraceWindow.h"

namespace veranda::reachabilityCache::trace {

// The bytes that evidence for every entity may hold: each line's text once,
// and each place that shows it.
inline constexpr std::size_t EVIDENCE_BUDGET_BYTES = std::size_t{32} << 20;

struct EvidenceScope {
  std::string entity;        // keeps this entity's evidence; empty for none
  bool everyEntity = false;  // keeps every entity's, up to `budgetBytes`
  std::size_t budgetBytes = EVIDENCE_BUDGET_BYTES;

  bool any() const { return everyEntity || !entity.empty(); }
};

// One per trace, shared by the readers of its caches; not thread-safe.
class Evidence {
 public:
  explicit Evidence(EvidenceScope scope) : scope_(std::move(scope)) {}

  // Every entity's evidence is kept only in `window`.
  void limitTo(const TraceWindow& window) { window_ = window; }

  // True when any evidence is kept: the lines of checks and events are then
  // kept for the changes they may cause.
  bool any() const { return scope_.any(); }
  // True when a change or an answer of `entityId` told at `at` keeps its
  // lines. Once the budget for every entity's is spent, nothing more is
  // kept of theirs: `lostFrom()` tells from when.
  bool covers(std::string_view entityId, Micros at);
  // Line `index` of the message, counted against the budget; the lines of
  // one message are made once, however often they are asked for.
  EvidenceLine line(const CacheMessage& in, std::size_t index = 0);
  // Counts `bytes` of a cause that evidence keeps against the budget.
  void charge(std::size_t bytes);
  // The first moment whose evidence the budget left out; NO_TIME when
  // nothing was.
  Micros lostFrom() const { return lostFrom_; }

 private:
  EvidenceScope scope_;
  TraceWindow window_;
  std::size_t bytes_ = 0;
  Micros lostFrom_ = NO_TIME;
  bool spent_ = false;
  uint64_t message_ = 0;  // whose lines `lines_` holds
  std::vector<EvidenceLine> lines_;
};

}  // namespace veranda::reachabilityCache::trace
