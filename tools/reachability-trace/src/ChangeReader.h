// Reads the changes told to a cache's listeners: from the store's
// notification lines and from the result summaries, which also tell each
// entity's answer before and after its result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "CacheMessage.h"
#include "CauseReader.h"
#include "CheckReader.h"
#include "EntityAnswers.h"
#include "Evidence.h"

namespace veranda::reachabilityCache::trace {

// The readers of one cache that the changes need. One per cache; not
// thread-safe.
class ChangeReader {
 public:
  // The changes of the entities that `evidence` covers keep the log lines
  // that caused them.
  ChangeReader(Evidence& evidence, CheckReader& checks, CauseReader& causes, EntityAnswers& answers)
      : evidence_(evidence), checks_(checks), causes_(causes), answers_(answers) {}

  // A "notifyReachabilityListeners" line of the store; false when it lacks
  // a field it must have.
  bool notification(const CacheMessage& in);
  // A "processReachabilityResults" line of the updater: the summary of a
  // check's result or of an event's. Its counts are always taken; its
  // entries not when they do not add up to the counts, or one cannot be read
  // (ids holding a line feed can forge entries): then it returns why.
  std::string summary(const CacheMessage& in);

 private:
  // The index of a change that the limits left out.
  static constexpr std::size_t NOT_KEPT = SIZE_MAX;

  // A notification line whose summary has not come yet.
  struct Note {
    std::string endpointId;
    std::string entityId;
    bool reachable;
    std::size_t change;  // its index in the entity's changes, or NOT_KEPT
  };

  // Why the entries of a whole summary cannot be taken, or an empty text.
  static std::string checkEntries(
      const LibraryLine& line, const std::vector<std::string_view>& lines,
      const std::vector<std::pair<SummaryEntry, std::string_view>>& entries);
  // Applies one entry of a summary; `answered`: the check it reports, if any.
  void applyEntry(const CacheMessage& in, const SummaryEntry& entry, std::string_view entryText,
                  const CheckRecord* answered);
  // Counts a change of `record`, and keeps it (with its `evidence`, where
  // the entity keeps any) while the limits leave room: its index, or
  // NOT_KEPT.
  std::size_t keep(const CacheMessage& in, EntityRecord& record, const ChangeRecord& change,
                   std::vector<EvidenceLine> evidence);
  // The change that `entry` tells: the one its notification line told
  // already, or a new one. Its index, or NOT_KEPT.
  std::size_t changeOf(const CacheMessage& in, EntityRecord& record, const SummaryEntry& entry,
                       uint32_t endpoint);

  Evidence& evidence_;
  CheckReader& checks_;
  CauseReader& causes_;
  EntityAnswers& answers_;
  std::map<int64_t, std::vector<Note>> notes_;  // thread -> notifications awaiting their summary
  bool notified_ = false;                       // the capture has notification lines
};

}  // namespace veranda::reachabilityCache::trace
