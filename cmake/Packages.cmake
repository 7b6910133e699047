# Debian packages, one per install component of cmake/Install.cmake:
#   cmake -S . -B build/deb -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
#     -DSORVALEN_BUILD_TESTS=OFF -DSORVALEN_BUILD_BENCH=OFF
#   cmake --build build/deb && (cd build/deb && cpack -G DEB)
# Built from a /usr configuration the files carry no RUNPATH (SORVALEN_RELOCATABLE
# is off), and the libraries go to the multiarch folder.
#
# Each library has its own soname, so each has its own runtime package named
# after it: the two can then move to a new soname, and be installed side by
# side with the next, independently.
set(SORVALEN_DEB_MAINTAINER "sorvalen mDNS search maintainers <maintainers@sorvalen.example>"
  CACHE STRING "Maintainer field of the Debian packages")
set(SORVALEN_DEB_RELEASE 1)
set(sorvalen_deb_version ${PROJECT_VERSION}-${SORVALEN_DEB_RELEASE})
set(sorvalen_deb_dir ${PROJECT_SOURCE_DIR}/packaging/deb)

# The packages' changelog names the version they are built as, or the build
# stops here rather than shipping a changelog that lags behind.
file(STRINGS ${sorvalen_deb_dir}/changelog sorvalen_deb_latest LIMIT_COUNT 1)
if(NOT sorvalen_deb_latest MATCHES "^sorvalen-mdns \\(${sorvalen_deb_version}\\) ")
  message(FATAL_ERROR "packaging/deb/changelog: the latest entry is not ${sorvalen_deb_version}")
endif()

set(sorvalen_deb_mdns_runtime libmdns0.2)
set(sorvalen_deb_search_runtime libsorvalen-mdns-search2)
set(sorvalen_deb_development libsorvalen-mdns-search-dev)
set(sorvalen_deb_tool sorvalen-mdns)
set(sorvalen_deb_components mdns_runtime search_runtime development)
if(TARGET sorvalen-mdns)
  list(APPEND sorvalen_deb_components tool)
endif()

# Debian's copyright and changelog in each package's own doc folder; only
# package builds and per-component installs take them, not a plain install.
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/changelog.Debian.gz
  COMMAND gzip -9nc ${sorvalen_deb_dir}/changelog > ${PROJECT_BINARY_DIR}/changelog.Debian.gz
  DEPENDS ${sorvalen_deb_dir}/changelog)
add_custom_target(sorvalen_deb_changelog ALL DEPENDS ${PROJECT_BINARY_DIR}/changelog.Debian.gz)
foreach(component IN LISTS sorvalen_deb_components)
  install(FILES ${sorvalen_deb_dir}/copyright ${PROJECT_BINARY_DIR}/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${sorvalen_deb_${component}}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${sorvalen_deb_${component}})
endforeach()

set(CPACK_GENERATOR DEB)
if(NOT SORVALEN_RELOCATABLE AND CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(CPACK_SORVALEN_SYSTEM_BUILD ON)
endif()
set(CPACK_PROJECT_CONFIG_FILE ${sorvalen_deb_dir}/cpack_project.cmake)
set(CPACK_PACKAGE_NAME sorvalen-mdns)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${sorvalen_deb_components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${SORVALEN_DEB_RELEASE})
set(CPACK_DEBIAN_PACKAGE_SOURCE sorvalen-mdns)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${SORVALEN_DEB_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The libraries are not installed while they are packaged, so dpkg-shlibdeps
# finds them in the build tree, knows no package of theirs and leaves them out:
# the dependencies on them are named below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/mdns)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_MDNS_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_MDNS_RUNTIME_DESCRIPTION "multicast DNS querier library
libmdns asks and listens for multicast DNS (RFC 6762) and DNS-SD (RFC 6763)
records on every usable interface and never answers. All of its state lives
in storage the caller passes in; it never allocates and never blocks.")
set(CPACK_DEBIAN_MDNS_RUNTIME_PACKAGE_CONTROL_EXTRA ${sorvalen_deb_dir}/triggers)

set(CPACK_DEBIAN_SEARCH_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_SEARCH_RUNTIME_DESCRIPTION "library that finds devices by mDNS service discovery
libsorvalen_mdns_search browses for DNS-SD service instances over multicast
DNS (or unicast DNS for other domains than local.), keeps those whose name
contains one of the wanted words, resolves them and lists their IPv4 and IPv6
endpoints. It also asks a single device for the name behind its address.")
set(CPACK_DEBIAN_SEARCH_RUNTIME_PACKAGE_DEPENDS "${sorvalen_deb_mdns_runtime} (>= ${sorvalen_deb_version})")
set(CPACK_DEBIAN_SEARCH_RUNTIME_PACKAGE_CONTROL_EXTRA ${sorvalen_deb_dir}/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "development files of the sorvalen mDNS search library
Headers of libsorvalen_mdns_search (sorvalen/) and of libmdns (mdns/), the
CMake package sorvalen_mdns_search (target sorvalen::mdns_search) and the
pkg-config file sorvalen_mdns_search.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${sorvalen_deb_search_runtime} (= ${sorvalen_deb_version}), ${sorvalen_deb_mdns_runtime} (= ${sorvalen_deb_version})")

set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOL_DESCRIPTION "command-line search for devices by mDNS service discovery
sorvalen-mdns searches the local link (or another DNS domain) for instances of
a DNS-SD service type and prints one line per endpoint that appears, changes
or leaves, as text or JSON. It also asks a single device for the name behind
its address.")
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS
  "${sorvalen_deb_search_runtime} (>= ${sorvalen_deb_version}), ${sorvalen_deb_mdns_runtime} (>= ${sorvalen_deb_version})")

include(CPack)
