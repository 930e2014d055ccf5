#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test twice: in a normal
# build (unit tests and the ones against the real Dovecot), then in an
# AddressSanitizer + UndefinedBehaviorSanitizer build. Exits non-zero on the
# first failure.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
jobs=$(nproc 2>/dev/null || echo 2)

bash scripts/setup.sh

echo "== format"
git ls-files -- '*.h' '*.cpp' 'foundation/include2/VantroRefcounted' ':!contrib' \
  | xargs -r clang-format --dry-run -Werror

echo "== build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"

echo "== tests"
(cd build && ctest --output-on-failure -j"$jobs")

echo "== sanitizer build"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DZEMAIL_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs"

echo "== tests under ASan + UBSan"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
   UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
   ctest --output-on-failure -j"$jobs")
