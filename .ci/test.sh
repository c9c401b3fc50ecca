#!/usr/bin/env bash
# Builds and runs every test: a Release build with warnings as errors (benchmarks compiled
# too), a program built against the installed package, a Debug build under
# AddressSanitizer + UndefinedBehaviorSanitizer, and an optimised build under
# ThreadSanitizer (every suite runs with 1 and with 4 pool threads). Run from anywhere:
# bash .ci/test.sh
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${QYGEOM_JOBS:-$(nproc)}

# Build dependencies, from Debian's packages, when missing.
missing=()
for pkg in cmake g++ libgtest-dev libbenchmark-dev pybind11-dev python3-dev python3-numpy \
    python3-pytest; do
    dpkg -s "$pkg" >/dev/null 2>&1 || missing+=("$pkg")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "== installing ${missing[*]}"
    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
fi

if command -v clang-format >/dev/null; then
    echo "== Formatting (clang-format, .clang-format)"
    git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run -Werror
fi

# The Release build also makes the Python module and runs its pytest suite through ctest, with
# Debian's interpreter (the one that the python3-* packages serve). The sanitizer builds
# leave the module out: an instrumented extension does not load into an uninstrumented python.
echo "== Release build, warnings as errors"
cmake -S . -B build/ci-release -DCMAKE_BUILD_TYPE=Release -DQYGEOM_WERROR=ON \
      -DQYGEOM_BUILD_TESTS=ON -DQYGEOM_BUILD_BENCHMARKS=ON \
      -DQYGEOM_BUILD_PYTHON=ON -DPython3_EXECUTABLE=/usr/bin/python3
cmake --build build/ci-release -j"$jobs"
ctest --test-dir build/ci-release --output-on-failure -j"$jobs"

echo "== Install and build a consumer of the installed package"
rm -rf build/ci-install build/ci-consumer
cmake --install build/ci-release --prefix build/ci-install
cmake -S tests/consumer -B build/ci-consumer -DCMAKE_PREFIX_PATH="$PWD/build/ci-install"
cmake --build build/ci-consumer -j"$jobs"
LD_LIBRARY_PATH="$PWD/build/ci-install/lib:${LD_LIBRARY_PATH:-}" build/ci-consumer/consumer
# The README's example of the typical request, on a small rippled grid.
awk 'BEGIN { n = 8; for (j = 0; j <= n; j++) for (i = 0; i <= n; i++)
                 printf "v %g %g %g\n", i / n, j / n, 0.1 * sin(3 * i / n) * cos(2 * j / n);
             for (j = 0; j < n; j++) for (i = 0; i < n; i++) {
                 a = j * (n + 1) + i + 1; b = a + 1; c = a + n + 2; d = a + n + 1;
                 printf "f %d %d %d\nf %d %d %d\n", a, b, c, a, c, d } }' \
    > build/ci-consumer/patch.obj
LD_LIBRARY_PATH="$PWD/build/ci-install/lib:${LD_LIBRARY_PATH:-}" \
    build/ci-consumer/typical_request build/ci-consumer/patch.obj build/ci-consumer/patch-uv.obj
grep -q '^vt ' build/ci-consumer/patch-uv.obj
build/ci-install/bin/qygeom --help >/dev/null

echo "== Debug build under AddressSanitizer + UndefinedBehaviorSanitizer"
cmake -S . -B build/ci-sanitize -DCMAKE_BUILD_TYPE=Debug -DQYGEOM_WERROR=ON \
      -DQYGEOM_BUILD_TESTS=ON -DQYGEOM_SANITIZE=ON
cmake --build build/ci-sanitize -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build/ci-sanitize --output-on-failure -j"$jobs"

echo "== Build under ThreadSanitizer"
cmake -S . -B build/ci-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQYGEOM_WERROR=ON \
      -DQYGEOM_BUILD_TESTS=ON -DQYGEOM_TSAN=ON
cmake --build build/ci-tsan -j"$jobs"
TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build/ci-tsan --output-on-failure -j"$jobs"

if command -v clang++ >/dev/null; then
    echo "== Fuzz targets (clang, libFuzzer + AddressSanitizer + UndefinedBehaviorSanitizer): corpus replay"
    CXX=clang++ cmake -S fuzz -B build/ci-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo
    cmake --build build/ci-fuzz -j"$jobs"
    for target in readObjMemory readObj2 readObjMaterial meshRead readPly readStl readOff; do
        build/ci-fuzz/$target -runs=0 -close_fd_mask=1 fuzz/corpus/$target
    done
fi

# One closing line for the whole run: every ctest stage above passed or the script stopped.
total=0
for tree in build/ci-release build/ci-sanitize build/ci-tsan; do
    n=$(ctest --test-dir "$tree" -N | sed -n 's/^Total Tests: //p')
    total=$((total + n))
done
echo "ci: $total passed, 0 failed"
