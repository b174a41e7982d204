option(QUORLIN_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" ON)

add_library(quorlin_warnings INTERFACE)
target_compile_options(quorlin_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
    -Woverloaded-virtual -Wimplicit-fallthrough -Wformat=2
    $<$<BOOL:${QUORLIN_WARNINGS_AS_ERRORS}>:-Werror>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(quorlin_warnings INTERFACE
        -Wduplicated-cond -Wduplicated-branches -Wlogical-op)
endif()

# GCC 12 at -O2 and above reports -Wrestrict for `"literal" + std::string` inside
# libstdc++ itself (GCC bug 105329), and -Wmaybe-uninitialized for std::string members of
# brace-initialised aggregates (GCC bug 105562). Both are false positives in library code
# that would fail optimised builds, so keep them out.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(quorlin_warnings INTERFACE -Wno-restrict -Wno-maybe-uninitialized)
endif()

# -Wnull-dereference works only in optimised code, where GCC 12 reports it for libstdc++'s
# own string, vector and tree internals; it is on where the compiler is newer.
if(NOT (CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13))
    target_compile_options(quorlin_warnings INTERFACE -Wnull-dereference)
endif()
