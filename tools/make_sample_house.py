#!/usr/bin/env python3
"""Writes the bundled sample house: Resources/house.glb (with its embedded PNG
textures) and Resources/sample_scene.json. Python 3 standard library only; the
output is the same on every run.

The house: 13 m x 10 m, two storeys (ground floor at y = 0 with its ceiling at
2.7 m, first floor at 3.0 m with its ceiling at 5.7 m), a 30-degree gable roof
with its ridge along x, a terrace on the south (+z) side, the entrance on the
west (-x) side. With north_deg = 0 true north is model -z.

Roles (node extras "role"): "site" for the garden, "roof" for the roof and its
gables, "ceil" for ceilings, structural names ("wall", "floor", "stair",
"window", "terrace") for the building, and none for furniture and light
fittings, which the cut-away views treat as fixtures.

    python3 tools/make_sample_house.py [--out DIR]
"""

import argparse
import json
import math
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from housegen import textures  # noqa: E402
from housegen.geometry import Mesh, normalize, slab_face, wall  # noqa: E402
from housegen.gltf import GLBWriter, yaw_quaternion  # noqa: E402

# ---------------------------------------------------------------------------
# Dimensions (metres)

HOUSE_X, HOUSE_Z = 13.0, 10.0
EXT_T = 0.30            # exterior wall thickness
INT_T = 0.12            # partition thickness
LAWN_Y = -0.05          # garden level
GF_FLOOR, GF_CEIL = 0.0, 2.7
FF_FLOOR, FF_CEIL = 3.0, 5.7
WALL_TOP = 5.9          # top of the exterior walls, under the eaves
ROOF_PITCH = math.radians(30.0)
RIDGE_Z = HOUSE_Z / 2
IN_X0, IN_X1 = EXT_T, HOUSE_X - EXT_T
IN_Z0, IN_Z1 = EXT_T, HOUSE_Z - EXT_T

# Stair: 17 risers from 0 to 3.0 m, 16 treads of 0.26 m rising towards +x
# along the north wall; it arrives on the first floor at x = 4.66.
STAIR_X0, STAIR_TREAD, STAIR_RISERS = 0.5, 0.26, 17
STAIR_RISE = FF_FLOOR / STAIR_RISERS
STAIR_X1 = STAIR_X0 + STAIR_TREAD * (STAIR_RISERS - 1)
STAIR_Z0, STAIR_Z1 = IN_Z0, 1.5
STAIR_HOLE = (IN_X0, STAIR_X1, STAIR_Z0, STAIR_Z1)

# Rooms as boxes (x0, x1, y0, y1, z0, z1): where cameras and lamps belong.
ROOMS = {
    'Hall': (IN_X0, 5.5, GF_FLOOR, GF_CEIL, STAIR_Z1, 4.2),
    'Stairs': (IN_X0, 5.5, GF_FLOOR, FF_CEIL, IN_Z0, STAIR_Z1),
    'Kitchen': (5.62, IN_X1, GF_FLOOR, GF_CEIL, IN_Z0, 4.2),
    'Living': (IN_X0, 7.5, GF_FLOOR, GF_CEIL, 4.32, IN_Z1),
    'Dining': (7.62, IN_X1, GF_FLOOR, GF_CEIL, 4.32, IN_Z1),
    'Landing': (IN_X0, 6.3, FF_FLOOR, FF_CEIL, IN_Z0, 4.2),
    'Bath': (6.42, 10.0, FF_FLOOR, FF_CEIL, IN_Z0, 4.2),
    'Study': (10.12, IN_X1, FF_FLOOR, FF_CEIL, IN_Z0, 4.2),
    'Bedroom': (IN_X0, 5.0, FF_FLOOR, FF_CEIL, 4.32, IN_Z1),
    'Bedroom 2': (5.12, IN_X1, FF_FLOOR, FF_CEIL, 4.32, IN_Z1),
    'Terrace': (0.5, 8.0, LAWN_Y, 3.0, HOUSE_Z, 13.5),
    'Garden': (-22.0, 35.0, LAWN_Y, 40.0, -18.0, 30.0),
}

# ---------------------------------------------------------------------------
# Materials

TEX_OAK, TEX_TILES = 0, 1

# name: dict of GLBWriter.add_material arguments
MATERIALS = {
    'exterior_render': dict(base=(0.80, 0.78, 0.74), roughness=0.85),
    'wall_plaster': dict(base=(0.86, 0.85, 0.82), roughness=0.9),
    'ceiling_paint': dict(base=(0.88, 0.88, 0.88), roughness=0.95),
    'oak_floor': dict(base=(1.0, 1.0, 1.0), roughness=0.4, texture=TEX_OAK),
    'floor_tiles': dict(base=(1.0, 1.0, 1.0), roughness=0.25, texture=TEX_TILES),
    'walnut': dict(base=(0.55, 0.40, 0.30), roughness=0.35, texture=TEX_OAK),
    'door_oak': dict(base=(0.95, 0.9, 0.85), roughness=0.5, texture=TEX_OAK),
    'terrace_deck': dict(base=(0.75, 0.70, 0.64), roughness=0.75, texture=TEX_OAK),
    'window_glass': dict(base=(1.0, 1.0, 1.0), roughness=0.0, transmission=1.0, ior=1.52, double_sided=True),
    'frosted_glass': dict(base=(1.0, 1.0, 1.0), roughness=0.0, transmission=1.0, ior=1.5, double_sided=True,
                          transmission_roughness=0.35),
    'mirror': dict(base=(0.96, 0.96, 0.97), metallic=1.0, roughness=0.02),
    'brushed_steel': dict(base=(0.72, 0.72, 0.73), metallic=1.0, roughness=0.3),
    'brass': dict(base=(0.91, 0.76, 0.42), metallic=1.0, roughness=0.22),
    'window_frame': dict(base=(0.06, 0.065, 0.07), roughness=0.45),
    'lacquer_white': dict(base=(0.85, 0.85, 0.84), roughness=0.12),
    'granite_black': dict(base=(0.035, 0.035, 0.04), roughness=0.08),
    'black_glass': dict(base=(0.01, 0.01, 0.012), roughness=0.04),
    'ceramic_white': dict(base=(0.88, 0.88, 0.87), roughness=0.05),
    'sofa_fabric': dict(base=(0.20, 0.26, 0.34), roughness=1.0),
    'linen': dict(base=(0.84, 0.82, 0.77), roughness=0.95),
    'wool_rug': dict(base=(0.52, 0.44, 0.36), roughness=1.0),
    'roof_tiles': dict(base=(0.17, 0.16, 0.16), roughness=0.7),
    'stone_sill': dict(base=(0.58, 0.56, 0.53), roughness=0.55),
    'paving_stone': dict(base=(0.42, 0.41, 0.39), roughness=0.8),
    'lawn_grass': dict(base=(0.10, 0.20, 0.05), roughness=0.95),
    'tree_bark': dict(base=(0.17, 0.12, 0.08), roughness=0.95),
    'foliage': dict(base=(0.06, 0.15, 0.04), roughness=0.8),
    'led_diffuser': dict(base=(1.0, 1.0, 1.0), roughness=0.5, emissive=(1.0, 0.84, 0.62), emissive_strength=3.0),
    'lantern_glow': dict(base=(1.0, 1.0, 1.0), roughness=0.5, emissive=(1.0, 0.78, 0.5), emissive_strength=1.2),
}

# Metres covered by one texture repeat under planar mapping.
UV_SCALE = {'oak_floor': 1.2, 'walnut': 1.2, 'door_oak': 1.2, 'terrace_deck': 1.2, 'floor_tiles': 2.4}


# ---------------------------------------------------------------------------
# The model being assembled


