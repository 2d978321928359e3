"""The Ray Serve deployment on a local two-node Ray cluster: the autoscaler
adds a replica as streams arrive, streams land on both nodes, and each
stream is still bit for bit the offline conversion."""
import os
import threading
import time

import pytest

# Ray's own waits (a node's agents 15 s, its registration 30 s, the proxy 60 s
# and its first answer 5 s) are too short on a machine whose cores another
# job holds.
START_SECONDS = 600
# Read by every Ray process the test starts (they inherit the environment).
os.environ.update(RAY_USAGE_STATS_ENABLED="0", RAY_agent_register_timeout_ms=str(START_SECONDS * 1000),
                  RAY_SERVE_PROXY_READY_CHECK_TIMEOUT_S=str(START_SECONDS // 4),
                  RAY_SERVE_PROXY_HEALTH_CHECK_TIMEOUT_S="60")
ray = pytest.importorskip("ray", reason="the Ray test needs corvina[ray]")
from ray import serve  # noqa: E402
from ray._private import services  # noqa: E402
from ray.serve._private import api as serve_api  # noqa: E402
from ray.cluster_utils import Cluster  # noqa: E402

from signals import in_threads  # noqa: E402
from test_server import CASES, assert_offline, stream_case  # noqa: E402
from corvina_tools.server.loadtest import free_port  # noqa: E402
from corvina_tools.server.ray_deployment import build_app  # noqa: E402

# Two nodes of one CPU each, and only the processes the test needs: each one
# more slows the start of the others on a busy two-core machine.
NODE = dict(num_cpus=1, object_store_memory=80 * 1024 * 1024, include_log_monitor=False, no_monitor=True)
STREAMS_PER_REPLICA = 2


@pytest.fixture(scope="module")
def cluster_address():
    serve_api.HTTP_PROXY_TIMEOUT = max(serve_api.HTTP_PROXY_TIMEOUT, START_SECONDS)
    services.get_node = patient(services.get_node, START_SECONDS)
    cluster = Cluster(initialize_head=True, head_node_args=dict(NODE, include_dashboard=False))
    try:
        cluster.add_node(**NODE)
        ray.init(address=cluster.address, logging_level="warning", log_to_driver=False)
        port = free_port()
        serve.start(http_options={"host": "127.0.0.1", "port": port}, proxy_location="HeadOnly")
        yield f"127.0.0.1:{port}"
    finally:
        serve.shutdown()
        ray.shutdown()
        cluster.shutdown()


def patient(lookup, seconds):
    def wait(*args, **kwargs):
        deadline = time.monotonic() + seconds
        while True:
            try:
                return lookup(*args, **kwargs)
            except RuntimeError:
                if time.monotonic() > deadline:
                    raise
                time.sleep(1)
    return wait


def running_replicas():
    status = serve.status().applications["default"].deployments["corvina"]
    return status.replica_states.get("RUNNING", 0)


def test_streams_spread_over_two_nodes_and_stay_bit_identical(cluster_address, models, model_dir):
    # One CPU per replica on nodes of one CPU: the second replica must start
    # on the other node.
    serve.run(build_app({"model_dir": model_dir, "streams_per_replica": STREAMS_PER_REPLICA, "max_replicas": 2,
                         "cpus_per_replica": 1, "upscale_delay_s": 0, "health_check_timeout_s": 60}),
              route_prefix="/")
    results, opened, hold = {}, threading.Semaphore(0), threading.Event()

    def held():
        opened.release()
        hold.wait()

    def stream(k, **options):
        return lambda: results.__setitem__(k, stream_case(cluster_address, k, CASES[k], **options))

    # The first replica's streams stay open (started, no audio yet) until the
    # second replica runs; it is full, so the next streams go to the second.
    first = [threading.Thread(target=stream(k, on_ready=held)) for k in range(STREAMS_PER_REPLICA)]
    for thread in first:
        thread.start()
    for _ in first:
        assert opened.acquire(timeout=START_SECONDS), "a stream did not start"
    deadline = time.monotonic() + START_SECONDS
    while running_replicas() < 2 and time.monotonic() < deadline:
        time.sleep(1)
    assert running_replicas() == 2, "no second replica"
    in_threads(len(CASES) - STREAMS_PER_REPLICA, lambda k: stream(STREAMS_PER_REPLICA + k)())
    hold.set()
    for thread in first:
        thread.join()
    assert sorted(results) == list(range(len(CASES)))
    nodes = {texts[0]["server"].split(" replica")[0] for _, texts in results.values()}
    assert len(nodes) == 2, nodes
    for k, case in enumerate(CASES):
        assert_offline(models, k, case, results[k])
