#!/usr/bin/env bash
# One entry point for building, testing and measuring tarn.
#
#   ./build.sh demo            build and run the example tour
#   ./build.sh test            build everything and run every test (g++, Release)
#   ./build.sh sanitize        the test suite under AddressSanitizer + UBSan (clang)
#   ./build.sh tsan            the concurrency test under ThreadSanitizer (clang)
#   ./build.sh memcheck        a representative part of the tests under valgrind
#   ./build.sh bench [filter]  build and run the benchmarks
#   ./build.sh package         install to a scratch prefix and build a consumer against it
#   ./build.sh fuzz [seconds]  run each fuzz target (default 60 s each)
#
# Missing Debian packages are installed first (only those that are missing).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

JOBS=$(nproc 2>/dev/null || echo 2)
BASE_PACKAGES=(g++ cmake ninja-build pkg-config libgmp-dev libgtest-dev libmpfr-dev librandom123-dev
    libhwy-dev)

log() { printf '==> %s\n' "$*"; }

# ensure_packages pkg... installs whichever of the packages dpkg does not know.
ensure_packages() {
    local missing=() pkg
    for pkg in "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'ok installed' || missing+=("$pkg")
    done
    ((${#missing[@]} == 0)) && return 0
    log "installing ${missing[*]}"
    local sudo=()
    [[ $(id -u) -ne 0 ]] && sudo=(sudo)
    "${sudo[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
}

# build PRESET [target...]: configure (once) and build with a CMake preset.
build() {
    local preset=$1
    shift
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$JOBS" ${1:+--target "$@"}
}

cmd_demo() {
    ensure_packages "${BASE_PACKAGES[@]}"
    build release
    local tour=build/release/examples/tour
    if [[ -x $tour ]]; then
        "$tour"
    else
        log "the example tour is not written yet; the library built"
    fi
}

cmd_test() {
    ensure_packages "${BASE_PACKAGES[@]}"
    build release
    ctest --preset release
}

cmd_sanitize() {
    ensure_packages "${BASE_PACKAGES[@]}" clang-14 libclang-rt-14-dev
    build sanitize
    ctest --preset sanitize
}

# Only the test that shares the library between threads is built: the rest of
# the suite is single-threaded and gains nothing from ThreadSanitizer.
cmd_tsan() {
    ensure_packages "${BASE_PACKAGES[@]}" clang-14 libclang-rt-14-dev
    build tsan test_threads
    ctest --preset tsan
}

# The tests run under memcheck, with the cases each runs: every unit and every
# error path, but only the smaller formats of the long exhaustive and random
# runs, which valgrind slows down some fifty times. The tests that count
# allocations are left out: valgrind takes over the allocation operators they
# replace, and finds leaks itself. Binaries that hold such a counter free with
# free() what valgrind's operator new gave, hence --show-mismatched-frees=no.
# valgrind's floating-point emulation does not raise the host's exception
# flags exactly, so the soft-float runs against the host FPU stay out too.
MEMCHECK_TESTS=(
    "test_exception"
    "test_numbers"
    "test_error_paths --gtest_filter=*ThrowsAndLeavesTheTargetAsItWas*"
    "test_threads"
    "test_ieeefloat"
    "test_text"
    "test_rounding_core"
    "test_differential --gtest_filter=Exhaustive.*/*_e1m*:Exhaustive.*/*_e2m*:PackedWalk.*:Random.*/*_e3m0"
    "test_swflt --gtest_filter=Swflt.*"
)

cmd_memcheck() {
    ensure_packages "${BASE_PACKAGES[@]}" valgrind
    build release
    local entry exe args
    for entry in "${MEMCHECK_TESTS[@]}"; do
        read -r exe args <<<"$entry"
        log "memcheck $exe $args"
        valgrind --quiet --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite,indirect \
            --show-mismatched-frees=no --suppressions=tests/memcheck.supp \
            "build/release/tests/$exe" --gtest_brief=1 $args
    done
}

cmd_bench() {
    ensure_packages "${BASE_PACKAGES[@]}" libbenchmark-dev
    build bench
    local ran=0 exe
    for exe in build/bench/bench/bench_*; do
        [[ -x $exe ]] || continue
        ran=1
        log "$exe"
        "$exe" ${1:+--benchmark_filter="$1"}
    done
    ((ran)) || log "no benchmarks are written yet"
}

# The installed package as a user meets it: the library installed into a
# scratch prefix, and tests/consumer built out of tree against it once through
# find_package and once through tarn.pc, each build run. The static library is
# the one the release build made; a shared one is built apart.
PACKAGE_SCRATCH=
cmd_package() {
    ensure_packages "${BASE_PACKAGES[@]}"
    PACKAGE_SCRATCH=$(mktemp -d)
    trap 'rm -rf "$PACKAGE_SCRATCH"' EXIT
    build release tarn
    package_check static build/release
    cmake -S . -B build/package-shared -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_CXX_COMPILER=g++ -DTARN_WERROR=ON -DBUILD_SHARED_LIBS=ON \
        -DTARN_BUILD_TESTS=OFF -DTARN_BUILD_EXAMPLES=OFF >/dev/null
    cmake --build build/package-shared -j "$JOBS" --target tarn
    package_check shared build/package-shared
}

# package_check NAME BUILD_DIR installs BUILD_DIR and builds the consumer both ways.
package_check() {
    local name=$1 prefix=$PACKAGE_SCRATCH/$1
    log "install the $name library into $prefix"
    cmake --install "$2" --prefix "$prefix" >/dev/null
    if [[ -e $prefix/include/tarn/swflt/internal.h || -e $prefix/include/tarn/ieeefloat/internal ]]; then
        log "a private header (tarn/swflt/internal.h, tarn/ieeefloat/internal/) was installed"
        return 1
    fi

    log "consumer through find_package(tarn) ($name)"
    cmake -S tests/consumer -B "$PACKAGE_SCRATCH/consumer-$name" -G Ninja \
        -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
    cmake --build "$PACKAGE_SCRATCH/consumer-$name" >/dev/null
    "$PACKAGE_SCRATCH/consumer-$name/tarn_consumer"

    log "consumer through pkg-config tarn ($name)"
    local libdir flags
    libdir=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --variable=libdir tarn)
    flags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs tarn)
    # shellcheck disable=SC2086 # the flags are a word list
    g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror tests/consumer/main.cpp $flags \
        -Wl,-rpath,"$libdir" -o "$PACKAGE_SCRATCH/consumer-pc-$name"
    "$PACKAGE_SCRATCH/consumer-pc-$name"
}

# Each target runs for the given time on a scratch copy of its corpus in
# fuzz/corpus/<name>, so runs never grow the repository; any finding (crash,
# sanitizer report, mismatch, leak, timeout or allocation past the limits)
# fails the command and leaves the input that caused it in build/fuzz/findings.
FUZZ_TARGETS=(fuzz_differential fuzz_numbers fuzz_robustness)

cmd_fuzz() {
    local seconds=${1:-60}
    ensure_packages "${BASE_PACKAGES[@]}" clang-14 libclang-rt-14-dev
    build fuzz "${FUZZ_TARGETS[@]}"
    local findings=build/fuzz/findings name scratch
    mkdir -p "$findings"
    for name in "${FUZZ_TARGETS[@]}"; do
        scratch=$(mktemp -d)
        [[ -d fuzz/corpus/$name ]] && cp -r "fuzz/corpus/$name/." "$scratch/"
        log "$name for ${seconds} s"
        if ! "build/fuzz/fuzz/$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
            -max_len=4096 -print_final_stats=1 -artifact_prefix="$findings/$name-" "$scratch" \
            >"$findings/$name.log" 2>&1; then
            rm -rf "$scratch"
            tail -n 60 "$findings/$name.log"
            log "$name found a fault; the input is in $findings, the log in $findings/$name.log"
            return 1
        fi
        rm -rf "$scratch"
        grep -E '^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)' \
            "$findings/$name.log" || true
    done
}

usage() {
    sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//'
    exit "${1:-0}"
}

case "${1:-}" in
demo | test | sanitize | tsan | memcheck | bench | package | fuzz)
    cmd=$1
    shift
    "cmd_$cmd" "$@"
    ;;
-h | --help | help) usage 0 ;;
*) usage 2 ;;
esac
