# Installation: the filter and its runtime layer, their public headers,
# kln2txt, a pkg-config file and a CMake package, so that a host program
# finds them with find_package(vtq_txkln) or pkg-config vtq_txkln.
include(CMakePackageConfigHelpers)

set(KLN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vtq_txkln)

# Installed, the imported targets are vtq::txkln and vtq::rt, the names the
# build itself uses.
set_target_properties(vtq_txkln PROPERTIES EXPORT_NAME txkln INSTALL_RPATH "$ORIGIN")
set_target_properties(vtq_rt PROPERTIES EXPORT_NAME rt)
set_target_properties(kln2txt PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

install(TARGETS vtq_txkln vtq_rt EXPORT vtq_txklnTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# vtq_rt.h too: a host may build a runtime layer of its own against it.
install(FILES include/vtq_txkln.h include/vtq_txkln_ext.h include/vtq_options.h include/vtq_stream.h
  platform/vtq_rt.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS kln2txt RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(EXPORT vtq_txklnTargets NAMESPACE vtq:: DESTINATION ${KLN_CMAKE_DIR})
configure_package_config_file(cmake/vtq_txklnConfig.cmake.in ${PROJECT_BINARY_DIR}/vtq_txklnConfig.cmake
  INSTALL_DESTINATION ${KLN_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vtq_txklnConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vtq_txklnConfig.cmake ${PROJECT_BINARY_DIR}/vtq_txklnConfigVersion.cmake
  DESTINATION ${KLN_CMAKE_DIR})

# The pkg-config file finds the prefix from its own place, so that the
# installed tree may be moved (or installed with --prefix).
file(RELATIVE_PATH KLN_PC_TO_PREFIX /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
configure_file(cmake/vtq_txkln.pc.in ${PROJECT_BINARY_DIR}/vtq_txkln.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vtq_txkln.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
