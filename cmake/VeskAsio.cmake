# Standalone Asio, for the parts of a host that do I/O. A target of its own, so that whoever uses
# them gets its options as well; there is none where Asio is not installed.

find_path(Asio_INCLUDE_DIR asio/io_context.hpp)
mark_as_advanced(Asio_INCLUDE_DIR)
if(Asio_INCLUDE_DIR)
    add_library(vesk_asio INTERFACE)
    target_include_directories(vesk_asio
        SYSTEM INTERFACE $<BUILD_INTERFACE:${Asio_INCLUDE_DIR}>)
    target_compile_definitions(vesk_asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
    target_link_libraries(vesk_asio INTERFACE Threads::Threads)
elseif(VESK_BUILD_TOOL)
    message(FATAL_ERROR "vesk: standalone Asio was not found; install the Debian package "
                        "libasio-dev, or set VESK_BUILD_TOOL=OFF to go without the vesk command")
else()
    message(STATUS "vesk: vesk::hostkit_asio is left out; it needs the Debian package libasio-dev")
endif()
