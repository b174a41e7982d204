option(QUORLIN_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)

if(QUORLIN_SANITIZE)
    target_compile_options(quorlin_options INTERFACE
        -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_link_options(quorlin_options INTERFACE -fsanitize=address,undefined)
endif()

# Coverage for libFuzzer in everything the fuzz targets link (Clang only).
if(QUORLIN_BUILD_FUZZERS)
    target_compile_options(quorlin_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
