// The vocabulary of the library's log lines, defined once: the tags, the
// function labels, the field keys and the fixed values that the library writes
// with, and that tests, benchmarks and log readers read with.
//
// A line reads "[label]: key=value key=value" (see LogBuilder); a label alone
// is "[label]". Each group of names that a line may hold lists them in ALL, so
// that a reader can tell a line it does not know, and a test checks that the
// library writes every name and no other (tests/diagnostics/LogSchemaTest.cpp).
//
// Header-only and standard-library-free: a tool includes it (include root
// src/) without linking the library.
#pragma once

namespace veranda::reachabilityCache::logSchema {

// Tags, one per component; each component always writes with its own.
namespace tag {
inline constexpr const char* FACADE = "ReachabilityCache-ReachabilityCache";
inline constexpr const char* STORE = "ReachabilityCache-CacheCore";
inline constexpr const char* UPDATER = "ReachabilityCache-ReachabilityUpdater";
inline constexpr const char* CHECKER = "ReachabilityCache-ApplianceDriverChecker";
inline constexpr const char* TRACKER = "ReachabilityCache-EntityReachabilityTracker";
inline constexpr const char* ALL[] = {FACADE, STORE, UPDATER, CHECKER, TRACKER};

// The platform's metric recorder, which writes the cache's metrics (see
// metric below) under its own tag. Not in ALL: the library never writes it.
inline constexpr const char* METRIC = "Veranda-Metric";
}  // namespace tag

// What a lambda passes as its function name: the builder then prints the
// context given with it as the label (see label::STATE_CHANGE_CALLBACK).
inline constexpr const char* LAMBDA_FUNCTION = "operator()";

// Labels as printed between the brackets. Each names the function that
// writes the line, except the two lambdas' labels, which come from the
// context passed with LAMBDA_FUNCTION.
namespace label {
// The facade.
inline constexpr const char* REACHABILITY_CACHE = "ReachabilityCache";
inline constexpr const char* REACHABILITY_CACHE_DESTRUCTOR = "~ReachabilityCache";
inline constexpr const char* GET_PREFERRED_ENDPOINT = "getPreferredEndpoint";
// The store.
inline constexpr const char* CACHE_CORE = "CacheCore";
inline constexpr const char* INSERT_ENDPOINT = "insertEndpoint";
inline constexpr const char* REMOVE_ENDPOINT = "removeEndpoint";
inline constexpr const char* REMOVE_ENTITY = "removeEntity";
inline constexpr const char* CLEAR = "clear";
inline constexpr const char* CLEAR_ENDPOINT_CAPABILITIES = "clearEndpointCapabilities";
inline constexpr const char* IS_ENTITY_PRESENT = "isEntityPresent";
inline constexpr const char* IS_ENTITY_REACHABLE = "isEntityReachable";
inline constexpr const char* IS_CAPABILITY_REACHABLE = "isCapabilityReachable";
inline constexpr const char* IS_CAPABILITY_REACHABLE_BY_DRIVER = "isCapabilityReachableByDriver";
inline constexpr const char* GET_ENDPOINT_ID_FOR_ENTITY = "getEndpointIdForEntity";
inline constexpr const char* GET_ENTITY_ID_FOR_ENDPOINT = "getEntityIdForEndpoint";
inline constexpr const char* REGISTER_REACHABILITY_LISTENER = "registerReachabilityListener";
inline constexpr const char* UNREGISTER_REACHABILITY_LISTENER = "unregisterReachabilityListener";
inline constexpr const char* NOTIFY_REACHABILITY_LISTENERS = "notifyReachabilityListeners";
// The updater.
inline constexpr const char* REACHABILITY_UPDATER = "ReachabilityUpdater";
inline constexpr const char* REACHABILITY_UPDATER_DESTRUCTOR = "~ReachabilityUpdater";
inline constexpr const char* START_PERIODIC_UPDATES = "startPeriodicUpdates";
inline constexpr const char* STOP_PERIODIC_UPDATES = "stopPeriodicUpdates";
inline constexpr const char* PERFORM_PERIODIC_UPDATE = "performPeriodicUpdate";
// The manual trigger's task, a lambda without context: its lines read "[]: ...".
inline constexpr const char* MANUAL_TRIGGER = "";
inline constexpr const char* PROCESS_REACHABILITY_RESULTS = "processReachabilityResults";
inline constexpr const char* ENABLE_PROACTIVE_UPDATES = "enableProactiveUpdates";
inline constexpr const char* DISABLE_PROACTIVE_UPDATES = "disableProactiveUpdates";
// The checker.
inline constexpr const char* APPLIANCE_DRIVER_REACHABILITY_CHECKER =
    "ApplianceDriverReachabilityChecker";
inline constexpr const char* CHECK_REACHABILITY = "checkReachability";
inline constexpr const char* PROCESS_DISCOVERED_DEVICES = "processDiscoveredDevices";
inline constexpr const char* UPDATE_RESULT_WITH_DISCOVERED_DEVICE =
    "updateResultWithDiscoveredDevice";
inline constexpr const char* VALIDATE_CALLBACK_PARAMS = "validateCallbackParams";
inline constexpr const char* REGISTER_REACHABILITY_UPDATE_CALLBACK =
    "registerReachabilityUpdateCallback";
inline constexpr const char* UNREGISTER_REACHABILITY_UPDATE_CALLBACK =
    "unregisterReachabilityUpdateCallback";
// The driver's state-change callback, a lambda with this context.
inline constexpr const char* STATE_CHANGE_CALLBACK = "stateChangeCallback";
// The entity tracker.
inline constexpr const char* DELIVER = "deliver";

inline constexpr const char* ALL[] = {
    REACHABILITY_CACHE,
    REACHABILITY_CACHE_DESTRUCTOR,
    GET_PREFERRED_ENDPOINT,
    CACHE_CORE,
    INSERT_ENDPOINT,
    REMOVE_ENDPOINT,
    REMOVE_ENTITY,
    CLEAR,
    CLEAR_ENDPOINT_CAPABILITIES,
    IS_ENTITY_PRESENT,
    IS_ENTITY_REACHABLE,
    IS_CAPABILITY_REACHABLE,
    IS_CAPABILITY_REACHABLE_BY_DRIVER,
    GET_ENDPOINT_ID_FOR_ENTITY,
    GET_ENTITY_ID_FOR_ENDPOINT,
    REGISTER_REACHABILITY_LISTENER,
    UNREGISTER_REACHABILITY_LISTENER,
    NOTIFY_REACHABILITY_LISTENERS,
    REACHABILITY_UPDATER,
    REACHABILITY_UPDATER_DESTRUCTOR,
    START_PERIODIC_UPDATES,
    STOP_PERIODIC_UPDATES,
    PERFORM_PERIODIC_UPDATE,
    MANUAL_TRIGGER,
    PROCESS_REACHABILITY_RESULTS,
    ENABLE_PROACTIVE_UPDATES,
    DISABLE_PROACTIVE_UPDATES,
    APPLIANCE_DRIVER_REACHABILITY_CHECKER,
    CHECK_REACHABILITY,
    PROCESS_DISCOVERED_DEVICES,
    UPDATE_RESULT_WITH_DISCOVERED_DEVICE,
    VALIDATE_CALLBACK_PARAMS,
    REGISTER_REACHABILITY_UPDATE_CALLBACK,
    UNREGISTER_REACHABILITY_UPDATE_CALLBACK,
    STATE_CHANGE_CALLBACK,
    DELIVER,
};
}  // namespace label

// Field keys. The first field of most lines is one of EVENT, ACTION, STATUS,
// REASON or RESULT, whose values are listed in the groups of the same names.
namespace key {
inline constexpr const char* EVENT = "event";
inline constexpr const char* ACTION = "action";
inline constexpr const char* STATUS = "status";
inline constexpr const char* REASON = "reason";
inline constexpr const char* RESULT = "result";
// Identifiers.
inline constexpr const char* ENTITY_ID = "entityId";
inline constexpr const char* ENDPOINT_ID = "endpointId";
inline constexpr const char* ADAPTER_NAME = "adapterName";
inline constexpr const char* CAPABILITY = "capability";
inline constexpr const char* DRIVER_TYPE = "driverType";
inline constexpr const char* LISTENER_ID = "listenerId";
inline constexpr const char* CALLBACK_ID = "callbackId";
inline constexpr const char* REQUEST_ID = "requestId";
// Settings and sizes.
inline constexpr const char* MAX_CACHE_SIZE = "maxCacheSize";
inline constexpr const char* PERIODIC_UPDATES = "periodicUpdates";
inline constexpr const char* CACHE_SIZE = "cacheSize";
inline constexpr const char* MAX_SIZE = "maxSize";
inline constexpr const char* PREVIOUS_SIZE = "previousSize";
inline constexpr const char* INTERVAL_SECONDS = "intervalSeconds";
inline constexpr const char* INITIAL_DELAY_MS = "initialDelayMs";
inline constexpr const char* USING_SINGLETON = "usingSingleton";
// Counts.
inline constexpr const char* DRIVER_COUNT = "driverCount";
inline constexpr const char* ENDPOINT_COUNT = "endpointCount";
inline constexpr const char* TOTAL_LISTENERS = "totalListeners";
inline constexpr const char* LISTENER_COUNT = "listenerCount";
inline constexpr const char* DEVICE_COUNT = "deviceCount";
inline constexpr const char* RESULT_COUNT = "resultCount";
// A result summary's counts: results applied as reachable or unreachable,
// and changes of reachability among them.
inline constexpr const char* REACHABLE = "reachable";
inline constexpr const char* UNREACHABLE = "unreachable";
inline constexpr const char* CHANGED = "changed";
// Answers: "true" or "false" (see value).
inline constexpr const char* PRESENT = "present";
inline constexpr const char* IS_REACHABLE = "isReachable";
// A state-change event as the driver sent it.
inline constexpr const char* NAMESPACE = "namespace";
inline constexpr const char* PROPERTY_NAME = "propertyName";
inline constexpr const char* VALUE = "value";
// A text of several lines that runs to the end of the line (see summary and
// request).
inline constexpr const char* DETAILS = "details";
// A host callback that threw: which one (see value), and what it threw.
inline constexpr const char* CALLBACK = "callback";
inline constexpr const char* WHAT = "what";

inline constexpr const char* ALL[] = {
    EVENT,           ACTION,       STATUS,         REASON,           RESULT,
    ENTITY_ID,       ENDPOINT_ID,  ADAPTER_NAME,   CAPABILITY,       DRIVER_TYPE,
    LISTENER_ID,     CALLBACK_ID,  REQUEST_ID,     MAX_CACHE_SIZE,   PERIODIC_UPDATES,
    CACHE_SIZE,      MAX_SIZE,     PREVIOUS_SIZE,  INTERVAL_SECONDS, INITIAL_DELAY_MS,
    USING_SINGLETON, DRIVER_COUNT, ENDPOINT_COUNT, TOTAL_LISTENERS,  LISTENER_COUNT,
    DEVICE_COUNT,    RESULT_COUNT, REACHABLE,      UNREACHABLE,      CHANGED,
    PRESENT,         IS_REACHABLE, NAMESPACE,      PROPERTY_NAME,    VALUE,
    DETAILS,         CALLBACK,     WHAT,
};

// Keys inside a details text only (see summary and request).
inline constexpr const char* ADAPTER = "adapter";
inline constexpr const char* COUNT = "count";
}  // namespace key

// Values of key::EVENT.
namespace event {
inline constexpr const char* CACHE_CREATED = "cacheCreated";
inline constexpr const char* CACHE_DESTROYED = "cacheDestroyed";
inline constexpr const char* NOT_FOUND = "notFound";  // removeEntity's, for an unknown entity
inline constexpr const char* CALLBACK_THREW = "callbackThrew";  // a tracker's host callback
inline constexpr const char* ALL[] = {CACHE_CREATED, CACHE_DESTROYED, NOT_FOUND, CALLBACK_THREW};
}  // namespace event

// Values of key::ACTION. Some name the operation that writes the line.
namespace action {
inline constexpr const char* NEW_ENTITY = "newEntity";
inline constexpr const char* APPENDED = "appended";
inline constexpr const char* MERGED = "merged";
inline constexpr const char* NOT_FOUND = "notFound";
inline constexpr const char* ENDPOINT_NOT_FOUND = "endpointNotFound";
inline constexpr const char* REMOVED_ENDPOINT = "removedEndpoint";
inline constexpr const char* REMOVED_ENDPOINT_AND_ENTITY = "removedEndpointAndEntity";
inline constexpr const char* REMOVED_ENTITY = "removedEntity";
inline constexpr const char* CLEARED = "cleared";
inline constexpr const char* CLEARED_CAPABILITIES = "clearedCapabilities";
inline constexpr const char* INVOKING_CALLBACK = "invokingCallback";
inline constexpr const char* GET_PREFERRED_ENDPOINT = label::GET_PREFERRED_ENDPOINT;
inline constexpr const char* REGISTER_REACHABILITY_LISTENER = label::REGISTER_REACHABILITY_LISTENER;
inline constexpr const char* UNREGISTER_REACHABILITY_LISTENER =
    label::UNREGISTER_REACHABILITY_LISTENER;
inline constexpr const char* NOTIFY_REACHABILITY_LISTENERS = label::NOTIFY_REACHABILITY_LISTENERS;
inline constexpr const char* ENABLE_PROACTIVE_UPDATES = label::ENABLE_PROACTIVE_UPDATES;
inline constexpr const char* DISABLE_PROACTIVE_UPDATES = label::DISABLE_PROACTIVE_UPDATES;

inline constexpr const char* ALL[] = {
    NEW_ENTITY,
    APPENDED,
    MERGED,
    NOT_FOUND,
    ENDPOINT_NOT_FOUND,
    REMOVED_ENDPOINT,
    REMOVED_ENDPOINT_AND_ENTITY,
    REMOVED_ENTITY,
    CLEARED,
    CLEARED_CAPABILITIES,
    INVOKING_CALLBACK,
    GET_PREFERRED_ENDPOINT,
    REGISTER_REACHABILITY_LISTENER,
    UNREGISTER_REACHABILITY_LISTENER,
    NOTIFY_REACHABILITY_LISTENERS,
    ENABLE_PROACTIVE_UPDATES,
    DISABLE_PROACTIVE_UPDATES,
};
}  // namespace action

// Values of key::STATUS.
namespace status {
inline constexpr const char* INITIALIZED = "initialized";
inline constexpr const char* REQUEST_SENT = "requestSent";
inline constexpr const char* REGISTERED = "registered";
inline constexpr const char* UNREGISTERED = "unregistered";
inline constexpr const char* DISABLED = "disabled";
inline constexpr const char* ALL[] = {INITIALIZED, REQUEST_SENT, REGISTERED, UNREGISTERED,
                                      DISABLED};
}  // namespace status

// Values of key::RESULT: how a listener's registration or removal went.
namespace result {
inline constexpr const char* SUCCESS = "success";
inline constexpr const char* ALREADY_EXISTS = "alreadyExists";
inline constexpr const char* NOT_FOUND = "notFound";
inline constexpr const char* ALL[] = {SUCCESS, ALREADY_EXISTS, NOT_FOUND};
}  // namespace result

// Values of key::REASON, which also name the reason of a metric.
namespace reason {
// The facade.
inline constexpr const char* NO_ENDPOINTS_FOUND = "noEndpointsFound";
// The store.
inline constexpr const char* EMPTY_ENTITY_ID = "emptyEntityId";
inline constexpr const char* EMPTY_ENDPOINT_ID = "emptyEndpointId";
inline constexpr const char* CACHE_FULL = "cacheFull";
inline constexpr const char* NOT_IN_CACHE = "notInCache";
inline constexpr const char* NO_DRIVER_CAPABILITIES = "noDriverCapabilities";
inline constexpr const char* ENTITY_NOT_FOUND = "entityNotFound";
inline constexpr const char* CAPABILITY_NOT_FOUND = "capabilityNotFound";
inline constexpr const char* CAPABILITY_NOT_FOUND_FOR_DRIVER = "capabilityNotFoundForDriver";
// The updater.
inline constexpr const char* PERIODIC_UPDATES_DISABLED = "periodicUpdatesDisabled";
inline constexpr const char* CHR_PROVIDER_NULL = "chrProviderNull";
inline constexpr const char* CHR_QUERY_RETURNED_EMPTY = "chrQueryReturnedEmpty";
inline constexpr const char* CHECK_START_FAILED = "checkStartFailed";
inline constexpr const char* NO_ENDPOINTS = "noEndpoints";
inline constexpr const char* ALREADY_ENABLED = "alreadyEnabled";
inline constexpr const char* REGISTRATION_FAILED = "registrationFailed";
inline constexpr const char* ALREADY_DISABLED = "alreadyDisabled";
// The checker.
inline constexpr const char* NO_ENDPOINTS_TO_CHECK = "noEndpointsToCheck";
inline constexpr const char* GET_REACHABLE_DEVICES_FAILED = "getReachableDevicesFailed";
inline constexpr const char* UNSUPPORTED_ADAPTER = "unsupportedAdapter";
inline constexpr const char* EMPTY_CALLBACK_ID = "emptyCallbackId";
inline constexpr const char* NULL_CALLBACK = "nullCallback";
inline constexpr const char* DUPLICATE_CALLBACK_ID = "duplicateCallbackId";
inline constexpr const char* SUBSCRIPTION_FAILED = "subscriptionFailed";
inline constexpr const char* CALLBACK_NOT_FOUND = "callbackNotFound";
inline constexpr const char* UNSUBSCRIPTION_FAILED = "unsubscriptionFailed";
inline constexpr const char* NOT_CONNECTIVITY_EVENT = "notConnectivityEvent";

inline constexpr const char* ALL[] = {
    NO_ENDPOINTS_FOUND,
    EMPTY_ENTITY_ID,
    EMPTY_ENDPOINT_ID,
    CACHE_FULL,
    NOT_IN_CACHE,
    NO_DRIVER_CAPABILITIES,
    ENTITY_NOT_FOUND,
    CAPABILITY_NOT_FOUND,
    CAPABILITY_NOT_FOUND_FOR_DRIVER,
    PERIODIC_UPDATES_DISABLED,
    CHR_PROVIDER_NULL,
    CHR_QUERY_RETURNED_EMPTY,
    CHECK_START_FAILED,
    NO_ENDPOINTS,
    ALREADY_ENABLED,
    REGISTRATION_FAILED,
    ALREADY_DISABLED,
    NO_ENDPOINTS_TO_CHECK,
    GET_REACHABLE_DEVICES_FAILED,
    UNSUPPORTED_ADAPTER,
    EMPTY_CALLBACK_ID,
    NULL_CALLBACK,
    DUPLICATE_CALLBACK_ID,
    SUBSCRIPTION_FAILED,
    CALLBACK_NOT_FOUND,
    UNSUBSCRIPTION_FAILED,
    NOT_CONNECTIVITY_EVENT,
};
}  // namespace reason

// Other fixed values.
namespace value {
inline constexpr const char* TRUE_TEXT = "true";
inline constexpr const char* FALSE_TEXT = "false";
// The endpoint or entity id that a lookup answers when it finds none.
inline constexpr const char* NOT_FOUND = "notFound";
// The tracker's callbacks (key::CALLBACK), and what it writes as key::WHAT
// for an exception that is not a std::exception.
inline constexpr const char* ON_CHANGE = "onChange";
inline constexpr const char* ON_STATE_CHANGE = "onStateChange";
inline constexpr const char* NOT_A_STD_EXCEPTION = "(not a std::exception)";
}  // namespace value

// The prefixes of request ids; the updater's counter follows in decimal.
namespace requestIdPrefix {
inline constexpr const char* PERIODIC = "periodic_";
inline constexpr const char* MANUAL = "manual_";
// The id of the subscription to connectivity events.
inline constexpr const char* PROACTIVE = "reachability_updater_";
inline constexpr const char* ALL[] = {PERIODIC, MANUAL, PROACTIVE};
}  // namespace requestIdPrefix

// The details of a result summary ([processReachabilityResults]): one entry
// per result, in the order of the results,
//   ENTRY_START <endpointId> " (entityId=" <entityId> [", adapter=" <adapter>] "): " <status>
// where the adapter is left out when the result names none, and <status> is
// one of ALL.
namespace summary {
inline constexpr const char* ENTRY_START = "\n    ";
inline constexpr const char* REACHABLE = "reachable";
inline constexpr const char* BECAME_REACHABLE = "reachable (becameReachable)";
inline constexpr const char* REACHABLE_INSERT_FAILED = "reachable (insertFailed)";
inline constexpr const char* BECAME_UNREACHABLE = "unreachable (becameUnreachable)";
inline constexpr const char* ALREADY_UNREACHABLE = "unreachable (alreadyUnreachable)";
inline constexpr const char* UNREACHABLE_INSERT_FAILED = "unreachable (insertFailed)";
inline constexpr const char* ALL[] = {
    REACHABLE,          BECAME_REACHABLE,    REACHABLE_INSERT_FAILED,
    BECAME_UNREACHABLE, ALREADY_UNREACHABLE, UNREACHABLE_INSERT_FAILED};
}  // namespace summary

// The details of a check as requested ([checkReachability]):
//   "requestId=" <requestId> " count=" <number of endpoints>
// then one entry per endpoint, ENTRY_START <endpointId> MAPS_TO <entityId>.
namespace request {
inline constexpr const char* ENTRY_START = "\n   ";
inline constexpr const char* MAPS_TO = " -> ";
}  // namespace request

// The cache's metrics, which the platform's recorder writes under tag::METRIC
// as "[Metric]: metricName=<name> <dimension>=<value>... program=<id> source=<id>".
namespace metric {
inline constexpr const char* CACHE_FULL = "ReachabilityCache.CacheFull";
inline constexpr const char* INSERT_FAILED = "ReachabilityCache.InsertFailed";
inline constexpr const char* CHECK_FAILED = "ReachabilityCache.CheckFailed";
inline constexpr const char* SUBSCRIBE_FAILED = "ReachabilityCache.SubscribeFailed";
inline constexpr const char* ALL[] = {CACHE_FULL, INSERT_FAILED, CHECK_FAILED, SUBSCRIBE_FAILED};

// Dimension names; the reason is one of reason::ALL.
inline constexpr const char* DIMENSION_METRIC_NAME = "metricName";
inline constexpr const char* DIMENSION_MAX_SIZE = key::MAX_SIZE;
inline constexpr const char* DIMENSION_REASON = key::REASON;
inline constexpr const char* DIMENSION_UPDATE_TYPE = "updateType";
inline constexpr const char* DIMENSION_ACTION = key::ACTION;

// Values of the update type and action dimensions.
inline constexpr const char* UPDATE_TYPE_PERIODIC = "periodic";
inline constexpr const char* UPDATE_TYPE_EVENT = "event";
inline constexpr const char* UPDATE_TYPE_MANUAL = "manual";
inline constexpr const char* ACTION_ENABLE = "enable";
inline constexpr const char* ACTION_DISABLE = "disable";
inline constexpr const char* UNKNOWN = "unknown";  // either, out of range

// The two routing identifiers that every metric carries.
inline constexpr const char* PROGRAM_ID = "762veg6l";
inline constexpr const char* SOURCE_ID = "nlef/2/03330473";
}  // namespace metric

}  // namespace veranda::reachabilityCache::logSchema
