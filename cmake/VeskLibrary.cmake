# What the libraries have in common: shared or static, version, and how they find each other.

if(VESK_SHARED)
    set(VESK_LIBRARY_TYPE SHARED)
else()
    set(VESK_LIBRARY_TYPE STATIC)
endif()

function(vesk_library target)
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        POSITION_INDEPENDENT_CODE ON
        INSTALL_RPATH "$ORIGIN"
        INSTALL_RPATH_USE_LINK_PATH ON)
endfunction()

# Leaves to the dynamic symbols what the map names. Not under a sanitizer: it wants the type
# information of the standard library's templates to be one and the same in the whole process.
function(vesk_export_only target map)
    if(VESK_SHARED AND VESK_SANITIZE STREQUAL "none")
        target_link_options(${target} PRIVATE LINKER:--version-script=${map})
        set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map})
    endif()
endfunction()
