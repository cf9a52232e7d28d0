# Installation: the shared library, its public headers, a pkg-config file
# and a CMake package giving the imported target moxolefio::moxolefio.
include(CMakePackageConfigHelpers)

install(TARGETS moxolefio EXPORT moxolefioTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

set(MOX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/moxolefio)
install(EXPORT moxolefioTargets NAMESPACE moxolefio::
        DESTINATION ${MOX_CMAKE_DIR})
configure_package_config_file(
    ${CMAKE_CURRENT_LIST_DIR}/moxolefioConfig.cmake.in
    ${CMAKE_BINARY_DIR}/moxolefioConfig.cmake
    INSTALL_DESTINATION ${MOX_CMAKE_DIR})
write_basic_package_version_file(
    ${CMAKE_BINARY_DIR}/moxolefioConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/moxolefioConfig.cmake
              ${CMAKE_BINARY_DIR}/moxolefioConfigVersion.cmake
        DESTINATION ${MOX_CMAKE_DIR})

file(RELATIVE_PATH MOX_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/moxolefio.pc.in
               ${CMAKE_BINARY_DIR}/moxolefio.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/moxolefio.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
