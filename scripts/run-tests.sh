#!/usr/bin/env bash
# Builds lumivane with its tests, checks that its layers stand on each other,
# and runs the whole suite under CTest.
# After the C tests, pytest runs the tests of the Python package (python/),
# then those of the Blender add-on (blender/) inside Blender.
# With --sanitize the build uses AddressSanitizer and UndefinedBehaviorSanitizer,
# and the Python tests are left out.
# With --thread it uses ThreadSanitizer (built with clang) and runs the tests
# that work on several threads, with the races that lumivane accepts
# suppressed by tests/tsan.supp.
set -euo pipefail
source "$(dirname "$0")/deps.sh"
lv_install_missing
dir="$lv_root/build-test"
flags=()
if [ "${1:-}" = "--sanitize" ]; then
    dir="$lv_root/build-sanitize"
    flags+=(-DLV_SANITIZE=ON)
elif [ "${1:-}" = "--thread" ]; then
    lv_install_missing clang libomp-dev
    dir="$lv_root/build-thread"
    mkdir -p "$dir"
    CC=clang CXX=clang++ cmake -S "$lv_root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLV_SANITIZE=thread \
        -DLV_BENCH=OFF -DLV_PREVIEW=OFF > "$dir/configure.log" 2>&1 || { cat "$dir/configure.log"; exit 1; }
    cmake --build "$dir" -j "$(nproc)" --target lv_tests
    # The OpenMP runtime reports its barriers and tasks to the sanitizer
    # through its tool library; its own memory is not instrumented and is
    # left out of the reports.
    archer="$(ls /usr/lib/llvm-*/lib/libarcher.so 2>/dev/null | tail -n 1)"
    export OMP_TOOL_LIBRARIES="$archer"
    export TSAN_OPTIONS="suppressions=$lv_root/tests/tsan.supp ignore_noninstrumented_modules=1 halt_on_error=1"
    # The test of the memory limit forks, which the runtime's tool does not
    # survive; it runs on one thread anyway.
    threaded="Photon*:Smoothing*:Displacement*:Sky*:RadianceScene*:GeometryLight*:Traversal*:HierarchyBuild*"
    threaded+=":FrameTest*:DirectLight*:LightSampling*:Hair*-Photons.CellsBeyondOneGigabyteEndTheProcess"
    exec "$dir/tests/lv_tests" --gtest_filter="${LV_THREAD_TESTS:-$threaded}"
fi
mkdir -p "$dir"
lv_build "$dir" "${flags[@]}"
# The layers of docs/architecture.md: no include and no call from a folder
# to one above it (the self-test plants one and expects it found).
python3 "$lv_root/scripts/check-layers.py" --self-test
python3 "$lv_root/scripts/check-layers.py" --objects "$dir"
cd "$dir"
ctest --output-on-failure -j "$(nproc)"
# The Python package, installed as a user installs it into a virtual
# environment that sees Debian's numpy and pytest, and tested against the
# library of this build. A library built with the sanitizers cannot be loaded
# by Python without their runtimes preloaded, so that run leaves it out.
if [ "${1:-}" != "--sanitize" ]; then
    lv_install_missing python3-numpy python3-pytest python3-venv python3-wheel
    venv="$dir/python-venv"
    /usr/bin/python3 -m venv --system-site-packages "$venv"
    package="$(mktemp -d "${TMPDIR:-/tmp}/lumivane-python.XXXXXX")"
    trap 'rm -rf "$package"' EXIT
    cp -R "$lv_root/python/." "$package/"
    "$venv/bin/pip" install --quiet --no-index --no-build-isolation --force-reinstall --no-deps "$package"
    LUMIVANE_LIBRARY="$dir/liblv.so" "$venv/bin/python" -m pytest -q -p no:cacheprovider "$lv_root/python/tests"
    # The Blender add-on (blender/): pytest inside Blender, headless, against
    # this build's library and host; the engine's render process runs on the
    # system's python3, which has numpy.
    lv_install_missing blender
    LUMIVANE_LIBRARY="$dir/liblv.so" LUMIVANE_EXE="$dir/lumivane" \
        blender -b --factory-startup --python "$lv_root/blender/tests/run.py"
fi
