#include "store/CacheCore.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <type_traits>
#include <utility>

#include "diagnostics/ComponentLog.h"
#include "diagnostics/LogBuilder.h"
#include "diagnostics/LogSchema.h"
#include "diagnostics/ReachabilityCacheMetrics.h"
#include "store/DriverCapabilities.h"

namespace veranda::reachabilityCache {

using namespace logSchema;
namespace {

using applianceDriver::ApplianceDriverType;
using commonLog::LogBuilder;

constexpr std::string_view ENTITY_ID_PREFIX = "orbt1.veyra.endpoint.";

// Writes "[function]: action=... entityId=... endpointId=...".
void logEndpointAction(LogPriority priority, const char* function, const char* action,
                       const std::string& entityId, const std::string& endpointId) {
  logStore(priority, LogBuilder(function, nullptr)
                         .d(key::ACTION, action)
                         .d(key::ENTITY_ID, entityId.c_str())
                         .d(key::ENDPOINT_ID, endpointId.c_str()));
}

// Logs and records the refusal of a record with an empty entity or endpoint
// id; false when both ids are set.
template <typename Record>
bool refusedForEmptyId(const Record& endpoint) {
  if (endpoint.entityId.empty()) {
    logStore(LogPriority::WARN, LogBuilder(label::INSERT_ENDPOINT, nullptr)
                                    .d(key::REASON, reason::EMPTY_ENTITY_ID)
                                    .d(key::ENDPOINT_ID, endpoint.endpointId.c_str()));
    ReachabilityCacheMetrics::emitInsertFailed(reason::EMPTY_ENTITY_ID);
    return true;
  }
  if (endpoint.endpointId.empty()) {
    logStore(LogPriority::WARN, LogBuilder(label::INSERT_ENDPOINT, nullptr)
                                    .d(key::REASON, reason::EMPTY_ENDPOINT_ID)
                                    .d(key::ENTITY_ID, endpoint.entityId.c_str()));
    ReachabilityCacheMetrics::emitInsertFailed(reason::EMPTY_ENDPOINT_ID);
    return true;
  }
  return false;
}

// Each driver type of `incoming` replaces the stored set whole; a non-empty
// adapter name replaces the stored one.
void mergeInto(CachedEndpoint& stored, const CachedEndpoint& incoming) {
  for (const auto& entry : incoming.driverCapabilities) {
    fileCapabilities(stored.driverCapabilities, entry.first, entry.second);
  }
  if (!incoming.adapterName.empty()) {
    stored.adapterName = incoming.adapterName;
  }
}

// The same, moving each set in: the stored set is the incoming one either way.
void mergeInto(CachedEndpoint& stored, CachedEndpoint&& incoming) {
  for (auto& entry : incoming.driverCapabilities) {
    fileCapabilities(stored.driverCapabilities, entry.first, std::move(entry.second));
  }
  if (!incoming.adapterName.empty()) {
    stored.adapterName = incoming.adapterName;
  }
}

// The same for a borrowed record, which carries one driver type.
template <typename Borrowed>
void mergeBorrowed(CachedEndpoint& stored, const Borrowed& incoming) {
  fileCapabilities(stored.driverCapabilities, incoming.driverType,
                   CapabilitySet(incoming.capabilities));
  if (!incoming.adapterName.empty()) {
    stored.adapterName = incoming.adapterName;
  }
}

// True when NATIVE or CONNECTED (0, 1) reported the endpoint, even with no capability.
bool reachedByDriver(const CachedEndpoint& endpoint) {
  return endpoint.driverCapabilities.count(ApplianceDriverType::NATIVE) != 0 ||
         endpoint.driverCapabilities.count(ApplianceDriverType::CONNECTED) != 0;
}

}  // namespace

// Operations normalise once, before they take the store mutex, and are done
// with the result when they return.
const std::string& CacheCore::normalizeEntityId(const std::string& entityId) {
  thread_local std::string normalized;
  const bool prefixed = entityId.compare(0, ENTITY_ID_PREFIX.size(), ENTITY_ID_PREFIX) == 0;
  normalized.assign(entityId, prefixed ? ENTITY_ID_PREFIX.size() : 0, std::string::npos);
  return normalized;
}

CacheCore::CacheCore(unsigned int maxSize) : maxSize_(maxSize) {
  logStore(LogPriority::INFO, LogBuilder(label::CACHE_CORE, nullptr).d(key::MAX_SIZE, maxSize));
}

CacheCore::~CacheCore() = default;

// ---- Changes ----

bool CacheCore::insertEndpoint(const CachedEndpoint& endpoint) { return insertRecord(endpoint); }

bool CacheCore::insertEndpoint(CachedEndpoint&& endpoint) {
  return insertRecord(std::move(endpoint));
}

bool CacheCore::insertEndpoint(const std::string& endpointId, const std::string& entityId,
                               const std::string& adapterName, ApplianceDriverType driverType,
                               const CapabilitySet& capabilities) {
  return insertRecord(BorrowedRecord{endpointId, entityId, adapterName, driverType, capabilities});
}

template <typename Record>
bool CacheCore::insertRecord(Record&& endpoint) {
  const std::string& entityId = normalizeEntityId(endpoint.entityId);
  WriterLock lock(storeMutex);
  if (refusedForEmptyId(endpoint)) {
    return false;
  }
  const bool entityKnown = entityIndex.count(entityId) != 0;
  if (!entityKnown && entityIndex.size() >= maxSize_) {
    logStore(LogPriority::WARN, LogBuilder(label::INSERT_ENDPOINT, nullptr)
                                    .d(key::REASON, reason::CACHE_FULL)
                                    .d(key::ENTITY_ID, entityId.c_str())
                                    .d(key::ENDPOINT_ID, endpoint.endpointId.c_str()));
    ReachabilityCacheMetrics::emitCacheFull(maxSize_);
    return false;
  }
  std::vector<CachedEndpoint>& endpoints = entityIndex[entityId];
  auto stored = findEndpointInVector(endpoints, endpoint.endpointId);
  if (stored == endpoints.end()) {
    if constexpr (std::is_same_v<std::decay_t<Record>, BorrowedRecord>) {
      endpoints.emplace_back(endpoint.endpointId, endpoint.entityId, endpoint.adapterName,
                             endpoint.driverType, CapabilitySet(endpoint.capabilities));
    } else {
      endpoints.push_back(std::forward<Record>(endpoint));
    }
    stored = std::prev(endpoints.end());
    // A fresh string: assigned in place, the stored id would keep the
    // capacity of the id as passed, prefix included.
    stored->entityId = std::string(entityId);
    logEndpointAction(entityKnown ? LogPriority::DEBUG : LogPriority::INFO, label::INSERT_ENDPOINT,
                      entityKnown ? action::APPENDED : action::NEW_ENTITY, entityId,
                      stored->endpointId);
  } else {
    if constexpr (std::is_same_v<std::decay_t<Record>, BorrowedRecord>) {
      mergeBorrowed(*stored, endpoint);
    } else {
      mergeInto(*stored, std::forward<Record>(endpoint));
    }
    logStore(LogPriority::DEBUG, LogBuilder(label::INSERT_ENDPOINT, nullptr)
                                     .d(key::ACTION, action::MERGED)
                                     .d(key::ENTITY_ID, entityId.c_str())
                                     .d(key::ENDPOINT_ID, stored->endpointId.c_str())
                                     .d(key::DRIVER_COUNT, stored->driverCapabilities.size()));
  }
  endpointIndex[stored->endpointId] = entityId;
  changeFeed_.record(entityId);
  return true;
}

bool CacheCore::insertEndpoint(const EndpointInfo& info) {
  return insertEndpoint(CachedEndpoint(info));
}

bool CacheCore::removeEndpoint(const std::string& entityId, const std::string& endpointId) {
  const std::string& id = normalizeEntityId(entityId);
  WriterLock lock(storeMutex);
  std::vector<CachedEndpoint>* endpoints = findEndpointsMutableLocked(id);
  if (endpoints == nullptr) {
    logEndpointAction(LogPriority::DEBUG, label::REMOVE_ENDPOINT, action::NOT_FOUND, id,
                      endpointId);
    return false;
  }
  const auto record = findEndpointInVector(*endpoints, endpointId);
  if (record == endpoints->end()) {
    logEndpointAction(LogPriority::DEBUG, label::REMOVE_ENDPOINT, action::ENDPOINT_NOT_FOUND, id,
                      endpointId);
    return false;
  }
  endpoints->erase(record);
  endpointIndex.erase(endpointId);
  changeFeed_.record(id);
  if (!endpoints->empty()) {
    logEndpointAction(LogPriority::DEBUG, label::REMOVE_ENDPOINT, action::REMOVED_ENDPOINT, id,
                      endpointId);
  } else {
    entityIndex.erase(id);
    logEndpointAction(LogPriority::INFO, label::REMOVE_ENDPOINT,
                      action::REMOVED_ENDPOINT_AND_ENTITY, id, endpointId);
  }
  return true;
}

bool CacheCore::removeEntity(const std::string& entityId) {
  const std::string& id = normalizeEntityId(entityId);
  WriterLock lock(storeMutex);
  const auto entity = entityIndex.find(id);
  if (entity == entityIndex.end()) {
    // The one store line keyed "event" rather than "action"; readers match on it.
    logStore(LogPriority::DEBUG, LogBuilder(label::REMOVE_ENTITY, nullptr)
                                     .d(key::EVENT, event::NOT_FOUND)
                                     .d(key::ENTITY_ID, id.c_str()));
    return false;
  }
  const std::size_t endpointCount = entity->second.size();
  for (const CachedEndpoint& endpoint : entity->second) {
    endpointIndex.erase(endpoint.endpointId);
  }
  entityIndex.erase(entity);
  changeFeed_.record(id);
  logStore(LogPriority::INFO, LogBuilder(label::REMOVE_ENTITY, nullptr)
                                  .d(key::ACTION, action::REMOVED_ENTITY)
                                  .d(key::ENTITY_ID, id.c_str())
                                  .d(key::ENDPOINT_COUNT, endpointCount));
  return true;
}

void CacheCore::clear() {
  WriterLock lock(storeMutex);
  const std::size_t previousSize = entityIndex.size();
  for (const auto& entity : entityIndex) {
    changeFeed_.record(entity.first);
  }
  entityIndex.clear();
  endpointIndex.clear();
  logStore(LogPriority::INFO, LogBuilder(label::CLEAR, nullptr)
                                  .d(key::ACTION, action::CLEARED)
                                  .d(key::PREVIOUS_SIZE, previousSize));
}

bool CacheCore::clearEndpointCapabilities(const std::string& entityId,
                                          const std::string& endpointId) {
  const std::string& id = normalizeEntityId(entityId);
  WriterLock lock(storeMutex);
  std::vector<CachedEndpoint>* endpoints = findEndpointsMutableLocked(id);
  if (endpoints == nullptr) {
    logEndpointAction(LogPriority::DEBUG, label::CLEAR_ENDPOINT_CAPABILITIES, action::NOT_FOUND, id,
                      endpointId);
    return false;
  }
  const auto record = findEndpointInVector(*endpoints, endpointId);
  if (record == endpoints->end()) {
    logEndpointAction(LogPriority::DEBUG, label::CLEAR_ENDPOINT_CAPABILITIES,
                      action::ENDPOINT_NOT_FOUND, id, endpointId);
    return false;
  }
  record->driverCapabilities.clear();
  changeFeed_.record(id);
  logEndpointAction(LogPriority::DEBUG, label::CLEAR_ENDPOINT_CAPABILITIES,
                    action::CLEARED_CAPABILITIES, id, endpointId);
  return true;
}

// ---- Size ----

std::size_t CacheCore::size() const {
  ReaderLock lock(storeMutex);
  return entityIndex.size();
}

bool CacheCore::isFull() const {
  ReaderLock lock(storeMutex);
  return entityIndex.size() >= maxSize_;
}

// ---- Queries ----

bool CacheCore::isEntityPresent(const std::string& entityId) const {
  const std::string& id = normalizeEntityId(entityId);
  ReaderLock lock(storeMutex);
  const bool present = findEndpointsLocked(id) != nullptr;
  logStore(LogPriority::DEBUG, LogBuilder(label::IS_ENTITY_PRESENT, nullptr)
                                   .d(key::ENTITY_ID, id.c_str())
                                   .d(key::PRESENT, boolText(present)));
  return present;
}

bool CacheCore::isEntityReachable(const std::string& entityId) const {
  const std::string& id = normalizeEntityId(entityId);
  ReaderLock lock(storeMutex);
  LogBuilder line(label::IS_ENTITY_REACHABLE, nullptr);
  line.d(key::ENTITY_ID, id.c_str());
  const std::vector<CachedEndpoint>* endpoints = findEndpointsLocked(id);
  if (endpoints == nullptr) {
    logStore(LogPriority::DEBUG,
             line.d(key::REACHABLE, value::FALSE_TEXT).d(key::REASON, reason::NOT_IN_CACHE));
    return false;
  }
  for (const CachedEndpoint& endpoint : *endpoints) {
    if (reachedByDriver(endpoint)) {
      logStore(LogPriority::DEBUG, line.d(key::REACHABLE, value::TRUE_TEXT));
      return true;
    }
  }
  logStore(
      LogPriority::DEBUG,
      line.d(key::REACHABLE, value::FALSE_TEXT).d(key::REASON, reason::NO_DRIVER_CAPABILITIES));
  return false;
}

bool CacheCore::isCapabilityReachable(const std::string& entityId,
                                      const CapabilityKey& capabilityKey) const {
  const std::string& id = normalizeEntityId(entityId);
  ReaderLock lock(storeMutex);
  LogBuilder line(label::IS_CAPABILITY_REACHABLE, nullptr);
  line.d(key::ENTITY_ID, id.c_str()).d(key::CAPABILITY, capabilityKey.capability.c_str());
  const std::vector<CachedEndpoint>* endpoints = findEndpointsLocked(id);
  if (endpoints == nullptr) {
    logStore(LogPriority::DEBUG,
             line.d(key::REACHABLE, value::FALSE_TEXT).d(key::REASON, reason::ENTITY_NOT_FOUND));
    return false;
  }
  for (const CachedEndpoint& endpoint : *endpoints) {
    for (const auto& entry : endpoint.driverCapabilities) {
      if (entry.second.count(capabilityKey) != 0) {
        logStore(LogPriority::DEBUG, line.d(key::ENDPOINT_ID, endpoint.endpointId.c_str())
                                         .d(key::REACHABLE, value::TRUE_TEXT));
        return true;
      }
    }
  }
  logStore(LogPriority::DEBUG, line.d(key::REACHABLE, value::FALSE_TEXT)
                                   .d(key::REASON, reason::CAPABILITY_NOT_FOUND)
                                   .d(key::ENDPOINT_COUNT, endpoints->size()));
  return false;
}

bool CacheCore::isCapabilityReachableByDriver(const std::string& entityId,
                                              const CapabilityKey& capabilityKey,
                                              ApplianceDriverType driverType) const {
  const std::string& id = normalizeEntityId(entityId);
  ReaderLock lock(storeMutex);
  LogBuilder line(label::IS_CAPABILITY_REACHABLE_BY_DRIVER, nullptr);
  line.d(key::ENTITY_ID, id.c_str())
      .d(key::CAPABILITY, capabilityKey.capability.c_str())
      .d(key::DRIVER_TYPE, static_cast<int32_t>(driverType));
  const std::vector<CachedEndpoint>* endpoints = findEndpointsLocked(id);
  if (endpoints == nullptr) {
    logStore(LogPriority::DEBUG,
             line.d(key::REACHABLE, value::FALSE_TEXT).d(key::REASON, reason::ENTITY_NOT_FOUND));
    return false;
  }
  for (const CachedEndpoint& endpoint : *endpoints) {
    if (endpoint.hasCapabilityFromDriver(capabilityKey, driverType)) {
      logStore(LogPriority::DEBUG, line.d(key::ENDPOINT_ID, endpoint.endpointId.c_str())
                                       .d(key::REACHABLE, value::TRUE_TEXT));
      return true;
    }
  }
  logStore(LogPriority::DEBUG, line.d(key::REACHABLE, value::FALSE_TEXT)
                                   .d(key::REASON, reason::CAPABILITY_NOT_FOUND_FOR_DRIVER));
  return false;
}

std::string CacheCore::getEndpointIdForEntity(const std::string& entityId) const {
  const std::string& id = normalizeEntityId(entityId);
  ReaderLock lock(storeMutex);
  const std::vector<CachedEndpoint>* endpoints = findEndpointsLocked(id);
  std::string endpointId = endpoints == nullptr ? "" : endpoints->front().endpointId;
  logStore(LogPriority::DEBUG,
           LogBuilder(label::GET_ENDPOINT_ID_FOR_ENTITY, nullptr)
               .d(key::ENTITY_ID, id.c_str())
               .d(key::ENDPOINT_ID, endpoints == nullptr ? value::NOT_FOUND : endpointId.c_str()));
  return endpointId;
}

std::string CacheCore::getEntityIdForEndpoint(const std::string& endpointId) const {
  ReaderLock lock(storeMutex);
  const auto found = endpointIndex.find(endpointId);
  std::string entityId = found == endpointIndex.end() ? "" : found->second;
  logStore(
      LogPriority::DEBUG,
      LogBuilder(label::GET_ENTITY_ID_FOR_ENDPOINT, nullptr)
          .d(key::ENDPOINT_ID, endpointId.c_str())
          .d(key::ENTITY_ID, found == endpointIndex.end() ? value::NOT_FOUND : entityId.c_str()));
  return entityId;
}

std::string CacheCore::getAdapterName(const std::string& entityId,
                                      const std::string& endpointId) const {
  const std::string& id = normalizeEntityId(entityId);
  ReaderLock lock(storeMutex);
  const std::vector<CachedEndpoint>* endpoints = findEndpointsLocked(id);
  if (endpoints == nullptr) {
    return "";
  }
  const auto record = findEndpointInVector(*endpoints, endpointId);
  return record == endpoints->end() ? "" : record->adapterName;
}

std::vector<EndpointInfo> CacheCore::getEndpointsForEntity(const std::string& entityId) const {
  const std::string& id = normalizeEntityId(entityId);
  std::vector<EndpointInfo> result;
  ReaderLock lock(storeMutex);
  const std::vector<CachedEndpoint>* endpoints = findEndpointsLocked(id);
  if (endpoints == nullptr) {
    return result;
  }
  result.reserve(endpoints->size());
  for (const CachedEndpoint& endpoint : *endpoints) {
    result.push_back(endpoint.toExternal());
  }
  return result;
}

std::unordered_map<std::string, std::unordered_map<std::string, std::string>>
CacheCore::getReachableEndpointsMap() const {
  ReaderLock lock(storeMutex);
  std::unordered_map<std::string, std::unordered_map<std::string, std::string>> result;
  for (const auto& [entityId, endpoints] : entityIndex) {
    std::unordered_map<std::string, std::string>& adapters = result[entityId];
    for (const CachedEndpoint& endpoint : endpoints) {
      adapters.emplace(endpoint.endpointId, endpoint.adapterName);
    }
  }
  return result;
}

std::unordered_map<std::string, std::string> CacheCore::getCachedEndpointIds() const {
  ReaderLock lock(storeMutex);
  return endpointIndex;
}

std::vector<std::pair<std::string, std::string>> CacheCore::getEndpointsNotNamed(
    const EndpointIdSet& named) const {
  std::vector<std::pair<std::string, std::string>> found;
  {
    ReaderLock lock(storeMutex);
    for (const auto& [endpointId, entityId] : endpointIndex) {
      if (named.count(endpointId) == 0) {
        found.emplace_back(endpointId, entityId);
      }
    }
  }
#if defined(_LIBCPP_VERSION)
  // libc++ copies an unordered map by inserting the source's entries, in
  // order, into a table of as many buckets, each at the front of its bucket:
  // the copy lists them in reverse. libstdc++'s copy keeps the order.
  std::reverse(found.begin(), found.end());
#endif
  return found;
}

std::unordered_set<std::string> CacheCore::getReachableEntityIds() const {
  std::unordered_set<std::string> reachable;
  ReaderLock lock(storeMutex);
  for (const auto& [entityId, endpoints] : entityIndex) {
    if (std::any_of(endpoints.begin(), endpoints.end(), reachedByDriver)) {
      reachable.insert(entityId);
    }
  }
  return reachable;
}

bool CacheCore::isEntityReachableUnlogged(const std::string& entityId) const {
  const std::string& id = normalizeEntityId(entityId);
  ReaderLock lock(storeMutex);
  const std::vector<CachedEndpoint>* endpoints = findEndpointsLocked(id);
  return endpoints != nullptr && std::any_of(endpoints->begin(), endpoints->end(), reachedByDriver);
}

std::string CacheCore::entityIdOfEndpoint(const std::string& endpointId) const {
  ReaderLock lock(storeMutex);
  const auto found = endpointIndex.find(endpointId);
  return found == endpointIndex.end() ? "" : found->second;
}

// ---- Lookups under the store mutex ----

const std::vector<CachedEndpoint>* CacheCore::findEndpointsLocked(
    const std::string& entityId) const {
  const auto found = entityIndex.find(entityId);
  if (found == entityIndex.end() || found->second.empty()) {
    return nullptr;
  }
  return &found->second;
}

std::vector<CachedEndpoint>* CacheCore::findEndpointsMutableLocked(const std::string& entityId) {
  const auto found = entityIndex.find(entityId);
  return found == entityIndex.end() ? nullptr : &found->second;
}

std::vector<CachedEndpoint>::const_iterator CacheCore::findEndpointInVector(
    const std::vector<CachedEndpoint>& endpoints, const std::string& endpointId) {
  return std::find_if(endpoints.begin(), endpoints.end(), [&](const CachedEndpoint& endpoint) {
    return endpoint.endpointId == endpointId;
  });
}

std::vector<CachedEndpoint>::iterator CacheCore::findEndpointInVector(
    std::vector<CachedEndpoint>& endpoints, const std::string& endpointId) {
  return std::find_if(endpoints.begin(), endpoints.end(), [&](const CachedEndpoint& endpoint) {
    return endpoint.endpointId == endpointId;
  });
}

}  // namespace veranda::reachabilityCache
