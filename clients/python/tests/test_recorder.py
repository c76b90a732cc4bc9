"""vr480-record against a server at 2000 records/s: every sweep once and in order, values equal
to the server's #GET_DATA for the same sweeps, and a restart that goes on without loss.
VR480_RECORD_SECONDS sets the length of the recordings (10 s by default; 60 for the report)."""
import csv
import glob
import math
import os
import signal
import subprocess
import sys
import time

import pytest

from conftest import HERE

SECONDS = float(os.environ.get("VR480_RECORD_SECONDS", "10"))


def recorder(server, out, fmt, *extra):
    env = dict(os.environ, PYTHONPATH=str(HERE.parent))
    return subprocess.Popen([sys.executable, "-m", "vr480.recorder", "--port", str(server.port), "--format", fmt,
                             "--out", str(out), *extra], env=env, stderr=subprocess.PIPE, text=True)


def read_rows(out, fmt):
    """(sweep, {column: nm}) of every row of every file, in file order."""
    rows = []
    for path in sorted(glob.glob(str(out / "vr480-*"))):
        if fmt == "csv":
            with open(path, newline="") as f:
                for r in csv.DictReader(f):
                    rows.append((int(r["sweep"]), {k: float(v) for k, v in r.items() if "/" in k and v}))
        else:
            import h5py
            with h5py.File(path, "r") as f:
                t = f["records"][:]
                names = [n for n in t.dtype.names if "/" in n]
                for r in t:
                    rows.append((int(r["sweep"]), {n: float(r[n]) for n in names if not math.isnan(r[n])}))
    return rows


@pytest.fixture(scope="module")
def fast(server):
    with server.connect() as inst:
        inst.command("#SET_2KHZ_MODE 1")
    yield server
    with server.connect() as inst:
        inst.command("#SET_2KHZ_MODE 0")


def check_against_server(server, rows):
    """Every sweep once and in order; a sample of rows equals #GET_DATA for the same sweep."""
    sweeps = [s for s, _ in rows]
    assert sweeps == list(range(sweeps[0], sweeps[0] + len(sweeps)))
    with server.connect() as inst:
        for sweep, values in rows[-5000::997]:  # the ring holds the last 15 s
            inst.command(f"#RESUME_AFTER_SWEEP {sweep - 1}")
            rec = inst.command("#GET_DATA")
            assert rec.sweep == sweep
            assert values == pytest.approx(rec.columns(), abs=1e-7), sweep  # to the femtometre


@pytest.mark.parametrize("fmt", ["hdf5", "csv"])
def test_a_recording_has_every_sweep_once_with_the_servers_values(fast, tmp_path, fmt):
    p = recorder(fast, tmp_path, fmt, "--duration", str(SECONDS))
    _, err = p.communicate(timeout=SECONDS + 60)
    assert p.returncode == 0, err
    rows = read_rows(tmp_path, fmt)
    assert len(rows) >= SECONDS * 2000 * 0.9, err
    assert "0 gaps" in err
    check_against_server(fast, rows)


def test_a_restarted_recorder_goes_on_in_a_new_file_without_loss(fast, tmp_path):
    first = recorder(fast, tmp_path, "csv")
    time.sleep(3)
    first.send_signal(signal.SIGKILL)  # no chance to finish its file
    first.wait()
    time.sleep(2)
    second = recorder(fast, tmp_path, "csv", "--duration", "3")
    _, err = second.communicate(timeout=60)
    assert second.returncode == 0 and "resuming after sweep" in err, err
    assert len(glob.glob(str(tmp_path / "vr480-*.csv"))) == 2
    check_against_server(fast, read_rows(tmp_path, "csv"))


def test_the_cli_streams_csv_under_the_recorders_column_names(server, tmp_path):
    cli = os.path.join(os.path.dirname(os.environ.get("VR480D", str(HERE.parents[2] / "build/default/vr480d"))), "vr480-cli")
    out = subprocess.run([cli, "--port", str(server.port), "--stream", "5", "--csv"], capture_output=True, text=True,
                         timeout=60, check=True).stdout.splitlines()
    p = recorder(server, tmp_path, "csv", "--records", "5")
    p.communicate(timeout=60)
    with open(glob.glob(str(tmp_path / "vr480-*.csv"))[0]) as f:
        assert out[0] == f.readline().rstrip("\n")
    assert len(out) == 6 and all(len(line.split(",")) == len(out[0].split(",")) for line in out)
