"""Host tools for the corvina engine: model sets checked before loading, a
streaming converter for audio of any rate and block size, and the `corvina`
command (convert, info, bench, make-test-model, live, demo)."""
from corvina import __version__  # the engine and these tools ship as one package

from .converter import Converter, Latency
from .model_files import ModelError
from .model_set import ModelSet
from .test_model import write_test_model

__all__ = ["__version__", "Converter", "Latency", "ModelError", "ModelSet", "write_test_model"]
