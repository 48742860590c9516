# The platform's own headers and libraries, for a build with the NDK's toolchain file. Where they
# are is said by a pair of variables each, which may hold lists.
#
# Result: the targets vesk_refbase and quillexutils, as the stand-ins make them elsewhere.

if(VESK_BUILD_TOOL OR VESK_BUILD_TESTS)
    message(FATAL_ERROR "vesk: the tool and the tests need the stand-ins, which a build for "
                        "Android leaves out; set VESK_BUILD_TOOL=OFF and VESK_BUILD_TESTS=OFF")
endif()

function(vesk_platform_library target name header library)
    set(VESK_${name}_INCLUDE_DIR "" CACHE STRING "Where <${header}> and what it includes are")
    set(VESK_${name}_LIBRARY "" CACHE STRING "The platform's ${library}")
    set(found OFF)
    foreach(directory ${VESK_${name}_INCLUDE_DIR})
        if(EXISTS ${directory}/${header})
            set(found ON)
        endif()
    endforeach()
    if(NOT found)
        message(FATAL_ERROR "vesk: VESK_${name}_INCLUDE_DIR is '${VESK_${name}_INCLUDE_DIR}'; "
                            "it must hold the directory, an absolute path, with ${header}")
    endif()
    set(files ${VESK_${name}_LIBRARY})
    list(LENGTH files found)
    foreach(file ${files})
        if(NOT EXISTS ${file})
            set(found OFF)
        endif()
    endforeach()
    if(NOT found)
        message(FATAL_ERROR "vesk: VESK_${name}_LIBRARY is '${VESK_${name}_LIBRARY}'; "
                            "it must hold the absolute path of the platform's ${library}")
    endif()
    target_include_directories(${target} SYSTEM INTERFACE ${VESK_${name}_INCLUDE_DIR})
    target_link_libraries(${target} INTERFACE ${VESK_${name}_LIBRARY})
endfunction()

add_library(vesk_refbase INTERFACE)
vesk_platform_library(vesk_refbase UTILS utils/RefBase.h libutils.so)
add_library(quillexutils INTERFACE)
vesk_platform_library(quillexutils QUILLEXUTILS quillex/Log.h libquillexutils.so)
vesk_platform_library(quillexutils CONSTANTS
    aidl/vendor/orvex/hardware/tessaraport/VeskConstants.h
    vendor.orvex.hardware.tessaraport-V2-ndk.so)
message(STATUS "vesk: built for Android, against the platform's own libraries")
