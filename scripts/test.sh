#!/usr/bin/env bash
# Builds and runs every test: format check, the normal build, AddressSanitizer +
# UndefinedBehaviorSanitizer, ThreadSanitizer, and a bounded fuzz run.
#   scripts/test.sh            everything
#   FUZZ_SECONDS=10 scripts/test.sh   shorter fuzz runs
#   MODES="default" scripts/test.sh   only some builds (default asan tsan fuzz)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

bash scripts/install-deps.sh

modes=${MODES:-"default asan tsan fuzz"}
fuzz_seconds=${FUZZ_SECONDS:-60}
jobs=$(nproc)

echo "== format check"
git ls-files -- '*.h' '*.cpp' '*.c' | xargs -r clang-format --dry-run --Werror

configure_and_test() {
  local mode=$1; shift
  local dir="$root/build/$mode"
  echo "== $mode build"
  cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSORVALEN_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  echo "== $mode tests"
  (cd "$dir" && ctest --output-on-failure --timeout 600 -j 1)
}

for mode in $modes; do
  case "$mode" in
    default) configure_and_test default ;;
    asan) ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
            configure_and_test asan -DSORVALEN_SANITIZE=address ;;
    tsan) TSAN_OPTIONS=halt_on_error=1 configure_and_test tsan -DSORVALEN_SANITIZE=thread ;;
    fuzz)
      echo "== fuzz build"
      dir="$root/build/fuzz"
      cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DSORVALEN_FUZZ=ON -DSORVALEN_WERROR=ON >/dev/null
      cmake --build "$dir" -j "$jobs"
      # Every target runs, also after one has failed: one known crash must not
      # hide what the others would find.
      failed=()
      for target in "$dir"/fuzz/fuzz_*; do
        [ -x "$target" ] || continue
        name=$(basename "$target")
        corpus="$dir/corpus-$name"
        mkdir -p "$corpus"
        seeds="$root/fuzz/seeds/${name#fuzz_}"
        echo "== fuzzing $name for ${fuzz_seconds}s"
        args=("$corpus")
        [ -d "$seeds" ] && args+=("$seeds")
        (cd "$dir" && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
          "$target" -max_total_time="$fuzz_seconds" -timeout=30 -print_final_stats=1 "${args[@]}" 2>"$dir/$name.log") ||
          { tail -n 60 "$dir/$name.log"; echo "fuzz target $name failed"; failed+=("$name"); continue; }
        grep -E 'stat::number_of_executed_units' "$dir/$name.log" || true
      done
      if [ ${#failed[@]} -gt 0 ]; then
        echo "failed fuzz targets: ${failed[*]}"
        exit 1
      fi
      ;;
    *) echo "unknown mode: $mode" >&2; exit 2 ;;
  esac
done
echo "== all tests passed"
