#!/usr/bin/env bash
# Sets up .venv, installs the package and runs `corvina demo`: a generated
# test model converts a synthesised voice; the WAV files go to ./demo-output.
set -euo pipefail
cd "$(dirname "$0")/.."

python3 -m venv .venv
. .venv/bin/activate
python -m pip install -q --upgrade pip
python -m pip install -q .

corvina demo --output demo-output
