#!/usr/bin/env bash
# Runs the tests under the sanitizers; any report fails the run.
#
# 1. AddressSanitizer + UndefinedBehaviorSanitizer (with float-to-int
#    overflow): the engine, the module and the native tests are built
#    instrumented, then every native test and the whole pytest suite run
#    against that build. The interpreter is not instrumented, so the ASan
#    runtime is preloaded into it and leak checking stays with the native
#    tests (the interpreter keeps memory until exit by design).
# 2. ThreadSanitizer: the Python thread tests (the whole chain on shared
#    models, through the C interface) with an instrumented module. TSan
#    sees the interpreter lock through the pthread calls it intercepts and
#    tracks only the instrumented module's memory accesses, so the
#    uninstrumented interpreter needs no suppressions.
#
# Needs the package's Python dependencies (scripts/test.sh installs them in
# .venv) and gcc's sanitizer runtimes. Usage: scripts/sanitize.sh [asan|tsan]...
set -euo pipefail
cd "$(dirname "$0")/.."
if [ -f .venv/bin/activate ]; then . .venv/bin/activate; fi

steps=("$@")
[ ${#steps[@]} -gt 0 ] || steps=(asan tsan)
# Line tables (-g1) are enough for reports with file and line; full debug
# information makes the instrumented FFT templates compile six times slower.
configure=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG"
           -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" -DCORVINA_BUILD_PYTHON=ON -DCORVINA_BUILD_TESTS=ON
           -DCORVINA_BUILD_BENCH=OFF -DCORVINA_BUILD_NATIVE=ON)
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
# A report stops the process at once: pytest must not hold the native stderr
# back in its capture, or the report would be lost with the process.
pytest_options="-q -p no:cacheprovider --capture=sys"

timed() {  # label, command...
  local start=$SECONDS
  "${@:2}"
  echo "sanitize: $1 took $((SECONDS - start)) s"
}

# The sanitizer runtime first, then the C++ runtime: the interpreter does not
# link libstdc++, and a runtime loaded before it could not find the real
# __cxa_throw to forward the exceptions libstdc++ throws and catches inside.
runtime() {
  echo "$(gcc -print-file-name="$1") $(g++ -print-file-name=libstdc++.so)"
}

build() {  # directory, sanitizers, targets...
  cmake -S . -B "$1" "${configure[@]}" -DCORVINA_SANITIZE="$2" > /dev/null
  cmake --build "$1" ${3:+--target "${@:3}"}
}

asan() {
  timed "asan build" build build/asan address,undefined,float-cast-overflow
  ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1 \
    timed "asan native tests" ctest --test-dir build/asan --output-on-failure -E '^test_tanh_exhaustive$'
  # Subprocesses the tests start (parameter-file checks) inherit all of this;
  # the tests that run other programs (speech synthesizers, a browser, Ray) or
  # PyTorch are left out, as the preloaded runtime would run in those too.
  LD_PRELOAD="$(runtime libasan.so)" ASAN_OPTIONS=detect_leaks=0:strict_string_checks=1 \
    PYTHONPATH="build/asan:python:tests" timed "asan pytest" python -m pytest $pytest_options tests \
    --ignore=tests/test_corpus.py --ignore=tests/test_default_model.py --ignore=tests/test_server_browser.py \
    --ignore=tests/test_server_ray.py --ignore=tests/test_training_networks.py --ignore=tests/test_training_stages.py
}

tsan() {
  timed "tsan build" build build/tsan thread corvina_python
  LD_PRELOAD="$(runtime libtsan.so)" TSAN_OPTIONS=halt_on_error=1 \
    PYTHONPATH="build/tsan:python:tests" timed "tsan pytest" python -m pytest $pytest_options tests/test_threads.py
}

for step in "${steps[@]}"; do "$step"; done