class House:
    def __init__(self):
        self.glb = GLBWriter()
        self.lamps = []
        self.shared_meshes = {}
        root = self.glb.add_node('House')
        self.groups = {name: self.glb.add_node(name, parent=root, role=role)
                       for name, role in (('Site', 'site'), ('GroundFloor', None), ('FirstFloor', None),
                                          ('Roof', 'roof'))}

    def mesh(self, name):
        return Mesh(name, UV_SCALE)

    def element(self, group, mesh, role=None):
        """Adds a mesh built in world coordinates as one node of a group."""
        index = self.glb.add_mesh(mesh)
        self.glb.add_node(mesh.name, mesh=index, role=role, parent=self.groups[group])

    def instance(self, group, node_name, mesh_name, build, at, yaw=0.0, scale=None, role=None):
        """Places a mesh built once in local coordinates (front towards +z)."""
        if mesh_name not in self.shared_meshes:
            m = self.mesh(mesh_name)
            build(m)
            self.shared_meshes[mesh_name] = self.glb.add_mesh(m)
        self.glb.add_node(node_name, mesh=self.shared_meshes[mesh_name], role=role, parent=self.groups[group],
                          translation=at, rotation=yaw_quaternion(yaw) if yaw else None,
                          scale=scale)

    def lamp(self, **fields):
        rec = {'id': fields.pop('id'), 'room': fields.pop('room'), 'kind': fields.pop('kind')}
        for key in ('position', 'end', 'direction'):
            if key in fields:
                rec[key] = [round(v, 4) for v in fields.pop(key)]
        for key in ('lumens', 'lumens_per_m', 'kelvin', 'radius', 'cone_deg', 'width'):
            if key in fields:
                rec[key] = fields.pop(key)
        assert not fields, fields
        self.lamps.append(rec)


GF, FF = 'GroundFloor', 'FirstFloor'


def storey_of(y):
    return 'GroundFloor' if y < 2.8 else 'FirstFloor'


# ---------------------------------------------------------------------------
# Site and terrace


def build_lawn(h):
    m = h.mesh('Site_Lawn')
    x0, x1, _, _, z0, z1 = ROOMS['Garden']
    m.quad('lawn_grass', (x0, LAWN_Y, z0), (x1, LAWN_Y, z0), (x1, LAWN_Y, z1), (x0, LAWN_Y, z1), (0, 1, 0))
    h.element('Site', m)


def build_paths(h):
    """Stepping stones from the front door westwards, and from the terrace."""
    m = h.mesh('Site_Paths')
    x = -0.15
    while x > -10.0:
        m.box('paving_stone', (x - 0.55, LAWN_Y - 0.02, 2.5), (x, -0.02, 3.5), skip=('-y',))
        x -= 0.7
    z = 13.7
    while z < 18.0:
        m.box('paving_stone', (3.6, LAWN_Y - 0.02, z), (4.6, -0.02, z + 0.5), skip=('-y',))
        z += 0.7
    h.element('Site', m)


def build_hedges(h):
    m = h.mesh('Site_Hedges')
    for lo, hi in (((-14.0, LAWN_Y, -9.0), (26.0, 1.3, -8.2)),
                   ((25.2, LAWN_Y, -8.2), (26.0, 1.3, 22.0)),
                   ((-14.0, LAWN_Y, -8.2), (-13.2, 1.3, 22.0))):
        m.box('foliage', lo, hi, skip=('-y',))
    h.element('Site', m)


def tree_mesh(m):
    m.cylinder('tree_bark', (0, LAWN_Y, 0), (0, 3.2, 0), 0.16, segments=16, caps=(False, True), radius1=0.1)
    m.sphere('foliage', (0, 4.2, 0), (1.7, 1.5, 1.7), segments=40, rings=20)
    m.sphere('foliage', (0.7, 3.5, 0.4), (1.1, 1.0, 1.1), segments=32, rings=16)
    m.sphere('foliage', (-0.6, 3.6, -0.5), (1.2, 1.0, 1.2), segments=32, rings=16)


def build_trees(h):
    for i, (x, z, yaw, s) in enumerate(((-7.0, -4.5, 0, 1.0), (17.5, -4.0, 70, 1.15), (20.0, 7.0, 140, 0.9),
                                        (18.5, 17.0, 200, 1.1), (-9.0, 10.5, 250, 0.95),
                                        (9.0, 22.0, 310, 1.05))):
        h.instance('Site', 'Site_Tree_%d' % (i + 1), 'Tree', tree_mesh, (x, 0.0, z), yaw, (s, s, s))


def build_terrace(h):
    m = h.mesh('Terrace_Deck')
    x0, x1, _, _, z0, z1 = ROOMS['Terrace']
    m.box('terrace_deck', (x0, LAWN_Y - 0.02, z0), (x1, -0.02, z1), skip=('-y', '-z'))
    h.element('GroundFloor', m, role='terrace')


def outdoor_table_mesh(m):
    m.cylinder('brushed_steel', (0, 0, 0), (0, 0.02, 0), 0.3, segments=32)
    m.cylinder('brushed_steel', (0, 0.02, 0), (0, 0.7, 0), 0.035, segments=16, caps=(False, False))
    m.cylinder('walnut', (0, 0.7, 0), (0, 0.74, 0), 0.55, segments=48)


def build_terrace_furniture(h):
    y = -0.02
    h.instance('GroundFloor', 'Terrace_Table', 'OutdoorTable', outdoor_table_mesh, (3.0, y, 11.9))
    for i, yaw in enumerate((0, 90, 180, 270)):
        a = math.radians(yaw)
        at = (3.0 - 0.75 * math.sin(a), y, 11.9 - 0.75 * math.cos(a))
        h.instance('GroundFloor', 'Terrace_Chair_%d' % (i + 1), 'Chair', chair_mesh, at, yaw)
    h.instance('GroundFloor', 'Terrace_Planter_1', 'Planter', planter_mesh, (7.4, y, 13.0))
    h.instance('GroundFloor', 'Terrace_Planter_2', 'Planter', planter_mesh, (1.1, y, 13.0))


# ---------------------------------------------------------------------------
# Shell: walls, windows, floors, ceilings, roof, stairs

# Openings in the exterior walls: (u0, u1, y0, y1, kind); u runs along x for
# the north and south walls and along z for the west and east walls.
EXTERIOR_OPENINGS = {
    'North': [(8.0, 11.0, 1.05, 2.2, 'window'), (2.0, 3.5, 3.9, 5.2, 'window'),
              (7.0, 9.0, 4.4, 5.4, 'frosted'), (10.6, 12.2, 3.9, 5.2, 'window')],
    'South': [(1.0, 3.5, 0.5, 2.2, 'window'), (4.3, 6.7, 0.0, 2.3, 'glass_door'),
              (8.5, 11.5, 0.9, 2.2, 'window'), (1.0, 4.0, 3.5, 5.3, 'window'),
              (6.5, 8.5, 3.9, 5.2, 'window'), (10.0, 12.0, 3.9, 5.2, 'window')],
    'West': [(2.5, 3.5, 0.0, 2.2, 'door'), (5.5, 8.5, 0.9, 2.2, 'window'),
             (2.5, 3.5, 3.9, 5.2, 'window'), (6.0, 8.0, 3.9, 5.2, 'window')],
    'East': [(1.4, 2.6, 1.05, 2.2, 'window'), (5.5, 8.0, 0.9, 2.2, 'window'),
             (1.5, 3.0, 3.9, 5.2, 'window'), (8.2, 9.3, 3.9, 5.2, 'window')],
}

# name: (axis, centre, u0, u1, side facing +, outside sign along the normal)
EXTERIOR_WALLS = {
    'North': ('x', EXT_T / 2, IN_X0, IN_X1, -1),
    'South': ('x', HOUSE_Z - EXT_T / 2, IN_X0, IN_X1, +1),
    'West': ('z', EXT_T / 2, 0.0, HOUSE_Z, -1),
    'East': ('z', HOUSE_X - EXT_T / 2, 0.0, HOUSE_Z, +1),
}


def build_exterior_walls(h):
    for name, (axis, centre, u0, u1, outside) in EXTERIOR_WALLS.items():
        m = h.mesh('Wall_Exterior_' + name)
        plus, minus = ('exterior_render', 'wall_plaster') if outside > 0 else ('wall_plaster', 'exterior_render')
        openings = [o[:4] for o in EXTERIOR_OPENINGS[name]]
        ends = axis == 'z'  # the west and east walls own the corners
        wall(m, axis, centre, u0, u1, LAWN_Y, WALL_TOP, EXT_T, plus, minus, openings, cap_start=ends,
             cap_end=ends, top=True, reveal_material='wall_plaster', cap_material='exterior_render')
        h.element('GroundFloor', m, role='wall')
        for k, (a, b, y0, y1, kind) in enumerate(EXTERIOR_OPENINGS[name]):
            build_window(h, '%s_%d' % (name, k + 1), axis, centre, outside, a, b, y0, y1, kind)


