# Warnings are errors in our own code, unless it is built as a part of something else, with a
# compiler that we have not seen. One sanitizer applies to the whole build or to nothing.

function(vesk_compile_options target)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wconversion
        $<$<BOOL:${PROJECT_IS_TOP_LEVEL}>:-Werror>)
endfunction()

if(VESK_SANITIZE STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(VESK_SANITIZE STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(NOT VESK_SANITIZE STREQUAL "none")
    message(FATAL_ERROR "VESK_SANITIZE is '${VESK_SANITIZE}'; it must be none, address or thread")
endif()

if(VESK_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
