"""The module's public surface, object lifecycle and speaker-file function."""
import gc
import os
import resource

import numpy as np
import pytest

import corvina

MODELS = [
    (corvina.PhoneExtractor, corvina.PhoneContext),
    (corvina.PitchEstimator, corvina.PitchContext),
    (corvina.WaveformGenerator, corvina.WaveformContext),
]


def test_constants():
    assert (corvina.IN_HOP_LENGTH, corvina.OUT_HOP_LENGTH) == (160, 240)
    assert (corvina.IN_SAMPLE_RATE, corvina.OUT_SAMPLE_RATE) == (16000, 24000)
    assert corvina.PHONE_CHANNELS == corvina.WAVEFORM_GENERATOR_HIDDEN_CHANNELS == 256
    assert (corvina.PITCH_BINS, corvina.PITCH_BINS_PER_OCTAVE) == (384, 96)


def test_public_surface_is_six_types_one_function_eight_constants():
    public = {k: v for k, v in vars(corvina).items() if not k.startswith("_")}
    types = sorted(k for k, v in public.items() if isinstance(v, type))
    functions = [k for k, v in public.items() if callable(v) and not isinstance(v, type)]
    constants = [k for k, v in public.items() if isinstance(v, int)]
    assert types == sorted(["PhoneContext", "PhoneExtractor", "PitchContext", "PitchEstimator",
                            "WaveformContext", "WaveformGenerator"])
    assert functions == ["read_speaker_embeddings"]
    assert len(constants) == 8
    for name in types:
        assert getattr(corvina, name).__module__ == "corvina"
        assert repr(getattr(corvina, name)) == f"<class 'corvina.{name}'>"
    assert corvina.read_speaker_embeddings.__doc__ == "Read speaker embeddings from file."
    assert corvina.PhoneExtractor.read_parameters.__doc__ == "Read parameters from file."
    assert corvina.PhoneExtractor.new_context.__doc__ == "Create new context."


@pytest.mark.parametrize("model_type, context_type", MODELS)
def test_new_context(model_type, context_type):
    model = model_type()
    assert type(model.new_context(1)) is context_type
    with pytest.raises(ValueError, match="^length != 1$"):
        model.new_context(2)
    with pytest.raises(TypeError):
        model.new_context("1")
    # A context of another length is accepted but carries no engine state.
    context_type(3)
    with pytest.raises(TypeError):
        context_type()


@pytest.mark.parametrize("model_type, context_type", MODELS)
def test_types_can_be_subclassed(model_type, context_type):
    class Model(model_type):
        pass

    class Context(context_type):
        pass

    assert isinstance(Model().new_context(1), context_type)
    Context(1)


def test_uninitialised_model_subclass_is_refused(tmp_path):
    class Lazy(corvina.PhoneExtractor):
        def __init__(self):
            pass

    with pytest.raises(RuntimeError):
        Lazy().read_parameters(tmp_path / "never-read.bin")


def rss_bytes():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * resource.getpagesize()


def test_blocks_are_freed():
    # Each generator block is 11 MB and zero-filled (touched) at creation, so
    # a leak shows in the resident size; the first rounds let the allocator
    # settle on the memory it keeps.
    def cycle(rounds):
        for _ in range(rounds):
            for model_type, context_type in MODELS:
                model = model_type()
                model.__init__()  # re-initialising frees the replaced block
                context = model.new_context(1)
                context.__init__(1)
                context_type(1)
        gc.collect()

    cycle(20)
    before = rss_bytes()
    cycle(300)
    assert rss_bytes() - before < 16 << 20


class TestSpeakerEmbeddings:
    def write(self, path, values):
        np.asarray(values, dtype="<f2").tofile(path)
        return path

    def test_rows_are_exact_widenings(self, tmp_path):
        rng = np.random.default_rng(7)
        halves = rng.standard_normal((3, 256)).astype(np.float16)
        for path in (tmp_path / "s.bin", str(tmp_path / "s.bin"), os.fsencode(tmp_path / "s.bin")):
            self.write(tmp_path / "s.bin", halves)
            rows = corvina.read_speaker_embeddings(path)
            assert rows.dtype == np.float32 and rows.shape == (3, 256)
            np.testing.assert_array_equal(rows, halves.astype(np.float32))

    @pytest.mark.parametrize("size", [0, 1000, 511])
    def test_files_without_whole_speakers_give_no_rows(self, tmp_path, size):
        path = tmp_path / "s.bin"
        path.write_bytes(b"\x01" * size)
        assert corvina.read_speaker_embeddings(path).shape == (0, 256)

    def test_missing_file_and_directory_give_no_rows(self, tmp_path):
        assert corvina.read_speaker_embeddings(tmp_path / "missing.bin").shape == (0, 256)
        assert corvina.read_speaker_embeddings(tmp_path).shape[1] == 256

    def test_bad_path_types(self):
        with pytest.raises(TypeError):
            corvina.read_speaker_embeddings(3)
        with pytest.raises(TypeError):
            corvina.read_speaker_embeddings()