def build_window(h, label, axis, centre, outside, u0, u1, y0, y1, kind):
    """Frame, panes and sills for one opening. Frames sit in the middle of the
    wall, 70 mm deep; wide openings get a mullion; window panes are single
    thin-glass sheets; doors have a leaf instead."""
    m = h.mesh(('Door_' if kind in ('door', 'glass_door') else 'Window_') + label)
    fw, fd = 0.06, 0.07

    def box(mat, ua, ub, ya, yb, wa, wb, skip=()):
        if axis == 'x':
            m.box(mat, (ua, ya, centre + wa), (ub, yb, centre + wb), skip)
        else:
            m.box(mat, (centre + wa, ya, ua), (centre + wb, yb, ub), skip)

    def pane(mat, ua, ub, ya, yb):
        if axis == 'x':
            m.quad(mat, (ua, ya, centre), (ub, ya, centre), (ub, yb, centre), (ua, yb, centre), (0, 0, outside))
        else:
            m.quad(mat, (centre, ya, ua), (centre, ya, ub), (centre, yb, ub), (centre, yb, ua), (outside, 0, 0))

    u_skip_lo, u_skip_hi = ('-x', '+x') if axis == 'x' else ('-z', '+z')
    has_sill = y0 > 0.05
    fy0 = y0 + 0.015 if has_sill else y0
    if has_sill:
        # One stone piece: the outside sill, the reveal floor and the window board.
        w_out = EXT_T / 2 + 0.05
        w_in = EXT_T / 2 + 0.03
        wa, wb = (-w_in, w_out) if outside > 0 else (-w_out, w_in)
        box('stone_sill', u0 - 0.05, u1 + 0.05, y0 - 0.03, fy0, wa, wb)
    box('window_frame', u0, u0 + fw, fy0, y1, -fd / 2, fd / 2, skip=(u_skip_lo,))
    box('window_frame', u1 - fw, u1, fy0, y1, -fd / 2, fd / 2, skip=(u_skip_hi,))
    box('window_frame', u0 + fw, u1 - fw, y1 - fw, y1, -fd / 2, fd / 2, skip=('+y',))
    if kind == 'door':
        # Front door leaf with a pull handle on both sides.
        box('door_oak', u0 + fw, u1 - fw, y0, y1 - fw, -0.025, 0.025)
        uh = u1 - fw - 0.12

        def at(u, y, w):
            return (u, y, centre + w) if axis == 'x' else (centre + w, y, u)

        for s in (-1, 1):
            m.cylinder('brushed_steel', at(uh, 0.9, s * 0.07), at(uh, 1.3, s * 0.07), 0.012, segments=12)
            for y in (0.95, 1.25):
                m.cylinder('brushed_steel', at(uh, y, s * 0.025), at(uh, y, s * 0.07), 0.008, segments=8,
                           caps=(False, False))
        h.element('GroundFloor', m, role='window')
        return
    box('window_frame', u0 + fw, u1 - fw, fy0, fy0 + fw, -fd / 2, fd / 2, skip=('-y',))
    panes = [(u0 + fw, u1 - fw)]
    if u1 - u0 > 1.6:
        mid = 0.5 * (u0 + u1)
        box('window_frame', mid - fw / 2, mid + fw / 2, fy0 + fw, y1 - fw, -fd / 2, fd / 2)
        panes = [(u0 + fw, mid - fw / 2), (mid + fw / 2, u1 - fw)]
    glass = 'frosted_glass' if kind == 'frosted' else 'window_glass'
    for a, b in panes:
        pane(glass, a, b, fy0 + fw, y1 - fw)
    h.element(storey_of(y0 + 0.1), m, role='window')


# Partitions: (axis, centre, u0, u1, [(u0, u1, y0, y1) openings])
GF_PARTITIONS = [
    ('z', 5.56, IN_Z0, 4.2, [(2.9, 3.8, 0.0, 2.1)]),
    ('x', 4.26, IN_X0, IN_X1, [(4.4, 5.3, 0.0, 2.1), (8.0, 10.5, 0.0, 2.1)]),
    ('z', 7.56, 4.32, IN_Z1, [(5.5, 8.5, 0.0, 2.3)]),
]
FF_PARTITIONS = [
    ('x', 4.26, IN_X0, IN_X1, [(2.0, 2.9, 3.0, 5.1), (5.3, 6.2, 3.0, 5.1), (10.9, 11.8, 3.0, 5.1)]),
    ('z', 6.36, IN_Z0, 4.2, [(2.9, 3.8, 3.0, 5.1)]),
    ('z', 10.06, IN_Z0, 4.2, []),
    ('z', 5.06, 4.32, IN_Z1, []),
]


def build_partitions(h):
    for group, parts, y0, y1 in (('GroundFloor', GF_PARTITIONS, GF_FLOOR, GF_CEIL),
                                 ('FirstFloor', FF_PARTITIONS, FF_FLOOR, FF_CEIL)):
        for k, (axis, centre, u0, u1, openings) in enumerate(parts):
            m = h.mesh('Wall_%s_Partition_%d' % (group, k + 1))
            wall(m, axis, centre, u0, u1, y0, y1, INT_T, 'wall_plaster', 'wall_plaster', openings)
            h.element(group, m, role='wall')


# Floor finishes per room: (x0, x1, z0, z1, material), split at wall centres.
GF_FLOORS = [(IN_X0, 5.56, IN_Z0, 4.26, 'floor_tiles'), (5.56, IN_X1, IN_Z0, 4.26, 'floor_tiles'),
             (IN_X0, 7.56, 4.26, IN_Z1, 'oak_floor'), (7.56, IN_X1, 4.26, IN_Z1, 'oak_floor')]
FF_FLOORS = [(IN_X0, 6.36, IN_Z0, 4.26, 'oak_floor'), (6.36, 10.06, IN_Z0, 4.26, 'floor_tiles'),
             (10.06, IN_X1, IN_Z0, 4.26, 'oak_floor'), (IN_X0, 5.06, 4.26, IN_Z1, 'oak_floor'),
             (5.06, IN_X1, 4.26, IN_Z1, 'oak_floor')]


def clip_hole(rect, hole):
    """The part of a hole that lies inside a rectangle, or None."""
    x0, x1 = max(rect[0], hole[0]), min(rect[1], hole[1])
    z0, z1 = max(rect[2], hole[2]), min(rect[3], hole[3])
    return (x0, x1, z0, z1) if x0 < x1 and z0 < z1 else None


def build_floors(h):
    for group, floors, y in (('GroundFloor', GF_FLOORS, GF_FLOOR), ('FirstFloor', FF_FLOORS, FF_FLOOR)):
        m = h.mesh('Floor_' + group)
        for x0, x1, z0, z1, mat in floors:
            hole = clip_hole((x0, x1, z0, z1), STAIR_HOLE) if y > 1.0 else None
            slab_face(m, mat, x0, x1, z0, z1, y, [hole] if hole else [])
        if y > 1.0:
            # The edges of the stairwell opening, between ceiling and floor.
            hx0, hx1, hz0, hz1 = STAIR_HOLE
            m.quad('wall_plaster', (hx1, GF_CEIL, hz0), (hx1, FF_FLOOR, hz0), (hx1, FF_FLOOR, hz1),
                   (hx1, GF_CEIL, hz1), (-1, 0, 0))
            m.quad('wall_plaster', (hx0, GF_CEIL, hz1), (hx1, GF_CEIL, hz1), (hx1, FF_FLOOR, hz1),
                   (hx0, FF_FLOOR, hz1), (0, 0, -1))
        h.element(group, m, role='floor')


def build_ceilings(h):
    m = h.mesh('Ceiling_GroundFloor')
    slab_face(m, 'ceiling_paint', IN_X0, IN_X1, IN_Z0, IN_Z1, GF_CEIL, [STAIR_HOLE], up=False)
    h.element('GroundFloor', m, role='ceil')
    m = h.mesh('Ceiling_FirstFloor')
    m.box('ceiling_paint', (IN_X0, FF_CEIL, IN_Z0), (IN_X1, WALL_TOP, IN_Z1), skip=('+x', '-x', '+z', '-z'))
    h.element('FirstFloor', m, role='ceil')


