"""Procedural base-colour textures written as PNG with zlib and struct only.
Both images tile seamlessly: every pattern period divides the image size."""

import math
import struct
import zlib


def png_bytes(width, height, rgb_rows):
    """An 8-bit RGB PNG; rgb_rows yields one bytes object of width*3 per row."""
    def chunk(kind, data):
        body = kind + data
        return struct.pack('>I', len(data)) + body + struct.pack('>I', zlib.crc32(body) & 0xFFFFFFFF)

    raw = bytearray()
    for row in rgb_rows:
        raw.append(0)  # filter type None
        raw += row
    header = struct.pack('>IIBBBBB', width, height, 8, 2, 0, 0, 0)
    return (b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', header) + chunk(b'IDAT', zlib.compress(bytes(raw), 9))
            + chunk(b'IEND', b''))


def hash01(*ints):
    """A deterministic integer hash mapped to [0, 1)."""
    h = 2166136261
    for v in ints:
        h = ((h ^ (v & 0xFFFFFFFF)) * 16777619) & 0xFFFFFFFF
        h ^= h >> 13
        h = (h * 0x5BD1E995) & 0xFFFFFFFF
        h ^= h >> 15
    return h / 4294967296.0


def value_noise(x, y, period_x, period_y, seed):
    """Smooth value noise on an integer lattice that wraps with the periods."""
    xi, yi = int(math.floor(x)), int(math.floor(y))
    fx, fy = x - xi, y - yi
    sx, sy = fx * fx * (3 - 2 * fx), fy * fy * (3 - 2 * fy)

    def lattice(i, j):
        return hash01(seed, i % period_x, j % period_y)

    a = lattice(xi, yi) + (lattice(xi + 1, yi) - lattice(xi, yi)) * sx
    b = lattice(xi, yi + 1) + (lattice(xi + 1, yi + 1) - lattice(xi, yi + 1)) * sx
    return a + (b - a) * sy


def to_byte(linear):
    """Linear value to an sRGB-encoded byte (glTF base-colour images are sRGB)."""
    c = min(max(linear, 0.0), 1.0)
    s = 12.92 * c if c <= 0.0031308 else 1.055 * c ** (1.0 / 2.4) - 0.055
    return int(round(s * 255.0))


def oak_planks(size=512):
    """Oak floorboards: 8 boards across the image (one image covers 1.2 m, so
    boards are 0.15 m wide), staggered end joints, per-board tone and a wavy
    grain that runs along v."""
    boards = 8
    board_px = size // boards
    rows = []
    for y in range(size):
        row = bytearray()
        for x in range(size):
            b = x // board_px
            # Two end joints per board, staggered by board.
            joint_shift = int(hash01(11, b) * size)
            yy = (y + joint_shift) % size
            piece = yy // (size // 2)
            tone = 0.85 + 0.3 * hash01(17, b, piece)
            # Grain: stripes along v, bent by low-frequency noise.
            n = value_noise(x / 32.0, yy / 64.0, size // 32, size // 64, 3 + b)
            grain = 0.5 + 0.5 * math.sin((x % board_px) * 0.55 + 7.0 * n + 3.1 * hash01(5, b, piece))
            fine = value_noise(x / 4.0, yy / 32.0, size // 4, size // 32, 9)
            shade = tone * (0.78 + 0.14 * grain + 0.1 * fine)
            gap = (x % board_px) == 0 or (yy % (size // 2)) == 0
            if gap:
                shade *= 0.35
            r, g, bl = 0.42 * shade, 0.27 * shade, 0.15 * shade
            row += bytes((to_byte(r), to_byte(g), to_byte(bl)))
        rows.append(bytes(row))
    return png_bytes(size, size, rows)


def floor_tiles(size=512):
    """Square stone tiles, 4 x 4 per image (one image covers 2.4 m, so tiles
    are 0.6 m), each with its own tone and a faint mottle, 3 px grout."""
    tiles = 4
    tile_px = size // tiles
    rows = []
    for y in range(size):
        row = bytearray()
        for x in range(size):
            tx, ty = x // tile_px, y // tile_px
            lx, ly = x % tile_px, y % tile_px
            if lx < 3 or ly < 3:
                c = (0.30, 0.29, 0.27)
            else:
                tone = 0.9 + 0.12 * hash01(23, tx, ty)
                m = value_noise(x / 16.0, y / 16.0, size // 16, size // 16, 31)
                m2 = value_noise(x / 8.0, y / 8.0, size // 8, size // 8, 37)
                s = tone * (0.88 + 0.08 * m + 0.05 * m2)
                c = (0.62 * s, 0.60 * s, 0.56 * s)
            row += bytes(to_byte(v) for v in c)
        rows.append(bytes(row))
    return png_bytes(size, size, rows)
