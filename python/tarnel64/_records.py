"""numpy dtypes mirroring the library's result records, and the tables of the analyser's
output schema ("tarnel64.analysis/1", docs/output-format.md) as DataFrames."""

from __future__ import annotations

import functools

import numpy as np
import pandas as pd

from . import _core

# The spectra of a block phase: arrays (index = order) in JSON, harmonics.csv in CSV.
SPECTRA = ("h_u_V", "h_u_deg", "ih_u_V", "h_i_A", "h_i_deg", "ih_i_A")
HARMONIC_COLUMNS = ["block_index", "t_start_s", "t_end_s", "phase", "order", *SPECTRA]


@functools.lru_cache(maxsize=None)
def record_dtype(name: str) -> np.dtype:
    """The dtype of one record as the library lays it out (pointer fields left out)."""
    size, fields = _core.record_layouts()[name]
    names, formats, offsets = [], [], []
    for field, fmt, offset, count in fields:
        base = record_dtype(fmt) if fmt in _core.record_layouts() else np.dtype(fmt)
        names.append(field)
        formats.append((base, (count,)) if count > 1 else base)
        offsets.append(offset)
    return np.dtype({"names": names, "formats": formats, "offsets": offsets, "itemsize": size})


def view_records(raw: np.ndarray, name: str) -> np.ndarray:
    """Views raw record bytes (..., record size) as records without copying."""
    dtype = record_dtype(name)
    return raw.view(dtype).reshape(raw.shape[:-1])


def schema_frame(columns: dict, prototype: dict | None = None) -> pd.DataFrame:
    """The columns of one output table as a DataFrame: the record kind left out, flags
    as bool, UTC times as timestamps (NaT where the recording has no start time).
    Without rows the prototype's fields name the columns."""
    if not columns and prototype is not None:
        return pd.DataFrame(columns=[name for name in prototype if name not in ("record", "per_phase")])
    data = {}
    for name, values in columns.items():
        if name == "record" or name in SPECTRA:
            continue
        if isinstance(values, np.ndarray) and values.dtype == np.uint8:
            values = values.view(bool)
        if name.endswith("_utc"):
            values = pd.to_datetime(pd.Series(values, dtype=object), utc=True, format="ISO8601")
        data[name] = values
    return pd.DataFrame(data)


def spectra(columns: dict, phases: int) -> dict:
    """The block spectra shaped (blocks, phases, orders); NaN where not measured."""
    rows = len(columns["index"]) if "index" in columns else 0
    orders = columns["h_u_V"].shape[1] if "h_u_V" in columns and columns["h_u_V"].ndim == 2 else 0
    out = {}
    for name in SPECTRA:
        values = columns.get(name)
        if values is None or values.ndim != 2:
            values = np.full((rows, orders), np.nan)
        out[name] = values.reshape(rows // max(phases, 1), phases, values.shape[1])
    return out


def harmonic_frame(blocks: pd.DataFrame, arrays: dict, orders_per_block: np.ndarray) -> pd.DataFrame:
    """The spectra in long form, one row per block, phase and order, as harmonics.csv;
    a block has as many orders as it measured (a shorter last block may have fewer)."""
    first = blocks.drop_duplicates("index")
    n, phases, orders = arrays["h_u_V"].shape
    frame = pd.DataFrame({
        "block_index": np.repeat(first["index"].to_numpy(), phases * orders),
        "t_start_s": np.repeat(first["t_start_s"].to_numpy(), phases * orders),
        "t_end_s": np.repeat(first["t_end_s"].to_numpy(), phases * orders),
        "phase": np.tile(np.repeat([f"L{p + 1}" for p in range(phases)], orders), n),
        "order": np.tile(np.arange(orders), n * phases),
    })
    for name in SPECTRA:
        frame[name] = arrays[name].reshape(-1)
    kept = frame["order"].to_numpy() < np.repeat(orders_per_block, phases * orders)
    return frame[kept].reset_index(drop=True)


def sequence_frame(records: np.ndarray) -> pd.DataFrame:
    """Zero, positive and negative sequence voltages per block, and the unbalances in %."""
    s = records["symmetricalComponents"]
    return pd.DataFrame(
        {
            "index": np.arange(len(records)),
            "u0_V": s["voltageMagnitude"][:, 0],
            "u1_V": s["voltageMagnitude"][:, 1],
            "u2_V": s["voltageMagnitude"][:, 2],
            "u0_pct": s["voltageRatio"][:, 0],
            "u2_pct": s["voltageRatio"][:, 2],
            "u1_deg": np.degrees(np.angle(s["voltage"][:, 1])),
        }
    )


EVENT_COLUMNS = ["kind", "phases", "ongoing", "t_start_s", "t_end_s", "duration_s", "extreme_V", "depth_pct"]


def detector_events(records: np.ndarray, nominal_voltage: float) -> pd.DataFrame:
    """Dips and swells that ended, per phase, from the detectors in the period values."""
    rows = []
    if records.size:
        for p in range(1, records.shape[1]):
            r = records[:, p]
            period = np.where(r["frequency"] > 0, 1.0 / np.where(r["frequency"] > 0, r["frequency"], 1), 0.0)
            for k in np.flatnonzero(r["dip"]["eventEnded"]):
                d = r["dip"][k]
                start = d["time"] - period[k]
                rows.append(("dip", [f"L{p}"], False, start, start + d["duration"], d["duration"],
                             d["residualVoltage"], d["depthInPercent"]))
            for k in np.flatnonzero(r["swell"]["eventEnded"]):
                s = r["swell"][k]
                start = s["time"] - period[k]
                rows.append(("swell", [f"L{p}"], False, start, start + s["duration"], s["duration"],
                             s["maximumVoltage"], np.nan))
    frame = pd.DataFrame(rows, columns=EVENT_COLUMNS)
    return frame.sort_values("t_start_s", kind="stable", ignore_index=True)