def roof_height(z):
    """Height of the roof's underside above z (the eaves rest on the wall tops)."""
    return WALL_TOP + math.tan(ROOF_PITCH) * (RIDGE_Z - abs(z - RIDGE_Z))


def build_roof(h):
    thick = 0.3
    x0, x1 = -0.4, HOUSE_X + 0.4
    quads = [(0, 1, 3, 2), (4, 6, 7, 5), (0, 4, 5, 1), (2, 3, 7, 6), (0, 2, 6, 4), (1, 5, 7, 3)]
    for name, za, zb in (('North', -0.5, RIDGE_Z), ('South', RIDGE_Z, HOUSE_Z + 0.5)):
        m = h.mesh('Roof_' + name)
        verts = []
        for layer in (0.0, thick):
            for x in (x0, x1):
                for z in (za, zb):
                    verts.append((x, roof_height(z) + layer, z))
        m.convex_solid('roof_tiles', verts, quads)
        h.element('Roof', m)
    m = h.mesh('Roof_Gables')
    apex = roof_height(RIDGE_Z)
    for xa, xb in ((0.0, EXT_T), (HOUSE_X - EXT_T, HOUSE_X)):
        verts = [(x, y, z) for x in (xa, xb) for (y, z) in ((WALL_TOP, 0.0), (WALL_TOP, HOUSE_Z), (apex, RIDGE_Z))]
        m.convex_solid('exterior_render', verts, [(0, 1, 2), (3, 4, 5), (0, 1, 4, 3), (1, 2, 5, 4), (2, 0, 3, 5)])
    h.element('Roof', m)
    m = h.mesh('Roof_Ridge_Gutters')
    ridge_y = apex + thick
    m.cylinder('brushed_steel', (x0, ridge_y, RIDGE_Z), (x1, ridge_y, RIDGE_Z), 0.08, segments=24)
    for z in (-0.58, HOUSE_Z + 0.58):
        y = roof_height(z) - 0.05
        m.cylinder('brushed_steel', (x0, y, z), (x1, y, z), 0.07, segments=24)
    h.element('Roof', m)


def build_stairs(h):
    """A solid straight flight against the north wall; its open side faces
    the hall."""
    m = h.mesh('Stair_Flight')
    z0, z1 = STAIR_Z0, STAIR_Z1
    for k in range(STAIR_RISERS - 1):
        xa = STAIR_X0 + STAIR_TREAD * k
        xb = xa + STAIR_TREAD
        y_lo, y_hi = STAIR_RISE * k, STAIR_RISE * (k + 1)
        m.quad('oak_floor', (xa, y_hi, z0), (xb, y_hi, z0), (xb, y_hi, z1), (xa, y_hi, z1), (0, 1, 0))
        m.quad('oak_floor', (xa, y_lo, z0), (xa, y_hi, z0), (xa, y_hi, z1), (xa, y_lo, z1), (-1, 0, 0))
        m.quad('wall_plaster', (xa, GF_FLOOR, z1), (xb, GF_FLOOR, z1), (xb, y_hi, z1), (xa, y_hi, z1), (0, 0, 1))
    y_top = STAIR_RISE * (STAIR_RISERS - 1)
    m.quad('wall_plaster', (STAIR_X1, GF_FLOOR, z0), (STAIR_X1, y_top, z0), (STAIR_X1, y_top, z1),
           (STAIR_X1, GF_FLOOR, z1), (1, 0, 0))
    h.element('GroundFloor', m, role='stair')

    m = h.mesh('Stair_Rails')
    rail_z = z1 - 0.04
    posts = range(0, STAIR_RISERS - 1, 3)
    for k in posts:
        x = STAIR_X0 + STAIR_TREAD * (k + 0.5)
        y = STAIR_RISE * (k + 1)
        m.cylinder('brushed_steel', (x, y, rail_z), (x, y + 0.9, rail_z), 0.02, segments=12, caps=(False, True))
    xa, xb = STAIR_X0 + 0.13, STAIR_X1 - 0.13
    m.cylinder('brushed_steel', (xa, STAIR_RISE + 0.9, rail_z), (xb, y_top + 0.9, rail_z), 0.025, segments=16)
    # Glass balustrade round the stairwell on the first floor.
    m.quad('window_glass', (IN_X0, FF_FLOOR + 0.05, z1 + 0.03), (STAIR_X1, FF_FLOOR + 0.05, z1 + 0.03),
           (STAIR_X1, FF_FLOOR + 0.95, z1 + 0.03), (IN_X0, FF_FLOOR + 0.95, z1 + 0.03), (0, 0, 1))
    m.box('brushed_steel', (IN_X0, FF_FLOOR, z1 + 0.01), (STAIR_X1, FF_FLOOR + 0.05, z1 + 0.05), skip=('-y', '-x'))
    m.cylinder('brushed_steel', (IN_X0, FF_FLOOR + 1.0, z1 + 0.03), (STAIR_X1, FF_FLOOR + 1.0, z1 + 0.03),
               0.025, segments=16)
    h.element('FirstFloor', m, role='stair')


# ---------------------------------------------------------------------------
# Furniture (local meshes, front towards +z, standing on y = 0)


def chair_mesh(m):
    for x in (-0.2, 0.2):
        for z in (-0.2, 0.2):
            m.cylinder('brushed_steel', (x, 0.0, z), (x, 0.44, z), 0.015, segments=12, caps=(True, False))
    m.box('walnut', (-0.23, 0.44, -0.23), (0.23, 0.48, 0.23))
    for x in (-0.2, 0.2):
        m.cylinder('brushed_steel', (x, 0.48, -0.21), (x, 0.85, -0.21), 0.012, segments=12, caps=(False, True))
    m.box('walnut', (-0.22, 0.62, -0.245), (0.22, 0.86, -0.22))


def stool_mesh(m):
    m.cylinder('brushed_steel', (0, 0, 0), (0, 0.015, 0), 0.22, segments=32)
    m.cylinder('brushed_steel', (0, 0.015, 0), (0, 0.64, 0), 0.025, segments=16, caps=(False, False))
    m.cylinder('brushed_steel', (0, 0.3, 0), (0, 0.31, 0), 0.17, segments=32)
    m.cylinder('walnut', (0, 0.64, 0), (0, 0.69, 0), 0.19, segments=32)


def planter_mesh(m):
    m.cylinder('paving_stone', (0, 0, 0), (0, 0.5, 0), 0.25, segments=32, radius1=0.3)
    m.sphere('foliage', (0, 0.85, 0), (0.38, 0.45, 0.38), segments=24, rings=12)


def sofa_mesh(m, length=2.4, depth=0.95):
    hl, hd = length / 2, depth / 2
    m.box('sofa_fabric', (-hl, 0.08, -hd), (hl, 0.42, hd))
    m.box('sofa_fabric', (-hl, 0.42, -hd), (hl, 0.85, -hd + 0.22))
    for xa, xb in ((-hl, -hl + 0.18), (hl - 0.18, hl)):
        m.box('sofa_fabric', (xa, 0.42, -hd + 0.22), (xb, 0.62, hd))
    inner = hl - 0.18
    for i in range(3):
        a = -inner + 2 * inner * i / 3
        b = -inner + 2 * inner * (i + 1) / 3
        m.box('sofa_fabric', (a + 0.01, 0.42, -hd + 0.24), (b - 0.01, 0.56, hd - 0.02))
        m.box('sofa_fabric', (a + 0.03, 0.56, -hd + 0.22), (b - 0.03, 0.8, -hd + 0.36))
    for x in (-hl + 0.08, hl - 0.08):
        for z in (-hd + 0.08, hd - 0.08):
            m.cylinder('walnut', (x, 0, z), (x, 0.08, z), 0.025, segments=12, caps=(True, False))


def armchair_mesh(m):
    sofa_mesh(m, 0.95, 0.9)


def coffee_table_mesh(m):
    m.box('walnut', (-0.55, 0.36, -0.3), (0.55, 0.4, 0.3))
    for x in (-0.48, 0.48):
        for z in (-0.23, 0.23):
            m.cylinder('brushed_steel', (x, 0, z), (x, 0.36, z), 0.018, segments=12, caps=(True, False))


