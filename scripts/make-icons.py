#!/usr/bin/env python3
"""Draws the agent's menu icons (16x16 RGBA PNG) into agent/ZarnuAgent/icons/.

Run once after changing a drawing; the PNG files are committed and embedded in
the agent at build time."""
import pathlib
import struct
import zlib

SIZE = 16
BLUE = (0x1F, 0x6F, 0xD1, 0xFF)
CLEAR = (0, 0, 0, 0)


def png(pixels):
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    raw = b"".join(b"\x00" + b"".join(bytes(p) for p in row) for row in pixels)
    header = struct.pack(">IIBBBBB", SIZE, SIZE, 8, 6, 0, 0, 0)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b"")


def draw(inside):
    return [[BLUE if inside(x + 0.5, y + 0.5) else CLEAR for x in range(SIZE)] for y in range(SIZE)]


def ring(cx, cy, rx, ry, x, y):
    d = ((x - cx) / rx) ** 2 + ((y - cy) / ry) ** 2
    return 0.55 <= d <= 1.0


def link(x, y):
    # Two interlocked links, on a diagonal.
    return ring(6, 10, 4.5, 3.2, x, y) or ring(10, 6, 4.5, 3.2, x, y)


def cloud(x, y):
    def disc(cx, cy, r):
        return (x - cx) ** 2 + (y - cy) ** 2 <= r * r
    return disc(5.5, 9.5, 3.5) or disc(9.5, 7.5, 4.5) or (2 <= x <= 14 and 9.5 <= y <= 13)


def main():
    out = pathlib.Path(__file__).resolve().parent.parent / "agent" / "ZarnuAgent" / "icons"
    out.mkdir(parents=True, exist_ok=True)
    (out / "copy-link.png").write_bytes(png(draw(link)))
    (out / "show-in-cloud.png").write_bytes(png(draw(cloud)))


if __name__ == "__main__":
    main()
