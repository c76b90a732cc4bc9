"""Records of many instruments from an MQTT broker, as vr480-bridge publishes them.

    from vr480.subscriber import Subscriber
    with Subscriber("broker.local", 1883, on_record=lambda name, rec: print(name, rec.sweep)) as sub:
        time.sleep(60)
        for name, seen in sub.instruments.items():
            print(name, seen.records, seen.missing, seen.gaps, seen.restarts)

Each message on vr480/<name>/records is a batch: a 32-byte header ("VR48", version, flags,
header length, first and last sweep counter, record count, sweeps missing before it, the
bridge's read time of the first record in microseconds since the epoch), then per record a
u32 length and the server's record bytes. The subscriber puts every instrument's records back
in sweep order as far as it can tell: a jump of the sweep counter is a gap until the missing
sweeps arrive (a bridge sends again what a restarted broker may have lost, so late sweeps fill
holes and repeated ones are counted and dropped); a batch flagged by the bridge as following a
restart of the instrument starts a new count. Needs paho-mqtt (Debian's python3-paho-mqtt).
"""
from __future__ import annotations

import collections
import json
import struct
import threading
import time
from dataclasses import dataclass, field
from typing import Callable, Deque, Dict, List, Optional, Tuple

from . import wire

MAGIC = b"VR48"
_HEADER = struct.Struct("<4sBBHIIIIQ")
FLAG_RESTART = 1


@dataclass
class Batch:
    name: str
    first: int
    last: int
    count: int
    flags: int
    missing_before: int
    read_time: float                 # when the bridge read the first record, seconds since the epoch
    bodies: List[bytes]


def parse_batch(name: str, payload: bytes) -> Batch:
    magic, version, flags, header, first, last, count, missing, micros = _HEADER.unpack_from(payload)
    if magic != MAGIC or version != 1:
        raise ValueError(f"not a batch of records: {payload[:8]!r}")
    bodies, at = [], header
    for _ in range(count):
        (n,) = struct.unpack_from("<I", payload, at)
        bodies.append(payload[at + 4: at + 4 + n])
        at += 4 + n
    return Batch(name, first, last, count, flags, missing, micros / 1e6, bodies)


@dataclass
class Seen:
    """What arrived from one instrument."""
    records: int = 0                 # distinct sweeps received
    duplicates: int = 0              # sweeps received again (dropped)
    messages: int = 0
    bytes: int = 0
    restarts: int = 0                # the instrument started a new sweep count
    last: Optional[int] = None       # highest sweep of the current count
    holes: List[List[int]] = field(default_factory=list)   # [a, b]: sweeps a..b not (yet) received
    closed: List[Tuple[int, int]] = field(default_factory=list)  # holes left behind by a restart
    latencies: Deque[float] = field(default_factory=lambda: collections.deque(maxlen=200000))
    status: Optional[dict] = None    # the newest vr480/<name>/status
    online: List[Tuple[float, bool]] = field(default_factory=list)  # changes of status "online"
    run_start: Optional[int] = None  # first sweep of the batch that began the current count

    @property
    def gaps(self) -> List[Tuple[int, int]]:
        """Sweep ranges (first, last) missing so far, older counts included."""
        return self.closed + [(a, b) for a, b in self.holes]

    @property
    def missing(self) -> int:
        return sum(b - a + 1 for a, b in self.gaps)

    def _take(self, sweep: int) -> bool:
        """Notes one sweep; False when it was already there."""
        if self.last is None:
            self.last = sweep
            return True
        step = (sweep - self.last) & 0xFFFFFFFF
        if 0 < step < 0x80000000:
            if step > 1:
                self.holes.append([self.last + 1, sweep - 1])
            self.last = sweep
            return True
        for i, (a, b) in enumerate(self.holes):  # late: does it fill a hole?
            if a <= sweep <= b:
                pieces = [h for h in ([a, sweep - 1], [sweep + 1, b]) if h[0] <= h[1]]
                self.holes[i:i + 1] = pieces
                return True
        return False


