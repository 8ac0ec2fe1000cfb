"""Argument checks that name the problem before anything reaches the library."""

from __future__ import annotations

import math
import numbers

import numpy as np

SAMPLE_DTYPES = (np.dtype(np.float32), np.dtype(np.float64))


def samples(name: str, array, channels: int, count: int | None = None) -> np.ndarray:
    """A (channels, samples) float32/float64 C-contiguous array of finite values."""
    if not isinstance(array, np.ndarray):
        raise ValueError(f"{name} must be a numpy array shaped (channels, samples), not {type(array).__name__}")
    if array.dtype not in SAMPLE_DTYPES:
        raise ValueError(f"{name} must hold float32 or float64 samples, not {array.dtype}")
    if array.ndim != 2 or array.shape[0] != channels:
        raise ValueError(f"{name} must be shaped (channels, samples) with {channels} channels, not {array.shape}")
    if count is not None and array.shape[1] != count:
        raise ValueError(f"{name} holds {array.shape[1]} samples per channel where {count} were expected")
    if not array.flags.c_contiguous:
        raise ValueError(f"{name} is not C-contiguous; pass numpy.ascontiguousarray({name})")
    finite = np.isfinite(array)
    if not finite.all():
        channel, sample = np.argwhere(~finite)[0]
        raise ValueError(f"{name} holds a non-finite value ({array[channel, sample]}) at channel {channel}, "
                         f"sample {sample}")
    return array


def flag(name: str, value) -> bool:
    if not isinstance(value, (bool, np.bool_)):
        raise ValueError(f"{name} must be True or False, not {value!r}")
    return bool(value)


def number(name: str, value, low: float | None = None, high: float | None = None,
           low_open: bool = False) -> float:
    """A finite real number within [low, high] ((low, high] when low_open)."""
    if isinstance(value, bool) or not isinstance(value, numbers.Real) or not math.isfinite(value):
        raise ValueError(f"{name} must be a finite number, not {value!r}")
    value = float(value)
    if low is not None and (value < low or (low_open and value == low)):
        raise ValueError(f"{name} must be {'above' if low_open else 'at least'} {low:g}, not {value:g}")
    if high is not None and value > high:
        raise ValueError(f"{name} must be at most {high:g}, not {value:g}")
    return value


def integer(name: str, value, low: int, high: int) -> int:
    if isinstance(value, bool) or not isinstance(value, numbers.Integral):
        raise ValueError(f"{name} must be an integer, not {value!r}")
    if not low <= value <= high:
        raise ValueError(f"{name} must lie between {low} and {high}, not {value}")
    return int(value)


def choice(name: str, value, choices) -> str:
    if value not in choices:
        raise ValueError(f"{name} must be one of {', '.join(map(repr, choices))}, not {value!r}")
    return value
