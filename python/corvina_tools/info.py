"""`corvina info`: what a model directory or a single model file is."""
import os

from .model_files import (MODEL_FILES, SPEAKER_ROW_BYTES, SPEAKERS, ModelError, expected_size_text, identify,
                          open_checked)


def describe_file(path, model_file):
    """One line about a file checked as model_file, with the checks that
    loading it runs; (line, ok)."""
    try:
        fd = open_checked(path, model_file)
    except ModelError as e:
        return f"  {model_file.file_name}: BAD: expected {e.expected}, found {e.found}", False
    try:
        size = os.fstat(fd).st_size
    finally:
        os.close(fd)
    detail = f"{size} bytes"
    if model_file is SPEAKERS:
        detail += f", {size // SPEAKER_ROW_BYTES} speaker(s)"
    return f"  {model_file.file_name}: {model_file.description}, {detail}, ok", True


def describe(path):
    """Lines describing path and whether everything in it is usable."""
    if os.path.isdir(path):
        lines, ok = [f"{path}: model directory"], True
        for model_file in MODEL_FILES:
            line, good = describe_file(os.path.join(path, model_file.file_name), model_file)
            lines.append(line)
            ok &= good
        lines.append("  complete model set" if ok else "  NOT usable as a model set")
        lines += _about(path, ok)
        return lines, ok
    if not os.path.exists(path):
        return [f"{path}: no such file or directory"], False
    model_file = identify(path) if os.path.isfile(path) else None
    if model_file is None:
        size = os.stat(path).st_size if os.path.isfile(path) else None
        sizes = "; ".join(f"{m.description}: {expected_size_text(m)}" for m in MODEL_FILES)
        found = f"{size} bytes" if size is not None else "not a regular file"
        return [f"{path}: not a model file ({found}); expected {sizes}"], False
    line, ok = describe_file(path, model_file)
    return [f"{path}:", line], ok


def _about(directory, ok):
    """What the directory says of itself: whether it is the packaged default
    model, its speakers' names and its model card."""
    from .default_model import default_model_dir, speaker_names
    lines = []
    default = default_model_dir()
    if default and os.path.realpath(default) == os.path.realpath(directory):
        lines.append("  the packaged default model")
    if ok and os.path.exists(os.path.join(directory, "speakers.json")):
        count = os.path.getsize(os.path.join(directory, SPEAKERS.file_name)) // SPEAKER_ROW_BYTES
        lines.append("  speakers: " + ", ".join(f"{i} {name}" for i, name in enumerate(speaker_names(directory, count))))
    card = os.path.join(directory, "README.md")
    if os.path.exists(card):
        lines.append(f"  model card: {card}")
    return lines
