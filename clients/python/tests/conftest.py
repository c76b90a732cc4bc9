"""A server on the simulated card for the client's tests: the binary named by $VR480D (default
build/default/vr480d of this checkout), a temporary root, a free loopback port."""
import os
import pathlib
import random
import signal
import socket
import subprocess
import sys
import time

import pytest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent))

from vr480 import Instrument  # noqa: E402

REPO = HERE.parents[2]


def free_port() -> int:
    """A port the server may take (it accepts 1-9999), free at the time of asking."""
    while True:
        port = random.randint(2000, 9999)
        with socket.socket() as s:
            try:
                s.bind(("127.0.0.1", port))
                return port
            except OSError:
                continue


class Server:
    def __init__(self, root: pathlib.Path, scene: str = None, args=(), http: bool = False):
        self.root = root
        (root / "vr480").mkdir(parents=True, exist_ok=True)
        if scene is not None:
            (root / "vr480" / "sim_scene.txt").write_text(scene)
        binary = os.environ.get("VR480D", str(REPO / "build" / "default" / "vr480d"))
        for _ in range(20):
            self.port = free_port()
            self.http_port = free_port() if http else None
            extra = ["--http-port", str(self.http_port)] if http else []
            self.log = open(root / "console.log", "wb")
            self.proc = subprocess.Popen([binary, "--root", str(root), "--port", str(self.port), *extra, *args],
                                         stdout=self.log, stderr=subprocess.STDOUT)
            if self._wait_listening():
                break
            self.stop()
        else:
            raise RuntimeError("the server did not start")

    def _wait_listening(self) -> bool:
        """True once the server accepts connections; False when the port was taken meanwhile."""
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline and self.proc.poll() is None:
            console = (self.root / "console.log").read_bytes()
            if b"Retrying bind" in console:
                return False
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=0.5).close()
                return True
            except OSError:
                time.sleep(0.1)
        return False

    def connect(self, timeout: float = 30.0) -> Instrument:
        return Instrument("127.0.0.1", self.port, timeout=timeout)

    def wait_ready(self, timeout: float = 90.0) -> None:
        with self.connect() as inst:
            inst.wait_ready(timeout)

    def stop(self) -> int:
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(30)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.log.close()
        return self.proc.returncode


@pytest.fixture(scope="session")
def server(tmp_path_factory):
    srv = Server(tmp_path_factory.mktemp("root"))
    srv.wait_ready()
    yield srv
    srv.stop()


@pytest.fixture
def inst(server):
    with server.connect() as i:
        yield i
