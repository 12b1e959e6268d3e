# Defines tarn::gmp, the GMP integer library with its C++ class interface
# (gmpxx), which tarn's public headers include. The library's own build and
# the installed CMake package both use this file, so a consumer finds GMP the
# way the library was built against it: through pkg-config where it is
# available, otherwise by searching for the headers and libraries directly
# (GMP_ROOT or CMAKE_PREFIX_PATH point the search elsewhere).
#
# Sets tarn_GMP_FOUND; the caller decides whether a miss is fatal.

if(TARGET tarn::gmp)
    set(tarn_GMP_FOUND TRUE)
    return()
endif()

find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
    pkg_check_modules(tarn_GMPXX QUIET IMPORTED_TARGET gmpxx gmp)
endif()

if(tarn_GMPXX_FOUND)
    add_library(tarn::gmp INTERFACE IMPORTED)
    target_link_libraries(tarn::gmp INTERFACE PkgConfig::tarn_GMPXX)
    set(tarn_GMP_FOUND TRUE)
    return()
endif()

find_path(tarn_GMPXX_INCLUDE_DIR gmpxx.h HINTS ${GMP_ROOT} PATH_SUFFIXES include)
find_library(tarn_GMPXX_LIBRARY gmpxx HINTS ${GMP_ROOT} PATH_SUFFIXES lib)
find_library(tarn_GMP_LIBRARY gmp HINTS ${GMP_ROOT} PATH_SUFFIXES lib)
mark_as_advanced(tarn_GMPXX_INCLUDE_DIR tarn_GMPXX_LIBRARY tarn_GMP_LIBRARY)

if(tarn_GMPXX_INCLUDE_DIR AND tarn_GMPXX_LIBRARY AND tarn_GMP_LIBRARY)
    add_library(tarn::gmp INTERFACE IMPORTED)
    target_include_directories(tarn::gmp INTERFACE "${tarn_GMPXX_INCLUDE_DIR}")
    # gmpxx calls into gmp, so it must come first on a static link line.
    target_link_libraries(tarn::gmp INTERFACE "${tarn_GMPXX_LIBRARY}" "${tarn_GMP_LIBRARY}")
    set(tarn_GMP_FOUND TRUE)
else()
    set(tarn_GMP_FOUND FALSE)
endif()
