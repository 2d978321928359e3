#!/usr/bin/env bash
# Builds and runs the native example: installs the engine into a prefix under
# build/, builds examples/convert_wav against it with find_package(corvina),
# converts a generated speech-like WAV file with a generated test model and
# checks the result against `corvina convert` on the same input.
# Needs libsndfile's development files and pkg-config (Debian: libsndfile1-dev
# pkg-config) and the corvina package (scripts/test.sh installs it in .venv).
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v corvina >/dev/null && [ -f .venv/bin/activate ]; then
  . .venv/bin/activate
fi
command -v corvina >/dev/null || { echo "example.sh: install the package first (pip install .)" >&2; exit 1; }
# The engine build takes its pinned FFT header from this package.
python -c "import pythran" 2>/dev/null || python -m pip install -q pythran==0.19.0

work=build/example
rm -rf "$work"
cmake -S . -B "$work/engine" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCORVINA_BUILD_NATIVE=ON \
  -DCORVINA_BUILD_PYTHON=OFF -DCORVINA_BUILD_BENCH=OFF -DCORVINA_BUILD_TESTS=OFF
cmake --build "$work/engine"
cmake --install "$work/engine" --prefix "$work/prefix"
cmake -S examples/convert_wav -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$PWD/$work/prefix"
cmake --build "$work/build"

corvina make-test-model "$work/model" --seed 7 --speakers 2
python - "$work/input.wav" <<'PY'
import sys
import soundfile as sf
from corvina_tools.speech import speech_like
sf.write(sys.argv[1], speech_like(2.0, 16000, seed=3), 16000)
PY
"$work/build/convert_wav" "$work/model" "$work/input.wav" "$work/native.wav" 1
corvina convert "$work/input.wav" -m "$work/model" -o "$work/python.wav" --speaker 1 --subtype FLOAT

python - "$work/native.wav" "$work/python.wav" <<'PY'
import sys
import numpy as np
import soundfile as sf
native, rate = sf.read(sys.argv[1], dtype="float32")
python, _ = sf.read(sys.argv[2], dtype="float32")
assert rate == 24000 and len(native) == 48000, (rate, len(native))
assert np.isfinite(native).all() and np.abs(native).max() > 0
# Same engine, same frames, no resampling at 16 kHz in and 24 kHz out.
np.testing.assert_array_equal(native, python)
print(f"native example: {len(native)} samples at {rate} Hz, identical to corvina convert")
PY
