"""The streaming API: samples in as they are acquired, block results and period values out."""

from __future__ import annotations

import numpy as np
import pandas as pd

from . import _checks, _core
from ._records import detector_events, schema_frame, sequence_frame, view_records

BACKENDS = {"auto": 0, "cpu": 1, "cuda": 2}

# (grid, currents) -> the library's wiring; 0 currents uses the wiring with all currents, disabled.
GRIDS = {
    ("single", 1): 0,
    ("star", 3): 1,
    ("star", 2): 2,
    ("delta", 3): 3,
    ("delta", 2): 4,
    ("two-phase", 2): 5,
    ("two-delta", 2): 6,
}
FULL_CURRENTS = {"single": 1, "star": 3, "delta": 3, "two-phase": 2, "two-delta": 2}


class BlockResults:
    """Block results: `records` (structured array, one per block) and the spectra shaped
    (blocks, phases, orders) as the library computed them: h_u_V, h_i_A, h_ul_V, h_u_deg,
    h_i_deg (degrees), ih_u_V, ih_i_A."""

    def __init__(self, tables: dict, system: tuple):
        self._raw = tables["records"]
        self.records = view_records(self._raw, "block")
        for key, value in tables.items():
            if key != "records":
                setattr(self, key, value)
        self._system = system

    def __len__(self) -> int:
        return len(self.records)

    def to_pandas(self) -> pd.DataFrame:
        """One row per block and phase with the columns of the analyser's blocks.csv
        (u_rms_V, p_W, thd_u_pct, ...; NaN for what was not measured)."""
        return schema_frame(_core.block_columns(self._raw, *self._system))

    def sequences(self) -> pd.DataFrame:
        """Sequence voltages and unbalance per block (three-phase systems)."""
        return sequence_frame(self.records)


class PeriodValues:
    """Period values: `records` shaped (values, phases + 1), record 0 the combination."""

    def __init__(self, raw: np.ndarray, system: tuple, nominal_voltage: float):
        self._raw = raw
        self.records = view_records(raw, "period")
        self._system = system
        self._nominal = nominal_voltage

    def __len__(self) -> int:
        return len(self.records)

    def to_pandas(self) -> pd.DataFrame:
        """One row per period value and phase with the columns of the analyser's periods.csv."""
        return schema_frame(_core.period_columns(self._raw, *self._system))

    def events(self) -> pd.DataFrame:
        """Dips and swells that ended within these values, one row per phase."""
        return detector_events(self.records, self._nominal)


class RingView:
    """A zero-copy view of one channel's sample ring; refused once the module is rebuilt."""

    def __init__(self, module: "Module", kind: str, channel: int):
        self._module, self._generation = module, module._generation
        self._array = module._core.ring(kind, channel)

    @property
    def array(self) -> np.ndarray:
        if self._module._generation != self._generation:
            raise RuntimeError("the module was rebuilt since this ring view was taken; take a new one")
        return self._array

    def __array__(self, dtype=None, copy=None):
        a = self.array
        return a if dtype is None else a.astype(dtype)


