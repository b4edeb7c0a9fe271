#!/usr/bin/env bash
# Sets krutils up on a Debian 12 machine: installs the Debian packages that the build, the tests,
# the benchmarks, the demo and the API reference need (when missing), then configures and builds.
#
#   ./setup.sh            set up and build (preset "default")
#   ./setup.sh demo       ... then run the demo program
#   ./setup.sh test       ... then run the whole test suite (preset "dev": warnings are errors,
#                             assertions on)
#   ./setup.sh bench      ... then run the benchmarks
#   ./setup.sh docs       set up and build only the API reference (Doxygen), into
#                         build/<preset>/docs/html
#   KRUTILS_PRESET=asan ./setup.sh test    the same with another preset (default, debug, asan, dev)
set -euo pipefail
cd "$(dirname "$0")"

action=${1:-build}
if [ "$action" = test ]; then
    preset=${KRUTILS_PRESET:-dev}
else
    preset=${KRUTILS_PRESET:-default}
fi

packages=(
    cmake ninja-build g++ pkg-config   # build
    qtbase5-dev                        # Qt Core, Gui, Widgets (and Qt Test for the tests)
    liblz4-dev                         # LZ4, part of the library's interface
    libunwind-dev libdw-dev            # crash interception: stack stepping, frame names
    qtmultimedia5-dev                  # alert sounds: Qt Multimedia ...
    libqt5multimedia5-plugins          # ... its GStreamer back end ...
    gstreamer1.0-plugins-base          # ... playbin, audioconvert, audioresample ...
    gstreamer1.0-plugins-good          # ... wavparse, autoaudiosink, pulsesink
    pulseaudio                         # tests: a private sound server stands in for a sound card
    libminizip-dev libxlsxwriter-dev   # the workbook layer (.xlsx reading and writing)
    libbenchmark-dev                   # bench/
    python3-openpyxl                   # tests: openpyxl reads back the workbooks written
    clang-14 libfuzzer-14-dev          # fuzz/: the workbook reader's fuzzer
    doxygen                            # the API reference (docs), checked by the tests
    mingw-w64 wine64                   # tests: the Windows layers, cross-built and run under wine
)

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" \
        || missing+=("$package")
done
if ((${#missing[@]})); then
    sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    echo "setup: installing ${missing[*]}"
    "${sudo[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
fi

# The tests check the dump files with Breakpad's minidump_stackwalk, which the npm package
# "minidump" ships prebuilt (its install script would build it again from git submodules).
minidump_tools=build/tools/node_modules/minidump/bin/linux-x64
if [ "$action" != docs ] && [ ! -x "$minidump_tools/minidump_stackwalk" ]; then
    if command -v npm >/dev/null; then
        echo "setup: installing minidump@0.26.0 (npm) into build/tools"
        mkdir -p build/tools
        npm install --prefix build/tools --ignore-scripts --no-audit --no-fund --silent minidump@0.26.0 \
            || echo "setup: npm install failed; the dump checks that need minidump_stackwalk are skipped"
        rm -rf build/tools/node_modules/minidump/deps # sources of the tools, not needed
    else
        echo "setup: npm not found; the dump checks that need minidump_stackwalk are skipped"
    fi
fi

cmake --preset "$preset" >/dev/null
if [ "$action" = docs ]; then
    cmake --build --preset "$preset" --target docs
    echo "setup: API reference in build/$preset/docs/html/index.html"
    exit 0
fi
cmake --build --preset "$preset"

case "$action" in
    build) ;;
    demo) exec "build/$preset/demo/krdemo" ;;
    test) exec ctest --preset "$preset" ;;
    bench) "build/$preset/bench/krbench" && "build/$preset/bench/krbench_records" \
               && "build/$preset/bench/krbench_interaction" \
               && "build/$preset/bench/krbench_treemodel" \
               && exec "build/$preset/bench/krbench_workbook" ;;
    *) echo "usage: $0 [build|demo|test|bench|docs]" >&2; exit 2 ;;
esac
