# Every library comes from Debian packages installed by scripts/install-deps.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
pkg_check_modules(YAML REQUIRED IMPORTED_TARGET yaml-0.1)
pkg_check_modules(UTF8PROC REQUIRED IMPORTED_TARGET libutf8proc)
pkg_check_modules(LIBCRYPTO REQUIRED IMPORTED_TARGET libcrypto)

if(QUORLIN_BUILD_TESTS)
    find_package(GTest REQUIRED)
endif()
if(QUORLIN_BUILD_BENCHMARKS)
    find_package(benchmark REQUIRED)
endif()
