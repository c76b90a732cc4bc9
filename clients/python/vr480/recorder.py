"""vr480-record: records one instrument's stream into HDF5 or CSV files.

    vr480-record --host 192.168.1.10 --format hdf5 --out /data/run1

Each row is one sweep: its time (seconds since the epoch, when the recorder received it), sweep
counter, status and one column per sensor named "c.m/n" (fibre c, multiplexer position m,
sensor n from 1) holding its wavelength in nm; a sensor the sweep did not report is empty (NaN
in HDF5). Files rotate by size (--rotate-mb) and on the hour (--rotate-hourly). A progress line
shows records, rate, gaps and the current file. Every gap in the sweep counters is reported.

When the connection is lost the recorder reconnects and goes on after the last sweep it wrote,
from the records the server's ring still holds (about 15 s at 2 kHz), so an outage shorter than
that loses nothing. Started again on a directory that holds an earlier recording, it does the
same after the last sweep of the newest file, into a new file (--fresh starts anew instead).
"""
from __future__ import annotations

import argparse
import glob
import math
import os
import signal
import sys
import time
from typing import Dict, List, Optional, Tuple

from .client import Instrument, PORT, Vr480ConnectionError, Vr480Error
from . import wire

Layout = List[Tuple[str, int]]  # (channel "c.m", sensors) in column order


def columns_of(layout: Layout) -> List[str]:
    return [wire.sensor_column(ch, i + 1) for ch, n in layout for i in range(n)]


def merge_layout(layout: Layout, rec: wire.Record) -> Tuple[Layout, bool]:
    """The layout grown to hold rec's sensors, and whether it had to grow."""
    have = dict(layout)
    grown = False
    for ch, values in rec.wavelengths.items():
        if len(values) > have.get(ch, 0):
            have[ch] = len(values)
            grown = True
    if not grown:
        return layout, False
    return sorted(have.items(), key=lambda kv: (int(kv[0].split(".")[1]), int(kv[0].split(".")[0]))), True


def row_values(layout: Layout, rec: wire.Record) -> List[float]:
    out: List[float] = []
    for ch, n in layout:
        values = rec.wavelengths.get(ch)
        got = 0 if values is None else len(values)
        out.extend(float(v) for v in (values[:n] if got else ()))
        out.extend([math.nan] * (n - min(got, n)))
    return out


# ---- files ------------------------------------------------------------------------------------
class CsvFile:
    suffix = ".csv"

    def __init__(self, path: str, columns: List[str]):
        self.path = path
        self.f = open(path, "w", encoding="ascii", newline="")
        self.f.write(",".join(["time", "sweep", "status"] + columns) + "\n")

    def append(self, rows) -> None:
        lines = []
        for t, sweep, status, values in rows:
            cells = ["" if v != v else f"{v:.6f}" for v in values]
            lines.append(f"{t:.6f},{sweep},{status}," + ",".join(cells) + "\n")
        self.f.write("".join(lines))
        self.f.flush()

    def size(self) -> int:
        return self.f.tell()

    def close(self) -> None:
        self.f.close()

    @staticmethod
    def last_sweep(path: str) -> Optional[int]:
        """The sweep of the last whole row; a row cut by a killed recorder is removed."""
        with open(path, "rb+") as f:
            data = f.read()
            end = data.rfind(b"\n")
            if end < 0:
                return None
            f.truncate(end + 1)
            start = data.rfind(b"\n", 0, end) + 1
            cells = data[start:end].split(b",")
            return int(cells[1]) if len(cells) > 1 and cells[1].isdigit() else None


