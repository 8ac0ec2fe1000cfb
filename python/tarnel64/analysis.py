"""One-call analysis of a recording: the command-line analyser's run, results as DataFrames."""

from __future__ import annotations

import functools
import os
import re

import numpy as np
import pandas as pd

from . import _checks, _core
from ._records import EVENT_COLUMNS, block_frame, period_frame, sequence_frame, view_records
from .module import BACKENDS, FULL_CURRENTS, GRIDS

COMTRADE_EXTENSIONS = (".cfg", ".cff", ".dat")


def _grid_number(grid) -> int:
    if isinstance(grid, str):
        _checks.choice("grid", grid, sorted(FULL_CURRENTS))
        return GRIDS[(grid, FULL_CURRENTS[grid])]
    return _checks.integer("grid", grid, 0, 7)


def _core_options(backend="auto", grid=None, voltages=None, currents=None, delta=None, nominal_voltage=None,
                  nominal_frequency=None, sample_rate=None, secondary=False, section=None) -> dict:
    options = {"backend": BACKENDS[_checks.choice("backend", backend, list(BACKENDS))],
               "secondary": _checks.flag("secondary", secondary)}
    if grid is not None:
        options["grid"] = _grid_number(grid)
    for name, value in (("voltages", voltages), ("currents", currents)):
        if value is not None:
            if isinstance(value, str) or not all(isinstance(v, str) for v in value):
                raise ValueError(f"{name} must be a list of channel names")
            options[name] = list(value)
    if delta is not None:
        options["delta"] = _checks.flag("delta", delta)
    if nominal_voltage is not None:
        options["nominal_voltage"] = _checks.number("nominal_voltage", nominal_voltage, 0.0, low_open=True)
    if nominal_frequency is not None:
        options["nominal_frequency"] = _checks.number("nominal_frequency", nominal_frequency, 0.0, low_open=True)
    if sample_rate is not None:
        options["sample_rate"] = _checks.number("sample_rate", sample_rate, 0.0, low_open=True)
    if section is not None:
        options["section"] = _checks.integer("section", section, 1, 2**31 - 1)
    return options


def parse_start_time(text: str) -> pd.Timestamp | None:
    """A COMTRADE start time (dd/mm/yyyy or mm/dd/yy, then hh:mm:ss.fraction) in UTC."""
    match = re.fullmatch(r"\s*(\d+)/(\d+)/(\d+)\s*[,\s]\s*(\d+):(\d+):(\d+)(?:\.(\d+))?\s*", text or "")
    if not match:
        return None
    a, b, year, hour, minute, second, fraction = match.groups()
    day, month = (int(b), int(a)) if len(year) == 2 else (int(a), int(b))
    year = int(year) + (1900 if int(year) >= 70 else 2000) if len(year) == 2 else int(year)
    try:
        start = pd.Timestamp(year=year, month=month, day=day, hour=int(hour), minute=int(minute),
                             second=int(second), tz="UTC")
    except ValueError:
        return None
    return start + pd.Timedelta(int((fraction or "0").ljust(9, "0")[:9]), unit="ns")


