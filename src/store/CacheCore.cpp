#include "store/CacheCore.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <utility>

#include "diagnostics/ComponentLog.h"
#include "diagnostics/LogBuilder.h"
#include "diagnostics/ReachabilityCacheMetrics.h"
#include "store/DriverCapabilities.h"

namespace veranda::reachabilityCache {
namespace {

using applianceDriver::ApplianceDriverType;
using commonLog::LogBuilder;

constexpr std::string_view ENTITY_ID_PREFIX = "orbt1.veyra.endpoint.";

// Writes "[function]: action=... entityId=... endpointId=...".
void logEndpointAction(LogPriority priority, const char* function, const char* action,
                       const std::string& entityId, const std::string& endpointId) {
  logStore(priority, LogBuilder(function, nullptr)
                         .d("action", action)
                         .d("entityId", entityId.c_str())
                         .d("endpointId", endpointId.c_str()));
}

// Logs and records the refusal of a record with an empty entity or endpoint
// id; false when both ids are set.
bool refusedForEmptyId(const CachedEndpoint& endpoint) {
  if (endpoint.entityId.empty()) {
    logStore(LogPriority::WARN, LogBuilder("insertEndpoint", nullptr)
                                    .d("reason", "emptyEntityId")
                                    .d("endpointId", endpoint.endpointId.c_str()));
    ReachabilityCacheMetrics::emitInsertFailed("emptyEntityId");
    return true;
  }
  if (endpoint.endpointId.empty()) {
    logStore(LogPriority::WARN, LogBuilder("insertEndpoint", nullptr)
                                    .d("reason", "emptyEndpointId")
                                    .d("entityId", endpoint.entityId.c_str()));
    ReachabilityCacheMetrics::emitInsertFailed("emptyEndpointId");
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
  logStore(LogPriority::INFO, LogBuilder("CacheCore", nullptr).d("maxSize", maxSize));
}

CacheCore::~CacheCore() = default;

// ---- Changes ----

bool CacheCore::insertEndpoint(const CachedEndpoint& endpoint) { return insertRecord(endpoint); }

bool CacheCore::insertEndpoint(CachedEndpoint&& endpoint) {
  return insertRecord(std::move(endpoint));
}

template <typename Record>
bool CacheCore::insertRecord(Record&& endpoint) {
  const std::string& entityId = normalizeEntityId(endpoint.entityId);
  MutexLock lock(storeMutex);
  if (refusedForEmptyId(endpoint)) {
    return false;
  }
  const bool entityKnown = entityIndex.count(entityId) != 0;
  if (!entityKnown && entityIndex.size() >= maxSize_) {
    logStore(LogPriority::WARN, LogBuilder("insertEndpoint", nullptr)
                                    .d("reason", "cacheFull")
                                    .d("entityId", entityId.c_str())
                                    .d("endpointId", endpoint.endpointId.c_str()));
    ReachabilityCacheMetrics::emitCacheFull(maxSize_);
    return false;
  }
  std::vector<CachedEndpoint>& endpoints = entityIndex[entityId];
  auto stored = findEndpointInVector(endpoints, endpoint.endpointId);
  if (stored == endpoints.end()) {
    endpoints.push_back(std::forward<Record>(endpoint));
    stored = std::prev(endpoints.end());
    // A fresh string: assigned in place, the stored id would keep the
    // capacity of the id as passed, prefix included.
    stored->entityId = std::string(entityId);
    logEndpointAction(entityKnown ? LogPriority::DEBUG : LogPriority::INFO, "insertEndpoint",
                      entityKnown ? "appended" : "newEntity", entityId, stored->endpointId);
  } else {
    mergeInto(*stored, std::forward<Record>(endpoint));
    logStore(LogPriority::DEBUG, LogBuilder("insertEndpoint", nullptr)
                                     .d("action", "merged")
                                     .d("entityId", entityId.c_str())
                                     .d("endpointId", stored->endpointId.c_str())
                                     .d("driverCount", stored->driverCapabilities.size()));
  }
  endpointIndex[stored->endpointId] = entityId;
  return true;
}

bool CacheCore::insertEndpoint(const EndpointInfo& info) {
  return insertEndpoint(CachedEndpoint(info));
}

bool CacheCore::removeEndpoint(const std::string& entityId, const std::string& endpointId) {
  const std::string& id = normalizeEntityId(entityId);
  MutexLock lock(storeMutex);
  std::vector<CachedEndpoint>* endpoints = findEndpointsMutableLocked(id);
  if (endpoints == nullptr) {
    logEndpointAction(LogPriority::DEBUG, "removeEndpoint", "notFound", id, endpointId);
    return false;
  }
  const auto record = findEndpointInVector(*endpoints, endpointId);
  if (record == endpoints->end()) {
    logEndpointAction(LogPriority::DEBUG, "removeEndpoint", "endpointNotFound", id, endpointId);
    return false;
  }
  endpoints->erase(record);
  endpointIndex.erase(endpointId);
  if (!endpoints->empty()) {
    logEndpointAction(LogPriority::DEBUG, "removeEndpoint", "removedEndpoint", id, endpointId);
  } else {
    entityIndex.erase(id);
    logEndpointAction(LogPriority::INFO, "removeEndpoint", "removedEndpointAndEntity", id,
                      endpointId);
  }
  return true;
}

bool CacheCore::removeEntity(const std::string& entityId) {
  const std::string& id = normalizeEntityId(entityId);
  MutexLock lock(storeMutex);
  const auto entity = entityIndex.find(id);
  if (entity == entityIndex.end()) {
    // The one store line keyed "event" rather than "action"; readers match on it.
    logStore(LogPriority::DEBUG,
             LogBuilder("removeEntity", nullptr).d("event", "notFound").d("entityId", id.c_str()));
    return false;
  }
  const std::size_t endpointCount = entity->second.size();
  for (const CachedEndpoint& endpoint : entity->second) {
    endpointIndex.erase(endpoint.endpointId);
  }
  entityIndex.erase(entity);
  logStore(LogPriority::INFO, LogBuilder("removeEntity", nullptr)
                                  .d("action", "removedEntity")
                                  .d("entityId", id.c_str())
                                  .d("endpointCount", endpointCount));
  return true;
}

void CacheCore::clear() {
  MutexLock lock(storeMutex);
  const std::size_t previousSize = entityIndex.size();
  entityIndex.clear();
  endpointIndex.clear();
  logStore(LogPriority::INFO,
           LogBuilder("clear", nullptr).d("action", "cleared").d("previousSize", previousSize));
}

bool CacheCore::clearEndpointCapabilities(const std::string& entityId,
                                          const std::string& endpointId) {
  const std::string& id = normalizeEntityId(entityId);
  MutexLock lock(storeMutex);
  std::vector<CachedEndpoint>* endpoints = findEndpointsMutableLocked(id);
  if (endpoints == nullptr) {
    logEndpointAction(LogPriority::DEBUG, "clearEndpointCapabilities", "notFound", id, endpointId);
    return false;
  }
  const auto record = findEndpointInVector(*endpoints, endpointId);
  if (record == endpoints->end()) {
    logEndpointAction(LogPriority::DEBUG, "clearEndpointCapabilities", "endpointNotFound", id,
                      endpointId);
    return false;
  }
  record->driverCapabilities.clear();
  logEndpointAction(LogPriority::DEBUG, "clearEndpointCapabilities", "clearedCapabilities", id,
                    endpointId);
  return true;
}

// ---- Size ----

std::size_t CacheCore::size() const {
  MutexLock lock(storeMutex);
  return entityIndex.size();
}

bool CacheCore::isFull() const {
  MutexLock lock(storeMutex);
  return entityIndex.size() >= maxSize_;
}

// ---- Queries ----

bool CacheCore::isEntityPresent(const std::string& entityId) const {
  const std::string& id = normalizeEntityId(entityId);
  MutexLock lock(storeMutex);
  const bool present = findEndpointsLocked(id) != nullptr;
  logStore(LogPriority::DEBUG, LogBuilder("isEntityPresent", nullptr)
                                   .d("entityId", id.c_str())
                                   .d("present", boolText(present)));
  return present;
}

bool CacheCore::isEntityReachable(const std::string& entityId) const {
  const std::string& id = normalizeEntityId(entityId);
  MutexLock lock(storeMutex);
  LogBuilder line("isEntityReachable", nullptr);
  line.d("entityId", id.c_str());
  const std::vector<CachedEndpoint>* endpoints = findEndpointsLocked(id);
  if (endpoints == nullptr) {
    logStore(LogPriority::DEBUG, line.d("reachable", "false").d("reason", "notInCache"));
    return false;
  }
  for (const CachedEndpoint& endpoint : *endpoints) {
    if (reachedByDriver(endpoint)) {
      logStore(LogPriority::DEBUG, line.d("reachable", "true"));
      return true;
    }
  }
  logStore(LogPriority::DEBUG, line.d("reachable", "false").d("reason", "noDriverCapabilities"));
  return false;
}

bool CacheCore::isCapabilityReachable(const std::string& entityId,
                                      const CapabilityKey& capabilityKey) const {
  const std::string& id = normalizeEntityId(entityId);
  MutexLock lock(storeMutex);
  LogBuilder line("isCapabilityReachable", nullptr);
  line.d("entityId", id.c_str()).d("capability", capabilityKey.capability.c_str());
  const std::vector<CachedEndpoint>* endpoints = findEndpointsLocked(id);
  if (endpoints == nullptr) {
    logStore(LogPriority::DEBUG, line.d("reachable", "false").d("reason", "entityNotFound"));
    return false;
  }
  for (const CachedEndpoint& endpoint : *endpoints) {
    for (const auto& entry : endpoint.driverCapabilities) {
      if (entry.second.count(capabilityKey) != 0) {
        logStore(LogPriority::DEBUG,
                 line.d("endpointId", endpoint.endpointId.c_str()).d("reachable", "true"));
        return true;
      }
    }
  }
  logStore(LogPriority::DEBUG, line.d("reachable", "false")
                                   .d("reason", "capabilityNotFound")
                                   .d("endpointCount", endpoints->size()));
  return false;
}

bool CacheCore::isCapabilityReachableByDriver(const std::string& entityId,
                                              const CapabilityKey& capabilityKey,
                                              ApplianceDriverType driverType) const {
  const std::string& id = normalizeEntityId(entityId);
  MutexLock lock(storeMutex);
  LogBuilder line("isCapabilityReachableByDriver", nullptr);
  line.d("entityId", id.c_str())
      .d("capability", capabilityKey.capability.c_str())
      .d("driverType", static_cast<int32_t>(driverType));
  const std::vector<CachedEndpoint>* endpoints = findEndpointsLocked(id);
  if (endpoints == nullptr) {
    logStore(LogPriority::DEBUG, line.d("reachable", "false").d("reason", "entityNotFound"));
    return false;
  }
  for (const CachedEndpoint& endpoint : *endpoints) {
    if (endpoint.hasCapabilityFromDriver(capabilityKey, driverType)) {
      logStore(LogPriority::DEBUG,
               line.d("endpointId", endpoint.endpointId.c_str()).d("reachable", "true"));
      return true;
    }
  }
  logStore(LogPriority::DEBUG,
           line.d("reachable", "false").d("reason", "capabilityNotFoundForDriver"));
  return false;
}

std::string CacheCore::getEndpointIdForEntity(const std::string& entityId) const {
  const std::string& id = normalizeEntityId(entityId);
  MutexLock lock(storeMutex);
  const std::vector<CachedEndpoint>* endpoints = findEndpointsLocked(id);
  std::string endpointId = endpoints == nullptr ? "" : endpoints->front().endpointId;
  logStore(LogPriority::DEBUG,
           LogBuilder("getEndpointIdForEntity", nullptr)
               .d("entityId", id.c_str())
               .d("endpointId", endpoints == nullptr ? "notFound" : endpointId.c_str()));
  return endpointId;
}

std::string CacheCore::getEntityIdForEndpoint(const std::string& endpointId) const {
  MutexLock lock(storeMutex);
  const auto found = endpointIndex.find(endpointId);
  std::string entityId = found == endpointIndex.end() ? "" : found->second;
  logStore(LogPriority::DEBUG,
           LogBuilder("getEntityIdForEndpoint", nullptr)
               .d("endpointId", endpointId.c_str())
               .d("entityId", found == endpointIndex.end() ? "notFound" : entityId.c_str()));
  return entityId;
}

std::string CacheCore::getAdapterName(const std::string& entityId,
                                      const std::string& endpointId) const {
  const std::string& id = normalizeEntityId(entityId);
  MutexLock lock(storeMutex);
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
  MutexLock lock(storeMutex);
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
  MutexLock lock(storeMutex);
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
  MutexLock lock(storeMutex);
  return endpointIndex;
}

std::unordered_set<std::string> CacheCore::getReachableEntityIds() const {
  std::unordered_set<std::string> reachable;
  MutexLock lock(storeMutex);
  for (const auto& [entityId, endpoints] : entityIndex) {
    if (std::any_of(endpoints.begin(), endpoints.end(), reachedByDriver)) {
      reachable.insert(entityId);
    }
  }
  return reachable;
}

bool CacheCore::hasReachableEndpoint(const std::string& entityId) const {
  const std::string& id = normalizeEntityId(entityId);
  MutexLock lock(storeMutex);
  const std::vector<CachedEndpoint>* endpoints = findEndpointsLocked(id);
  return endpoints != nullptr && std::any_of(endpoints->begin(), endpoints->end(), reachedByDriver);
}

std::string CacheCore::entityIdOfEndpoint(const std::string& endpointId) const {
  MutexLock lock(storeMutex);
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