def dining_table_mesh(m):
    m.box('walnut', (-1.0, 0.71, -0.475), (1.0, 0.75, 0.475))
    for x in (-0.9, 0.9):
        for z in (-0.38, 0.38):
            m.cylinder('walnut', (x, 0, z), (x, 0.71, z), 0.03, segments=16, caps=(True, False))


def tv_unit_mesh(m):
    m.box('lacquer_white', (-1.2, 0.1, -0.22), (1.2, 0.5, 0.22))
    for x in (-1.1, 1.1):
        m.cylinder('brushed_steel', (x, 0, 0), (x, 0.1, 0), 0.03, segments=12, caps=(True, False))
    m.box({'*': 'granite_black', '+z': 'black_glass'}, (-0.75, 0.95, -0.215), (0.75, 1.8, -0.18))


def bed_mesh(m, width=1.8, length=2.05):
    hw = width / 2
    m.box('walnut', (-hw, 0.12, -length / 2), (hw, 0.35, length / 2))
    m.box('walnut', (-hw - 0.02, 0.12, -length / 2 - 0.06), (hw + 0.02, 1.05, -length / 2))
    m.box('linen', (-hw + 0.03, 0.35, -length / 2 + 0.02), (hw - 0.03, 0.55, length / 2 - 0.02))
    m.box('wool_rug', (-hw + 0.01, 0.55, -length / 2 + 0.6), (hw - 0.01, 0.6, length / 2))
    n = 2 if width > 1.5 else 1
    for i in range(n):
        cx = -hw + width * (i + 0.5) / n
        m.sphere('linen', (cx, 0.64, -length / 2 + 0.3), (0.33 if n == 2 else 0.45, 0.09, 0.2),
                 segments=28, rings=14)
    for x in (-hw + 0.06, hw - 0.06):
        for z in (-length / 2 + 0.06, length / 2 - 0.06):
            m.cylinder('walnut', (x, 0, z), (x, 0.12, z), 0.03, segments=12, caps=(True, False))


def single_bed_mesh(m):
    bed_mesh(m, 1.4, 2.05)


def bedside_mesh(m):
    m.box('walnut', (-0.22, 0.15, -0.2), (0.22, 0.55, 0.2))
    for x in (-0.18, 0.18):
        for z in (-0.16, 0.16):
            m.cylinder('brushed_steel', (x, 0, z), (x, 0.15, z), 0.012, segments=10, caps=(True, False))


def desk_mesh(m, width=1.4, depth=0.65):
    m.box('lacquer_white', (-width / 2, 0.72, -depth / 2), (width / 2, 0.75, depth / 2))
    for x in (-width / 2 + 0.04, width / 2 - 0.04):
        for z in (-depth / 2 + 0.04, depth / 2 - 0.04):
            m.cylinder('brushed_steel', (x, 0, z), (x, 0.72, z), 0.018, segments=12, caps=(True, False))


def office_chair_mesh(m):
    for k in range(5):
        a = 2 * math.pi * k / 5
        m.cylinder('brushed_steel', (0, 0.06, 0), (0.3 * math.cos(a), 0.05, 0.3 * math.sin(a)), 0.015,
                   segments=8)
        m.sphere('black_glass', (0.3 * math.cos(a), 0.03, 0.3 * math.sin(a)), (0.03, 0.03, 0.03), 12, 6)
    m.cylinder('brushed_steel', (0, 0.06, 0), (0, 0.45, 0), 0.025, segments=16)
    m.box('sofa_fabric', (-0.25, 0.45, -0.24), (0.25, 0.52, 0.24))
    m.box('sofa_fabric', (-0.23, 0.58, -0.28), (0.23, 1.05, -0.22))
    m.cylinder('brushed_steel', (0, 0.45, -0.24), (0, 0.6, -0.25), 0.015, segments=8)


def wardrobe_mesh(m, width=1.5, depth=0.6, height=2.2):
    m.box('lacquer_white', (-width / 2, 0, -depth / 2), (width / 2, height, depth / 2), skip=('-y',))
    for x in (-0.05, 0.05):
        m.cylinder('brushed_steel', (x, 0.9, depth / 2 + 0.03), (x, 1.3, depth / 2 + 0.03), 0.01, segments=10)


def bookshelf_mesh(m, width=2.0, depth=0.35, height=2.0):
    hw, hd = width / 2, depth / 2
    m.box('walnut', (-hw, 0, -hd), (-hw + 0.025, height, hd), skip=('-y',))
    m.box('walnut', (hw - 0.025, 0, -hd), (hw, height, hd), skip=('-y',))
    m.box('walnut', (-hw + 0.025, 0, -hd), (hw - 0.025, height, -hd + 0.015), skip=('-y',))
    for k in range(6):
        y = k * (height - 0.025) / 5
        m.box('walnut', (-hw + 0.025, y, -hd + 0.015), (hw - 0.025, y + 0.025, hd))
    # Books: boxes of varied height on each shelf but the top one.
    for k in range(5):
        y = k * (height - 0.025) / 5 + 0.025
        x = -hw + 0.05
        i = 0
        while x < hw - 0.1:
            t = 0.025 + 0.012 * ((k * 7 + i * 3) % 4)
            hgt = 0.2 + 0.03 * ((k * 5 + i * 11) % 5)
            mat = ('sofa_fabric', 'linen', 'wool_rug', 'granite_black')[(k + i) % 4]
            m.box(mat, (x, y, -hd + 0.04), (x + t, y + hgt, hd - 0.04), skip=('-y',))
            x += t + 0.004
            i += 1
            if i % 9 == 8:
                x += 0.12


def rug_mesh(m, width, length):
    m.box('wool_rug', (-width / 2, 0, -length / 2), (width / 2, 0.012, length / 2), skip=('-y',))


def plant_mesh(m):
    m.cylinder('ceramic_white', (0, 0, 0), (0, 0.35, 0), 0.16, segments=24, radius1=0.2)
    m.cylinder('brushed_steel', (0, 0.35, 0), (0, 0.9, 0), 0.012, segments=8)
    m.sphere('foliage', (0, 1.0, 0), (0.32, 0.38, 0.32), segments=24, rings=12)
    m.sphere('foliage', (0.12, 0.8, 0.1), (0.22, 0.22, 0.22), segments=20, rings=10)


def build_living(h):
    g = 'GroundFloor'
    h.instance(g, 'Living_TV_Unit', 'TVUnit', tv_unit_mesh, (2.3, 0, 4.32 + 0.225))
    h.instance(g, 'Living_Sofa', 'Sofa', sofa_mesh, (2.3, 0, 7.7), 180)
    h.instance(g, 'Living_Armchair', 'Armchair', armchair_mesh, (4.6, 0, 6.3), -90)
    h.instance(g, 'Living_Coffee_Table', 'CoffeeTable', coffee_table_mesh, (2.3, 0, 6.3))
    h.instance(g, 'Living_Rug', 'RugLiving', lambda m: rug_mesh(m, 2.8, 2.9), (2.3, 0, 6.9))
    h.instance(g, 'Living_Plant', 'Plant', plant_mesh, (0.75, 0, 9.2))
    h.instance(g, 'Living_Bookshelf', 'Bookshelf', bookshelf_mesh, (6.4, 0, 4.32 + 0.175))


def build_dining(h):
    g = 'GroundFloor'
    h.instance(g, 'Dining_Table', 'DiningTable', dining_table_mesh, (10.15, 0, 7.0))
    for i, x in enumerate((9.45, 10.15, 10.85)):
        h.instance(g, 'Dining_Chair_N%d' % (i + 1), 'Chair', chair_mesh, (x, 0, 6.38), 0)
        h.instance(g, 'Dining_Chair_S%d' % (i + 1), 'Chair', chair_mesh, (x, 0, 7.62), 180)
    h.instance(g, 'Dining_Plant', 'Plant', plant_mesh, (7.95, 0, 9.3))


