"""numpy dtypes mirroring the library's result records, and their tidy tables."""

from __future__ import annotations

import functools

import numpy as np
import pandas as pd

from . import _core


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


def _measured(values: np.ndarray, measured: bool) -> np.ndarray:
    return values if measured else np.full(values.shape, np.nan)


def phase_names(count: int) -> list[str]:
    return [f"L{p + 1}" for p in range(count)]


def block_frame(records: np.ndarray, currents: bool, t0: pd.Timestamp | None = None) -> pd.DataFrame:
    """One row per block and phase, plus a 'total' row per block for polyphase systems."""
    if len(records) == 0:
        return pd.DataFrame(columns=["block", "phase", "t_s", "freq_Hz", "u_rms_V"])
    phases = int(records["phasesCount"][0])
    rows = phases + 1 if phases > 1 else phases
    n = len(records)
    p = records["phases"][:, :rows]
    length = records["length"].astype(float)
    t_end = records["endTime"]
    sample_rate = (records["firstSampleIndex"] + records["length"]) / np.where(t_end > 0, t_end, np.nan)
    duration = length / sample_rate
    names = phase_names(phases) + (["total"] if rows > phases else [])
    frame = pd.DataFrame(
        {
            "block": np.repeat(np.arange(n), rows),
            "phase": np.tile(names, n),
            "t_s": np.repeat(t_end - duration, rows),
            "duration_s": np.repeat(duration, rows),
            "freq_Hz": np.repeat(records["frequency"], rows),
            "u_rms_V": p["rmsU"].ravel(),
            "ul_rms_V": p["rmsUL"].ravel(),
            "u1_V": p["fundamentalU"].ravel(),
            "thd_u_pct": p["thdU"]["thd"].ravel(),
            "i_rms_A": _measured(p["rmsI"].ravel(), currents),
            "i1_A": _measured(p["fundamentalI"].ravel(), currents),
            "thd_i_pct": _measured(p["thdI"]["thd"].ravel(), currents),
            "p_W": _measured(p["activePower"].ravel(), currents),
            "p1_W": _measured(p["fundamentalActivePower"].ravel(), currents),
            "q1_var": _measured(p["fundamentalReactivePower"].ravel(), currents),
            "s_VA": _measured(p["apparentPower"].ravel(), currents),
            "pf": _measured(p["powerFactor"].ravel(), currents),
            "dpf": _measured(p["displacementPowerFactor"].ravel(), currents),
        }
    )
    if rows > phases:  # totals carry no per-phase voltage quantities
        total = frame["phase"] == "total"
        frame.loc[total, ["u_rms_V", "ul_rms_V", "u1_V", "thd_u_pct", "i_rms_A", "i1_A", "thd_i_pct"]] = np.nan
    return _with_utc(frame, t0)


def sequence_frame(records: np.ndarray) -> pd.DataFrame:
    """Zero, positive and negative sequence voltages per block, and the unbalances in %."""
    s = records["symmetricalComponents"]
    return pd.DataFrame(
        {
            "block": np.arange(len(records)),
            "u0_V": s["voltageMagnitude"][:, 0],
            "u1_V": s["voltageMagnitude"][:, 1],
            "u2_V": s["voltageMagnitude"][:, 2],
            "u0_pct": s["voltageRatio"][:, 0],
            "u2_pct": s["voltageRatio"][:, 2],
            "u1_deg": np.degrees(np.angle(s["voltage"][:, 1])),
        }
    )


def period_frame(records: np.ndarray, currents: bool, t0: pd.Timestamp | None = None) -> pd.DataFrame:
    """One row per period value and phase (record 0, the combination, is left out)."""
    if records.size == 0:
        return pd.DataFrame(columns=["period", "phase", "t_s", "freq_Hz", "u_rms_V", "valid"])
    n, rows = records.shape
    phases = rows - 1
    r = records[:, 1:]
    frame = pd.DataFrame(
        {
            "period": np.repeat(np.arange(n), phases),
            "phase": np.tile(phase_names(phases), n),
            "t_s": r["time"].ravel(),
            "freq_Hz": r["frequency"].ravel(),
            "u_rms_V": r["rmsU"].ravel(),
            "ul_rms_V": r["rmsUL"].ravel(),
            "u1_V": r["fundamentalU"].ravel(),
            "u1_deg": r["fundamentalPhaseAngle"].ravel(),
            "i_rms_A": _measured(r["rmsI"].ravel(), currents),
            "p_W": _measured(r["activePower"].ravel(), currents),
            "q1_var": _measured(r["fundamentalReactivePower"].ravel(), currents),
            "s_VA": _measured(r["apparentPower"].ravel(), currents),
            "pf": _measured(r["powerFactor"].ravel(), currents),
            "valid": r["valid"].ravel(),
        }
    )
    return _with_utc(frame, t0)


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
                rows.append(("dip", [f"L{p}"], start, start + d["duration"], d["duration"],
                             d["residualVoltage"], d["depthInPercent"]))
            for k in np.flatnonzero(r["swell"]["eventEnded"]):
                s = r["swell"][k]
                start = s["time"] - period[k]
                rise = 100.0 * (s["maximumVoltage"] - nominal_voltage) / nominal_voltage
                rows.append(("swell", [f"L{p}"], start, start + s["duration"], s["duration"],
                             s["maximumVoltage"], rise))
    frame = pd.DataFrame(rows, columns=EVENT_COLUMNS)
    return frame.sort_values("t_s", kind="stable", ignore_index=True)


EVENT_COLUMNS = ["kind", "phases", "t_s", "end_s", "duration_s", "extreme_V", "depth_pct"]


def _with_utc(frame: pd.DataFrame, t0: pd.Timestamp | None) -> pd.DataFrame:
    if t0 is not None:
        frame.insert(frame.columns.get_loc("t_s") + 1, "t_utc", t0 + pd.to_timedelta(frame["t_s"], unit="s"))
    return frame
