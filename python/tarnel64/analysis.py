"""One-call analysis of a recording: the command-line analyser's run, results as DataFrames
with the columns of its output files (schema "tarnel64.analysis/1")."""

from __future__ import annotations

import functools
import os

import numpy as np
import pandas as pd

from . import _checks, _core
from ._records import SPECTRA, harmonic_frame, schema_frame, sequence_frame, spectra, view_records
from .module import BACKENDS, FULL_CURRENTS, GRIDS

# --phase-order of the command line: detected, L1-L2-L3 or L1-L3-L2.
PHASE_ORDERS = {"auto": 0, "123": 1, "abc": 1, "L1-L2-L3": 1, "132": 2, "acb": 2, "L1-L3-L2": 2}


def _grid_number(grid) -> int:
    if isinstance(grid, str):
        _checks.choice("grid", grid, sorted(FULL_CURRENTS))
        return GRIDS[(grid, FULL_CURRENTS[grid])]
    return _checks.integer("grid", grid, 0, 7)


def _core_options(backend="auto", grid=None, voltages=None, currents=None, delta=None, nominal_voltage=None,
                  nominal_frequency=None, sample_rate=None, secondary=False, section=None, dip_threshold=90.0,
                  swell_threshold=110.0, interruption_threshold=10.0, phase_order="auto", start_time=None) -> dict:
    options = {"backend": BACKENDS[_checks.choice("backend", backend, list(BACKENDS))],
               "secondary": _checks.flag("secondary", secondary),
               "dip_threshold": _checks.number("dip_threshold", dip_threshold, 0.0, 100.0, low_open=True),
               "swell_threshold": _checks.number("swell_threshold", swell_threshold, 100.0, low_open=True),
               "interruption_threshold": _checks.number("interruption_threshold", interruption_threshold, 0.0),
               "phase_order": PHASE_ORDERS[_checks.choice("phase_order", phase_order, list(PHASE_ORDERS))]}
    if options["dip_threshold"] == 100.0:
        raise ValueError("dip_threshold must lie below 100 %")
    if options["interruption_threshold"] >= options["dip_threshold"]:
        raise ValueError("interruption_threshold must lie below the dip threshold")
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
    if start_time is not None:
        start = pd.Timestamp(start_time)
        options["start_utc_ns"] = (start.tz_localize("UTC") if start.tzinfo is None else start.tz_convert("UTC")).value
    return options


class Analysis:
    """The results of one recording, named as the analyser's output files name them.

    header: the header record (nominal values and their sources, phase order, coverage, ...);
    blocks, periods, events, harmonics: DataFrames with the columns of blocks.csv,
    periods.csv, events.csv and harmonics.csv (UTC times as timestamps, event phases as
    lists); h_u_V, h_u_deg, ih_u_V, h_i_A, h_i_deg, ih_i_A: the block spectra as arrays
    (blocks, phases, orders); block_records, period_records: the library's records.
    """

    def __init__(self, raw: dict, source: str, thresholds: dict):
        self.source = source
        self.header = raw["header"]
        self.description = raw["description"]
        self.backend = self.header["backend"]
        self.periods_per_block = self.header["periods_per_block"]
        self.run_seconds = raw["run_seconds"]
        self.thresholds = thresholds
        self._report = raw["report"]
        self._raw = {name: raw[name] for name in ("blocks", "periods", "events")}
        self._prototypes = raw["prototypes"]
        self.block_records = view_records(raw["block_records"], "block")
        self.period_records = view_records(raw["period_records"], "period")
        for name, values in spectra(raw["blocks"], self.header["phase_count"]).items():
            setattr(self, name, values)

    # The tables are built when first used: a fleet run that needs only the
    # events does not pay for the others.
    @functools.cached_property
    def blocks(self) -> pd.DataFrame:
        return schema_frame(self._raw["blocks"])

    @functools.cached_property
    def periods(self) -> pd.DataFrame:
        return schema_frame(self._raw["periods"], self._prototypes["period"])

    @functools.cached_property
    def events(self) -> pd.DataFrame:
        return schema_frame(self._raw["events"], self._prototypes["event"])

    @functools.cached_property
    def harmonics(self) -> pd.DataFrame:
        arrays = {name: getattr(self, name) for name in SPECTRA}
        return harmonic_frame(self.blocks, arrays, self.block_records["harmonicLength"])

    @property
    def nominal_voltage(self) -> float:
        return self.header["nominal_voltage_V"]

    @property
    def start(self) -> pd.Timestamp | None:
        """The time of the first sample, where the recording states it."""
        start = self.header["start_time_utc"]
        return None if start is None else pd.Timestamp(start)

    @property
    def duration(self) -> float:
        """Seconds covered by the blocks: the end of the recording."""
        return self.header["covered_end_s"]

    def sequences(self) -> pd.DataFrame:
        """Sequence voltages and unbalance per block (three-phase recordings)."""
        return sequence_frame(self.block_records)

    def summary(self) -> str:
        """The report the command-line analyser prints."""
        return self._report

    def __repr__(self) -> str:
        ongoing = int(self.events["ongoing"].sum()) if len(self.events) else 0
        return (f"<tarnel64.Analysis of {self.description}: {len(self.block_records)} blocks, "
                f"{len(self.period_records)} period values, {len(self.events)} events ({ongoing} ongoing at the end)>")

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
    (channels, samples) with sample_rate= and grid= given (i may be None).
    Options as the command line's: backend, grid, voltages, currents, delta,
    nominal_voltage, nominal_frequency, sample_rate, secondary, section,
    dip_threshold, swell_threshold, interruption_threshold (% of nominal),
    phase_order ("auto", "123"/"abc"/"L1-L2-L3", "132"/"acb"/"L1-L3-L2"); for
    arrays also start_time (UTC unless it names a zone). Nominal values not
    given are estimated from the samples, as the command line does.
    """
    core_options = _core_options(**options)
    thresholds = {name: core_options[f"{name}_threshold"] for name in ("dip", "swell", "interruption")}
    if isinstance(path_or_arrays, (str, os.PathLike)):
        if "start_time" in options:
            raise ValueError("start_time is for arrays; a recording states its own")
        path = os.fspath(path_or_arrays)
        if not os.path.exists(path):
            raise FileNotFoundError(f"{path}: no such file")
        return Analysis(_core.analyse_file(path, core_options), path, thresholds)
    return Analysis(_analyse_arrays(path_or_arrays, core_options), "arrays", thresholds)


def _analyse_arrays(arrays, options: dict) -> dict:
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
    return _core.analyse_arrays(np.ascontiguousarray(u, dtype=np.float32),
                                np.ascontiguousarray(i, dtype=np.float32), options)
