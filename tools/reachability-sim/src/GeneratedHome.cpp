#include "GeneratedHome.h"

#include <array>
#include <cstdio>
#include <random>
#include <string>

namespace veranda::reachabilityCache::sim {
namespace {

struct AdapterKind {
  const char* adapter;
  const char* suffix;
  const char* capability;
};

constexpr std::array<AdapterKind, 7> KINDS = {{
    {"PROT_ZIGBEE-ADAPTER", "zigbee", "PowerController:powerState"},
    {"PROT_WIFI-ADAPTER", "wifi", "PowerController:powerState"},
    {"PROT_LOCALSKILLS-ADAPTER", "local", "SceneController:scene"},
    {"PROT_CHIP-ADAPTER", "chip", "ThermostatController:targetSetpoint"},
    {"PROT_BLE-ADAPTER", "ble", "LockController:lockState"},
    {"PROT_BLE_MESH-ADAPTER", "mesh", "BrightnessController:brightness"},
    {"PROT_MOCK-ADAPTER", "mock", "ContactSensor:detectionState"},
}};

std::string numbered(const char* prefix, int64_t number, int width) {
  char text[32];
  std::snprintf(text, sizeof(text), "%s%0*lld", prefix, width, static_cast<long long>(number));
  return text;
}

}  // namespace

Scenario generateHome(const GeneratedHomeSettings& settings) {
  Scenario scenario;
  char name[96];
  std::snprintf(name, sizeof(name), "generated home: %lld devices, %.3g drops/device/min, seed %u",
                static_cast<long long>(settings.devices), settings.flapRate, settings.seed);
  scenario.name = name;
  scenario.durationMs = settings.durationMs;
  scenario.intervalSeconds = settings.intervalSeconds;
  scenario.flaps = {settings.flapRate, settings.seed};
  const int width = static_cast<int>(std::to_string(settings.devices).size());
  std::mt19937 random(settings.seed);
  std::bernoulli_distribution connected(0.3);
  for (int64_t i = 1; i <= settings.devices; ++i) {
    const AdapterKind& kind = KINDS[static_cast<std::size_t>(i - 1) % KINDS.size()];
    Device device;
    device.entityId = numbered("entity-", i, width);
    device.endpointId = numbered("ep-", i, width) + "-" + kind.suffix;
    device.adapterName = kind.adapter;
    device.driverType = connected(random) ? applianceDriver::ApplianceDriverType::CONNECTED
                                          : applianceDriver::ApplianceDriverType::NATIVE;
    const std::string capability = kind.capability;
    const std::size_t colon = capability.find(':');
    device.capabilities.emplace_back(capability.substr(0, colon), capability.substr(colon + 1));
    scenario.entities.push_back(device.entityId);
    scenario.devices.push_back(std::move(device));
  }
  return scenario;
}

}  // namespace veranda::reachabilityCache::sim
