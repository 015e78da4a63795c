#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""rig_grid: every attached camera's live preview in one grid image, then
one synchronised shot of all of them, each picture downloaded.

    rig_grid.py [DIR]      writes DIR/grid.png and DIR/<serial>/<picture>

Try it without cameras:
    qkcam-virtual --camera SX160:S1 --camera A1400:S2 --camera G15:S3 -- python3 rig_grid.py out
"""

import math
import pathlib
import sys

from PIL import Image, ImageDraw

import qkcam


def grid(frames, tile_width=320, caption=18):
    """One image of tiles, captioned with serial and model, as square as it goes."""
    columns = math.ceil(math.sqrt(len(frames)))
    rows = math.ceil(len(frames) / columns)
    tile_height = max(f.shape[0] * tile_width // f.shape[1] for f, _ in frames) + caption
    sheet = Image.new("RGB", (columns * tile_width, rows * tile_height), "black")
    draw = ImageDraw.Draw(sheet)
    for n, (frame, label) in enumerate(frames):
        x, y = (n % columns) * tile_width, (n // columns) * tile_height
        picture = Image.fromarray(frame).resize((tile_width, frame.shape[0] * tile_width // frame.shape[1]))
        sheet.paste(picture, (x, y + caption))
        draw.text((x + 4, y + 3), label, fill="white")
    return sheet


def main():
    out = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    out.mkdir(parents=True, exist_ok=True)
    with qkcam.Rig() as rig:
        for serial, error in rig.failures.items():
            print(f"{serial}: not ready: {error}")
        if not rig.cameras:
            sys.exit("no camera ready")
        frames = [(cam.preview(), f"{cam.serial} {cam.model}") for cam in rig.cameras]
        grid(frames).save(out / "grid.png")
        print(f"grid of {len(frames)} previews: {out / 'grid.png'}")
        shots = rig.shoot()
        if rig.last_spread_ms is not None:
            print(f"shoot commands arrived within {rig.last_spread_ms:.2f} ms")
        downloads = rig.download_all(out, shots)
        for serial, shot in sorted(shots.items()):
            failed = shot if isinstance(shot, qkcam.Error) else downloads[serial]
            print(f"{serial}: {failed}" if failed else f"{serial}: {out / serial / shot.name} ({shot.size} bytes)")


if __name__ == "__main__":
    main()
