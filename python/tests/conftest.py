# SPDX-License-Identifier: MIT
"""Virtual cameras for every test, in this process: qkcam_virtual makes the
bus on import, before the engine first looks at USB; the engine logs into
a directory of the run's own."""

import os
import tempfile

import pytest

import qkcam_virtual  # noqa: F401  (first: the bus must exist before libusb starts)
import qkcam

LOG_DIR = tempfile.mkdtemp(prefix="qkcam-pytest-")
qkcam.log_to(LOG_DIR)


def log_text() -> str:
    with open(os.path.join(LOG_DIR, "qkdll.log"), errors="replace") as log:
        return log.read()


@pytest.fixture
def bus():
    """add(model, serial) plugs a virtual camera in; all go at the end."""
    def add(model: str = "SX160", serial: str = ""):
        return qkcam_virtual.add_camera(model, serial or f"QKP{model}")
    yield add
    qkcam_virtual.remove_all()
