"""`corvina serve` on a Ray cluster: a Ray Serve deployment whose replicas
each run the same application and scheduler as one `corvina serve` process.
A WebSocket stays on the replica that accepted it, so a stream's state never
moves; the autoscaler adds replicas as the streams per replica grow.

    serve run corvina_tools.server.ray_deployment:build_app model_dir=/models

(needs the `ray` extra; the model directory must exist on every node)."""
from typing import Optional

import ray
from ray import serve

from ..default_model import default_model_dir
from ..model_set import ModelSet
from .app import ServerState, create_app
from .protocol import Limits


@serve.ingress()
class VoiceServer:
    def __init__(self, model_dir: Optional[str], limits: Limits, token: Optional[str], quality: str, workers: int):
        model_dir = model_dir or default_model_dir()
        if model_dir is None:
            raise ValueError("no model_dir given and no default model installed on this node")
        node = ray.get_runtime_context().get_node_id()
        replica = serve.get_replica_context().replica_id.unique_id
        self.state = ServerState(ModelSet.load(model_dir), limits, token, quality, workers,
                                 name=f"node {node[:12]} replica {replica}")

    def __serve_build_asgi_app__(self):
        return create_app(self.state)


def build_app(args: Optional[dict] = None):
    """The application, from `serve run ... key=value` arguments:
    model_dir, streams_per_replica (16), min_replicas (1), max_replicas (4),
    cpus_per_replica (2, also the scheduler's worker threads), token,
    quality (LQ), upscale_delay_s (10), health_check_timeout_s (30; more on
    a busy machine, where a replica may answer late without having failed)."""
    args = dict(args or {})
    streams = int(args.get("streams_per_replica", 16))
    cpus = float(args.get("cpus_per_replica", 2))
    deployment = serve.deployment(VoiceServer).options(
        name="corvina",
        # A stream is one ongoing request for its whole life. Scale out before
        # a replica is full; a replica is never sent more than it holds: a
        # stream beyond that waits at the proxy for a replica with room.
        autoscaling_config={"min_replicas": int(args.get("min_replicas", 1)),
                            "max_replicas": int(args.get("max_replicas", 4)),
                            "target_ongoing_requests": max(1, streams * 3 // 4),
                            "upscale_delay_s": float(args.get("upscale_delay_s", 10)),
                            "downscale_delay_s": 600},
        max_ongoing_requests=streams,
        health_check_timeout_s=float(args.get("health_check_timeout_s", 30)),
        ray_actor_options={"num_cpus": cpus})
    return deployment.bind(args.get("model_dir"), Limits(max_streams=streams), args.get("token"),
                           args.get("quality", "LQ"), max(1, int(cpus)))