def build_kitchen(h):
    m = h.mesh('Kitchen_Units')
    # Base units along the north wall, with plinth, doors and a stone top.
    m.box('lacquer_white', (6.0, 0.1, IN_Z0), (IN_X1, 0.86, 0.9), skip=('-z', '+x'))
    m.box('granite_black', (6.0, 0.0, IN_Z0), (IN_X1, 0.1, 0.85), skip=('-z', '+x', '-y'))
    m.box('granite_black', (5.98, 0.86, IN_Z0), (IN_X1, 0.9, 0.95), skip=('-z', '+x'))
    for x in [6.0 + 0.6 * k for k in range(1, 11)]:
        if x < IN_X1 - 0.1:
            m.box('brushed_steel', (x - 0.2, 0.78, 0.9), (x + 0.2, 0.8, 0.925))
    # Sink and tap under the window, hob to the east.
    m.box('brushed_steel', (9.1, 0.9, 0.45), (9.9, 0.905, 0.85))
    m.cylinder('brushed_steel', (9.5, 0.9, 0.4), (9.5, 1.25, 0.4), 0.015, segments=12)
    m.cylinder('brushed_steel', (9.5, 1.25, 0.4), (9.5, 1.25, 0.62), 0.015, segments=12)
    m.box('black_glass', (11.3, 0.9, 0.4), (11.9, 0.906, 0.88))
    # Wall cupboards either side of the window.
    for x0, x1 in ((6.0, 7.8), (11.2, IN_X1)):
        m.box('lacquer_white', (x0, 1.45, IN_Z0), (x1, 2.25, 0.65), skip=('-z',))
    # Island with stone top.
    m.box('lacquer_white', (7.65, 0.1, 2.25), (10.55, 0.86, 3.05))
    m.box('granite_black', (7.65, 0.0, 2.25), (10.55, 0.1, 3.05), skip=('-y',))
    m.box('granite_black', (7.6, 0.86, 2.2), (10.6, 0.9, 3.3))
    # Tall fridge column in the south-east corner.
    m.box({'*': 'brushed_steel'}, (12.05, 0.0, 3.4), (IN_X1, 2.1, 4.14), skip=('+x', '-y'))
    h.element('GroundFloor', m)
    for i, x in enumerate((8.2, 9.1, 10.0)):
        h.instance('GroundFloor', 'Kitchen_Stool_%d' % (i + 1), 'Stool', stool_mesh, (x, 0, 3.62))


def build_hall(h):
    g = 'GroundFloor'
    m = h.mesh('Hall_Console')
    m.box('walnut', (5.12, 0.78, 1.75), (5.5, 0.82, 2.75))
    for z in (1.8, 2.7):
        m.cylinder('brushed_steel', (5.3, 0, z), (5.3, 0.78, z), 0.02, segments=12, caps=(True, False))
    m.box('mirror', (5.48, 1.2, 1.85), (5.5, 2.0, 2.65), skip=('+x',))
    h.element(g, m)
    h.instance(g, 'Hall_Plant', 'Plant', plant_mesh, (0.75, 0, 3.9))
    h.instance(FF, 'Landing_Plant', 'Plant', plant_mesh, (5.9, FF_FLOOR, 0.7))
    m = h.mesh('Landing_Bench')
    m.box('walnut', (0.4, FF_FLOOR + 0.4, 2.3), (0.85, FF_FLOOR + 0.45, 3.7))
    m.box('walnut', (0.4, FF_FLOOR, 2.3), (0.85, FF_FLOOR + 0.4, 2.34), skip=('-y',))
    m.box('walnut', (0.4, FF_FLOOR, 3.66), (0.85, FF_FLOOR + 0.4, 3.7), skip=('-y',))
    h.element(FF, m)


def build_bath(h):
    m = h.mesh('Bath_Fittings')
    y = FF_FLOOR
    # Bathtub: a hollow ceramic shell against the north wall.
    x0, x1, z0, z1, top = 6.42, 8.22, IN_Z0, 1.1, y + 0.55
    m.box('ceramic_white', (x0, y, z0), (x1, y + 0.08, z1), skip=('-y', '-z', '-x'))
    m.box('ceramic_white', (x0, y, z1 - 0.08), (x1, top, z1), skip=('-y', '-x'))
    m.box('ceramic_white', (x0, y, z0), (x1, top, z0 + 0.06), skip=('-y', '-z', '-x'))
    m.box('ceramic_white', (x0, y, z0 + 0.06), (x0 + 0.08, top, z1 - 0.08), skip=('-y', '-x'))
    m.box('ceramic_white', (x1 - 0.08, y, z0 + 0.06), (x1, top, z1 - 0.08), skip=('-y',))
    m.cylinder('brushed_steel', (7.9, top, 0.33), (7.9, top + 0.2, 0.33), 0.015, segments=12)
    m.cylinder('brushed_steel', (7.9, top + 0.2, 0.33), (7.9, top + 0.2, 0.45), 0.015, segments=12)
    # Vanity unit, vessel basin and mirror on the east partition.
    m.box('walnut', (9.5, y + 0.35, 2.0), (10.0, y + 0.82, 3.2), skip=('+x',))
    m.box('granite_black', (9.45, y + 0.82, 1.98), (10.0, y + 0.85, 3.22), skip=('+x',))
    m.cylinder('ceramic_white', (9.72, y + 0.85, 2.6), (9.72, y + 0.99, 2.6), 0.14, segments=40, radius1=0.2)
    m.cylinder('brushed_steel', (9.95, y + 0.85, 2.6), (9.95, y + 1.15, 2.6), 0.014, segments=12)
    m.cylinder('brushed_steel', (9.95, y + 1.15, 2.6), (9.8, y + 1.15, 2.6), 0.014, segments=12)
    m.box('mirror', (9.98, y + 1.05, 2.1), (10.0, y + 1.95, 3.1), skip=('+x',))
    # Toilet.
    m.box('ceramic_white', (9.82, y, 3.45), (10.0, y + 0.8, 3.95), skip=('+x', '-y'))
    m.box('ceramic_white', (9.4, y, 3.53), (9.82, y + 0.4, 3.87), skip=('-y', '+x'))
    m.cylinder('ceramic_white', (9.5, y + 0.4, 3.7), (9.5, y + 0.43, 3.7), 0.19, segments=32)
    # Towel rail on the south partition.
    for x in (7.2, 8.0):
        m.cylinder('brushed_steel', (x, y + 0.6, 4.2), (x, y + 0.6, 4.12), 0.012, segments=10)
        m.cylinder('brushed_steel', (x, y + 0.6, 4.12), (x, y + 1.5, 4.12), 0.012, segments=10)
    for k in range(6):
        yy = y + 0.7 + 0.15 * k
        m.cylinder('brushed_steel', (7.2, yy, 4.12), (8.0, yy, 4.12), 0.01, segments=10, caps=(False, False))
    h.element(FF, m)


def build_bedrooms(h):
    y = FF_FLOOR
    h.instance(FF, 'Bedroom_Bed', 'BedDouble', bed_mesh, (3.95, y, 7.0), -90)
    h.instance(FF, 'Bedroom_Bedside_1', 'Bedside', bedside_mesh, (4.76, y, 5.8), -90)
    h.instance(FF, 'Bedroom_Bedside_2', 'Bedside', bedside_mesh, (4.76, y, 8.2), -90)
    h.instance(FF, 'Bedroom_Wardrobe', 'Wardrobe', wardrobe_mesh, (1.15, y, 4.32 + 0.3))
    h.instance(FF, 'Bedroom_Rug', 'RugBedroom', lambda m: rug_mesh(m, 2.4, 3.0), (3.6, y, 7.0), 90)
    h.instance(FF, 'Bedroom2_Bed', 'BedSingle', single_bed_mesh, (11.675, y, 6.9), -90)
    h.instance(FF, 'Bedroom2_Bedside', 'Bedside', bedside_mesh, (12.46, y, 5.9), -90)
    h.instance(FF, 'Bedroom2_Desk', 'Desk', desk_mesh, (7.5, y, 9.35), 180)
    h.instance(FF, 'Bedroom2_Chair', 'Chair', chair_mesh, (7.5, y, 8.75), 180)
    h.instance(FF, 'Bedroom2_Rug', 'RugBedroom2', lambda m: rug_mesh(m, 2.0, 2.6), (9.6, y, 6.9), 90)
    h.instance(FF, 'Study_Desk', 'Desk', desk_mesh, (12.35, y, 2.25), 90)
    h.instance(FF, 'Study_Chair', 'OfficeChair', office_chair_mesh, (11.6, y, 2.25), -90)
    h.instance(FF, 'Study_Bookshelf', 'Bookshelf', bookshelf_mesh, (10.12 + 0.175, y, 2.3), 90)


