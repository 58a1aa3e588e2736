#include "applianceDriver/ApplianceDriver.h"
#include "applianceDriver/SimulatedApplianceDriver.h"

namespace veranda::applianceDriver {

IUnifiedApplianceDriver& getUnifiedApplianceDriver() { return getSimulatedApplianceDriver(); }

}  // namespace veranda::applianceDriver
