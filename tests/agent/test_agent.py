# SPDX-License-Identifier: MIT
"""Three agents of four virtual cameras each, one coordinator, one broker."""

import json
import os
import re
import signal
import time

from conftest import HOSTS, RIG, Agent, Listener, qkcam, wait_online

SHOTS = {}


def test_status_names_every_host_and_camera(rig):
    broker, agents, work = rig
    out = qkcam(broker, "status", work=work)
    assert out.returncode == 0, out.stderr
    for host, agent in agents.items():
        assert re.search(rf"^{host}\tonline\t\d+\.\d+\.\d+$", out.stdout, re.M)
        for serial in agent.serials:
            assert re.search(rf"^  {serial}\t\w+\tready$", out.stdout, re.M)


def test_hostile_commands_get_their_error_and_the_agent_goes_on(rig):
    broker, agents, work = rig
    listener = Listener(broker)
    try:
        h1 = f"qkcam/{RIG}/h1"
        past = time.time_ns() - 10**9
        cases = [
            ("cmd", b"{not json", "invalid", "not a JSON object"),
            ("cmd", b"x" * (10 << 20), "invalid", "over the limit of 65536"),
            ("cmd", json.dumps({"op": "list"}), "invalid", 'no "id"'),
            ("h1/cmd", json.dumps({"id": "u1", "op": "get", "serial": "NOPE"}), "u1", "unknown serial NOPE on host h1"),
            ("cmd", json.dumps({"id": "o1", "op": "explode"}), "o1", 'unknown operation "explode"'),
            ("cmd", json.dumps({"id": "t1", "op": "zoom", "position": "far"}), "t1", '"position" must be'),
            ("cmd", json.dumps({"id": "p1", "op": "shoot", "fire_at": past}), "p1", "in the past"),
            ("cmd", json.dumps({"id": "f1", "op": "shoot", "fire_at": time.time_ns() + 120 * 10**9}), "f1",
             "more than a minute"),
            ("cmd", json.dumps({"id": "s1", "op": "set", "property": "ISO Speed", "value": "bogus"}), "s1",
             'unknown value "bogus" of ISO Speed'),
        ]
        for topic, payload, answer, error in cases:
            listener.messages.clear()
            listener.publish(f"qkcam/{RIG}/{topic}", payload)
            result = listener.wait_for(f"{h1}/result/{answer}")
            assert result["ok"] is False and error in result["error"], (payload[:40], result)
        # Seen again: answered from the first result, not carried out twice.
        listener.messages.clear()
        listener.publish(f"qkcam/{RIG}/h1/cmd", json.dumps({"id": "z1", "op": "zoom", "position": 30}))
        first = listener.wait_for(f"{h1}/result/z1")
        listener.messages.clear()
        listener.publish(f"qkcam/{RIG}/h1/cmd", json.dumps({"id": "z1", "op": "zoom", "position": 0}))
        assert listener.wait_for(f"{h1}/result/z1") == first
        got = qkcam(broker, "get", "ISO Speed", work=work)
        assert got.returncode == 0 and got.stdout.count("ISO Speed = ") == 12, got
    finally:
        listener.close()
    log = open(os.path.join(work, "qkdll.log"), errors="replace").read()
    assert "command z1 seen again, answered as before" in log


def test_preview_frames_flow_only_while_a_lease_runs(rig):
    broker, agents, work = rig
    listener = Listener(broker, f"qkcam/{RIG}/+/preview/+")
    try:
        time.sleep(1)
        assert listener.messages == []  # an idle rig sends nothing
        listener.publish(f"qkcam/{RIG}/preview/lease", json.dumps({"fps": 4, "width": 160, "seconds": 2}))
        time.sleep(1.5)
        frames = list(listener.messages)
        cameras = {topic.rsplit("/", 1)[1] for topic, _ in frames}
        assert cameras == {s for a in agents.values() for s in a.serials}
        assert all(payload[:2] == b"\xff\xd8" for _, payload in frames)
        time.sleep(1.5)  # the lease has run out
        listener.messages.clear()
        time.sleep(1)
        assert listener.messages == []
    finally:
        listener.close()


def test_passwords_and_acl_keep_strangers_out(rig):
    broker, agents, work = rig
    refused = qkcam(broker, "status", password="wrong", work=work)
    assert refused.returncode == 1 and "refused the connection" in refused.stderr
    # Over TLS: with the rig's CA the broker is trusted; without TLS its TLS port answers nothing useful.
    over_tls = qkcam(broker, "status", work=work, port=broker.tls_port, link=["--tls-ca", f"{work}/ca.pem",
                                                                           "--timeout", "5"])
    assert over_tls.returncode == 0 and "h1\tonline" in over_tls.stdout, over_tls.stderr
    plain = qkcam(broker, "status", work=work, port=broker.tls_port, link=["--timeout", "2"])
    assert plain.returncode == 1 and "no connection to the broker" in plain.stderr
    # An agent can't speak for another host.
    listener = Listener(broker, f"qkcam/{RIG}/h2/status")
    intruder = Listener(broker, f"qkcam/{RIG}/h1/cmd", user="h1")
    try:
        time.sleep(0.3)
        listener.messages.clear()
        intruder.publish(f"qkcam/{RIG}/h2/status", json.dumps({"state": "offline"}))
        time.sleep(0.5)
        assert listener.messages == []
    finally:
        listener.close()
        intruder.close()


