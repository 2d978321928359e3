import os
import sys

import pytest

from corvina_tools import ModelSet, write_test_model
from corvina_tools.test_model import random_model

sys.path.insert(0, os.path.dirname(__file__))


@pytest.fixture(scope="session")
def model_dir(tmp_path_factory):
    """A random model set with three speakers, for the tests that only read it."""
    return write_test_model(str(tmp_path_factory.mktemp("models")), seed=5, speakers=3)


@pytest.fixture(scope="session")
def models(model_dir):
    return ModelSet.load(model_dir)


@pytest.fixture(scope="session")
def seeded(tmp_path_factory):
    """seeded(seed): the random weights of write_test_model(seed) by model
    kind, and the ModelSet loaded from its files; made once per seed."""
    made = {}

    def get(seed):
        if seed not in made:
            folder = write_test_model(str(tmp_path_factory.mktemp(f"seed{seed}")), seed=seed)
            made[seed] = random_model(seed), ModelSet.load(folder)
        return made[seed]
    return get


@pytest.fixture(scope="session")
def corvina_command():
    """Runs the installed `corvina` command in a process of its own, so that
    exit statuses and signals are what a shell sees."""
    import subprocess
    command = os.path.join(os.path.dirname(sys.executable), "corvina")

    def run(*argv, **options):
        return subprocess.run([command, *map(str, argv)], capture_output=True, timeout=300,
                              text="input" not in options, **options)
    run.path = command
    return run
