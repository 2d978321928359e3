#!/usr/bin/env bash
# Sets up .venv, installs the package and runs `corvina demo`: a sentence
# spoken by espeak-ng (installed here with apt-get when missing and allowed)
# is converted into every voice of the default model; the WAV files and a
# spectrogram picture go to ./demo-output.
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v espeak-ng > /dev/null && command -v apt-get > /dev/null && [ "$(id -u)" = 0 ]; then
  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq espeak-ng > /dev/null || true
fi

python3 -m venv .venv
. .venv/bin/activate
python -m pip install -q --upgrade pip
python -m pip install -q .

corvina demo --output demo-output
