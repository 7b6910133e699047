#pragma once

#include <gtest/gtest.h>

#include <string>

namespace sorvalen::test {

// Empty when this process can build virtual LANs, else why not.
std::string virtual_lan_unavailable_reason();
// CI=true: a test that cannot run there is a failure, not a skip.
bool running_in_ci();

}  // namespace sorvalen::test

// First statement of every test that needs a VirtualLan: skips the test
// without root (fails it in CI, where a skip would hide a gap).
#define SV_REQUIRE_VIRTUAL_LAN()                                                       \
  do {                                                                                 \
    const std::string sv_reason_ = ::sorvalen::test::virtual_lan_unavailable_reason(); \
    if (!sv_reason_.empty()) {                                                         \
      if (::sorvalen::test::running_in_ci())                                           \
        FAIL() << sv_reason_;                                                          \
      GTEST_SKIP() << sv_reason_;                                                      \
    }                                                                                  \
  } while (0)
