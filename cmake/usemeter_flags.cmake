# Per-target compiler settings; nothing here touches global flags.

function(usemeter_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra
        # Record source paths relative to the tree so ERROR location tails read "src/x.cpp:NN".
        -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
endfunction()

function(usemeter_sanitize target)
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
