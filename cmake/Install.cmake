include(CMakePackageConfigHelpers)

set_target_properties(sorvalen_mdns_search PROPERTIES EXPORT_NAME mdns_search)
set(SORVALEN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/sorvalen_mdns_search)

install(TARGETS sorvalen_mdns_search mdns mdns_headers
  EXPORT sorvalen_mdns_search_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/sorvalen DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/mdns/include/mdns DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT sorvalen_mdns_search_targets
  NAMESPACE sorvalen::
  FILE sorvalen_mdns_search-targets.cmake
  DESTINATION ${SORVALEN_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/sorvalen_mdns_search-config.cmake.in
  ${PROJECT_BINARY_DIR}/sorvalen_mdns_search-config.cmake
  INSTALL_DESTINATION ${SORVALEN_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/sorvalen_mdns_search-config-version.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/sorvalen_mdns_search-config.cmake
  ${PROJECT_BINARY_DIR}/sorvalen_mdns_search-config-version.cmake
  DESTINATION ${SORVALEN_CMAKE_DIR})

# The .pc file finds the prefix from its own place, so an installed tree can move.
file(RELATIVE_PATH SORVALEN_PC_TO_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" SORVALEN_PC_TO_PREFIX "${SORVALEN_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/sorvalen_mdns_search.pc.in
  ${PROJECT_BINARY_DIR}/sorvalen_mdns_search.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sorvalen_mdns_search.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
