#!/usr/bin/env bash
# Sets up .venv, installs the package with its test tools, builds and runs the
# native tests (kernels, layouts, the C host, find_package), then the Python
# tests against the installed module.
set -euo pipefail
cd "$(dirname "$0")/.."

python3 -m venv .venv
. .venv/bin/activate
python -m pip install -q --upgrade pip
# PyTorch's CPU build first, so the train extra finds it and pulls no GPU libraries.
python -m pip install -q torch==2.13.0
# The ray extra is for the Ray Serve test (a two-node local cluster).
python -m pip install -q ".[test,train,ray]"
# The native build takes pocketfft's header from this package (pinned by hash);
# nothing else of it is used, so its own requirements are not installed.
python -m pip install -q --no-deps pythran==0.19.0

cmake -S . -B build/test -G Ninja -DCMAKE_BUILD_TYPE=Release -DCORVINA_BUILD_TESTS=ON -DCORVINA_BUILD_BENCH=OFF
cmake --build build/test
ctest --test-dir build/test --output-on-failure

python -m pytest -q tests "$@"
