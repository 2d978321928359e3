"""The default model that ships with the package: its folder and the names
of its speaker rows."""
import json
import os

SPEAKER_NAMES = "speakers.json"
_PACKAGED = os.path.join(os.path.dirname(__file__), "models", "default")
# A source checkout run without installing keeps the model at the top level.
_CHECKOUT = os.path.join(os.path.dirname(__file__), "..", "..", "models", "default")


def default_model_dir():
    """The packaged default model's folder (None if this install has none)."""
    for folder in (_PACKAGED, _CHECKOUT):
        if os.path.isfile(os.path.join(folder, "waveform_generator.bin")):
            return os.path.normpath(folder)
    return None


def speaker_names(model_dir, count):
    """Names of a model directory's speaker rows, from its speakers.json;
    'row N' where it names none."""
    try:
        with open(os.path.join(model_dir, SPEAKER_NAMES)) as f:
            names = [str(n) for n in json.load(f)]
    except (OSError, ValueError, TypeError):
        names = []
    return (names + [f"row {i}" for i in range(len(names), count)])[:count]
