option(QUORLIN_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" ON)

add_library(quorlin_warnings INTERFACE)
target_compile_options(quorlin_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
    -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough
    $<$<BOOL:${QUORLIN_WARNINGS_AS_ERRORS}>:-Werror>)
