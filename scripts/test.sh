#!/usr/bin/env bash
# Sets up .venv, installs the package with its test tools, builds and runs the
# native tests (kernels, layouts, the C host, find_package), then the Python
# tests against the installed module.
set -euo pipefail
cd "$(dirname "$0")/.."

python3 -m venv .venv
. .venv/bin/activate
python -m pip install -q --upgrade pip
python -m pip install -q ".[test]"

cmake -S . -B build/test -G Ninja -DCMAKE_BUILD_TYPE=Release -DCORVINA_BUILD_TESTS=ON -DCORVINA_BUILD_BENCH=OFF
cmake --build build/test
ctest --test-dir build/test --output-on-failure

python -m pytest -q tests "$@"