def test_broker_restart_then_shots_reach_the_coordinator(rig, tmp_path):
    broker, agents, work = rig
    # A result made while the broker is away is delivered once it is back.
    listener = Listener(broker, f"qkcam/{RIG}/h1/result/#", session="coordinator-late")
    try:
        fire_at = time.time_ns() + 10**9
        listener.publish(f"qkcam/{RIG}/h1/cmd", json.dumps({"id": "late1", "op": "shoot", "fire_at": fire_at}))
        time.sleep(0.2)
        broker.stop()
        time.sleep(2)  # the shot is taken, and its result made, meanwhile
        broker.start()
        assert listener.wait_for(f"qkcam/{RIG}/h1/result/late1", timeout=60)["ok"] is True
    finally:
        listener.close()
    wait_online(broker, HOSTS, work, timeout=60)
    for keep in (True, False):
        out_dir = tmp_path / ("kept" if keep else "moved")
        out_dir.mkdir()
        shot = qkcam(broker, "shoot", "--download", str(out_dir), *(["--keep"] if keep else []), work=work)
        assert shot.returncode == 0, shot.stderr
        lines = [line.split("\t") for line in shot.stdout.splitlines() if line.count("\t") == 5]
        assert len(lines) == 12 and re.search(r"^spread: \d+ us over 12 cameras on 3 hosts$", shot.stdout, re.M)
        for host, serial, name, size, released, path in lines:
            assert path == f"{out_dir}/{host}/{serial}/{name}"
            assert os.path.getsize(path) == int(size) > 0 and re.match(r"released -?\d+ us after fire_at", released)
            SHOTS[(host, serial, name)] = (open(path, "rb").read(), keep)


def test_cameras_that_come_and_go_are_announced(rig):
    broker, agents, work = rig
    listener = Listener(broker, f"qkcam/{RIG}/h4/#")
    h4 = Agent(broker, "h4", work, cameras=1,
               launcher_options=["--plug-after", "1500", "A1400:H4NEW", "--unplug-after", "3000", "H4C0"])
    try:
        assert listener.wait_for(f"qkcam/{RIG}/h4/status")["state"] == "online"
        events = []
        deadline = time.time() + 20
        while len(events) < 3 and time.time() < deadline:
            events = [json.loads(p) for t, p in list(listener.messages) if t.endswith("/event")
                      and json.loads(p)["event"] in ("arrived", "left")]
            time.sleep(0.1)
        assert [(e["event"], e["serial"]) for e in events] == [("arrived", "H4C0"), ("arrived", "H4NEW"),
                                                              ("left", "H4C0")]
        cameras = [json.loads(p) for t, p in listener.messages if t.endswith("/cameras")][-1]
        assert [(c["serial"], c["model"], c["ready"]) for c in cameras] == [("H4NEW", "A1400", True)]
        # The newcomer takes commands.
        listener.messages.clear()
        listener.publish(f"qkcam/{RIG}/h4/cmd", json.dumps({"id": "n1", "op": "get", "property": "ISO Speed"}))
        assert listener.wait_for(f"qkcam/{RIG}/h4/result/n1")["cameras"][0]["serial"] == "H4NEW"
    finally:
        h4.stop()
        listener.close()


def test_an_agent_that_dies_is_offline_by_its_last_will(rig):
    broker, agents, work = rig
    os.kill(agents["h3"].agent_pid(), signal.SIGKILL)
    deadline = time.time() + 30
    while time.time() < deadline:
        status = qkcam(broker, "status", work=work).stdout
        if re.search(r"^h3\toffline", status, re.M):
            break
        time.sleep(0.3)
    assert re.search(r"^h3\toffline", status, re.M) and re.search(r"^h1\tonline", status, re.M)


def test_pictures_equal_the_cards_and_published_ones_left_them(rig):
    broker, agents, work = rig
    for agent in agents.values():
        agent.stop()
    assert len(SHOTS) == 24
    for (host, serial, name), (data, kept) in SHOTS.items():
        card_file = os.path.join(agents[host].cards, serial, name)
        if kept:
            assert open(card_file, "rb").read() == data, card_file
        elif host != "h3":
            assert not os.path.exists(card_file), card_file
        elif os.path.exists(card_file):
            # Killed before it could remove what the broker had: kept, not lost.
            assert open(card_file, "rb").read() == data, card_file
