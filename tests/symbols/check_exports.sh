#!/bin/bash
# Checks the dynamic symbol tables of both shared libraries: the SONAMEs, that
# nothing outside the public interface is exported (no standard-library
# template instantiations, no internal helpers), and that every public name
# whose source exists is exported.
# Usage: check_exports.sh <search library> <core library> <source root>
set -u
search_lib=$1 core_lib=$2 root=$3
here=$(dirname "$0")
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

soname() { readelf -d "$1" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p'; }
[ "$(soname "$search_lib")" = libsorvalen_mdns_search.so.2 ] || fail "search SONAME is '$(soname "$search_lib")'"
[ "$(soname "$core_lib")" = libmdns.so.0.2 ] || fail "core SONAME is '$(soname "$core_lib")'"

# Demangled names of the defined dynamic symbols, without parameter lists.
exported() {
  nm -D --defined-only "$1" | awk '{print $3}' | c++filt | sed -e 's/(.*//' -e 's/\[abi:cxx11\]//'
}
search_names=$(exported "$search_lib")
core_names=$(exported "$core_lib")

search_allowed='^(sorvalen::[A-Za-z0-9_]+::~?[A-Za-z0-9_]+|(typeinfo|typeinfo name|vtable) for sorvalen::[A-Za-z0-9_]+|split|ci_compare|ci_compare_pred|sinfo_list|ProgramName)$'
while IFS= read -r name; do
  [[ "$name" =~ $search_allowed ]] || fail "search library exports '$name'"
done <<<"$search_names"

core_allowed='^(mDNS_[A-Za-z0-9_]+|mDNSPosix[A-Za-z0-9_]*|mDNSPlatformPosixRefreshInterfaceList|MakeDomainNameFromDNSNameString|DeconstructServiceName|ConvertDomainLabelToCString_withescape|ConvertDomainNameToCString_withescape)$'
while IFS= read -r name; do
  [[ "$name" =~ $core_allowed ]] || fail "core library exports '$name'"
done <<<"$core_names"
grep -qx 'mDNS_Init' <<<"$core_names" || fail "core library does not export mDNS_Init"

while read -r name source; do
  [[ -z "$name" || "$name" == \#* ]] && continue
  [ -f "$root/$source" ] || continue
  pattern=${name//\?/ }
  grep -qxF "$pattern" <<<"$search_names" || fail "search library does not export '$pattern'"
done <"$here/required_exports.txt"

[ "$failures" -eq 0 ] && echo "exports OK"
exit $((failures > 0))
