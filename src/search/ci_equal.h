// Case-insensitive character comparison and substring search for the name filter.
#pragma once

#include <algorithm>
#include <locale>
#include <string>

namespace sorvalen {

// Two characters are equal when their upper-case forms under the held locale are.
template <typename CharT>
class CiEqual {
 public:
  explicit CiEqual(const std::locale& locale) : locale_(locale) {}
  bool operator()(CharT a, CharT b) const { return std::toupper(a, locale_) == std::toupper(b, locale_); }

 private:
  const std::locale& locale_;
};

// Index of the first place where `needle` occurs in `haystack` ignoring case
// under the current global locale, or -1.  An empty needle occurs at 0 in any
// non-empty haystack and nowhere in an empty one.
inline int find_ci(const std::string& haystack, const std::string& needle) {
  const std::locale locale;
  const auto found =
      std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end(), CiEqual<char>(locale));
  if (found == haystack.end())
    return -1;
  return static_cast<int>(found - haystack.begin());
}

}  // namespace sorvalen
