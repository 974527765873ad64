# Install rules: both header trees, three libraries, the CMake package, the pkg-config file, and the units for systemd.
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

# What systemd needs to run the mail gateway. Paths below the prefix that systemd searches, /usr and /usr/local alike.
set(VELT_SERVICE_TYPE exec)
set(VELT_SERVICE_TYPE_REMARK "Built without libsystemd: nobody tells when the gateway is ready.")
set(VELT_RMGRD_TYPE_REMARK "Built without libsystemd: nobody tells when it listens.")
if(SYSTEMD_FOUND)
  set(VELT_SERVICE_TYPE notify)
  set(VELT_SERVICE_TYPE_REMARK "Ready when a worker accepts: it is the worker that says so, not the main process.")
  set(VELT_RMGRD_TYPE_REMARK "Ready when it listens.")
endif()
foreach(unit velt-rmgrd velt-scannerd velt-smtp velt-smtp-retryer)
  configure_file(packaging/systemd/${unit}.service.in ${CMAKE_BINARY_DIR}/${unit}.service @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/${unit}.service DESTINATION lib/systemd/system)
endforeach()
install(FILES packaging/systemd/velt-sysusers.conf DESTINATION lib/sysusers.d RENAME velt.conf)
install(FILES packaging/systemd/velt-tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME velt.conf)
configure_file(packaging/systemd/interception-netfilter.conf.in ${CMAKE_BINARY_DIR}/interception-netfilter.conf @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/interception-netfilter.conf packaging/systemd/interception-device.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/velt/systemd)
install(FILES packaging/nftables/velt-tproxy.nft packaging/nftables/velt-redirect.nft
        DESTINATION ${CMAKE_INSTALL_DATADIR}/velt/nftables)
install(PROGRAMS packaging/nftables/velt-routes DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/velt)
install(PROGRAMS packaging/systemd/replace-workers DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/velt)
install(DIRECTORY packaging/schemas DESTINATION ${CMAKE_INSTALL_DATADIR}/velt FILES_MATCHING PATTERN "*.xsd")
install(DIRECTORY packaging/samples DESTINATION ${CMAKE_INSTALL_DATADIR}/velt)
install(FILES docs/operating.md docs/policy.md docs/smtp.md docs/velt-rmgrd.md docs/velt-scannerd.md docs/settings.md docs/events.md
              docs/interception.md docs/scaling.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/examples/scaling DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples USE_SOURCE_PERMISSIONS)
