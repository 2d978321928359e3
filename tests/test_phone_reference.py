"""Phone extractor: engine against the float64 whole-stream reference.

Tolerance. Beyond single-precision rounding, the engine approximates only
the recurrent gates: sigmoid and tanh take the processor's 12-bit reciprocal
estimate, relative error at most 1.5 * 2**-12 = 3.7e-4. The table
exponential adds about r**2/2 < 6e-8 relative, float16 weights are exact on
both sides, and a float32 run of the whole reference differs from float64 by
about 3e-6. Pushing every gate value of the reference off by the full 3.7e-4
in one direction (the coherent worst case; random signs give under 2e-3)
moves the outputs, which are of order one, by at most 6.8e-3 over 320 frames
for both weight seeds. TOL = 2e-2 keeps a factor of about three over that,
while every planted fault moves the outputs by 0.49 or more, over 20 * TOL.
"""
import numpy as np
import pytest

import corvina

from reference import phone
from signals import speech_like, frames

TOL = 2e-2
N_FRAMES = 320
SEEDS = (1, 2)


def _signal(seed):
    return speech_like(N_FRAMES, seed=seed)


def _report(got, ref):
    d = np.abs(got - ref)
    f, c = np.unravel_index(np.argmax(d), d.shape)
    rms = np.sqrt(np.mean(ref ** 2))
    return f"max abs {d.max():.3g} at frame {f} ch {c}, max abs / output rms {d.max() / rms:.3g}"


def test_parameter_file_order(tmp_path):
    params = phone.random_parameters(0)
    path = tmp_path / "phone.bin"
    phone.write_parameters(params, path)
    blob = np.fromfile(path, dtype="<f2")
    assert blob.nbytes == phone.FILE_BYTES == corvina._PHONE_EXTRACTOR_PARAMETER_BYTES
    # File offsets of the input dense, causal and output dense groups: the
    # block offsets less the six 64-byte gaps behind the front-end tensors.
    starts = {"input_dense.weight": 914432, "causal_conv.weight": 3414528,
              "output_dense.weight": 10716160}
    offset = 0
    for name, shape in phone.TENSORS:
        if name in starts:
            assert 2 * offset == starts[name] - 6 * 64, name
        n = int(np.prod(shape))
        np.testing.assert_array_equal(blob[offset:offset + n].reshape(shape), params[name])
        offset += n


def _run_engine(corvina, params, path, signal):
    phone.write_parameters(params, path)
    pe = corvina.PhoneExtractor()
    pe.read_parameters(str(path))
    ctx = pe.new_context(1)
    return np.vstack([pe(x, ctx) for x in frames(signal)]).astype(np.float64)


@pytest.fixture(scope="module")
def engine_outputs(tmp_path_factory):
    d = tmp_path_factory.mktemp("phone")
    return {s: _run_engine(corvina, phone.random_parameters(s), d / f"phone{s}.bin", _signal(s))
            for s in SEEDS}


@pytest.mark.parametrize("seed", SEEDS)
def test_engine_matches_reference(engine_outputs, seed):
    got = engine_outputs[seed]
    ref = phone.extract_phone(phone.random_parameters(seed), _signal(seed))
    assert np.abs(got - ref).max() <= TOL, f"seed {seed}: {_report(got, ref)}"


@pytest.mark.parametrize("fault", phone.FAULTS)
def test_planted_fault_is_far_outside_tolerance(engine_outputs, fault):
    seed = SEEDS[0]
    faulty = phone.extract_phone(phone.random_parameters(seed), _signal(seed), fault=fault)
    got = engine_outputs[seed]
    assert np.abs(got - faulty).max() > 10 * TOL, f"seed {seed}, {fault}: {_report(got, faulty)}"
