# Language level and build-wide switches, carried by one INTERFACE target that every
# project target links PRIVATE, so nothing touches CMAKE_CXX_FLAGS.
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

add_library(quorlin_options INTERFACE)
target_compile_features(quorlin_options INTERFACE cxx_std_20)
set(CMAKE_CXX_EXTENSIONS OFF)
target_compile_definitions(quorlin_options INTERFACE
    QUORLIN_VERSION="${PROJECT_VERSION}"
    QUORLIN_SOURCE_RESOURCES_DIR="${PROJECT_SOURCE_DIR}/resources")
