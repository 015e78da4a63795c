# SPDX-License-Identifier: MIT
"""A rig across hosts on one machine: a mosquitto broker on a free loopback
port with passwords and an ACL, and agents under their own virtual cameras,
each started and stopped by the tests."""

import json
import os
import signal
import socket
import subprocess
import tempfile
import time

import paho.mqtt.client as paho
import pytest

BIN = {name: os.environ[f"QK_{name.upper()}"] for name in ("virtual", "agent", "qkcam")}
RIG = "test"
HOSTS = ("h1", "h2", "h3")
USERS = {"coordinator": "coordinator-pw", **{host: f"{host}-pw" for host in HOSTS + ("h4",)}}


def free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def make_certificates(work: str) -> str:
    """A CA and a broker certificate for 127.0.0.1; the listener's TLS lines."""
    def openssl(*args):
        subprocess.run(["openssl", *args], check=True, capture_output=True)
    ca, key, csr, cert = (os.path.join(work, n) for n in ("ca.pem", "broker.key", "broker.csr", "broker.pem"))
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=qkcam test CA",
            "-keyout", os.path.join(work, "ca.key"), "-out", ca)
    openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=127.0.0.1", "-keyout", key, "-out", csr)
    with open(os.path.join(work, "san.ext"), "w") as ext:
        ext.write("subjectAltName=IP:127.0.0.1\n")
    openssl("x509", "-req", "-in", csr, "-CA", ca, "-CAkey", os.path.join(work, "ca.key"), "-CAcreateserial",
            "-days", "2", "-extfile", os.path.join(work, "san.ext"), "-out", cert)
    for name in (ca, key, cert):
        os.chmod(name, 0o644)
    return f"cafile {ca}\ncertfile {cert}\nkeyfile {key}\n"


class Broker:
    def __init__(self, work: str, console_dir: str = "", tls: bool = False):
        self.work, self.port, self.process = work, free_port(), None
        self.web_port, self.tls_port = free_port(), free_port()
        passwords = os.path.join(work, "passwords")
        open(passwords, "w").close()
        for user, password in USERS.items():
            subprocess.run(["mosquitto_passwd", "-b", passwords, user, password], check=True)
        with open(os.path.join(work, "acl"), "w") as acl:
            # Agents write only under their own host name and read the rig's commands.
            acl.write(f"user coordinator\ntopic readwrite qkcam/{RIG}/#\n\n"
                      f"pattern readwrite qkcam/{RIG}/%u/#\npattern read qkcam/{RIG}/cmd\n"
                      f"pattern read qkcam/{RIG}/preview/lease\n")
        # Started as root, the broker drops to its own user, which must read these.
        os.chmod(work, 0o777)
        for name in ("passwords", "acl"):
            os.chmod(os.path.join(work, name), 0o644)
        self.config = os.path.join(work, "mosquitto.conf")
        with open(self.config, "w") as conf:
            conf.write(f"listener {self.port} 127.0.0.1\nallow_anonymous false\npassword_file {passwords}\n"
                       f"acl_file {os.path.join(work, 'acl')}\npersistence true\npersistence_location {work}/\nmax_packet_size 16777216\n")
            if tls:
                conf.write(f"listener {self.tls_port} 127.0.0.1\n" + make_certificates(work))
            if console_dir:
                # The console page and its MQTT over websockets, from the broker itself.
                conf.write(f"listener {self.web_port} 127.0.0.1\nprotocol websockets\nhttp_dir {console_dir}\n")
        self.start()

    def start(self):
        self.process = subprocess.Popen(["mosquitto", "-c", self.config], stderr=subprocess.DEVNULL)
        deadline = time.time() + 10
        while time.time() < deadline:
            with socket.socket() as s:
                if s.connect_ex(("127.0.0.1", self.port)) == 0:
                    return
            time.sleep(0.05)
        raise RuntimeError("the broker did not start")

    def stop(self):
        self.process.terminate()
        self.process.wait(10)


