# Installs the headers, both archives and the CMake package `vrk`
# (targets vrk::core, vrk::default_host, vrk::vrk) plus a pkg-config file.
include(CMakePackageConfigHelpers)

install(DIRECTORY ${VRK_SRC}/vrk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.hpp")
install(TARGETS vrk_core vrk_default_host vrk_vrk EXPORT vrkTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT vrkTargets NAMESPACE vrk:: FILE vrkTargets.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vrk)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/vrkConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/vrkConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vrk)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/vrkConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vrkConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/vrkConfigVersion.cmake
              ${CMAKE_CURRENT_LIST_DIR}/FindVrkLibdw.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vrk)
# The archives are static, so a consumer links their dependencies itself:
# libdw goes into Requires (not Requires.private, which plain --libs skips).
if(VRK_WITH_LIBDW)
  set(VRK_PC_REQUIRES "Requires: libdw")
else()
  set(VRK_PC_REQUIRES "")
endif()
# Relocatable: the prefix is found from where the .pc file lies, so the
# package works wherever `cmake --install --prefix` puts it.
file(RELATIVE_PATH VRK_PC_TO_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
string(REGEX REPLACE "/$" "" VRK_PC_TO_PREFIX "${VRK_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/vrk.pc.in ${CMAKE_CURRENT_BINARY_DIR}/vrk.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vrk.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
