"""Many recordings on a Dask LocalCluster of two workers."""

import pandas as pd
import pytest

import tarnel64

distributed = pytest.importorskip("dask.distributed", reason="dask[distributed] is a test requirement")


def test_fleet_gathers_every_recording_and_keeps_failures(records, tmp_path):
    missing = tmp_path / "missing.cfg"
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, distributed.Client(cluster) as client:
        assert len(client.scheduler_info()["workers"]) == 2
        fleet = tarnel64.analyse_many([*records, missing], client=client, backend="cpu")
    assert "no such file" in fleet.errors.pop(str(missing))
    singles, refused = {}, {}
    for record in records:
        try:
            singles[str(record)] = tarnel64.analyse(record, backend="cpu")
        except RuntimeError as error:
            refused[str(record)] = f"RuntimeError: {error}"
    assert fleet.errors == refused
    assert sorted(fleet.analyses) == sorted(singles)
    for path, single in singles.items():
        assert fleet.analyses[path].summary() == single.summary()
        pd.testing.assert_frame_equal(fleet.analyses[path].blocks, single.blocks)
    assert fleet.events.columns[0] == "recording"
    assert len(fleet.events) == sum(len(a.events) for a in singles.values())
    overview = fleet.overview()
    assert list(overview["blocks"]) == [len(singles[p].block_records) for p in overview["recording"]]
    assert overview["ongoing_events"].sum() == fleet.events["ongoing"].sum() == 2


def test_fleet_without_a_client_starts_and_stops_a_local_cluster(records):
    fleet = tarnel64.analyse_many(records[:2], backend="cpu")
    assert not fleet.errors and sorted(fleet.analyses) == sorted(map(str, records[:2]))
    overview = fleet.overview()
    assert list(overview["nominal_voltage_V"]) == [fleet.analyses[p].nominal_voltage for p in overview["recording"]]
    assert set(overview["nominal_voltage_source"]) == {"estimated"}