class Hdf5File:
    """One table "records" of a compound type: time, sweep, status and a field per sensor."""
    suffix = ".h5"

    def __init__(self, path: str, columns: List[str]):
        import h5py
        import numpy as np
        self.np = np
        self.path = path
        self.dtype = np.dtype([("time", "<f8"), ("sweep", "<u4"), ("status", "u1")] + [(c, "<f8") for c in columns])
        self.f = h5py.File(path, "w")
        self.table = self.f.create_dataset("records", shape=(0,), maxshape=(None,), dtype=self.dtype,
                                           chunks=(max(1, min(4096, (1 << 20) // self.dtype.itemsize)),))
        self.table.attrs["columns"] = ",".join(columns)
        self.table.attrs["units"] = "time: s since the epoch; sensors: nm"

    def append(self, rows) -> None:
        np = self.np
        block = np.empty(len(rows), dtype=self.dtype)
        block["time"] = [r[0] for r in rows]
        block["sweep"] = [r[1] for r in rows]
        block["status"] = [r[2] for r in rows]
        if len(self.dtype.names) > 3:
            values = np.array([r[3] for r in rows], dtype="<f8")
            for i, name in enumerate(self.dtype.names[3:]):
                block[name] = values[:, i]
        n = self.table.shape[0]
        self.table.resize((n + len(rows),))
        self.table[n:] = block
        self.f.flush()

    def size(self) -> int:
        return self.table.shape[0] * self.dtype.itemsize

    def close(self) -> None:
        self.f.close()

    @staticmethod
    def last_sweep(path: str) -> Optional[int]:
        import h5py
        try:
            with h5py.File(path, "r") as f:
                t = f["records"]
                return int(t[t.shape[0] - 1]["sweep"]) if t.shape[0] else None
        except (OSError, KeyError):
            return None


FORMATS = {"csv": CsvFile, "hdf5": Hdf5File}


# ---- the recorder -----------------------------------------------------------------------------
class Recorder:
    def __init__(self, args):
        self.args = args
        self.kind = FORMATS[args.format]
        self.file = None
        self.layout: Layout = []
        self.rows: list = []
        self.records = self.gaps = self.lost = 0
        self.last_sweep: Optional[int] = None
        self.opened_hour = None
        self.stop_requested = False
        self.started = time.monotonic()
        self.rate_mark = (time.monotonic(), 0)
        self.rate = 0.0
        os.makedirs(args.out, exist_ok=True)
        if not args.fresh:
            self.last_sweep = self._previous_last_sweep()
            if self.last_sweep is not None:
                self.say(f"resuming after sweep {self.last_sweep}, the last one in {args.out}")

    def say(self, text: str) -> None:
        sys.stderr.write(("\n" if sys.stderr.isatty() else "") + text + "\n")
        sys.stderr.flush()

    def _previous_last_sweep(self) -> Optional[int]:
        files = sorted(glob.glob(os.path.join(self.args.out, "vr480-*" + self.kind.suffix)))
        for path in reversed(files):
            sweep = self.kind.last_sweep(path)
            if sweep is not None:
                return sweep
        return None

    # Files
    def _open(self) -> None:
        stamp = time.strftime("%Y%m%d-%H%M%S")
        base = os.path.join(self.args.out, f"vr480-{stamp}")
        path, k = base + self.kind.suffix, 1
        while os.path.exists(path):
            path, k = f"{base}-{k}{self.kind.suffix}", k + 1
        self.file = self.kind(path, columns_of(self.layout))
        self.opened_hour = time.localtime().tm_hour

    def _flush(self) -> None:
        if self.rows:
            if self.file is None:
                self._open()
            self.file.append(self.rows)
            self.rows = []
        if self.file is not None and (self.file.size() >= self.args.rotate_mb * 1e6
                                      or (self.args.rotate_hourly and time.localtime().tm_hour != self.opened_hour)):
            self._close_file()

    def _close_file(self) -> None:
        if self.file is not None:
            self.file.close()
            self.file = None

    # Records
    def take(self, rec: wire.Record) -> None:
        if self.last_sweep is not None and rec.sweep != self.last_sweep + 1:
            if rec.sweep <= self.last_sweep:
                return  # already written (never expected; kept out of the files)
            missing = rec.sweep - self.last_sweep - 1
            self.gaps += 1
            self.lost += missing
            self.say(f"gap: sweeps {self.last_sweep + 1} to {rec.sweep - 1} missing ({missing})")
        self.last_sweep = rec.sweep
        layout, grown = merge_layout(self.layout, rec)
        if grown:
            # A file's columns are fixed: a sensor that appears starts a new file.
            self._flush()
            self._close_file()
            self.layout = layout
        self.rows.append((rec.timestamp, rec.sweep, rec.status, row_values(self.layout, rec)))
        self.records += 1

    def progress(self, force: bool = False) -> None:
        now = time.monotonic()
        t0, n0 = self.rate_mark
        if now - t0 >= 1.0 or force:
            self.rate = (self.records - n0) / max(now - t0, 1e-9)
            self.rate_mark = (now, self.records)
            name = os.path.basename(self.file.path) if self.file else "-"
            line = f"{self.records} records  {self.rate:.0f}/s  {self.gaps} gaps ({self.lost} sweeps)  {name}"
            if sys.stderr.isatty():
                sys.stderr.write("\r" + line + "    ")
            elif force or int(now - self.started) % 10 == 0:
                sys.stderr.write(line + "\n")
            sys.stderr.flush()

    def done(self) -> bool:
        a = self.args
        return (self.stop_requested or (a.records and self.records >= a.records)
                or (a.duration and time.monotonic() - self.started >= a.duration))

    def session(self) -> None:
        """One connection: stream until done or the connection is lost."""
        with Instrument(self.args.host, self.args.port, timeout=10.0) as inst:
            mux = int(inst.text("#GET_MUX_LEVEL") or 1)
            with inst.stream(tokens=True, resume_after=self.last_sweep) as records:
                if records.resume_reply:
                    self.say(records.resume_reply)
                last_flush = time.monotonic()
                # The first file's columns cover every multiplexer layer's sensors.
                pending = [] if self.layout else None
                while not self.done():
                    rec = next(records, None)
                    if rec is None:
                        raise Vr480ConnectionError("the server ended the stream")
                    if pending is not None:
                        pending.append(rec)
                        self.layout = merge_layout(self.layout, rec)[0]
                        if len(pending) < max(1, mux):
                            continue
                        for r in pending:
                            self.take(r)
                        pending = None
                    else:
                        self.take(rec)
                    now = time.monotonic()
                    if now - last_flush >= 0.2:
                        self._flush()
                        last_flush = now
                    self.progress()
                if pending:
                    for r in pending:
                        self.take(r)

    def run(self) -> int:
        while not self.done():
            try:
                self.session()
            except (Vr480ConnectionError, OSError) as e:
                self._flush()
                if self.done():
                    break
                self.say(f"connection lost ({e}); reconnecting to {self.args.host}:{self.args.port}")
                time.sleep(1.0)
            except Vr480Error as e:
                self.say(f"the server refused: {e}")
                return 1
        self._flush()
        self._close_file()
        self.progress(force=True)
        if sys.stderr.isatty():
            sys.stderr.write("\n")
        return 0


def main(argv=None) -> int:
    ap = argparse.ArgumentParser(prog="vr480-record", description=__doc__.split("\n\n")[0])
    ap.add_argument("--host", default="127.0.0.1")
    ap.add_argument("--port", type=int, default=PORT)
    ap.add_argument("--format", choices=sorted(FORMATS), default="hdf5")
    ap.add_argument("--out", required=True, help="directory of the recording")
    ap.add_argument("--rotate-mb", type=float, default=1000.0, help="start a new file after this many MB")
    ap.add_argument("--rotate-hourly", action="store_true", help="start a new file every hour")
    ap.add_argument("--duration", type=float, default=0, help="stop after this many seconds")
    ap.add_argument("--records", type=int, default=0, help="stop after this many records")
    ap.add_argument("--fresh", action="store_true", help="do not go on from an earlier recording in --out")
    args = ap.parse_args(argv)
    if args.format == "hdf5":
        try:
            import h5py  # noqa: F401
        except ImportError:
            ap.error("--format hdf5 needs h5py (Debian: python3-h5py)")
    rec = Recorder(args)

    def stop(*_):
        rec.stop_requested = True

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    return rec.run()


if __name__ == "__main__":
    sys.exit(main())
