"""Training side of corvina (needs the `train` extra: PyTorch and more).

The three networks as PyTorch modules that train on batches of whole
sequences and run frame by frame with carried state, the exact export to the
engine's parameter files, the corpus builder and the training stages. Nothing
outside this package imports PyTorch, and within it only the modules that
need it do: the corpus builder runs without it.
"""
import importlib

_EXPORTS = {"PhoneExtractor": "phone", "PitchEstimator": "pitch", "WaveformGenerator": "waveform",
            "ExportError": "parameter_files", "load_parameters": "parameter_files",
            "save_parameters": "parameter_files", "write_model_directory": "parameter_files",
            "write_speakers": "parameter_files"}
__all__ = sorted(_EXPORTS)


def __getattr__(name):
    if name not in _EXPORTS:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    try:
        module = importlib.import_module(f".{_EXPORTS[name]}", __name__)
    except ImportError as e:
        if e.name == "torch":
            raise ImportError("corvina_tools.training needs PyTorch: pip install 'corvina[train]'") from e
        raise
    return getattr(module, name)
