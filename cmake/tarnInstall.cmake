# Install rules: the public headers under include/tarn/, the library, the CMake
# package (find_package(tarn CONFIG) giving tarn::tarn) and tarn.pc.

include(CMakePackageConfigHelpers)

# Only the headers a user includes, and those they include in turn; the
# internal headers of the soft-float component and of the float units
# (tarn/ieeefloat/internal/) stay private to the build.
set(tarn_public_headers
    exception/exception.h
    ieeefloat/flags.h
    ieeefloat/ieeefloat.h
    lowp/lowp.h
    numbers/bvnumber.h
    numbers/qnumber.h
    swflt/swflt.h)
foreach(header IN LISTS tarn_public_headers)
    get_filename_component(subdir "${header}" DIRECTORY)
    install(FILES "${PROJECT_SOURCE_DIR}/tarn/${header}"
            DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tarn/${subdir}" COMPONENT tarn_development)
endforeach()

install(TARGETS tarn EXPORT tarnTargets
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT tarn_development
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT tarn_runtime
                NAMELINK_COMPONENT tarn_development
        RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tarn_runtime)

set(tarn_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/tarn")
install(EXPORT tarnTargets NAMESPACE tarn:: DESTINATION "${tarn_cmake_dir}"
        COMPONENT tarn_development)
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/tarnConfig.cmake.in"
                              "${PROJECT_BINARY_DIR}/tarnConfig.cmake"
                              INSTALL_DESTINATION "${tarn_cmake_dir}")
# Before 1.0 a minor version may change the interface, so only the same minor
# version is taken as compatible.
write_basic_package_version_file("${PROJECT_BINARY_DIR}/tarnConfigVersion.cmake"
                                 COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/tarnConfig.cmake"
              "${PROJECT_BINARY_DIR}/tarnConfigVersion.cmake"
              "${PROJECT_SOURCE_DIR}/cmake/tarnGMP.cmake"
        DESTINATION "${tarn_cmake_dir}" COMPONENT tarn_development)

# tarn.pc finds its prefix relative to its own folder, so the installed tree
# can be moved, and `cmake --install --prefix` at install time is honoured.
file(RELATIVE_PATH TARN_PC_PREFIX_FROM_PCDIR "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" TARN_PC_PREFIX_FROM_PCDIR "${TARN_PC_PREFIX_FROM_PCDIR}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/tarn.pc.in" "${PROJECT_BINARY_DIR}/tarn.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/tarn.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
        COMPONENT tarn_development)
