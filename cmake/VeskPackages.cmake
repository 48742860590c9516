# Debian packages, made by "cpack -G DEB" in the build folder. They install below /usr.

set(CPACK_PACKAGE_NAME vesk)
set(CPACK_PACKAGE_VENDOR "the libvesk authors")
set(CPACK_PACKAGE_CONTACT "the libvesk authors <libvesk@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
# Which packages the programs and libraries need; those of this tree are named below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
foreach(library vesk quillexutils vesk_hostkit vesk_client)
    get_target_property(library_dir ${library} BINARY_DIR)
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${library_dir})
endforeach()

set(runtime libvesk${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/triggers)

set(same_runtime "${runtime} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvesk-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${same_runtime}")
if(VESK_WITH_LIBUTILS)
    string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ", android-libutils-dev")
endif()
set(CPACK_DEBIAN_TESTKIT_PACKAGE_NAME libvesk-testkit-dev)
set(CPACK_DEBIAN_TESTKIT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TESTKIT_PACKAGE_DEPENDS "libvesk-dev (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME vesk)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${same_runtime}")

set(CPACK_COMPONENTS_ALL runtime development hostkit hostkit_asio client testkit tool)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
include(CPack)
# The kits are for whoever develops a host or a client.
foreach(part development hostkit hostkit_asio client)
    cpack_add_component(${part} GROUP development)
endforeach()
foreach(part runtime testkit tool)
    cpack_add_component(${part} GROUP ${part})
endforeach()
set(descriptions
    runtime "the libraries that programs need to run"
    development "headers, and what CMake and pkg-config need, for a host of one's own"
    testkit "fake clock, recorded callback and scripted peer, for the tests of a host"
    tool "a host, its clients, and what shows a channel's traffic")
while(descriptions)
    list(POP_FRONT descriptions part text)
    cpack_add_component_group(${part} DESCRIPTION "${text}")
endwhile()
