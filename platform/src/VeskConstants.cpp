#include <aidl/vendor/orvex/hardware/tessaraport/VeskConstants.h>

namespace aidl::vendor::orvex::hardware::tessaraport {

char const* const VeskConstants::VIRTUALCOMM_TOPIC = "virtualcomm";
char const* const VeskConstants::VIRTUALCOMM_VM = "vm";
char const* const VeskConstants::VIRTUALCOMM_RIL0 = "ril0";
char const* const VeskConstants::VIRTUALCOMM_RIL1 = "ril1";
char const* const VeskConstants::VIRTUALCOMM_RIL2 = "ril2";
char const* const VeskConstants::VIRTUALCOMM_IMSRIL0 = "imsril0";
char const* const VeskConstants::VIRTUALCOMM_IMSRIL1 = "imsril1";
char const* const VeskConstants::VIRTUALCOMM_DATASHRED = "datashred";
char const* const VeskConstants::VIRTUALCOMM_PHONE = "phone";
char const* const VeskConstants::VIRTUALCOMM_QUILLEX = "quillex";

}  // namespace aidl::vendor::orvex::hardware::tessaraport
