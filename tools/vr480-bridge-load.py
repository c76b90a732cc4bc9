#!/usr/bin/python3
"""How many instruments one vr480-bridge carries: N servers on the simulated card at 2000
records/s, a broker on a free loopback port, the bridge and a subscriber, for each N given.

    tools/vr480-bridge-load.py [--seconds 30] [--build build/default] 3 6 9

Prints per N: messages/s and bytes/s reaching the subscriber, the latency from the bridge's
reading of a batch's first record to the batch's arrival at the subscriber (p50/p90/p99),
the CPU of the bridge and of the broker, sweeps the servers skipped themselves, sweeps the
bridge did not get (its "lost" beyond what the servers skipped), and the load average."""
import argparse
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time
import urllib.request

REPO = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(REPO / "clients" / "python"), str(REPO / "clients" / "python" / "tests")]

from conftest import Server, free_port  # noqa: E402
from test_bridge import Broker, cpu_seconds  # noqa: E402
from vr480.subscriber import Subscriber  # noqa: E402


def skipped(srv):
    text = urllib.request.urlopen(f"http://127.0.0.1:{srv.http_port}/metrics", timeout=10).read().decode()
    return int(float(re.search(r"^vr480_sweeps_missed_total (\S+)", text, re.M).group(1)))


def run(n, seconds, build):
    tmp = pathlib.Path(tempfile.mkdtemp(prefix="vr480-bridge-load-"))
    servers = {f"i{k}": Server(tmp / f"i{k}", http=True) for k in range(n)}
    broker = bridge = sub = None
    try:
        for s in servers.values():
            with s.connect() as inst:
                inst.command("#SET_2KHZ_MODE 1")
        for s in servers.values():
            s.wait_ready()
        broker = Broker(tmp, free_port())
        port = int(re.search(r"listener (\d+)", (tmp / "mosquitto.conf").read_text()).group(1))
        sub = Subscriber("127.0.0.1", port).start()
        while not sub.subscribed.is_set():
            time.sleep(0.1)
        base = {k: skipped(s) for k, s in servers.items()}
        bridge = subprocess.Popen([str(build / "vr480-bridge"), "--broker", f"127.0.0.1:{port}",
                                   *[f"{k}=127.0.0.1:{s.port}" for k, s in servers.items()]],
                                  stdout=subprocess.DEVNULL, stderr=open(tmp / "bridge.log", "wb"))
        time.sleep(3)  # past the start
        cpu0, bcpu0, t0 = cpu_seconds(bridge.pid), cpu_seconds(broker.proc.pid), time.monotonic()
        got0 = {k: (sub.seen(k).messages, sub.seen(k).bytes, len(sub.seen(k).latencies)) for k in servers}
        time.sleep(seconds)
        dt = time.monotonic() - t0
        cpu, bcpu = (cpu_seconds(bridge.pid) - cpu0) / dt, (cpu_seconds(broker.proc.pid) - bcpu0) / dt
        msgs = sum(sub.seen(k).messages - got0[k][0] for k in servers) / dt
        data = sum(sub.seen(k).bytes - got0[k][1] for k in servers) / dt
        lat = sorted(x for k in servers for x in list(sub.seen(k).latencies)[got0[k][2]:])
        skip = sum(skipped(s) - base[k] for k, s in servers.items())
        missing = sum(sub.seen(k).missing for k in servers)
        status_lost = sum((sub.seen(k).status or {}).get("lost", 0) for k in servers)
        load = os.getloadavg()[0]
        p = lambda q: 1e3 * lat[min(len(lat) - 1, int(len(lat) * q))]  # noqa: E731
        print(f"{n} instruments: {msgs:.0f} messages/s, {data / 1e6:.2f} MB/s, latency ms p50 {p(.5):.0f} "
              f"p90 {p(.9):.0f} p99 {p(.99):.0f}; bridge CPU {100 * cpu:.0f} %, broker CPU {100 * bcpu:.0f} %; "
              f"sweeps skipped by the servers {skip}, missing at the subscriber {missing} "
              f"(bridge's lost {status_lost}); load average {load:.1f}", flush=True)
    finally:
        if bridge:
            bridge.terminate()
            bridge.wait()
        if sub:
            sub.stop()
        if broker:
            broker.kill()
        for s in servers.values():
            s.stop()


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("counts", nargs="*", type=int, default=[3, 6, 9])
    ap.add_argument("--seconds", type=float, default=30)
    ap.add_argument("--build", type=pathlib.Path, default=REPO / "build" / "default")
    a = ap.parse_args()
    os.environ.setdefault("VR480D", str(a.build / "vr480d"))
    for n in a.counts:
        run(n, a.seconds, a.build)


if __name__ == "__main__":
    main()
