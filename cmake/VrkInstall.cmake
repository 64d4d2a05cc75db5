# Installs the headers, both archives and the CMake package `vrk`
# (targets vrk::core, vrk::default_host, vrk::vrk, and with VRK_BUILD_SHARED
# the shared vrk::core_shared, vrk::default_host_shared, vrk::vrk_shared)
# plus pkg-config files: vrk (static) and vrk-shared.
include(CMakePackageConfigHelpers)

# Every public header, and the internal ones a public header includes; the
# internal headers only the library's own sources use, and the default
# host's but default_host.hpp (what a product can set), stay behind
# (installed_headers_compile_alone checks the cut).
install(DIRECTORY ${VRK_SRC}/vrk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.hpp"
        PATTERN "host/*.hpp" EXCLUDE
        PATTERN "stream_region.hpp" EXCLUDE
        PATTERN "bad_alloc_text.hpp" EXCLUDE
        PATTERN "exception_source.hpp" EXCLUDE)
install(FILES ${VRK_SRC}/vrk/host/default_host.hpp
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vrk/host)
set(VRK_INSTALL_TARGETS vrk_core vrk_default_host vrk_vrk)
if(VRK_BUILD_SHARED)
  list(APPEND VRK_INSTALL_TARGETS vrk_core_shared vrk_default_host_shared vrk_vrk_shared)
endif()
install(TARGETS ${VRK_INSTALL_TARGETS} EXPORT vrkTargets
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
              ${CMAKE_CURRENT_LIST_DIR}/VrkLinkNeeded.cmake
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
if(VRK_BUILD_SHARED)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/vrk-shared.pc.in
                 ${CMAKE_CURRENT_BINARY_DIR}/vrk-shared.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vrk-shared.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
