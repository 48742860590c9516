#pragma once

namespace aidl::vendor::orvex::hardware::tessaraport {

/** Host stand-in for the communication HAL's names of topic 1 and its first nine businesses. */
class VeskConstants {
public:
    static char const* const VIRTUALCOMM_TOPIC;
    static char const* const VIRTUALCOMM_VM;
    static char const* const VIRTUALCOMM_RIL0;
    static char const* const VIRTUALCOMM_RIL1;
    static char const* const VIRTUALCOMM_RIL2;
    static char const* const VIRTUALCOMM_IMSRIL0;
    static char const* const VIRTUALCOMM_IMSRIL1;
    static char const* const VIRTUALCOMM_DATASHRED;
    static char const* const VIRTUALCOMM_PHONE;
    static char const* const VIRTUALCOMM_QUILLEX;
};

}  // namespace aidl::vendor::orvex::hardware::tessaraport
