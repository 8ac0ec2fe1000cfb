"""Many recordings on a Dask cluster: one analysis per recording, one events table per fleet."""

from __future__ import annotations

import os

import pandas as pd

from .analysis import Analysis, analyse


class Fleet:
    """analyses: {path: Analysis}; errors: {path: message} of recordings that failed;
    events: every event with the recording it came from."""

    def __init__(self, analyses: dict, errors: dict):
        self.analyses = analyses
        self.errors = errors
        frames = [a.events.assign(recording=path) for path, a in analyses.items()]
        columns = ["recording"] + list(next(iter(analyses.values())).events.columns) if analyses else ["recording"]
        events = pd.concat(frames, ignore_index=True) if frames else pd.DataFrame(columns=columns)
        self.events = events[["recording"] + [c for c in events.columns if c != "recording"]]

    def overview(self) -> pd.DataFrame:
        """One row per recording: blocks, period values, events (ongoing at the end), nominal values, backend."""
        rows = [(path, len(a.block_records), len(a.period_records), len(a.events), int(a.events["ongoing"].sum()),
                 a.nominal_voltage, a.header["nominal_voltage_source"], a.header["nominal_frequency_Hz"], a.backend)
                for path, a in self.analyses.items()]
        return pd.DataFrame(rows, columns=["recording", "blocks", "periods", "events", "ongoing_events",
                                           "nominal_voltage_V", "nominal_voltage_source", "nominal_frequency_Hz",
                                           "backend"])


def _analyse_one(path: str, options: dict):
    try:
        return path, analyse(path, **options), None
    except Exception as error:  # one bad recording must not lose the fleet
        return path, None, f"{type(error).__name__}: {error}"


def analyse_many(paths, client=None, **options) -> Fleet:
    """Analyses every recording on a Dask cluster; `client` is a dask.distributed
    Client (a LocalCluster on this machine when None). Options as for analyse."""
    from dask.distributed import Client, LocalCluster

    paths = [os.fspath(p) for p in paths]
    own = client is None
    if own:
        cluster = LocalCluster(n_workers=min(len(paths), os.cpu_count() or 1) or 1, threads_per_worker=1,
                               processes=True, dashboard_address=None)
        client = Client(cluster)
    try:
        futures = client.map(_analyse_one, paths, options=options, pure=False)
        results = client.gather(futures)
    finally:
        if own:
            client.close()
            cluster.close()
    analyses = {path: a for path, a, _ in results if a is not None}
    errors = {path: e for path, _, e in results if e is not None}
    return Fleet(analyses, errors)


__all__ = ["Analysis", "Fleet", "analyse_many"]
