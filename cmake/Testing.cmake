find_package(GTest REQUIRED)
include(GoogleTest)

# sorvalen_add_gtest(NAME <exe> SOURCES <files...> LIBS <libs...> [LABELS <label>]
#                    [TIMEOUT <seconds>] [SERIAL])
# One GoogleTest executable; every test case becomes a CTest test.  SERIAL marks
# tests that share process-wide resources (network namespaces, port 5353).
function(sorvalen_add_gtest)
  # One label: several would not survive gtest_discover_tests' property list.
  cmake_parse_arguments(T "SERIAL" "NAME;TIMEOUT;LABELS" "SOURCES;LIBS" ${ARGN})
  add_executable(${T_NAME} ${T_SOURCES})
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  sorvalen_warnings(${T_NAME})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  set(props TIMEOUT ${T_TIMEOUT})
  if(T_LABELS)
    list(APPEND props LABELS "${T_LABELS}")
  endif()
  if(T_SERIAL)
    list(APPEND props RUN_SERIAL TRUE)
  endif()
  gtest_discover_tests(${T_NAME} DISCOVERY_TIMEOUT 60 PROPERTIES ${props})
endfunction()
