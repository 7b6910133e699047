# Read by cpack before it packages: a relocatable build (RUNPATHs, libraries
# outside the multiarch folder) would make packages that lintian rejects.
if(NOT CPACK_SORVALEN_SYSTEM_BUILD)
  message(FATAL_ERROR "this build is relocatable, not for /usr: build the packages with scripts/build-packages.sh")
endif()
