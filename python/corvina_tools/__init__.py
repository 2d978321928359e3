"""Host tools for the corvina engine: model sets checked before loading, a
streaming converter for audio of any rate and block size, and the `corvina`
command (convert, info, bench, make-test-model, live, demo)."""
from .converter import Converter, Latency
from .model_files import ModelError
from .model_set import ModelSet
from .test_model import write_test_model

__all__ = ["Converter", "Latency", "ModelError", "ModelSet", "write_test_model"]