class Analysis:
    """The results of one recording.

    blocks, periods, events: DataFrames with unit-suffixed columns (t_utc beside t_s
    where the recording states its start); block_records, period_records: the
    library's records; harmonics_u etc.: arrays (blocks, phases, orders).
    """

    def __init__(self, raw: dict, source: str, start: pd.Timestamp | None):
        self.source = source
        self.start = start
        self.info = dict(raw["info"])
        self.backend = raw["backend"]
        self.periods_per_block = raw["periods_per_block"]
        self.run_seconds = raw["run_seconds"]
        self._report = raw["report"]
        currents = bool(self.info["currents"])
        tables = raw["blocks"]
        self.block_records = view_records(tables["records"], "block")
        for key, value in tables.items():
            if key != "records":
                setattr(self, key, value)
        self.period_records = view_records(raw["periods"], "period")
        self._currents = currents
        self._events = raw["events"]

    # The tables are built when first used: a fleet run that needs only the
    # events does not pay for the others.
    @functools.cached_property
    def blocks(self) -> pd.DataFrame:
        return block_frame(self.block_records, self._currents, self.start)

    @functools.cached_property
    def periods(self) -> pd.DataFrame:
        return period_frame(self.period_records, self._currents, self.start)

    @functools.cached_property
    def events(self) -> pd.DataFrame:
        rows = [(e["kind"], e["phases"].split(), e["start"], e["start"] + e["duration"], e["duration"],
                 e["voltage"], e["depth"]) for e in self._events]
        frame = pd.DataFrame(rows, columns=EVENT_COLUMNS)
        if self.start is not None:
            frame.insert(3, "t_utc", self.start + pd.to_timedelta(frame["t_s"], unit="s"))
        return frame

    @property
    def nominal_voltage(self) -> float:
        return self.info["nominal_voltage"]

    def sequences(self) -> pd.DataFrame:
        """Sequence voltages and unbalance per block (three-phase recordings)."""
        return sequence_frame(self.block_records)

    def summary(self) -> str:
        """The report the command-line analyser prints."""
        return self._report

    def __repr__(self) -> str:
        return (f"<tarnel64.Analysis of {self.info['description']}: {len(self.block_records)} blocks, "
                f"{len(self.period_records)} period values, {len(self.events)} events>")

    def plot(self, figure=None):
        """RMS trend with events and thresholds, harmonic spectrum, phasors, frequency trend."""
        from .plots import plot_analysis

        return plot_analysis(self, figure)

    def to_html(self, path) -> None:
        """A self-contained HTML report: summary, plots and event table."""
        from .plots import write_html

        write_html(self, path)


def analyse(path_or_arrays, **options) -> Analysis:
    """Analyses a recording as tarnel-analyse does.

    path_or_arrays: a COMTRADE (.cfg), CSV or WAV path, or (u, i) arrays shaped
    (channels, samples) with sample_rate= and grid= given (i may be None; the
    nominal voltage and frequency default to 230 V and 50 Hz for arrays).
    Options: backend, grid, voltages, currents, delta, nominal_voltage,
    nominal_frequency, sample_rate, secondary, section.
    """
    core_options = _core_options(**options)
    if isinstance(path_or_arrays, (str, os.PathLike)):
        path = os.fspath(path_or_arrays)
        if not os.path.exists(path):
            raise FileNotFoundError(f"{path}: no such file")
        start = None
        if path.lower().endswith(COMTRADE_EXTENSIONS):
            start = parse_start_time(_core.recording_start_time(path))
        return Analysis(_core.analyse_file(path, core_options), path, start)
    return _analyse_arrays(path_or_arrays, core_options)


def _analyse_arrays(arrays, options: dict) -> Analysis:
    if isinstance(arrays, np.ndarray):
        arrays = (arrays, None)
    if not isinstance(arrays, tuple) or len(arrays) != 2:
        raise ValueError("pass a path or a tuple (u, i) of arrays shaped (channels, samples)")
    if "sample_rate" not in options or "grid" not in options:
        raise ValueError("analysing arrays needs sample_rate= and grid=")
    u, i = arrays
    u = _checks.samples("u", u, u.shape[0] if isinstance(u, np.ndarray) and u.ndim == 2 else -1)
    if i is None:
        i = np.empty((0, u.shape[1]), dtype=np.float32)
    i = _checks.samples("i", i, i.shape[0] if isinstance(i, np.ndarray) and i.ndim == 2 else -1, u.shape[1])
    raw = _core.analyse_arrays(np.ascontiguousarray(u, dtype=np.float32),
                               np.ascontiguousarray(i, dtype=np.float32), options)
    return Analysis(raw, "arrays", None)
