"""vr480-bridge between three servers at 2000 records/s and a real broker: every sweep reaches a
subscriber once, through a broker outage of 5 s and a killed and restarted instrument.
VR480_BRIDGE_SECONDS sets the length of the run (15 s by default)."""
import itertools
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import time
import urllib.request

import pytest

import conftest
from conftest import Server, free_port

MOSQUITTO = shutil.which("mosquitto") or "/usr/sbin/mosquitto"
SECONDS = float(os.environ.get("VR480_BRIDGE_SECONDS", "15"))


def wait_for(what, condition, timeout=30.0):
    deadline = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < deadline, f"timed out waiting for {what}"
        time.sleep(0.1)


class Broker:
    def __init__(self, root: pathlib.Path, port: int):
        conf = root / "mosquitto.conf"
        conf.write_text(f"listener {port} 127.0.0.1\nallow_anonymous true\npersistence false\n")
        self.proc = subprocess.Popen([MOSQUITTO, "-c", str(conf)], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for("the broker", lambda: self._listening(port))

    def _listening(self, port):
        assert self.proc.poll() is None, "the broker did not start"
        try:
            socket.create_connection(("127.0.0.1", port), timeout=0.5).close()
            return True
        except OSError:
            return False

    def kill(self):
        self.proc.kill()
        self.proc.wait()


def start_instrument(root, monkeypatch=None, port=None):
    if port is not None:  # the same command port again, where the bridge looks for it; any HTTP port
        real, calls = conftest.free_port, itertools.count()
        monkeypatch.setattr(conftest, "free_port", lambda: real() if next(calls) % 2 else port)
    srv = Server(root, http=True)
    with srv.connect() as inst:
        inst.command("#SET_2KHZ_MODE 1")
        inst.wait_ready(90)
    return srv


def sweeps_missed(srv):
    """Sweeps the server itself skipped (its own metric), since it started."""
    text = urllib.request.urlopen(f"http://127.0.0.1:{srv.http_port}/metrics", timeout=10).read().decode()
    return int(float(re.search(r"^vr480_sweeps_missed_total (\S+)", text, re.M).group(1)))


def cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


@pytest.mark.skipif(not os.path.exists(MOSQUITTO), reason="mosquitto is not installed")
def test_every_sweep_once_through_broker_and_instrument_restarts(tmp_path, monkeypatch):
    from vr480.subscriber import Subscriber
    binary = pathlib.Path(os.environ.get("VR480D", conftest.REPO / "build" / "default" / "vr480d")).with_name("vr480-bridge")
    port = free_port()
    broker = Broker(tmp_path, port)
    names = ["a", "b", "c"]
    servers = {n: start_instrument(tmp_path / n) for n in names}
    sub = Subscriber("127.0.0.1", port).start()
    bridge = None
    try:
        wait_for("the subscription", sub.subscribed.is_set)
        log = open(tmp_path / "bridge.log", "wb")
        base = {n: sweeps_missed(s) for n, s in servers.items()}
        bridge = subprocess.Popen([str(binary), "--broker", f"127.0.0.1:{port}", "--id", "test", "--status-s", "1",
                                   *[f"{n}=127.0.0.1:{s.port}" for n, s in servers.items()]],
                                  stdout=log, stderr=subprocess.STDOUT)
        start = time.monotonic()
        wait_for("records of every instrument", lambda: all(sub.seen(n).records for n in names))

        # The broker away for 5 s: the bridge keeps reading and sends everything afterwards.
        time.sleep(SECONDS * 0.2)
        broker.kill()
        before = {n: sub.seen(n).records for n in names}
        time.sleep(5)
        broker = Broker(tmp_path, port)
        wait_for("records after the broker's return", lambda: all(sub.seen(n).records > before[n] + 12000 for n in names),
                 timeout=60)

        # An instrument killed: offline, then online again, its new sweep count streamed.
        time.sleep(max(0.0, start + SECONDS * 0.6 - time.monotonic()))
        servers["c"].proc.kill()
        servers["c"].stop()
        wait_for("c offline", lambda: (sub.seen("c").status or {}).get("online") is False)
        servers["c"] = start_instrument(tmp_path / "c", monkeypatch, servers["c"].port)
        wait_for("c online again", lambda: sub.seen("c").online[-1][1] and sub.seen("c").restarts == 1)

        time.sleep(max(0.0, start + SECONDS - time.monotonic()))
        cpu = cpu_seconds(bridge.pid) / (time.monotonic() - start)
        skipped = {n: sweeps_missed(servers[n]) - base[n] for n in "ab"}
        bridge.send_signal(signal.SIGTERM)
        assert bridge.wait(30) == 0
        # The bridge's last status of each instrument tells how many records it read.
        final = lambda n: sub.seen(n).status if (sub.seen(n).status or {}).get("online") is False else None  # noqa: E731
        wait_for("every record", lambda: all(final(n) and sub.seen(n).records == final(n)["records"] for n in names))
        elapsed = time.monotonic() - start
        for n in names:
            seen, status = sub.seen(n), final(n)
            # Only what the instrument itself skipped is missing, and it is counted exactly.
            assert seen.missing == status["lost"] <= skipped.get(n, 1e9) and status["dropped"] == 0, (n, seen.gaps, status)
            assert seen.restarts == status["restarts"] == (1 if n == "c" else 0)
            lat = sorted(seen.latencies)
            print(f"\n{n}: {seen.records} records ({seen.duplicates} again, {seen.missing} missing), {seen.messages / elapsed:.1f} messages/s, "
                  f"{seen.bytes / elapsed / 1e3:.0f} kB/s, latency ms p50 {1e3 * lat[len(lat) // 2]:.1f} "
                  f"p90 {1e3 * lat[len(lat) * 9 // 10]:.1f} p99 {1e3 * lat[len(lat) * 99 // 100]:.1f} max {1e3 * lat[-1]:.0f}")
        print(f"bridge CPU {100 * cpu:.1f} % of a core over {elapsed:.0f} s")
    finally:
        if bridge and bridge.poll() is None:
            bridge.kill()
        sub.stop()
        broker.kill()
        for s in servers.values():
            s.stop()
