# SPDX-License-Identifier: MIT
"""One camera through the package: identity, properties by name, errors,
shots and files, preview frames, focus, video and Ctrl-C."""

import _thread
import struct
import threading

import numpy
import pytest

import qkcam
from conftest import log_text


@pytest.mark.parametrize("model,manual_focus,max_zoom", [("SX160", True, 125), ("A1400", False, None),
                                                          ("G15", False, None)])
def test_identity_on_three_models(bus, model, manual_focus, max_zoom):
    virtual = bus(model, "QKP" + model)
    assert qkcam.cameras() == [qkcam.CameraInfo(virtual.path, "QKP" + model, "QK Virtual Camera " + model, model)]
    with qkcam.open() as cam:
        assert (cam.serial, cam.model, cam.product, cam.path) == ("QKP" + model, model,
                                                                  "QK Virtual Camera " + model, virtual.path)
        assert cam.module_version == "1.2.3.4"
        assert cam.battery_level in cam.values("Battery Level")
        assert ("Manual Focus Mode" in cam.properties) == manual_focus
        if max_zoom is not None:
            assert cam.max_zoom == max_zoom
        if manual_focus:
            cam.focus_shift(0)
            assert isinstance(cam.focus, int)
        else:
            with pytest.raises(qkcam.Unsupported, match="has no manual focus"):
                cam.focus_shift(1)
    with pytest.raises(qkcam.Error, match="is closed"):
        cam.properties["ISO Speed"]


def test_every_writable_property_by_name(bus):
    bus("SX160")
    with qkcam.open("QKPSX160") as cam:
        names = [name for name in cam.properties if name != "Battery Level"]
        assert len(names) == 14
        for name in names:
            for value in cam.values(name):
                cam.properties[name] = value
                assert cam.properties[name] == value, name
        cam.properties["ISO Speed"] = "iso 400"  # any case
        assert cam.properties["ISO Speed"] == "ISO 400"


@pytest.mark.parametrize("name,value,error,message", [
    ("Nope", "1", qkcam.UnknownProperty, 'no property "Nope"; properties: Shooting Mode, Image Size'),
    ("Contrast", "1", qkcam.UnknownProperty, 'no property "Contrast"'),
    ("ISO Speed", "bogus", qkcam.UnsupportedValue, 'unknown value "bogus" of ISO Speed; values: Auto, ISO 100'),
    # A value the engine knows but this model lacks.
    ("ISO Speed", "ISO 3200", qkcam.UnsupportedValue, "ISO 3200 is not available now; values: Auto, ISO 100"),
    # Barred by the image size: Large allows no Superfine.
    ("JPEG Quality", "Superfine", qkcam.UnsupportedValue, "Superfine is not available now; values: Fine, Normal"),
    ("Battery Level", "DC", qkcam.Error, "SetPropertyData Battery Level failed: QK_ERROR"),
])
def test_refused_settings(bus, name, value, error, message):
    bus("SX160")
    with qkcam.open() as cam:
        cam.properties["Image Size"] = "Large"
        before = dict(cam.properties)
        with pytest.raises(error, match=message) as raised:
            cam.properties[name] = value
        assert raised.value.result == {qkcam.UnknownProperty: 6, qkcam.UnsupportedValue: 7, qkcam.Error: 1}[error]
        assert dict(cam.properties) == before
        with pytest.raises(TypeError):
            del cam.properties["ISO Speed"]
        with pytest.raises(KeyError):
            cam.properties["Nope"]


def test_open_refuses_what_it_cannot_find(bus):
    with pytest.raises(qkcam.CameraNotFound, match="no camera is attached"):
        qkcam.open()
    bus("SX160", "QKP1")
    bus("A1400", "QKP2")
    with pytest.raises(qkcam.CameraNotFound, match="2 cameras are attached; choose one by serial: QKP1, QKP2"):
        qkcam.open()
    with pytest.raises(qkcam.CameraNotFound, match="no camera with serial QKP3"):
        qkcam.open("QKP3")
    with qkcam.open("QKP2") as cam:
        # A camera this process holds is still listed, from what it knows.
        assert [info.serial for info in qkcam.cameras()] == ["QKP1", "QKP2"]
        assert cam.model == "A1400"