class Module:
    """One analysed electrical system, configured in one call.

    Sample s of channel c goes to ring position s % ring length; `write` handles
    the wrap. Blocks are scheduled with `schedule`; period values follow the
    zero crossings of the first voltage, tracked as samples are written.
    """

    def __init__(self, *, grid: str = "star", currents: int = 3, sample_rate: float = 51200.0,
                 frequency: float = 50.0, frequency_tolerance: float = 0.1, harmonics: int = 50,
                 thd: bool = True, interharmonics: bool = False, line_to_line: bool | None = None,
                 symmetrical_components: bool | None = None, period_values: bool = True,
                 dips: bool = True, rvc: bool = False, nominal_voltage: float = 230.0,
                 dip_threshold: float = 90.0, swell_threshold: float = 110.0,
                 dip_hysteresis: float = 2.0, swell_hysteresis: float = 2.0,
                 ring_seconds: float = 4.0, backend: str = "auto"):
        _checks.choice("grid", grid, sorted(FULL_CURRENTS))
        currents = _checks.integer("currents", currents, 0, FULL_CURRENTS[grid])
        wiring = GRIDS.get((grid, currents or FULL_CURRENTS[grid]))
        if wiring is None:
            raise ValueError(f"a {grid} grid takes {FULL_CURRENTS[grid]} currents (or 2 where one is missing), "
                             f"not {currents}")
        _checks.choice("backend", backend, list(BACKENDS))
        sample_rate = _checks.number("sample_rate", sample_rate, 0.0, low_open=True)
        frequency = _checks.number("frequency", frequency, 0.0, sample_rate / 10.0, low_open=True)
        phases = 1 if grid == "single" else (2 if grid == "two-phase" else 3)
        self.settings = {
            "grid": wiring,
            "sample_rate": sample_rate,
            "frequency": (frequency, _checks.number("frequency_tolerance", frequency_tolerance, 0.0, 0.5)),
            "buffer_length": int(round(_checks.number("ring_seconds", ring_seconds, 0.0, 60.0, low_open=True)
                                       * sample_rate)),
            "currents_enabled": currents > 0,
            "harmonics": _checks.integer("harmonics", harmonics, 1, 511),
            "thd": _checks.flag("thd", thd),
            "interharmonics": _checks.flag("interharmonics", interharmonics),
            "line_to_line": _checks.flag("line_to_line", phases > 1 if line_to_line is None else line_to_line),
            "symmetrical_components": _checks.flag(
                "symmetrical_components", phases == 3 if symmetrical_components is None else symmetrical_components),
            "period_values": _checks.flag("period_values", period_values),
            "dips": _checks.flag("dips", dips),
            "rvc": _checks.flag("rvc", rvc),
            "nominal_voltage": _checks.number("nominal_voltage", nominal_voltage, 0.0, low_open=True),
            "dip_threshold": _checks.number("dip_threshold", dip_threshold, 0.0, 100.0, low_open=True),
            "swell_threshold": _checks.number("swell_threshold", swell_threshold, 100.0, 1000.0, low_open=True),
            "dip_hysteresis": _checks.number("dip_hysteresis", dip_hysteresis, 0.0, 50.0),
            "swell_hysteresis": _checks.number("swell_hysteresis", swell_hysteresis, 0.0, 50.0),
        }
        if period_values:
            self.settings["fundamental_period_values"] = True
            self.settings["period_symmetrical_components"] = phases == 3
        if self.settings["buffer_length"] < 2 * sample_rate / frequency:
            raise ValueError("ring_seconds must hold at least two periods")
        self._core = _core.StreamingModule(BACKENDS[backend])
        self._generation = 0
        self._core.configure(self.settings)

    @property
    def backend(self) -> str:
        """'cpu' or 'cuda'."""
        return self._core.backend

    @property
    def written(self) -> int:
        """Samples written since the module was configured."""
        return self._core.next_sample

    @property
    def ring_length(self) -> int:
        return self._core.ring_length

    def write(self, u: np.ndarray, i: np.ndarray | None = None) -> None:
        """Copies voltages (voltages, n) and currents (currents, n) into the rings.

        float32 and float64 are taken as they are; other arrays are refused.
        """
        u = _checks.samples("u", u, self._core.voltages)
        if i is None:
            if self._core.currents:
                raise ValueError(f"i is missing: the module takes {self._core.currents} current channels")
            i = np.empty((0, u.shape[1]), dtype=u.dtype)
        i = _checks.samples("i", i, self._core.currents, u.shape[1])
        if u.dtype != i.dtype:
            raise ValueError(f"u and i must share one dtype, not {u.dtype} and {i.dtype}")
        self._core.write(u, i)

    def schedule(self, first: int, length: int, frequency: float) -> None:
        """Schedules a block of `length` samples from sample `first` at `frequency` Hz."""
        first = _checks.integer("first", first, 0, 2**63 - 1)
        length = _checks.integer("length", length, 1, 2**31 - 1)
        frequency = _checks.number("frequency", frequency, 0.0, low_open=True)
        self._core.schedule(first, length, frequency)

    def sync(self) -> None:
        """Waits until every scheduled block is calculated."""
        self._core.sync()

    def results(self, max_results: int = 0, wait: bool = True) -> BlockResults:
        """Finished block results (all of them when max_results is 0); waits for
        the scheduled ones first unless wait is False."""
        if wait:
            self.sync()
        return BlockResults(self._core.results(_checks.integer("max_results", max_results, 0, 2**31 - 1)),
                            self._system())

    def period_values(self) -> PeriodValues:
        """The period values computed since the last call."""
        return PeriodValues(self._core.period_values(), self._system(), self.settings["nominal_voltage"])

    def _system(self) -> tuple:
        """What the output records need to know of the system: rate, wiring, current channels."""
        currents = self._core.currents if self.settings["currents_enabled"] else 0
        return self.settings["sample_rate"], self.settings["grid"], currents

    def ring_view(self, kind: str, channel: int) -> RingView:
        """Opt-in zero-copy view of a ring ('u' or 'i'); invalid after `reconfigure`."""
        return RingView(self, kind, channel)

    def reconfigure(self) -> None:
        """Rebuilds the module with its settings and starts again at sample 0."""
        self._generation += 1
        self._core.configure(self.settings)
