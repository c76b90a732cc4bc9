"""The server as a service: its notices to a service manager's socket, and the Debian package
(tested when scripts/package has built one)."""
import glob
import os
import signal
import socket
import struct
import subprocess
import time

import pytest

from conftest import REPO, Server


def notices(sock, pid, deadline):
    """The notices the server (process `pid`) sends, until `deadline` (monotonic)."""
    while time.monotonic() < deadline:
        sock.settimeout(max(0.01, deadline - time.monotonic()))
        try:
            data, ancillary, _, _ = sock.recvmsg(4096, socket.CMSG_SPACE(12))
        except socket.timeout:
            return
        for level, kind, creds in ancillary:
            if level == socket.SOL_SOCKET and kind == socket.SCM_CREDENTIALS and struct.unpack("iII", creds)[0] == pid:
                yield from data.decode().split("\n")


def wait_for(sock, pid, notice, seconds):
    """The notices before `notice`; fails when it does not come within `seconds`."""
    before = []
    for n in notices(sock, pid, time.monotonic() + seconds):
        if n == notice:
            return before
        before.append(n)
    pytest.fail(f"no {notice} within {seconds} s (got {before[-5:]})")


def test_ready_watchdog_and_stopping(tmp_path, monkeypatch):
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
    path = str(tmp_path / "notify")
    sock.bind(path)
    monkeypatch.setenv("NOTIFY_SOCKET", path)
    srv = Server(tmp_path / "root")
    try:
        pid = srv.proc.pid
        wait_for(sock, pid, "READY=1", 60)
        with srv.connect() as inst:
            assert inst.ready()  # started means measuring, not merely listening
        for _ in range(3):
            assert "READY=1" not in wait_for(sock, pid, "WATCHDOG=1", 30)
        srv.proc.send_signal(signal.SIGTERM)
        wait_for(sock, pid, "STOPPING=1", 30)
    finally:
        assert srv.stop() == 0
        sock.close()


def test_package_installs(tmp_path):
    debs = sorted(glob.glob(str(REPO / "build" / "package" / "*.deb")))
    if not debs:
        pytest.skip("no package built (scripts/package)")
    deb = debs[-1]
    listing = subprocess.run(["dpkg-deb", "-c", deb], check=True, capture_output=True, text=True).stdout
    for f in ["./usr/bin/vr480d", "./usr/bin/vr480-cli", "./usr/bin/vr480-record", "./lib/systemd/system/vr480d.service",
              "./etc/default/vr480d", "./usr/lib/python3/dist-packages/vr480/__init__.py",
              "./usr/lib/python3/dist-packages/vr480/recorder.py"]:
        assert f"{f}\n" in listing, f
    assert subprocess.run(["dpkg-deb", "-f", deb, "Depends"], check=True, capture_output=True,
                          text=True).stdout.count("python3") >= 1
    assert "/etc/default/vr480d" in subprocess.run(["dpkg-deb", "-I", deb, "conffiles"], check=True,
                                                   capture_output=True, text=True).stdout

    # Unpacked by dpkg into a directory with a database of its own. Only unpacked: configuring
    # would run the maintainer scripts inside the directory, which has no shell.
    root = tmp_path / "root"
    (root / "var" / "lib" / "dpkg" / "updates").mkdir(parents=True)
    (root / "var" / "lib" / "dpkg" / "info").mkdir()
    (root / "var" / "lib" / "dpkg" / "status").touch()
    subprocess.run(["dpkg", f"--root={root}", "--force-not-root", "--force-depends",
                    "--unpack", deb], check=True, capture_output=True)
    assert subprocess.run([str(root / "usr" / "bin" / "vr480d"), "--help"], capture_output=True).returncode == 0
    packages = str(root / "usr" / "lib" / "python3" / "dist-packages")
    subprocess.run(["/usr/bin/python3", "-c", "import sys; sys.path.insert(0, sys.argv[1]); import vr480", packages],
                   check=True)
    subprocess.run([str(root / "usr" / "bin" / "vr480-record"), "--help"], env=dict(os.environ, PYTHONPATH=packages),
                   check=True, capture_output=True)
    # The unit as the service manager would load it, pointed at the unpacked server.
    unit = tmp_path / "vr480d.service"
    unit.write_text((root / "lib" / "systemd" / "system" / "vr480d.service").read_text()
                    .replace("/usr/bin/vr480d", str(root / "usr" / "bin" / "vr480d")))
    verify = subprocess.run(["systemd-analyze", "verify", str(unit)], capture_output=True, text=True)
    assert verify.returncode == 0 and not verify.stderr, verify.stderr
