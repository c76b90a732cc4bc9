#!/usr/bin/env python3
"""What the client costs at full load: records of 16 x 250 sensors (four multiplexer layers of
4 x 250) streamed with tokens as fast as a sender process writes them, read and decoded by
vr480.Stream. Prints the client's CPU time per record and the share of one core that 2000
records/s would take, with numpy and with plain lists.

    python3 clients/python/bench_decode.py [RECORDS]
"""
import os
import socket
import struct
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

SENSORS = 250


def record(sweep: int) -> bytes:
    layer = sweep % 4
    head = bytearray(88)
    head[6] = layer
    head[7] = 1 << 4
    struct.pack_into("<4H", head, 16, SENSORS, SENSORS, SENSORS, SENSORS)
    struct.pack_into("<I", head, 28, sweep)
    struct.pack_into("<I", head, 72, 1000000)
    values = struct.pack(f"<{4 * SENSORS}i", *[1520000000 + 40000 * i + sweep % 7 for i in range(4 * SENSORS)])
    return bytes(head) + values


def sender(port: int, n: int) -> None:
    c = socket.create_connection(("127.0.0.1", port))
    c.recv(4096)  # the client's commands are answered by the fake replies below
    frames = []
    for s in range(4):
        body = record(s) + b"XXXXXXXX"
        frames.append(b"%010d" % len(body) + body)
    for i in range(n):
        f = bytearray(frames[i % 4])
        struct.pack_into("<I", f, 10 + 28, i)
        if i == n - 1:
            f[-8:] = b"ZZZZZZZZ"
        c.sendall(f)
    c.close()


def run(n: int, numpy: bool) -> float:
    env = dict(os.environ)
    if not numpy:
        env["VR480_NO_NUMPY"] = "1"
    code = f"""
import sys, socket, time, threading
sys.path.insert(0, {HERE!r})
from vr480 import client
srv = socket.socket(); srv.bind(("127.0.0.1", 0)); srv.listen(1)
import subprocess
p = subprocess.Popen([sys.executable, {os.path.abspath(__file__)!r}, "--send", str(srv.getsockname()[1]), "{n}"])
inst = client.Instrument.__new__(client.Instrument)
inst.timeout = 30
inst._sock, _ = srv.accept()
inst._sock.sendall(b"hello")
inst._in = inst._sock.makefile("rb", buffering=1 << 20)
inst._streaming = True
stream = client.Stream.__new__(client.Stream)
stream._inst, stream.tokens, stream.ended, stream._stopping, stream.resume_reply = inst, True, False, False, None
t0 = time.process_time()
count = 0
for rec in stream:
    count += 1
    assert len(rec.wavelengths) == 4
cpu = time.process_time() - t0
p.wait()
print(cpu / count)
"""
    out = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True, check=True)
    return float(out.stdout.strip())


if __name__ == "__main__":
    if len(sys.argv) > 1 and sys.argv[1] == "--send":
        sender(int(sys.argv[2]), int(sys.argv[3]))
        sys.exit(0)
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 20000
    for numpy in (True, False):
        try:
            per = run(n, numpy)
        except subprocess.CalledProcessError as e:
            print(f"{'numpy' if numpy else 'lists'}: failed: {e.stderr.strip().splitlines()[-1]}")
            continue
        print(f"{'numpy' if numpy else 'lists'}: {per * 1e6:.1f} us CPU per record of 1000 sensors; "
              f"2000 records/s take {per * 2000 * 100:.1f} % of a core")
