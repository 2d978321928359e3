"""`corvina serve`: converted voice over WebSockets for many streams at
once, batched by one scheduler per process (needs the `serve` extra)."""
import os
import tempfile
from typing import Optional

from .protocol import Limits

from ..default_model import default_model_dir

UNTRAINED_NOTE = "no model given and no default model in this installation: serving a generated, untrained test model"


def run_server(model_dir: Optional[str] = None, host: str = "127.0.0.1", port: int = 8000,
               limits: Limits = Limits(), token: Optional[str] = None, quality: str = "LQ",
               log_level: str = "info", workers: int = 1):
    import uvicorn

    from ..model_set import ModelSet
    from ..test_model import write_test_model
    from .app import ServerState, create_app
    with tempfile.TemporaryDirectory(prefix="corvina-serve-model-") as scratch:
        model_dir = model_dir or default_model_dir()
        if model_dir is None:
            print(f"corvina serve: {UNTRAINED_NOTE}")
            model_dir = write_test_model(scratch)
        models = ModelSet.load(model_dir)
        token = token if token is not None else os.environ.get("CORVINA_TOKEN") or None
        app = create_app(ServerState(models, limits, token, quality, workers))
        uvicorn.run(app, host=host, port=port, ws_max_size=limits.max_message_bytes, log_level=log_level)
