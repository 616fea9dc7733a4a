# Per-target compiler settings; nothing here touches global flags.

function(usemeter_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra
        # Record source paths relative to the tree so ERROR location tails read "src/x.cpp:NN".
        -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
endfunction()

if(USEMETER_BUILD_FUZZERS)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "USEMETER_BUILD_FUZZERS needs clang (CXX=clang++-14)")
    endif()
    set(USEMETER_SANITIZE address)
endif()

function(usemeter_sanitize target)
    if(USEMETER_BUILD_FUZZERS)
        # Coverage feedback for libFuzzer in everything the fuzz targets reach; only the fuzz
        # targets themselves link the fuzzer runtime and its main.
        target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
    endif()
    if(USEMETER_SANITIZE STREQUAL "address")
        set(flags -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    elseif(USEMETER_SANITIZE STREQUAL "thread")
        set(flags -fsanitize=thread)
    else()
        return()
    endif()
    target_compile_options(${target} PRIVATE ${flags})
    target_link_options(${target} PUBLIC ${flags})
endfunction()