@pytest.mark.parametrize("direct", [False, True])
def test_shoot_read_download_remove(bus, tmp_path, direct):
    virtual = bus("SX160")
    with qkcam.open() as cam:
        before = cam.files()
        picture = cam.shoot(direct=direct)
        assert (picture.id < 0) == direct and picture.size > 0
        data = cam.read(picture)
        assert len(data) == picture.size and data[:2] == b"\xff\xd8"
        if not direct:
            assert data == virtual.card_file(picture.name)
            assert cam.files() == before + [picture]
        cam.download(picture.id, tmp_path / "shot.jpg")
        assert (tmp_path / "shot.jpg").read_bytes() == data
        assert list(tmp_path.iterdir()) == [tmp_path / "shot.jpg"]
        cam.remove(picture)
        assert cam.files() == before
        with pytest.raises(qkcam.Error, match="PTPDownloadFile"):
            cam.read(picture)


def test_large_pictures_arrive_whole(bus):
    from io import BytesIO
    from PIL import Image
    virtual = bus("SX160")
    virtual.set_picture(1600, 1200, 3_000_000)
    with qkcam.open() as cam:
        for direct in (False, True):
            picture = cam.shoot(direct=direct)
            data = cam.read(picture)
            assert picture.size == len(data) == 3_000_000
            assert Image.open(BytesIO(data)).size == (1600, 1200)


def test_preview_is_the_bmp_as_rgb(bus):
    bus("SX160")
    with qkcam.open() as cam:
        bmp = cam.preview_bmp()
        frame = qkcam.bmp_to_array(bmp)
        assert frame.shape == (240, 320, 3) and frame.dtype == numpy.uint8
        assert numpy.shares_memory(frame, numpy.frombuffer(bmp, numpy.uint8))
        offset, = struct.unpack_from("<I", bmp, 10)
        stride = (320 * 3 + 3) & ~3
        for y, x in [(0, 0), (0, 319), (120, 160), (239, 0), (239, 319), (37, 201)]:
            at = offset + (239 - y) * stride + 3 * x  # bottom-up rows of BGR
            assert tuple(frame[y, x]) == (bmp[at + 2], bmp[at + 1], bmp[at]), (y, x)
        assert cam.preview().shape == (240, 320, 3)


@pytest.mark.parametrize("bmp,message", [
    (b"GIF89a" + bytes(60), "not a BMP"),
    (b"BM" + bytes(8) + struct.pack("<IIiiHHI", 54, 40, 4, 4, 1, 32, 0) + bytes(64), "32 bits"),
    (b"BM" + bytes(8) + struct.pack("<IIiiHHI", 54, 40, 4, 4, 1, 24, 0) + bytes(47), "too short"),
])
def test_bad_bmp_is_refused(bmp, message):
    with pytest.raises(ValueError, match=message):
        qkcam.bmp_to_array(bmp)


def test_zoom_focus_video_and_hooks(bus):
    bus("SX160")
    changes = []
    with qkcam.open(on_zoom_changed=lambda z: changes.append(("zoom", z)),
                    on_focus_changed=lambda f: changes.append(("focus", f)),
                    on_property_list_changed=lambda: changes.append("list"),
                    on_new_preview_frame=lambda: changes.append("frame"),
                    on_property_changed=lambda n, v: changes.append((n, v))) as cam:
        cam.zoom = 40
        assert cam.zoom == 40 and ("zoom", 40) in changes
        with pytest.raises(qkcam.UnsupportedValue, match="zoom 126 is outside 0 to 125"):
            cam.zoom = 126
        # The camera's own change of one setting after another is announced.
        cam.properties["Image Size"] = "Small"
        cam.properties["JPEG Quality"] = "Superfine"
        cam.properties["Image Size"] = "Large"
        assert ("JPEG Quality", "Fine") in changes and "list" in changes
        cam.preview_bmp()
        assert changes[-1] == "frame"
        before = cam.focus
        cam.focus = 300  # the lens goes where its zoom lets it
        assert cam.focus != before and ("focus", cam.focus) in changes
        cam.start_video()
        video = cam.stop_video()
        assert video.name.endswith(".MOV") and video in cam.files()


def test_ctrl_c_stops_a_chain_and_leaves_the_camera_usable(bus):
    bus("SX160")
    with qkcam.open() as cam:
        timer = threading.Timer(0.1, _thread.interrupt_main)
        timer.start()
        with pytest.raises(KeyboardInterrupt):
            cam.zoom = 125
        timer.join()
        assert "ContProc::run: chain stopped by its holder" in log_text()
        cam.zoom = 10
        assert cam.zoom == 10
        assert cam.shoot().size > 0
