# Finds Android's libutils as Debian packages it (android-libutils-dev).
#
# Result: Libutils_FOUND and the imported target Android::utils.

find_path(Libutils_INCLUDE_DIR utils/RefBase.h PATH_SUFFIXES android)
find_library(Libutils_LIBRARY utils PATH_SUFFIXES ${CMAKE_LIBRARY_ARCHITECTURE}/android android)
mark_as_advanced(Libutils_INCLUDE_DIR Libutils_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Libutils
    REQUIRED_VARS Libutils_LIBRARY Libutils_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "install the Debian package android-libutils-dev")

if(Libutils_FOUND AND NOT TARGET Android::utils)
    add_library(Android::utils SHARED IMPORTED)
    set_target_properties(Android::utils PROPERTIES
        IMPORTED_LOCATION ${Libutils_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${Libutils_INCLUDE_DIR})
endif()
