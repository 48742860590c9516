# The installed package: headers, libraries, the vesk command, the kits, and what
# CMake and pkg-config need to find them. Nothing in it depends on where it was built or is
# installed.

include(CMakePackageConfigHelpers)

# What is for programs that are built against the library, unless it says otherwise.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vesk)
get_target_property(refbase_libraries vesk_refbase INTERFACE_LINK_LIBRARIES)
set(VESK_WITH_LIBUTILS OFF)
if("Android::utils" IN_LIST refbase_libraries)
    set(VESK_WITH_LIBUTILS ON)
endif()

# Headers. The stand-in for libutils gets a folder of its own, so that it hides no libutils that
# is installed in the same place.
set(refbase_dir ${CMAKE_INSTALL_INCLUDEDIR}/vesk/refbase)
install(DIRECTORY include/ platform/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(NOT VESK_WITH_LIBUTILS)
    install(DIRECTORY platform/refbase/include/ DESTINATION ${refbase_dir})
    target_include_directories(vesk_refbase INTERFACE $<INSTALL_INTERFACE:${refbase_dir}>)
endif()

# Libraries and CMake's targets.
set_target_properties(vesk_refbase PROPERTIES EXPORT_NAME refbase)
set_target_properties(vesk_testkit PROPERTIES EXPORT_NAME testkit)
install(TARGETS vesk quillexutils vesk_refbase EXPORT vesk
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT vesk FILE veskTargets.cmake NAMESPACE vesk:: DESTINATION ${package_dir})

configure_package_config_file(cmake/veskConfig.cmake.in veskConfig.cmake
    INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(veskConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/veskConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/veskConfigVersion.cmake
        DESTINATION ${package_dir})
if(VESK_WITH_LIBUTILS)
    install(FILES cmake/FindLibutils.cmake DESTINATION ${package_dir})
endif()

# The kits, each in a component of its own: the library does without them, and most users too.
function(install_kit kit)  # and targets that it needs and nobody else installs
    set_target_properties(vesk_${kit} PROPERTIES EXPORT_NAME ${kit})
    install(TARGETS vesk_${kit} ${ARGN} EXPORT vesk-${kit}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT ${kit}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${kit}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    install(EXPORT vesk-${kit} FILE vesk-${kit}Targets.cmake NAMESPACE vesk::
        DESTINATION ${package_dir} COMPONENT ${kit})
    install(DIRECTORY ${kit}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT ${kit})
endfunction()
install_kit(hostkit)
install_kit(client)
install_kit(testkit)
if(TARGET vesk_hostkit_asio)
    set_target_properties(vesk_asio PROPERTIES EXPORT_NAME asio)
    install_kit(hostkit_asio vesk_asio)
endif()

# pkg-config. Where all is static, whoever links the library links what it consists of.
file(RELATIVE_PATH VESK_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" VESK_PC_PREFIX ${VESK_PC_PREFIX})
set(VESK_PC_CFLAGS "-I\${includedir}")
set(VESK_PC_LIBS "-L\${libdir} -lvesk")
if(NOT VESK_SHARED)
    string(APPEND VESK_PC_LIBS " -lquillexutils")
endif()
if(VESK_WITH_LIBUTILS)
    cmake_path(GET Libutils_LIBRARY PARENT_PATH libutils_dir)
    string(APPEND VESK_PC_CFLAGS " -I${Libutils_INCLUDE_DIR}")
    string(APPEND VESK_PC_LIBS " -L${libutils_dir} -Wl,-rpath,${libutils_dir} -lutils")
else()
    string(APPEND VESK_PC_CFLAGS " -I\${includedir}/vesk/refbase")
endif()
configure_file(cmake/vesk.pc.in vesk.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vesk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
function(install_kit_pc kit)
    configure_file(cmake/vesk-${kit}.pc.in vesk-${kit}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vesk-${kit}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT ${kit})
endfunction()
install_kit_pc(hostkit)
install_kit_pc(client)
if(TARGET vesk_hostkit_asio)
    install_kit_pc(hostkit_asio)
endif()

if(TARGET vesk_tool)
    file(RELATIVE_PATH libraries_from_tool /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
    set_target_properties(vesk_tool PROPERTIES
        INSTALL_RPATH "$ORIGIN/${libraries_from_tool}"
        INSTALL_RPATH_USE_LINK_PATH ON)
    install(TARGETS vesk_tool COMPONENT tool)
    install(FILES tools/wireshark/vesk.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/vesk COMPONENT tool)
    install(FILES $<TARGET_FILE_DIR:vesk_tool>/vesk.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
    install(FILES $<TARGET_FILE_DIR:vesk_tool>/vesk.bash RENAME vesk
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
    install(FILES tools/systemd/vesk-host@.service DESTINATION lib/systemd/system COMPONENT tool)
    install(FILES tools/systemd/vesk-host.env DESTINATION ${CMAKE_INSTALL_DATADIR}/vesk
        COMPONENT tool)
endif()

# As they stand in the tree, so that the links among them hold; but the README is one that names
# only what is installed.
configure_file(cmake/README.installed.md.in README.installed.md @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/README.installed.md RENAME README.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES LICENSE CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs examples abi DESTINATION ${CMAKE_INSTALL_DOCDIR}
        PATTERN Doxyfile EXCLUDE)

if(VESK_SHARED AND TARGET vesk_tool AND PROJECT_IS_TOP_LEVEL)
    include(VeskPackages)
endif()
