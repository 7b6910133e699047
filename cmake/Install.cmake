include(CMakePackageConfigHelpers)

# Each file goes to the component of the Debian package that ships it
# (cmake/Packages.cmake): one runtime component per shared library, since each
# has a soname of its own, then the development files and the tool.
set_target_properties(sorvalen_mdns_search PROPERTIES EXPORT_NAME mdns_search)
set(SORVALEN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/sorvalen_mdns_search)

install(TARGETS mdns EXPORT sorvalen_mdns_search_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT mdns_runtime NAMELINK_COMPONENT development)
install(TARGETS sorvalen_mdns_search EXPORT sorvalen_mdns_search_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT search_runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS mdns_headers EXPORT sorvalen_mdns_search_targets INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/sorvalen DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/mdns/include/mdns DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)

install(EXPORT sorvalen_mdns_search_targets
  NAMESPACE sorvalen::
  FILE sorvalen_mdns_search-targets.cmake
  DESTINATION ${SORVALEN_CMAKE_DIR}
  COMPONENT development)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/sorvalen_mdns_search-config.cmake.in
  ${PROJECT_BINARY_DIR}/sorvalen_mdns_search-config.cmake
  INSTALL_DESTINATION ${SORVALEN_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/sorvalen_mdns_search-config-version.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/sorvalen_mdns_search-config.cmake
  ${PROJECT_BINARY_DIR}/sorvalen_mdns_search-config-version.cmake
  DESTINATION ${SORVALEN_CMAKE_DIR}
  COMPONENT development)

if(SORVALEN_RELOCATABLE)
  # The .pc file finds the prefix from its own place, so an installed tree can move.
  file(RELATIVE_PATH SORVALEN_PC_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
  string(REGEX REPLACE "/$" "" SORVALEN_PC_PREFIX "\${pcfiledir}/${SORVALEN_PC_PREFIX}")
else()
  # Named, so that pkg-config recognises /usr/include and /usr/lib as the
  # system's own and leaves them out of the flags.
  set(SORVALEN_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/sorvalen_mdns_search.pc.in
  ${PROJECT_BINARY_DIR}/sorvalen_mdns_search.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sorvalen_mdns_search.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)
