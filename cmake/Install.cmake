# Install rules: both header trees, three libraries, the CMake package and the pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS velt veltplatform EXPORT VeltTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS policyloader LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY velt/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velt FILES_MATCHING PATTERN "*.h" PATTERN "*Test.h" EXCLUDE)
install(DIRECTORY platform/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/veltplatform
        FILES_MATCHING PATTERN "*.h" PATTERN policyloader EXCLUDE PATTERN "*Test.h" EXCLUDE)
install(EXPORT VeltTargets NAMESPACE Velt:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velt)
configure_package_config_file(packaging/VeltConfig.cmake.in ${CMAKE_BINARY_DIR}/VeltConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velt)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/VeltConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/VeltConfig.cmake ${CMAKE_BINARY_DIR}/VeltConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velt)
configure_file(packaging/velt.pc.in ${CMAKE_BINARY_DIR}/velt.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/velt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
