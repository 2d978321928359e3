"""Training side of corvina (needs the `train` extra: PyTorch).

The three networks as PyTorch modules that train on batches of whole
sequences and run frame by frame with carried state, the exact export to the
engine's parameter files, the corpus builder and the training stages. Nothing
outside this package imports PyTorch.
"""
try:
    import torch  # noqa: F401
except ImportError as e:     # pragma: no cover - depends on the environment
    raise ImportError("corvina_tools.training needs PyTorch: pip install 'corvina[train]'") from e

from .parameter_files import (ExportError, load_parameters, save_parameters, write_model_directory,
                              write_speakers)
from .phone import PhoneExtractor
from .pitch import PitchEstimator
from .waveform import WaveformGenerator

__all__ = ["ExportError", "PhoneExtractor", "PitchEstimator", "WaveformGenerator", "load_parameters",
           "save_parameters", "write_model_directory", "write_speakers"]
