"""The waveform generator: the engine against the float64 reference, and
against the reference with each planted fault."""
import functools

import numpy as np
import pytest

import corvina

from reference import waveform

N_FRAMES = 300
SEEDS = (1, 2)
SPEAKER_SWITCH = 150  # frame from which the second speaker row is used

# Tolerance on every frame: max |engine - reference| <= TOLERANCE * RMS of
# the reference stream. The engine's dominant error is the 12-bit reciprocal
# estimate in every SiLU, gate sigmoid and gate tanh (relative error up to
# 1.5 * 2^-12 = 3.7e-4); float32 rounding (~6e-8 a step, ~2e-6 over the
# longest dot products) and the table exponential (~6e-8) are far smaller.
# Feeding that reciprocal error into this model at every activation (about a
# dozen SiLU layers in series, then 15 recurrent steps a frame) moved the
# output by at most 1.3e-3 RMS with independent random errors and 2.6e-3 RMS
# with every error at the bound with the same sign (seeds 1-3, 300 frames).
# The recurrence contracts, so the deviation does not grow along the stream,
# and the phase pairs stay away from the origin, where a direction would be
# ill-conditioned. 1e-2 leaves a margin of about 4 over the coherent bound;
# every planted fault below moves the median frame by 0.3 RMS or more.
TOLERANCE = 1e-2


def conditioning(n_frames, seed):
    """Smooth phone features, a gliding pitch bin, plausible pitch features
    and three speakers (float16-representable), as float32 / int32 rows."""
    rng = np.random.default_rng(seed)
    phone = 1.2 * np.tanh(np.cumsum(0.15 * rng.standard_normal((n_frames, 256)), axis=0))
    t = np.arange(n_frames) / max(n_frames - 1, 1)
    qpitch = np.round(60 + 240 * (0.5 - 0.5 * np.cos(2 * np.pi * t))).astype(np.int32)
    pfeat = np.column_stack([
        -1.25 - 1.2 * np.sin(2 * np.pi * 3 * t + 0.3),   # loudness
        0.5 + 0.45 * np.sin(2 * np.pi * 2 * t),          # probability of bin 0
        0.5 + 0.4 * np.sin(2 * np.pi * 1.3 * t + 1.0),   # octave ratios
        0.5 + 0.4 * np.cos(2 * np.pi * 0.7 * t),
    ])
    speakers = (0.3 * rng.standard_normal((3, 256))).astype(np.float16).astype(np.float32)
    return phone.astype(np.float32), qpitch, pfeat.astype(np.float32), speakers


def speaker_rows(speakers, n_frames):
    return np.where(np.arange(n_frames)[:, None] < SPEAKER_SWITCH, speakers[0], speakers[1])


@functools.lru_cache(maxsize=None)
def reference_stages(seed, fault=None):
    """Every stage of the reference over the standard stream (shared, read-only)."""
    phone, qpitch, pfeat, speakers = conditioning(N_FRAMES, seed)
    stages = waveform.stage_outputs(waveform.random_parameters(seed), phone, qpitch, pfeat,
                                    speaker_rows(speakers, N_FRAMES), fault=fault)
    for value in stages.values():
        value.flags.writeable = False
    return stages


def reference_run(seed, fault=None):
    return reference_stages(seed, fault)["output"]


def frame_errors(out, ref):
    return np.abs(out - ref).reshape(-1, waveform.HOP).max(axis=1)


def rms(x):
    return float(np.sqrt(np.mean(x**2)))


# ---------------------------------------------------------------- reference self-checks

def test_parameter_and_speaker_files(tmp_path):
    params = waveform.random_parameters(0)
    path = tmp_path / "generator.bin"
    waveform.write_parameters(params, path)
    data = np.fromfile(path, dtype="<f2")
    assert 2 * data.size == waveform.FILE_BYTES == corvina._WAVEFORM_GENERATOR_PARAMETER_BYTES
    # Pitch bin b is the 256 values from value 65792 + 256 b of the file.
    for b in (0, 200, 383):
        np.testing.assert_array_equal(data[65792 + 256 * b: 65792 + 256 * (b + 1)],
                                      params["pitch_embedding"][b])
    assert np.array_equal(data[-252:], params["band_filter"].ravel())

    rows = np.random.default_rng(0).standard_normal((3, 256)) * 0.3
    waveform.write_speakers(rows, tmp_path / "speakers.bin")
    back = np.fromfile(tmp_path / "speakers.bin", dtype="<f2")
    assert back.size * 2 == 3 * 512
    np.testing.assert_array_equal(back.reshape(3, 256), rows.astype(np.float16))


# ---------------------------------------------------------------- engine against reference

@pytest.fixture(scope="module", params=SEEDS)
def engine_run(request, tmp_path_factory):
    seed = request.param
    folder = tmp_path_factory.mktemp(f"waveform{seed}")
    params = waveform.random_parameters(seed)
    waveform.write_parameters(params, folder / "generator.bin")
    phone, qpitch, pfeat, speakers = conditioning(N_FRAMES, seed)
    waveform.write_speakers(speakers, folder / "speakers.bin")

    read = corvina.read_speaker_embeddings(str(folder / "speakers.bin"))
    np.testing.assert_array_equal(read, speakers)
    rows = speaker_rows(read, N_FRAMES).astype(np.float32)
    generator = corvina.WaveformGenerator()
    generator.read_parameters(str(folder / "generator.bin"))
    context = generator.new_context(1)
    out = np.concatenate([
        generator(phone[f:f + 1], qpitch[f:f + 1], pfeat[f:f + 1], rows[f:f + 1], context)
        for f in range(N_FRAMES)
    ]).astype(np.float64)
    return seed, out


def test_engine_matches_reference(engine_run):
    seed, out = engine_run
    ref = reference_run(seed)
    errors = frame_errors(out, ref)
    limit = TOLERANCE * rms(ref)
    worst = int(np.argmax(errors))
    assert (errors <= limit).all(), (
        f"seed {seed}: {np.sum(errors > limit)} frames over tolerance; worst frame {worst}: "
        f"max abs error {errors[worst]:.3e}, relative to RMS {errors[worst] / rms(ref):.3e} "
        f"(limit {TOLERANCE:.0e})")


@pytest.mark.parametrize("fault", waveform.FAULTS)
def test_engine_disagrees_with_every_faulty_reference(engine_run, fault):
    seed, out = engine_run
    faulty = reference_run(seed, fault=fault)
    ratio = np.median(frame_errors(out, faulty)) / (TOLERANCE * rms(faulty))
    assert ratio > 10, f"seed {seed}, fault {fault}: engine within {ratio:.1f} tolerances of a faulty model"
