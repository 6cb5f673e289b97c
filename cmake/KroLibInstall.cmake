# Installation: library, public headers under include/krolib/, the CMake
# package KroLibEnhancement (target KroLib::Enhancement) and the pkg-config
# file krolib-enhancement.pc.

include(CMakePackageConfigHelpers)

set(KROLIB_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KroLibEnhancement)

install(TARGETS KroLibEnhancement
  EXPORT KroLibEnhancementTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/krolib)

install(EXPORT KroLibEnhancementTargets
  NAMESPACE KroLib::
  DESTINATION ${KROLIB_CMAKE_DIR})

configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/KroLibEnhancementConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KroLibEnhancementConfig.cmake
  INSTALL_DESTINATION ${KROLIB_CMAKE_DIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/KroLibEnhancementConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/KroLibEnhancementConfig.cmake
  ${PROJECT_BINARY_DIR}/KroLibEnhancementConfigVersion.cmake
  DESTINATION ${KROLIB_CMAKE_DIR})

# The .pc file locates the prefix from its own folder, so it stays right when
# the prefix is chosen at install time (cmake --install build --prefix P).
file(RELATIVE_PATH KROLIB_PC_TO_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
string(REGEX REPLACE "/$" "" KROLIB_PC_TO_PREFIX "${KROLIB_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/krolib-enhancement.pc.in
               ${PROJECT_BINARY_DIR}/krolib-enhancement.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/krolib-enhancement.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The bundled thermal data (with its licence), which `kroenhance demo` uses.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/data/thermal
        DESTINATION ${CMAKE_INSTALL_DATADIR}/krolib/data)
