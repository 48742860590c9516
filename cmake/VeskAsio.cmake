# Standalone Asio, which the parts that do I/O are made with. A target of its own, so that whoever
# uses them gets its options as well.

find_path(Asio_INCLUDE_DIR asio/io_context.hpp)
mark_as_advanced(Asio_INCLUDE_DIR)
if(NOT Asio_INCLUDE_DIR)
    message(FATAL_ERROR "vesk: standalone Asio was not found; install the Debian package "
                        "libasio-dev, or set VESK_BUILD_TOOL=OFF to go without the vesk command")
endif()
add_library(vesk_asio INTERFACE)
target_include_directories(vesk_asio SYSTEM INTERFACE ${Asio_INCLUDE_DIR})
target_compile_definitions(vesk_asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
target_link_libraries(vesk_asio INTERFACE Threads::Threads)
