"""The read-only HTTP port: the status page in a headless browser (fields equal the server's
replies, a plotted line per chosen sensor that moves with a swinging grating), /status.json and
/metrics in the Prometheus text format with counters that rise while records flow."""
import base64
import json
import os
import re
import shutil
import subprocess
import tempfile
import time
import urllib.request

import pytest

from conftest import Server

# A grating swinging 0.05 nm with a period of 2 s on fibre 1, a still one on fibre 2.
SCENE = "1 1530.0 0 12000 sine 0.05 2\n2 1545.0 0 12000\n"


@pytest.fixture(scope="module")
def web(tmp_path_factory):
    srv = Server(tmp_path_factory.mktemp("web"), scene=SCENE, http=True)
    srv.wait_ready()
    yield srv
    srv.stop()


def get(srv, path):
    with urllib.request.urlopen(f"http://127.0.0.1:{srv.http_port}{path}", timeout=10) as r:
        return r.read().decode()


def test_status_json_equals_the_servers_replies(web):
    with web.connect() as inst:
        line = inst.text("#WEB_STATUS")
        status = json.loads(get(web, "/status.json"))
        assert status["web_status"].split("$")[:9] == line.split("$")[:9]
        assert status["clients"] == "1" and status["ready"] == (inst.text("#READY?") == "1")
        assert abs(status["laser_bias"] - int(inst.text("#GET_BIAS"))) < 1000  # the loop trims it
        assert status["internal_temperature"] == inst.text("#GET_TX_DEGC")


def test_metrics_parse_and_count_while_records_flow(web):
    from prometheus_client.parser import text_string_to_metric_families

    def scrape():
        return {s.name + json.dumps(s.labels, sort_keys=True): s.value
                for f in text_string_to_metric_families(get(web, "/metrics")) for s in f.samples}

    with web.connect() as inst:
        inst.command("#GET_DATA")
        first = scrape()
        time.sleep(1.5)
        inst.command("#GET_DATA")
        second = scrape()
    for name in ("vr480_records_processed_total{}", "vr480_records_published_total{}"):
        assert second[name] > first[name] + 500, name
    assert second['vr480_client_sent_bytes_total{"client": "0"}'] > first['vr480_client_sent_bytes_total{"client": "0"}']
    assert first["vr480_ready{}"] == 1 and first["vr480_clients_connected{}"] == 1
    assert 'vr480_client_backlog_records{"client": "0"}' in first
    assert first["vr480_laser_scan_amplitude{}"] > 0 and first["vr480_internal_temperature_celsius{}"] > 0


class Browser:
    """Headless Chromium driven over its DevTools protocol."""

    def __init__(self):
        import websocket
        exe = shutil.which("chromium") or shutil.which("chromium-browser")
        if not exe:
            pytest.skip("chromium is not installed")
        self.profile = tempfile.mkdtemp()
        self.proc = subprocess.Popen([exe, "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                                      "--remote-debugging-port=0", f"--user-data-dir={self.profile}",
                                      "--window-size=1280,800", "about:blank"],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        port = None
        for line in self.proc.stderr:
            m = re.search(r"DevTools listening on ws://[^:]+:(\d+)/", line)
            if m:
                port = int(m.group(1))
                break
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/json/list", timeout=10) as r:
            page = next(t for t in json.load(r) if t["type"] == "page")
        self.ws = websocket.create_connection(page["webSocketDebuggerUrl"], timeout=30)
        self.next_id = 0

    def call(self, method, **params):
        self.next_id += 1
        self.ws.send(json.dumps({"id": self.next_id, "method": method, "params": params}))
        while True:
            msg = json.loads(self.ws.recv())
            if msg.get("id") == self.next_id:
                if "error" in msg:
                    raise RuntimeError(msg["error"])
                return msg["result"]

    def eval(self, expression):
        return self.call("Runtime.evaluate", expression=expression, returnByValue=True)["result"].get("value")

    def close(self):
        self.ws.close()
        self.proc.kill()
        self.proc.wait()
        shutil.rmtree(self.profile, ignore_errors=True)


def test_the_page_plots_a_moving_line_per_sensor_and_shows_the_status(web):
    browser = Browser()
    try:
        browser.call("Page.navigate", url=f"http://127.0.0.1:{web.http_port}/?sensors=1.1/1,2.1/1")
        deadline = time.monotonic() + 30
        while (browser.eval("window.vr480 && window.vr480.times.length") or 0) < 40:
            assert time.monotonic() < deadline, "the page plotted no points"
            time.sleep(0.2)
        names = browser.eval("window.vr480.names")
        ranges = browser.eval("window.vr480.series.map(s => Math.max(...s) - Math.min(...s))")
        lines = browser.eval("document.querySelectorAll('.u-series path, svg path').length + "
                             "document.querySelectorAll('.u-legend .u-series').length")
        assert names == ["1.1/1", "2.1/1"] and lines >= 3
        assert ranges[0] > 0.02 and ranges[1] < 0.005, ranges  # the swinging grating moves, the other not
        with web.connect() as inst:
            wanted = inst.text("#WEB_STATUS").split("$")
            time.sleep(1.5)  # the page refreshes its fields every second
            shown = browser.eval("Object.fromEntries([...document.querySelectorAll('[data-field]')]"
                                 ".map(e => [e.dataset.field, e.textContent]))")
        assert shown["serial_number"] == wanted[0] and shown["server_release"] == wanted[4]
        assert shown["internal_temperature"] == wanted[10] and shown["mux_level"] == wanted[16]
        assert shown["clients"] == "1"
        shot = os.environ.get("VR480_SCREENSHOT")
        if shot:
            with open(shot, "wb") as f:
                f.write(base64.b64decode(browser.call("Page.captureScreenshot", format="png")["data"]))
    finally:
        browser.close()
