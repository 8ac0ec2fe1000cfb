"""Bad arrays and settings are refused with a message naming the problem."""

import numpy as np
import pytest

import tarnel64


@pytest.fixture
def module():
    return tarnel64.Module(backend="cpu")


def good(n=1024):
    return np.zeros((3, n)), np.zeros((3, n))


@pytest.mark.parametrize(
    "u, i, message",
    [
        (np.zeros((3, 64), dtype=np.int16), np.zeros((3, 64), dtype=np.int16), "float32 or float64"),
        (np.zeros((2, 64)), np.zeros((3, 64)), r"3 channels, not \(2, 64\)"),
        (np.zeros(64), np.zeros((3, 64)), "shaped"),
        (np.zeros((3, 64)), np.zeros((3, 63)), "63 samples"),
        (np.zeros((64, 3)).T, np.zeros((3, 64)), "C-contiguous"),
        (np.zeros((3, 64)), np.zeros((3, 64), dtype=np.float32), "share one dtype"),
        ([[0.0] * 64] * 3, np.zeros((3, 64)), "numpy array"),
        (np.zeros((3, 64)), None, "i is missing"),
    ],
)
def test_bad_arrays_are_refused_before_the_library(module, u, i, message):
    with pytest.raises(ValueError, match=message):
        module.write(u, i)
    assert module.written == 0


@pytest.mark.parametrize("bad", [np.nan, np.inf])
def test_non_finite_samples_are_located(module, bad):
    u, i = good()
    i[2, 700] = bad
    with pytest.raises(ValueError, match="channel 2, sample 700"):
        module.write(u, i)
    assert module.written == 0


def test_more_samples_than_the_ring_are_refused(module):
    u, i = good(module.ring_length + 1)
    with pytest.raises(ValueError, match="exceed the ring"):
        module.write(u, i)


@pytest.mark.parametrize(
    "settings, message",
    [
        ({"grid": "wye"}, "grid must be one of"),
        ({"grid": "star", "currents": 1}, "takes 3 currents"),
        ({"currents": 4}, "between 0 and 3"),
        ({"frequency": -50}, "frequency must be above 0"),
        ({"frequency": 10000}, "at most 5120"),
        ({"thd": "yes"}, "True or False"),
        ({"harmonics": 2.5}, "integer"),
        ({"dip_threshold": 120}, "at most 100"),
        ({"sample_rate": float("nan")}, "finite number"),
        ({"backend": "gpu"}, "backend must be one of"),
    ],
)
def test_bad_settings_name_the_setting(settings, message):
    with pytest.raises(ValueError, match=message):
        tarnel64.Module(**settings)


def test_unknown_settings_are_refused():
    with pytest.raises(TypeError, match="hamonics"):
        tarnel64.Module(hamonics=40)


def test_library_refusals_keep_its_message(module):
    u, i = good(4096)
    module.write(u, i)
    with pytest.raises(ValueError, match="only 4096 samples were written"):
        module.schedule(2048, 4096, 50.0)
    if tarnel64.cuda_available():
        assert tarnel64.Module(backend="cuda").backend == "cuda"
    else:
        with pytest.raises(tarnel64.DeviceError, match="no CUDA-capable device"):
            tarnel64.Module(backend="cuda")


def test_bad_recordings_name_the_file(tmp_path):
    with pytest.raises(FileNotFoundError, match="missing.cfg"):
        tarnel64.analyse(tmp_path / "missing.cfg")
    bad = tmp_path / "bad.cfg"
    bad.write_text("nonsense\n")
    with pytest.raises(RuntimeError, match="bad.cfg: no .dat file"):
        tarnel64.analyse(bad)
    with pytest.raises(ValueError, match="sample_rate= and grid="):
        tarnel64.analyse((np.zeros((3, 100)), None))
    with pytest.raises(ValueError, match="nominal_voltage must be above 0"):
        tarnel64.analyse(bad, nominal_voltage=0)


@pytest.mark.parametrize(
    "options, message",
    [
        ({"dip_threshold": 100}, "dip_threshold must lie below 100"),
        ({"swell_threshold": 95}, "swell_threshold must be above 100"),
        ({"interruption_threshold": 90}, "interruption_threshold must lie below the dip threshold"),
        ({"phase_order": "321"}, "phase_order must be one of"),
        ({"start_time": "2024-01-01"}, "start_time is for arrays"),
    ],
)
def test_bad_analysis_options_name_the_option(tmp_path, options, message):
    recording = tmp_path / "r.cfg"
    recording.write_text("nonsense\n")
    with pytest.raises(ValueError, match=message):
        tarnel64.analyse(recording, **options)
