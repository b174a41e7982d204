option(QUORLIN_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" ON)

add_library(quorlin_warnings INTERFACE)
target_compile_options(quorlin_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
    -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough
    $<$<BOOL:${QUORLIN_WARNINGS_AS_ERRORS}>:-Werror>)

# GCC 12 at -O2 and above reports -Wrestrict for `"literal" + std::string` inside
# libstdc++ itself (GCC bug 105329); it is a false positive, so keep it out of the build.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(quorlin_warnings INTERFACE -Wno-restrict)
endif()