# ---------------------------------------------------------------------------
# Light fittings and their lamps. Each function builds the fitting and
# records the lamp at the spot where the fitting emits.


def downlight(h, lamp_id, room, x, z, ceiling, lumens=650, kelvin=3000, cone=90):
    """Recessed downlight: a white trim flush with the ceiling; the lamp's
    emitting disc hangs 5 mm under the trim."""
    def trim(m):
        m.cylinder('lacquer_white', (0, -0.008, 0), (0, 0, 0), 0.08, segments=32, caps=(True, False),
                   cap_material='led_diffuser')
    h.instance(storey_of(ceiling - 0.5), 'Downlight_' + lamp_id, 'DownlightTrim', trim, (x, ceiling, z))
    h.lamp(id=lamp_id, room=room, kind='downlight', position=(x, ceiling - 0.01, z), direction=(0, -1, 0),
           lumens=lumens, kelvin=kelvin, radius=0.045, cone_deg=cone)


def pendant(h, lamp_id, room, x, z, ceiling, bulb_y, lumens=800, kelvin=2700, shade=0.2):
    """Brass dome shade on a cord; the lamp is the globe bulb inside it."""
    m = h.mesh('Pendant_' + lamp_id)
    m.cylinder('brass', (x, ceiling - 0.03, z), (x, ceiling, z), 0.06, segments=24, caps=(True, False))
    m.cylinder('granite_black', (x, bulb_y + shade, z), (x, ceiling - 0.03, z), 0.004, segments=8,
               caps=(False, False))
    m.sphere('brass', (x, bulb_y, z), (shade, shade, shade), segments=40, rings=12, theta_max=math.pi / 2)
    m.sphere('lacquer_white', (x, bulb_y, z), (shade - 0.004, shade - 0.004, shade - 0.004), segments=40,
             rings=12, theta_max=math.pi / 2, inward=True)
    m.cylinder('brass', (x, bulb_y + 0.075, z), (x, bulb_y + shade - 0.004, z), 0.022, segments=16)
    h.element(storey_of(bulb_y), m)
    h.lamp(id=lamp_id, room=room, kind='pendant', position=(x, bulb_y, z), lumens=lumens, kelvin=kelvin,
           radius=0.06)


def strip(h, lamp_id, room, x0, x1, y, z, lumens_per_m=450, kelvin=3000):
    """LED strip in an opal profile under a wall cupboard, shining down."""
    m = h.mesh('Strip_' + lamp_id)
    m.box({'*': 'brushed_steel', '-y': 'led_diffuser'}, (x0, y, z - 0.015), (x1, y + 0.012, z + 0.015),
          skip=('+y',))
    h.element(storey_of(y), m)
    h.lamp(id=lamp_id, room=room, kind='strip', position=(x0, y, z), end=(x1, y, z), direction=(0, -1, 0),
           lumens_per_m=lumens_per_m, kelvin=kelvin, width=0.03)


def wall_light(h, lamp_id, room, p, normal, lumens=400, kelvin=2700, direction=None, cone=None):
    """A wall sconce: round back plate and arm holding a globe (no direction:
    a sphere) or a reflector head aimed along `direction` (a disc)."""
    m = h.mesh('WallLight_' + lamp_id)
    n = normalize(normal)
    plate = p
    m.cylinder('brass', plate, (p[0] + 0.02 * n[0], p[1], p[2] + 0.02 * n[2]), 0.06, segments=24,
               caps=(False, True))
    reach = 0.16
    centre = (p[0] + reach * n[0], p[1], p[2] + reach * n[2])
    if direction is None:
        radius = 0.05
        m.cylinder('brass', (p[0] + 0.02 * n[0], p[1], p[2] + 0.02 * n[2]),
                   (centre[0] - 0.065 * n[0], p[1], centre[2] - 0.065 * n[2]), 0.01, segments=12)
        h.element(storey_of(p[1]), m)
        h.lamp(id=lamp_id, room=room, kind='wall', position=centre, lumens=lumens, kelvin=kelvin, radius=radius)
        return
    d = normalize(direction)
    # Reflector cup: a short open cone behind the disc, opening along d.
    back = (centre[0] - 0.05 * d[0], centre[1] - 0.05 * d[1], centre[2] - 0.05 * d[2])
    m.cylinder('brass', (p[0] + 0.02 * n[0], p[1], p[2] + 0.02 * n[2]), back, 0.01, segments=12)
    m.cylinder('brass', back, (centre[0] - 0.006 * d[0], centre[1] - 0.006 * d[1], centre[2] - 0.006 * d[2]),
               0.025, segments=24, radius1=0.055, caps=(True, False))
    h.element(storey_of(p[1]), m)
    h.lamp(id=lamp_id, room=room, kind='wall', position=centre, direction=d, lumens=lumens, kelvin=kelvin,
           radius=0.04, cone_deg=cone)


def vanity_light(h, lamp_id, room, x_wall, y, z0, z1, lumens=900, kelvin=4000):
    """Bar light over the bathroom mirror with an opal front."""
    m = h.mesh('VanityLight_' + lamp_id)
    m.box({'*': 'brushed_steel', '-x': 'led_diffuser'}, (x_wall - 0.08, y - 0.04, z0), (x_wall, y + 0.04, z1),
          skip=('+x',))
    h.element(storey_of(y), m)
    d = normalize((-1.0, -0.3, 0.0))
    # The disc is tilted 17 degrees down: stand it 20 mm off the opal front.
    h.lamp(id=lamp_id, room=room, kind='vanity', position=(x_wall - 0.1, y, 0.5 * (z0 + z1)), direction=d,
           lumens=lumens, kelvin=kelvin, radius=0.04, cone_deg=120)


def exterior_lantern(h, lamp_id, p, normal, lumens=450, kelvin=3000):
    """Wall lantern: back plate and a cap hood; the lamp shines down from
    under the hood, whose underside glows."""
    m = h.mesh('Lantern_' + lamp_id)
    n = normalize(normal)
    t = (-n[2], 0.0, n[0])
    x, y, z = p

    def slab(d0, d1, w, ya, yb, mat):
        pts = [(x + n[0] * d + t[0] * s, z + n[2] * d + t[2] * s) for d in (d0, d1) for s in (-w, w)]
        xs = [q[0] for q in pts]
        zs = [q[1] for q in pts]
        m.box(mat, (min(xs), ya, min(zs)), (max(xs), yb, max(zs)))

    slab(0.0, 0.03, 0.07, y - 0.15, y + 0.2, 'window_frame')
    slab(0.03, 0.2, 0.09, y + 0.12, y + 0.16, {'*': 'window_frame', '-y': 'lantern_glow'})
    h.element('GroundFloor', m)
    h.lamp(id=lamp_id, room='Exterior', kind='exterior', position=(x + 0.115 * n[0], y + 0.11, z + 0.115 * n[2]),
           direction=(0, -1, 0), lumens=lumens, kelvin=kelvin, radius=0.05, cone_deg=120)


def bollard(h, lamp_id, x, z, lumens=220, kelvin=3000):
    """Garden bollard: a post, three slim rods and a cap over a globe."""
    m = h.mesh('Bollard_' + lamp_id)
    m.cylinder('window_frame', (x, LAWN_Y, z), (x, 0.5, z), 0.07, segments=24, caps=(False, True))
    for k in range(3):
        a = 2 * math.pi * k / 3
        rx, rz = x + 0.075 * math.cos(a), z + 0.075 * math.sin(a)
        m.cylinder('window_frame', (rx, 0.5, rz), (rx, 0.7, rz), 0.006, segments=8, caps=(False, False))
    m.cylinder('window_frame', (x, 0.7, z), (x, 0.74, z), 0.1, segments=24, cap_material='window_frame')
    h.element('Site', m)
    h.lamp(id=lamp_id, room='Exterior', kind='exterior', position=(x, 0.6, z), lumens=lumens, kelvin=kelvin,
           radius=0.05)