class Subscriber:
    """Subscribes to vr480/<instruments>/records and /status ("+" for all) on an MQTT broker
    and keeps, per instrument, what arrived (Seen). on_record(name, Record) is called for each
    new record in the MQTT client's thread; without it records are not decoded."""

    def __init__(self, host: str = "127.0.0.1", port: int = 1883, instruments: str = "+",
                 on_record: Optional[Callable[[str, wire.Record], None]] = None, client_id: str = ""):
        import paho.mqtt.client as mqtt  # only the subscriber needs it

        self.host, self.port, self.on_record = host, port, on_record
        self.topics = [f"vr480/{instruments}/records", f"vr480/{instruments}/status"]
        self.instruments: Dict[str, Seen] = {}
        self.lock = threading.Lock()
        self.subscribed = threading.Event()  # set while the subscriptions stand
        kwargs = {"client_id": client_id, "clean_session": True}
        if hasattr(mqtt, "CallbackAPIVersion"):  # paho-mqtt 2
            self._client = mqtt.Client(mqtt.CallbackAPIVersion.VERSION1, **kwargs)
        else:
            self._client = mqtt.Client(**kwargs)
        self._client.on_connect = self._connected
        self._client.on_message = self._message
        self._client.on_subscribe = lambda *a: self.subscribed.set()
        self._client.on_disconnect = lambda *a: self.subscribed.clear()
        self._client.reconnect_delay_set(1, 2)

    def start(self) -> "Subscriber":
        self._client.connect_async(self.host, self.port, keepalive=10)
        self._client.loop_start()
        return self

    def stop(self) -> None:
        self._client.disconnect()
        self._client.loop_stop()

    def __enter__(self) -> "Subscriber":
        return self.start()

    def __exit__(self, *exc) -> None:
        self.stop()

    def seen(self, name: str) -> Seen:
        with self.lock:
            return self.instruments.setdefault(name, Seen())

    def _connected(self, client, userdata, flags, rc) -> None:
        if rc == 0:  # a clean session: subscribe again after every reconnect
            client.subscribe([(t, 1) for t in self.topics])

    def _message(self, client, userdata, msg) -> None:
        received = time.time()
        parts = msg.topic.split("/")
        if len(parts) != 3:
            return
        name, kind = parts[1], parts[2]
        if kind == "status":
            self._status(name, msg.payload, received)
        elif kind == "records":
            try:
                batch = parse_batch(name, msg.payload)
            except (ValueError, struct.error):  # not a batch: an error here would end the MQTT thread
                return
            self._batch(batch, len(msg.payload), received)

    def _status(self, name: str, payload: bytes, received: float) -> None:
        try:
            status = json.loads(payload)
        except ValueError:
            return
        seen = self.seen(name)
        with self.lock:
            seen.status = status
            if not seen.online or seen.online[-1][1] != status.get("online"):
                seen.online.append((received, bool(status.get("online"))))

    def _batch(self, batch: Batch, size: int, received: float) -> None:
        seen = self.seen(batch.name)
        new = []
        with self.lock:
            seen.messages += 1
            seen.bytes += size
            # A batch sent again carries the same first sweep and leaves the count as it is.
            if batch.flags & FLAG_RESTART and batch.first != seen.run_start:
                if seen.last is not None:
                    seen.restarts += 1
                    seen.closed += [(a, b) for a, b in seen.holes]
                    seen.holes, seen.last = [], None
                seen.run_start = batch.first
            for body in batch.bodies:
                if seen._take(struct.unpack_from("<I", body, 28)[0]):
                    seen.records += 1
                    new.append(body)
                else:
                    seen.duplicates += 1
            if new:  # from the bridge's reading of the batch's first record to its arrival here
                seen.latencies.append(received - batch.read_time)
        if self.on_record is not None:
            for body in new:
                self.on_record(batch.name, wire.decode_record(body, received))
