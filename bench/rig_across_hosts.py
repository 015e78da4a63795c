#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Release spread of a rig across hosts on one machine, and the time to
bring every picture home.

    bench/rig_across_hosts.py BUILD_DIR [SHOTS] [PICTURE_BYTES]

Starts a broker and three agents of four virtual cameras each, then shoots
SHOTS times (10) with `qkcam rig shoot --download`. Prints per shot the
spread of the agents' release moments (wall clock, from their results) and
of the shoot commands' arrival at the cameras (monotonic clock, from the
virtual cameras' traces), and the time from starting `qkcam rig shoot` to
the last picture on disk, with pictures of PICTURE_BYTES (5000000)."""

import json
import os
import re
import statistics
import sys
import tempfile
import time

build = os.path.abspath(sys.argv[1])
os.environ.update(QK_VIRTUAL=f"{build}/sim/qkcam-virtual", QK_AGENT=f"{build}/tool/agent/qkcam-agent",
                  QK_QKCAM=f"{build}/tool/qkcam/qkcam")
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "agent"))
from conftest import HOSTS, Agent, Broker, qkcam, wait_online  # noqa: E402

SHOTS = int(sys.argv[2]) if len(sys.argv) > 2 else 10
BYTES = int(sys.argv[3]) if len(sys.argv) > 3 else 5_000_000
SHOOT_COMMAND = 0x93


def arrivals(agents):
    """Per camera, the arrival times of its shoot commands, in order."""
    times = {}
    for agent in agents.values():
        with open(agent.trace) as trace:
            for line in trace:
                entry = json.loads(line)
                if entry.get("subCommand") == SHOOT_COMMAND:
                    times.setdefault(entry["serial"], []).append(entry["ns"])
    return times


def main():
    work = tempfile.mkdtemp(prefix="qkcam-bench-")
    broker = Broker(work)
    agents = {h: Agent(broker, h, work, launcher_options=["--picture", f"1600x1200:{BYTES}"]) for h in HOSTS}
    try:
        wait_online(broker, HOSTS, work)
        released, totals = [], []
        for shot in range(SHOTS):
            out = os.path.join(work, f"shot{shot}")
            os.mkdir(out)
            start = time.monotonic()
            run = qkcam(broker, "shoot", "--download", out, work=work)
            totals.append(time.monotonic() - start)
            if run.returncode != 0:
                sys.exit(run.stderr)
            offsets = [int(m) for m in re.findall(r"released (-?\d+) us after fire_at", run.stdout)]
            assert len(offsets) == 12, run.stdout
            released.append((max(offsets) - min(offsets)) / 1000)
            sizes = [os.path.getsize(os.path.join(d, f)) for d, _, fs in os.walk(out) for f in fs]
            assert len(sizes) == 12 and set(sizes) == {BYTES}, sizes
        at_cameras = arrivals(agents)
        camera_spread = [(max(t[k] for t in at_cameras.values()) - min(t[k] for t in at_cameras.values())) / 1e6
                         for k in range(SHOTS)]
        print(f"rig across hosts: 3 agents x 4 cameras, {SHOTS} shots, pictures of {BYTES} bytes")
        for name, values, unit in (("release spread (agents' wall clock)", released, "ms"),
                                   ("arrival spread (cameras' traces)", camera_spread, "ms"),
                                   ("rig shoot to last picture on disk", totals, "s")):
            print(f"  {name:38} median {statistics.median(values):8.3f} {unit}   max {max(values):8.3f} {unit}")
    finally:
        for agent in agents.values():
            agent.stop()
        broker.stop()


main()