class Agent:
    def __init__(self, broker: Broker, host: str, work: str, cameras=4, launcher_options=()):
        self.host, self.work = host, work
        self.cards = os.path.join(work, f"cards-{host}")
        password = os.path.join(work, f"pw-{host}")
        with open(password, "w") as f:
            f.write(USERS[host] + "\n")
        models = ["SX160", "A1400", "G15", "SX40"]
        self.serials = [f"{host.upper()}C{n}" for n in range(cameras)]
        self.trace = os.path.join(work, f"trace-{host}.jsonl")
        args = [BIN["virtual"], "--card-dir", self.cards, "--trace", self.trace, *launcher_options]
        for n, serial in enumerate(self.serials):
            args += ["--camera", f"{models[n % 4]}:{serial}"]
        args += ["--", BIN["agent"], "--broker", f"127.0.0.1:{broker.port}", "--rig", RIG, "--host-name", host,
                 "--username", host, "--password-file", password, "--log-dir", work]
        self.process = subprocess.Popen(args, stdout=subprocess.DEVNULL, stderr=open(os.path.join(work, f"agent-{host}.err"), "w"))

    def agent_pid(self) -> int:
        return int(subprocess.check_output(["pgrep", "-P", str(self.process.pid)]).split()[0])

    def stop(self) -> int:
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        return self.process.wait(30)


class Listener:
    """A client of the rig's own (coordinator's) account: what arrives under a pattern."""

    def __init__(self, broker: Broker, pattern: str = f"qkcam/{RIG}/#", user="coordinator", password=None,
                 session: str = ""):
        self.messages = []
        # A named session outlives a restart of the broker, which keeps what came meanwhile.
        self.client = paho.Client(client_id=session, clean_session=not session)
        self.client.username_pw_set(user, password or USERS.get(user, ""))
        self.client.on_message = lambda c, u, m: self.messages.append((m.topic, m.payload))
        # Subscribed again on every connection: the broker may be restarted.
        self.client.on_connect = lambda c, u, f, rc: c.subscribe(pattern, qos=1)
        self.client.reconnect_delay_set(1, 2)
        self.client.connect("127.0.0.1", broker.port)
        self.client.loop_start()
        self.client.subscribe(pattern, qos=1)

    def publish(self, topic: str, payload, qos=1):
        self.client.publish(topic, payload, qos=qos).wait_for_publish()

    def wait_for(self, topic: str, timeout=10.0):
        deadline = time.time() + timeout
        while time.time() < deadline:
            for t, payload in list(self.messages):
                if t == topic:
                    return json.loads(payload)
            time.sleep(0.02)
        raise AssertionError(f"nothing on {topic}")

    def close(self):
        self.client.loop_stop()
        self.client.disconnect()


def qkcam(broker: Broker, *args, user="coordinator", password=None, work=None, port=None, link=()):
    pw = os.path.join(work or tempfile.gettempdir(), f"pw-{user}-{os.getpid()}")
    with open(pw, "w") as f:
        f.write((password or USERS[user]) + "\n")
    return subprocess.run([BIN["qkcam"], "--log-dir", work or tempfile.gettempdir(), "rig", *args, "--broker",
                           f"127.0.0.1:{port or broker.port}", "--rig", RIG, "--username", user, "--password-file", pw, *link],
                          capture_output=True, text=True, timeout=60)


def wait_online(broker: Broker, hosts, work, timeout=30.0, cameras_per_host=4):
    deadline = time.time() + timeout
    while time.time() < deadline:
        out = qkcam(broker, "status", work=work).stdout
        ready = [line for line in out.splitlines() if "\tonline\t" in line]
        if len(ready) == len(hosts) and out.count("\tready") == cameras_per_host * len(hosts):
            return out
        time.sleep(0.3)
    raise AssertionError(f"hosts not online: {out}")


@pytest.fixture(scope="module")
def rig():
    work = tempfile.mkdtemp(prefix="qkcam-agent-test-")
    broker = Broker(work, tls=True)
    agents = {host: Agent(broker, host, work) for host in HOSTS}
    wait_online(broker, HOSTS, work)
    yield broker, agents, work
    for agent in agents.values():
        agent.stop()
    broker.stop()