def build_lights(h):
    gc, fc = GF_CEIL, FF_CEIL
    # Kitchen: downlights over the worktop, pendants over the island, strips under the cupboards.
    for i, x in enumerate((6.6, 9.5, 12.0)):
        downlight(h, 'kitchen-down-%d' % (i + 1), 'Kitchen', x, 1.2, gc, lumens=700)
    pendant(h, 'kitchen-island-1', 'Kitchen', 8.4, 2.75, gc, 1.85, lumens=650)
    pendant(h, 'kitchen-island-2', 'Kitchen', 9.8, 2.75, gc, 1.85, lumens=650)
    strip(h, 'kitchen-strip-1', 'Kitchen', 6.05, 7.75, 1.438, 0.55)
    strip(h, 'kitchen-strip-2', 'Kitchen', 11.25, 12.65, 1.438, 0.55)
    # Dining.
    pendant(h, 'dining-pendant-1', 'Dining', 9.65, 7.0, gc, 1.55, lumens=750)
    pendant(h, 'dining-pendant-2', 'Dining', 10.65, 7.0, gc, 1.55, lumens=750)
    # Living: two rows of downlights and two up-lighting sconces on the dining partition.
    for i, (x, z) in enumerate(((1.5, 5.3), (3.7, 5.3), (5.9, 5.3), (1.5, 8.7), (3.7, 8.7), (5.9, 8.7))):
        downlight(h, 'living-down-%d' % (i + 1), 'Living', x, z, gc, lumens=650, kelvin=2700)
    for i, z in enumerate((4.9, 9.1)):
        wall_light(h, 'living-sconce-%d' % (i + 1), 'Living', (7.5, 1.8, z), (-1, 0, 0), lumens=450,
                   direction=(0, 1, 0), cone=120)
    # Hall, stairs and landing.
    downlight(h, 'hall-down-1', 'Hall', 2.2, 2.9, gc, lumens=600)
    downlight(h, 'hall-down-2', 'Hall', 4.3, 2.9, gc, lumens=600)
    wall_light(h, 'stairs-wall-1', 'Stairs', (1.3, 2.3, IN_Z0), (0, 0, 1), lumens=350)
    wall_light(h, 'stairs-wall-2', 'Stairs', (4.0, 4.5, IN_Z0), (0, 0, 1), lumens=350)
    downlight(h, 'landing-down-1', 'Landing', 2.6, 2.9, fc, lumens=600)
    downlight(h, 'landing-down-2', 'Landing', 5.5, 1.0, fc, lumens=600)
    # Bath.
    downlight(h, 'bath-down-1', 'Bath', 7.6, 2.6, fc, lumens=650, kelvin=3500)
    downlight(h, 'bath-down-2', 'Bath', 7.3, 0.8, fc, lumens=650, kelvin=3500)
    vanity_light(h, 'bath-vanity', 'Bath', 10.0, FF_FLOOR + 2.05, 2.15, 3.05)
    # Bedrooms and study.
    pendant(h, 'bedroom-pendant', 'Bedroom', 2.0, 7.0, fc, 4.95, lumens=900)
    for i, z in enumerate((5.8, 8.2)):
        wall_light(h, 'bedroom-reading-%d' % (i + 1), 'Bedroom', (5.0, FF_FLOOR + 1.2, z), (-1, 0, 0),
                   lumens=250, direction=(-0.45, -1.0, 0.0), cone=60)
    pendant(h, 'bedroom2-pendant', 'Bedroom 2', 8.8, 7.0, fc, 4.95, lumens=900)
    downlight(h, 'bedroom2-down', 'Bedroom 2', 7.5, 8.9, fc, lumens=500)
    downlight(h, 'study-down', 'Study', 11.4, 2.3, fc, lumens=800, kelvin=4000)
    # Outside: lanterns by the front door and the terrace door, bollards on the path.
    exterior_lantern(h, 'entrance-lantern-1', (0.0, 2.0, 2.2), (-1, 0, 0))
    exterior_lantern(h, 'entrance-lantern-2', (0.0, 2.0, 3.8), (-1, 0, 0))
    exterior_lantern(h, 'terrace-lantern-1', (3.95, 2.2, HOUSE_Z), (0, 0, 1))
    exterior_lantern(h, 'terrace-lantern-2', (7.05, 2.2, HOUSE_Z), (0, 0, 1))
    bollard(h, 'path-bollard-1', -3.0, 2.1)
    bollard(h, 'path-bollard-2', -6.5, 2.1)


# ---------------------------------------------------------------------------
# Scene contract

CAMERAS = [
    {'name': 'Exterior', 'eye': [-7.5, 1.7, 21.0], 'target': [6.0, 3.4, 5.0], 'fov_deg': 50.0, 'time': 'day'},
    {'name': 'Terrace Dusk', 'eye': [12.5, 1.65, 17.5], 'target': [4.5, 1.7, 9.0], 'fov_deg': 55.0,
     'time': 'dusk', 'exposure_ev': 0.5},
    {'name': 'Aerial', 'eye': [-11.0, 15.0, 24.0], 'target': [6.5, 2.5, 5.0], 'fov_deg': 45.0, 'time': 'day'},
    {'name': 'Living', 'eye': [6.9, 1.5, 9.2], 'target': [1.5, 1.0, 5.2], 'fov_deg': 65.0, 'time': 'night',
     'wb_kelvin': 3000.0},
    {'name': 'Kitchen', 'eye': [6.1, 1.6, 3.85], 'target': [10.5, 1.0, 1.2], 'fov_deg': 65.0, 'time': 'dusk'},
    {'name': 'Dining', 'eye': [12.3, 1.5, 9.3], 'target': [9.0, 1.0, 5.0], 'fov_deg': 60.0, 'time': 'night'},
    {'name': 'Hall', 'eye': [5.1, 1.6, 3.9], 'target': [1.5, 2.0, 1.0], 'fov_deg': 65.0, 'time': 'night'},
    {'name': 'Bedroom', 'eye': [0.8, 4.55, 9.2], 'target': [4.2, 3.6, 6.8], 'fov_deg': 65.0, 'time': 'day'},
    {'name': 'Bath', 'eye': [6.8, 4.55, 3.75], 'target': [9.6, 4.1, 1.8], 'fov_deg': 70.0, 'time': 'night'},
]


def scene_json(h):
    return {
        'version': 1,
        'default_camera': 'Exterior',
        'north_deg': 0.0,
        'site': {'latitude': 47.3769, 'longitude': 8.5417, 'utc_offset_hours': 1.0},
        'render_defaults': {'wb_kelvin_interior': 3500.0, 'wb_kelvin_interior_night': 3100.0,
                            'wb_kelvin_exterior_dusk': 4300.0},
        'cameras': CAMERAS,
        'lights': h.lamps,
    }


# ---------------------------------------------------------------------------


def build_house():
    h = House()
    for name, args in MATERIALS.items():
        h.glb.add_material(name, **args)
    h.glb.add_image_texture('oak_planks', textures.oak_planks())
    h.glb.add_image_texture('floor_tiles', textures.floor_tiles())
    build_lawn(h)
    build_paths(h)
    build_hedges(h)
    build_trees(h)
    build_terrace(h)
    build_terrace_furniture(h)
    build_exterior_walls(h)
    build_partitions(h)
    build_floors(h)
    build_ceilings(h)
    build_stairs(h)
    build_roof(h)
    build_living(h)
    build_dining(h)
    build_kitchen(h)
    build_hall(h)
    build_bath(h)
    build_bedrooms(h)
    build_lights(h)
    return h


def write_atomically(path, data):
    tmp = os.path.join(os.path.dirname(path), '.' + os.path.basename(path) + '.tmp')
    with open(tmp, 'wb') as f:
        f.write(data)
    os.replace(tmp, path)


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    ap = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    ap.add_argument('--out', default=os.path.join(here, '..', 'Resources'), help='output folder')
    args = ap.parse_args()
    os.makedirs(args.out, exist_ok=True)
    h = build_house()
    glb = h.glb.to_bytes()
    write_atomically(os.path.join(args.out, 'house.glb'), glb)
    text = json.dumps(scene_json(h), indent=2) + '\n'
    write_atomically(os.path.join(args.out, 'sample_scene.json'), text.encode('utf-8'))
    print('house.glb: %d bytes, %d meshes, %d nodes, %d materials; sample_scene.json: %d cameras, %d lights'
          % (len(glb), len(h.glb.doc['meshes']), len(h.glb.doc['nodes']), len(h.glb.doc['materials']),
             len(CAMERAS), len(h.lamps)))


if __name__ == '__main__':
    main()
