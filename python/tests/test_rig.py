# SPDX-License-Identifier: MIT
"""Many cameras: the rig, threads, cameras coming and going."""

import os
import queue
import threading
import time

import pytest

import qkcam
import qkcam_virtual


def test_rig_shoots_and_downloads_four(bus, tmp_path, monkeypatch):
    virtual = {f"QKR{n}": bus(model, f"QKR{n}") for n, model in enumerate(["SX160", "A1400", "G15", "SX40"])}
    with qkcam.Rig() as rig:
        assert sorted(c.serial for c in rig.cameras) == sorted(virtual) and rig.failures == {}
        assert rig.set("Image Size", "Large") == dict.fromkeys(virtual)
        refused = rig.set("ISO Speed", "bogus")
        assert all(isinstance(e, qkcam.UnsupportedValue) and "unknown value" in str(e) for e in refused.values())
        shots = rig.shoot()
        assert sorted(shots) == sorted(virtual)
        assert rig.last_spread_ms is None  # no trace of the cameras
        assert rig.download_all(tmp_path, shots) == dict.fromkeys(virtual)
        for serial, shot in shots.items():
            assert os.listdir(tmp_path / serial) == [shot.name]
            assert (tmp_path / serial / shot.name).read_bytes() == virtual[serial].card_file(shot.name)
    with qkcam.Rig(["QKR1", "QKR9"]) as rig:
        assert [c.serial for c in rig.cameras] == ["QKR1"]
        assert rig.failures["QKR9"].step == "find"


def test_two_threads_drive_two_cameras_at_once(bus):
    bus("SX160", "QKT1")
    bus("SX160", "QKT2")
    spans = {}

    def drive(serial):
        with qkcam.open(serial) as cam:
            start = time.monotonic()
            cam.zoom = 60
            cam.shoot()
            spans[serial] = (start, time.monotonic())

    threads = [threading.Thread(target=drive, args=(s,)) for s in ("QKT1", "QKT2")]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    (a0, a1), (b0, b1) = spans["QKT1"], spans["QKT2"]
    # Each began before the other ended: neither waited for the other's GIL.
    assert a0 < b1 and b0 < a1


def test_watch_sees_cameras_come_and_go(bus):
    events = queue.Queue()
    handle = qkcam.watch(lambda event, camera: events.put((event, camera.serial, camera.model)))
    try:
        virtual = bus("A1400", "QKW1")
        assert events.get(timeout=5) == ("arrived", "QKW1", "A1400")
        qkcam_virtual.remove(virtual)
        assert events.get(timeout=5) == ("left", "QKW1", "A1400")
    finally:
        handle.stop()
    bus("SX160", "QKW2")
    time.sleep(0.3)
    assert events.empty()


def test_unplug_during_download_leaves_nothing(bus, tmp_path):
    virtual = bus("SX160")
    virtual.add_card_file("BIG_0001.MOV", 48 << 20)
    target = tmp_path / "big.mov"
    target.write_bytes(b"kept")
    with qkcam.open() as cam:
        big = next(f for f in cam.files() if f.name == "BIG_0001.MOV")
        threading.Timer(0.05, virtual.unplug).start()
        with pytest.raises(qkcam.Error, match="PTPDownloadFile"):
            cam.download(big, target)
    # The file that was there stays as it was; no piece of the new one.
    assert target.read_bytes() == b"kept"
    assert os.listdir(tmp_path) == ["big.mov"]


def test_a_camera_cannot_name_a_file_outside_the_folder(bus, tmp_path):
    virtual = bus("SX160", "QKN1")
    virtual.add_card_file("../EVIL.JPG", 100)
    (tmp_path / "inside").mkdir()
    with qkcam.Rig() as rig:
        outcome = rig.download_all(tmp_path / "inside")["QKN1"]
    assert isinstance(outcome, qkcam.Error) and "can't stand as a local file name" in str(outcome)
    assert not (tmp_path / "inside" / "EVIL.JPG").exists() and not (tmp_path / "EVIL.JPG").exists()
