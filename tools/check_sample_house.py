#!/usr/bin/env python3
"""Checks the bundled sample house (Resources/house.glb and
Resources/sample_scene.json) with the Python standard library only.

The GLB container and its JSON are checked against glTF 2.0 (chunk layout and
4-byte alignment, buffer views and their targets, accessor ranges and the
min/max of every POSITION accessor, index bounds, unit normals); the scene is
then flattened the way the model loader does it (node transforms, roles
inherited from parents) and checked as a house: triangle and material counts,
the material kinds, the cut roles and their heights, consistent winding, every
camera standing inside a room or outside the house with a clear view, and
every lamp inside a room, at a fitting and free of the geometry around it.

    python3 tools/check_sample_house.py [--dir Resources] [--preview plan.png]

Exit status 0 when every check passes; each failure is printed as one line.
"""

import argparse
import json
import math
import os
import struct
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from make_sample_house import ROOMS  # noqa: E402
from housegen.textures import png_bytes  # noqa: E402

COMPONENTS = {'SCALAR': 1, 'VEC2': 2, 'VEC3': 3, 'VEC4': 4, 'MAT4': 16}
FORMATS = {5120: 'b', 5121: 'B', 5122: 'h', 5123: 'H', 5125: 'I', 5126: 'f'}
STRUCTURE_ROLES = ('wall', 'floor', 'stair', 'window', 'terrace')
LAMP_KINDS = ('pendant', 'strip', 'wall', 'exterior', 'vanity', 'downlight')


class Checker:
    def __init__(self):
        self.failures = []

    def expect(self, ok, message):
        if not ok:
            self.failures.append(message)
        return ok


# ---------------------------------------------------------------------------
# Container and accessors


def read_glb(path, c):
    data = open(path, 'rb').read()
    magic, version, total = struct.unpack_from('<III', data, 0)
    c.expect(magic == 0x46546C67, 'magic is not glTF')
    c.expect(version == 2, 'container version %d' % version)
    c.expect(total == len(data), 'declared length %d != file size %d' % (total, len(data)))
    chunks = []
    off = 12
    while off + 8 <= len(data):
        length, kind = struct.unpack_from('<II', data, off)
        c.expect(length % 4 == 0, 'chunk at %d has length %d, not a multiple of 4' % (off, length))
        c.expect(off + 8 + length <= len(data), 'chunk at %d overruns the file' % off)
        chunks.append((kind, data[off + 8:off + 8 + length]))
        off += 8 + length
    c.expect(off == len(data), 'trailing bytes after the last chunk')
    c.expect(len(chunks) == 2 and chunks[0][0] == 0x4E4F534A and chunks[1][0] == 0x004E4942,
             'expected exactly a JSON chunk followed by a BIN chunk')
    doc = json.loads(chunks[0][1].decode('utf-8'))
    return doc, chunks[1][1]


def read_accessor(doc, binary, index, c):
    acc = doc['accessors'][index]
    view = doc['bufferViews'][acc['bufferView']]
    width = COMPONENTS[acc['type']]
    fmt = FORMATS[acc['componentType']]
    size = struct.calcsize(fmt)
    start = view.get('byteOffset', 0) + acc.get('byteOffset', 0)
    stride = view.get('byteStride', size * width)
    c.expect(start % size == 0, 'accessor %d is not aligned to its component size' % index)
    end = start + stride * (acc['count'] - 1) + size * width
    c.expect(end <= view.get('byteOffset', 0) + view['byteLength'], 'accessor %d overruns its view' % index)
    values = []
    for i in range(acc['count']):
        values.append(struct.unpack_from('<%d%s' % (width, fmt), binary, start + i * stride))
    return acc, values


def check_document(doc, binary, c):
    c.expect(doc.get('asset', {}).get('version') == '2.0', 'asset.version is not 2.0')
    c.expect(doc['buffers'][0]['byteLength'] <= len(binary), 'buffer longer than the BIN chunk')
    c.expect(len(binary) - doc['buffers'][0]['byteLength'] < 4, 'BIN chunk padding longer than 3 bytes')
    for i, v in enumerate(doc['bufferViews']):
        c.expect(v.get('byteOffset', 0) % 4 == 0, 'bufferView %d not 4-byte aligned' % i)
        c.expect(v.get('byteOffset', 0) + v['byteLength'] <= len(binary), 'bufferView %d overruns' % i)
    used_ext = set()
    for m in doc['materials']:
        used_ext |= set(m.get('extensions', {}))
    c.expect(used_ext <= set(doc.get('extensionsUsed', [])), 'extensionsUsed lacks %s' % (used_ext - set(
        doc.get('extensionsUsed', []))))
    attribute_views, index_views = set(), set()
    for mi, mesh in enumerate(doc['meshes']):
        for pi, prim in enumerate(mesh['primitives']):
            where = 'mesh %d (%s) primitive %d' % (mi, mesh['name'], pi)
            c.expect(prim.get('mode', 4) == 4, where + ': not triangles')
            attrs = prim['attributes']
            pos_acc, pos = read_accessor(doc, binary, attrs['POSITION'], c)
            n = len(pos)
            lo = [min(p[k] for p in pos) for k in range(3)]
            hi = [max(p[k] for p in pos) for k in range(3)]
            c.expect(pos_acc.get('min') == lo and pos_acc.get('max') == hi, where + ': POSITION min/max wrong')
            for key in ('NORMAL', 'TEXCOORD_0'):
                if key in attrs:
                    _, vals = read_accessor(doc, binary, attrs[key], c)
                    c.expect(len(vals) == n, where + ': %s count differs from POSITION' % key)
                    c.expect(all(all(math.isfinite(x) for x in v) for v in vals), where + ': %s not finite' % key)
                    if key == 'NORMAL':
                        bad = sum(1 for v in vals if abs(math.sqrt(sum(x * x for x in v)) - 1.0) > 1e-3)
                        c.expect(bad == 0, where + ': %d normals not unit length' % bad)
                attribute_views.add(doc['accessors'][attrs[key]]['bufferView'] if key in attrs else None)
            attribute_views.add(doc['accessors'][attrs['POSITION']]['bufferView'])
            idx_acc, idx = read_accessor(doc, binary, prim['indices'], c)
            index_views.add(idx_acc['bufferView'])
            c.expect(len(idx) % 3 == 0, where + ': index count not a multiple of 3')
            c.expect(max(i[0] for i in idx) < n, where + ': index out of range')
            c.expect(0 <= prim.get('material', -1) < len(doc['materials']), where + ': bad material')
    attribute_views.discard(None)
    for v in attribute_views:
        c.expect(doc['bufferViews'][v].get('target') == 34962, 'vertex bufferView %d lacks ARRAY_BUFFER target' % v)
    for v in index_views:
        c.expect(doc['bufferViews'][v].get('target') == 34963, 'index bufferView %d lacks ELEMENT target' % v)
    for img in doc.get('images', []):
        view = doc['bufferViews'][img['bufferView']]
        c.expect('target' not in view, 'image bufferView has a target')
        head = binary[view['byteOffset']:view['byteOffset'] + 8]
        c.expect(head == b'\x89PNG\r\n\x1a\n', 'image %s is not a PNG' % img.get('name'))


# ---------------------------------------------------------------------------
# Flattening


def matmul(a, b):
    return [[sum(a[i][k] * b[k][j] for k in range(4)) for j in range(4)] for i in range(4)]


def node_matrix(node):
    t = node.get('translation', [0, 0, 0])
    x, y, z, w = node.get('rotation', [0, 0, 0, 1])
    s = node.get('scale', [1, 1, 1])
    r = [[1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)],
         [2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)],
         [2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)]]
    return [[r[i][0] * s[0], r[i][1] * s[1], r[i][2] * s[2], t[i]] for i in range(3)] + [[0, 0, 0, 1]]


def apply(m, p, w=1.0):
    return tuple(m[i][0] * p[0] + m[i][1] * p[1] + m[i][2] * p[2] + m[i][3] * w for i in range(3))


class Flat:
    """The model as world triangles: corners, vertex normals, material, role,
    node name."""

    def __init__(self):
        self.tris = []      # (p0, p1, p2)
        self.normals = []   # (n0, n1, n2)
        self.material = []
        self.role = []
        self.node = []
        self.node_boxes = {}  # node name -> (lo, hi, role)
        self.glass = []       # per material: transmissive


def flatten(doc, binary, c):
    flat = Flat()
    cache = {}

    def mesh_data(mi):
        if mi not in cache:
            prims = []
            for prim in doc['meshes'][mi]['primitives']:
                _, pos = read_accessor(doc, binary, prim['attributes']['POSITION'], c)
                _, nrm = read_accessor(doc, binary, prim['attributes']['NORMAL'], c)
                _, idx = read_accessor(doc, binary, prim['indices'], c)
                prims.append((pos, nrm, [i[0] for i in idx], prim['material']))
            cache[mi] = prims
        return cache[mi]

    def visit(ni, parent, role):
        node = doc['nodes'][ni]
        m = matmul(parent, node_matrix(node))
        role = node.get('extras', {}).get('role', role)
        if 'mesh' in node:
            lo, hi = [1e9] * 3, [-1e9] * 3
            for pos, nrm, idx, mat in mesh_data(node['mesh']):
                wp = [apply(m, p) for p in pos]
                # Rotation and uniform scale only: the matrix itself carries normals.
                wn = []
                for n in nrm:
                    v = apply(m, n, 0.0)
                    ln = math.sqrt(sum(x * x for x in v))
                    wn.append(tuple(x / ln for x in v))
                for k in range(0, len(idx), 3):
                    a, b, cc = idx[k:k + 3]
                    flat.tris.append((wp[a], wp[b], wp[cc]))
                    flat.normals.append((wn[a], wn[b], wn[cc]))
                    flat.material.append(mat)
                    flat.role.append(role or '')
                    flat.node.append(node['name'])
                for p in wp:
                    lo = [min(lo[i], p[i]) for i in range(3)]
                    hi = [max(hi[i], p[i]) for i in range(3)]
            flat.node_boxes[node['name']] = (lo, hi, role or '')
        for ch in node.get('children', []):
            visit(ch, m, role)

    flat.glass = ['KHR_materials_transmission' in m.get('extensions', {}) for m in doc['materials']]
    ident = [[1 if i == j else 0 for j in range(4)] for i in range(4)]
    for root in doc['scenes'][doc.get('scene', 0)]['nodes']:
        visit(root, ident, None)
    return flat


# ---------------------------------------------------------------------------
# Geometry queries


def v_sub(a, b):
    return (a[0] - b[0], a[1] - b[1], a[2] - b[2])


def v_dot(a, b):
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]


def v_cross(a, b):
    return (a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0])


def closest_point(p, a, b, c):
    """Closest point to p on triangle abc (Ericson, Real-Time Collision Detection 5.1.5)."""
    ab, ac, ap = v_sub(b, a), v_sub(c, a), v_sub(p, a)
    d1, d2 = v_dot(ab, ap), v_dot(ac, ap)
    if d1 <= 0 and d2 <= 0:
        return a
    bp = v_sub(p, b)
    d3, d4 = v_dot(ab, bp), v_dot(ac, bp)
    if d3 >= 0 and d4 <= d3:
        return b
    vc = d1 * d4 - d3 * d2
    if vc <= 0 and d1 >= 0 and d3 <= 0:
        t = d1 / (d1 - d3)
        return (a[0] + t * ab[0], a[1] + t * ab[1], a[2] + t * ab[2])
    cp = v_sub(p, c)
    d5, d6 = v_dot(ab, cp), v_dot(ac, cp)
    if d6 >= 0 and d5 <= d6:
        return c
    vb = d5 * d2 - d1 * d6
    if vb <= 0 and d2 >= 0 and d6 <= 0:
        t = d2 / (d2 - d6)
        return (a[0] + t * ac[0], a[1] + t * ac[1], a[2] + t * ac[2])
    va = d3 * d6 - d5 * d4
    if va <= 0 and d4 - d3 >= 0 and d5 - d6 >= 0:
        t = (d4 - d3) / ((d4 - d3) + (d5 - d6))
        return (b[0] + t * (c[0] - b[0]), b[1] + t * (c[1] - b[1]), b[2] + t * (c[2] - b[2]))
    denom = 1.0 / (va + vb + vc)
    v, w = vb * denom, vc * denom
    return (a[0] + ab[0] * v + ac[0] * w, a[1] + ab[1] * v + ac[1] * w, a[2] + ab[2] * v + ac[2] * w)


def ray_hit(o, d, tri):
    """Distance along the unit ray to the triangle (both sides), or None."""
    a, b, c = tri
    e1, e2 = v_sub(b, a), v_sub(c, a)
    p = v_cross(d, e2)
    det = v_dot(e1, p)
    if abs(det) < 1e-12:
        return None
    inv = 1.0 / det
    s = v_sub(o, a)
    u = v_dot(s, p) * inv
    if u < 0 or u > 1:
        return None
    q = v_cross(s, e1)
    v = v_dot(d, q) * inv
    if v < 0 or u + v > 1:
        return None
    t = v_dot(e2, q) * inv
    return t if t > 1e-6 else None


def first_opaque_hit(o, d, flat, boxes, reach):
    """(distance, facing, triangle) of the nearest hit that is not glass;
    facing > 0 when the ray meets the back of the triangle."""
    end = tuple(o[i] + d[i] * reach for i in range(3))
    lo = tuple(min(o[i], end[i]) for i in range(3))
    hi = tuple(max(o[i], end[i]) for i in range(3))
    best = None
    for k in boxes.overlapping(lo, hi):
        if flat.glass[flat.material[k]]:
            continue
        t = ray_hit(o, d, flat.tris[k])
        if t is not None and t < reach and (best is None or t < best[0]):
            n = flat.normals[k]
            s = tuple(n[0][i] + n[1][i] + n[2][i] for i in range(3))
            best = (t, v_dot(s, d), k)
    return best


class Boxes:
    """Per-triangle bounding boxes for quick rejection."""

    def __init__(self, flat):
        self.lo = [tuple(min(t[0][i], t[1][i], t[2][i]) for i in range(3)) for t in flat.tris]
        self.hi = [tuple(max(t[0][i], t[1][i], t[2][i]) for i in range(3)) for t in flat.tris]

    def overlapping(self, lo, hi):
        return [k for k, (a, b) in enumerate(zip(self.lo, self.hi))
                if a[0] <= hi[0] and b[0] >= lo[0] and a[1] <= hi[1] and b[1] >= lo[1]
                and a[2] <= hi[2] and b[2] >= lo[2]]


def in_room(p, room, margin=0.0):
    x0, x1, y0, y1, z0, z1 = ROOMS[room]
    return (x0 + margin <= p[0] <= x1 - margin and y0 + margin <= p[1] <= y1 - margin
            and z0 + margin <= p[2] <= z1 - margin)


def inside_house(p):
    return 0.0 <= p[0] <= 13.0 and 0.0 <= p[2] <= 10.0


# ---------------------------------------------------------------------------
# House checks


def check_model(doc, flat, c):
    ntri = len(flat.tris)
    c.expect(30000 <= ntri <= 200000, 'triangle count %d outside 30000-200000' % ntri)
    mats = doc['materials']
    c.expect(len(mats) >= 10, 'only %d materials' % len(mats))
    used = set(flat.material)
    c.expect(used == set(range(len(mats))), 'unused materials: %s' % [mats[i]['name'] for i in
                                                                        set(range(len(mats))) - used])

    def pbr(m, key, default):
        return m.get('pbrMetallicRoughness', {}).get(key, default)

    ext = [m.get('extensions', {}) for m in mats]
    glass = [m for m, e in zip(mats, ext) if e.get('KHR_materials_transmission', {}).get('transmissionFactor', 0) > 0.5
             and 'KHR_materials_ior' in e]
    mirror = [m for m in mats if pbr(m, 'metallicFactor', 1) >= 0.99 and pbr(m, 'roughnessFactor', 1) <= 0.05]
    glossy = [m for m, e in zip(mats, ext) if pbr(m, 'metallicFactor', 1) == 0 and pbr(m, 'roughnessFactor', 1) <= 0.15
              and 'KHR_materials_transmission' not in e]
    rough = [m for m in mats if pbr(m, 'metallicFactor', 1) == 0 and pbr(m, 'roughnessFactor', 1) >= 0.85]
    textured = [m for m in mats if 'baseColorTexture' in m.get('pbrMetallicRoughness', {})]
    emissive = [m for m, e in zip(mats, ext) if max(m.get('emissiveFactor', [0, 0, 0])) > 0
                and 'KHR_materials_emissive_strength' in e]
    for label, found in (('glass', glass), ('mirror metal', mirror), ('glossy dielectric', glossy),
                         ('rough dielectric', rough), ('textured', textured), ('emissive', emissive)):
        c.expect(found, 'no %s material' % label)
    c.expect(any(m['name'] == 'lawn_grass' for m in mats), 'no lawn_grass material for the ground plane')

    # Cut roles and where they lie relative to the 2.8 m storey line.
    roles = {}
    for k, r in enumerate(flat.role):
        roles.setdefault(r, []).append(k)
    for r in ('roof', 'ceil', 'site', ''):
        c.expect(r in roles, 'no triangles with role %r' % r)
    c.expect(any(r in roles for r in STRUCTURE_ROLES), 'no structural roles')
    unknown = set(roles) - {'roof', 'ceil', 'site', ''} - set(STRUCTURE_ROLES)
    c.expect(not unknown, 'unexpected roles %s' % unknown)
    for k in roles.get('roof', []):
        if min(p[1] for p in flat.tris[k]) < 5.0:
            c.expect(False, 'roof triangle below 5.0 m in %s' % flat.node[k])
            break
    ceil_heights = sorted({round(p[1], 3) for k in roles.get('ceil', []) for p in flat.tris[k]})
    c.expect(ceil_heights and ceil_heights[0] < 2.8 and ceil_heights[-1] > 2.8,
             'ceilings should lie on both sides of 2.8 m: %s' % ceil_heights)
    # Fixtures must not straddle the storey line: each stays with its storey.
    for k in roles.get('', []):
        ys = [p[1] for p in flat.tris[k]]
        if min(ys) < 2.8 < max(ys) and inside_house(flat.tris[k][0]):
            c.expect(False, 'fixture triangle of %s crosses the storey line' % flat.node[k])
            break
    # Ground-floor lamp fittings must vanish in the ground-floor view (lowest vertex >= 2.66)
    # or stay whole (entirely <= 2.8): nothing of them hangs between.
    # Winding agrees with the vertex normals.
    bad = 0
    for k, (t, n) in enumerate(zip(flat.tris, flat.normals)):
        g = v_cross(v_sub(t[1], t[0]), v_sub(t[2], t[0]))
        s = (n[0][0] + n[1][0] + n[2][0], n[0][1] + n[1][1] + n[2][1], n[0][2] + n[1][2] + n[2][2])
        if v_dot(g, s) <= 0 and v_dot(g, g) > 1e-14:
            bad += 1
    c.expect(bad == 0, '%d triangles wound against their normals' % bad)
    return roles


def check_scene(scene, flat, boxes, c):
    c.expect(scene.get('version') == 1, 'scene version is not 1')
    cams = scene.get('cameras', [])
    c.expect(len(cams) >= 4, 'fewer than 4 cameras')
    names = [cam['name'] for cam in cams]
    c.expect(scene.get('default_camera') in names, 'default_camera is not a camera')
    site = scene.get('site', {})
    c.expect(abs(site.get('latitude', 99)) <= 90 and abs(site.get('longitude', 999)) <= 180
             and abs(site.get('utc_offset_hours', 99)) <= 14, 'site incomplete')
    c.expect('north_deg' in scene and 'render_defaults' in scene, 'north_deg or render_defaults missing')
    times = {cam.get('time') for cam in cams}
    c.expect({'day', 'dusk', 'night'} <= times, 'cameras do not cover day, dusk and night')
    interior = 0
    for cam in cams:
        eye, target = tuple(cam['eye']), tuple(cam['target'])
        label = 'camera %s' % cam['name']
        rooms = [r for r in ROOMS if r not in ('Garden', 'Terrace') and in_room(eye, r, 0.2)]
        if inside_house(eye):
            c.expect(rooms, label + ': eye is in the house but in no room')
            interior += 1
        else:
            c.expect(in_room(eye, 'Garden'), label + ': eye outside the site')
        # Inside a closed solid, some axis ray meets the back of a face first.
        for axis in ((1, 0, 0), (-1, 0, 0), (0, 1, 0), (0, -1, 0), (0, 0, 1), (0, 0, -1)):
            first = first_opaque_hit(eye, axis, flat, boxes, 30.0)
            if first is not None and first[1] > 0:
                c.expect(False, label + ': eye inside %s (the ray along %s meets its back)'
                         % (flat.node[first[2]], axis))
                break
        d = v_sub(target, eye)
        dist = math.sqrt(v_dot(d, d))
        d = tuple(x / dist for x in d)
        near = min(dist, 3.0)
        end = tuple(eye[i] + d[i] * near for i in range(3))
        lo = tuple(min(eye[i], end[i]) for i in range(3))
        hi = tuple(max(eye[i], end[i]) for i in range(3))
        hits = [(t, flat.node[k]) for k in boxes.overlapping(lo, hi)
                for t in [ray_hit(eye, d, flat.tris[k])] if t is not None and t < near]
        c.expect(not hits, label + ': view blocked after %.2f m by %s' % min(hits) if hits else '')
    c.expect(interior >= 3, 'fewer than 3 interior cameras')

    lights = scene.get('lights', [])
    c.expect(len(lights) >= 12, 'fewer than 12 lights')
    kinds = {l.get('kind') for l in lights}
    c.expect(set(LAMP_KINDS) <= kinds, 'lamp kinds missing: %s' % (set(LAMP_KINDS) - kinds))
    ids = [l['id'] for l in lights]
    c.expect(len(set(ids)) == len(ids), 'duplicate lamp ids')
    for l in lights:
        label = 'light %s' % l['id']
        p = tuple(l['position'])
        lm = l.get('lumens', 0) or l.get('lumens_per_m', 0) * math.dist(l['position'], l.get('end', p))
        c.expect(100 <= lm <= 3000, label + ': %.0f lm is implausible' % lm)
        c.expect(2200 <= l.get('kelvin', 0) <= 5000, label + ': kelvin implausible')
        room = l.get('room')
        if room == 'Exterior':
            c.expect(not inside_house(p) or p[0] < 0 or p[2] > 10.0, label + ': exterior lamp inside the house')
            c.expect(in_room(p, 'Garden'), label + ': outside the site')
        else:
            c.expect(room in ROOMS and in_room(p, room), label + ': not inside room %s' % room)
        # Emitting centre as the light build places it.
        kind = l['kind']
        d = tuple(l.get('direction', (0, -1, 0)))
        dn = math.sqrt(v_dot(d, d))
        d = tuple(x / dn for x in d)
        sphere = kind == 'pendant' or (kind in ('wall', 'exterior', 'vanity') and 'direction' not in l)
        r = l.get('radius', 0.12 if kind == 'pendant' else 0.06 if sphere else 0.045)
        if kind == 'strip':
            e = tuple(l['end'])
            centres = [tuple(p[i] + (e[i] - p[i]) * s + d[i] * 0.002 for i in range(3)) for s in (0.0, 0.5, 1.0)]
            r = l.get('width', 0.012) / 2
        elif sphere:
            centres = [p]
        else:
            centres = [tuple(p[i] + d[i] * 0.005 for i in range(3))]
        fitting = False
        for q in centres:
            near = boxes.overlapping(tuple(x - r - 0.3 for x in q), tuple(x + r + 0.3 for x in q))
            for k in near:
                cp = closest_point(q, *flat.tris[k])
                dist = math.dist(cp, q)
                if (flat.role[k] == '' or flat.node[k].startswith('Bollard_')) and dist < r + 0.25:
                    fitting = True
                if dist < r + 0.002:
                    behind = not sphere and v_dot(v_sub(cp, q), d) < 0.0
                    c.expect(behind, label + ': emitter intersects %s (%.3f m)' % (flat.node[k], dist))
        c.expect(fitting, label + ': no fitting next to it')


# ---------------------------------------------------------------------------
# Plan preview


def write_plan(path, doc, flat, scene, cut_heights=(1.4, 4.4), ppm=24):
    """Top-down plans of both storeys cut at the given heights, side by side,
    with lamps (yellow) and cameras (red, with the view direction)."""
    x0, x1, z0, z1 = -1.5, 14.5, -1.5, 14.0
    w, hgt = int((x1 - x0) * ppm), int((z1 - z0) * ppm)
    img = [bytearray(b'\x30\x30\x30' * (w * len(cut_heights))) for _ in range(hgt)]
    colours = []
    for m in doc['materials']:
        b = m['pbrMetallicRoughness'].get('baseColorFactor', [1, 1, 1, 1])
        if 'baseColorTexture' in m['pbrMetallicRoughness']:
            b = [0.45 * b[0], 0.32 * b[1], 0.2 * b[2]]
        if 'KHR_materials_transmission' in m.get('extensions', {}):
            b = [0.3, 0.6, 0.9]
        colours.append(b)
    for s, cut in enumerate(cut_heights):
        depth = [[-1e9] * w for _ in range(hgt)]
        section = []
        for k, t in enumerate(flat.tris):
            if max(p[1] for p in t) > cut:
                if min(p[1] for p in t) < cut and flat.role[k] in STRUCTURE_ROLES:
                    section.append(t)
                continue
            pts = [((p[0] - x0) * ppm, (p[2] - z0) * ppm, p[1]) for p in t]
            area = (pts[1][0] - pts[0][0]) * (pts[2][1] - pts[0][1]) - (pts[2][0] - pts[0][0]) * (pts[1][1] - pts[0][1])
            if abs(area) < 1e-9:
                continue
            n = flat.normals[k][0]
            shade = 0.35 + 0.65 * abs(n[1])
            col = bytes(min(255, int(255 * (max(0.0, colours[flat.material[k]][i]) ** (1 / 2.2)) * shade))
                        for i in range(3))
            xa = max(0, int(min(p[0] for p in pts)))
            xb = min(w - 1, int(max(p[0] for p in pts)) + 1)
            ya = max(0, int(min(p[1] for p in pts)))
            yb = min(hgt - 1, int(max(p[1] for p in pts)) + 1)
            for py in range(ya, yb + 1):
                for px in range(xa, xb + 1):
                    cx, cy = px + 0.5, py + 0.5
                    l0 = ((pts[1][0] - cx) * (pts[2][1] - cy) - (pts[2][0] - cx) * (pts[1][1] - cy)) / area
                    l1 = ((pts[2][0] - cx) * (pts[0][1] - cy) - (pts[0][0] - cx) * (pts[2][1] - cy)) / area
                    l2 = 1 - l0 - l1
                    if l0 < 0 or l1 < 0 or l2 < 0:
                        continue
                    y = l0 * pts[0][2] + l1 * pts[1][2] + l2 * pts[2][2]
                    if y > depth[py][px]:
                        depth[py][px] = y
                        o = 3 * (s * w + px)
                        img[py][o:o + 3] = col

        # Walls cut by the plan's plane, drawn as dark lines.
        for t in section:
            cross = []
            for a, b in ((t[0], t[1]), (t[1], t[2]), (t[2], t[0])):
                if (a[1] - cut) * (b[1] - cut) < 0:
                    f = (cut - a[1]) / (b[1] - a[1])
                    cross.append((a[0] + (b[0] - a[0]) * f, a[2] + (b[2] - a[2]) * f))
            if len(cross) == 2:
                (ax, az), (bx, bz) = cross
                steps = int(max(abs(bx - ax), abs(bz - az)) * ppm) + 1
                for i in range(steps + 1):
                    px = int((ax + (bx - ax) * i / steps - x0) * ppm)
                    py = int((az + (bz - az) * i / steps - z0) * ppm)
                    if 0 <= py < hgt and 0 <= px < w:
                        o = 3 * (s * w + px)
                        img[py][o:o + 3] = b'\x10\x10\x10'

        def dot_at(x, z, rgb, rad=2):
            px, py = int((x - x0) * ppm), int((z - z0) * ppm)
            for yy in range(py - rad, py + rad + 1):
                for xx in range(px - rad, px + rad + 1):
                    if 0 <= yy < hgt and 0 <= xx < w:
                        o = 3 * (s * w + xx)
                        img[yy][o:o + 3] = bytes(rgb)

        lo_y = 0.0 if s == 0 else 2.8
        hi_y = 2.8 if s == 0 else 99.0
        for l in scene['lights']:
            if lo_y <= l['position'][1] < hi_y:
                dot_at(l['position'][0], l['position'][2], (255, 230, 0))
        for cam in scene['cameras']:
            if lo_y <= cam['eye'][1] < hi_y:
                e, t = cam['eye'], cam['target']
                for k in range(1, 25):
                    f = k / 24.0
                    dot_at(e[0] + (t[0] - e[0]) * f, e[2] + (t[2] - e[2]) * f, (255, 80, 80), 0)
                dot_at(e[0], e[2], (255, 0, 0), 3)
    with open(path, 'wb') as f:
        f.write(png_bytes(w * len(cut_heights), hgt, [bytes(r) for r in img]))


class Grid:
    """A uniform grid over the triangles for the camera previews."""

    def __init__(self, flat, boxes, lo=(-14.0, -0.2, -12.0), hi=(28.0, 10.0, 28.0), cell=0.35):
        self.flat, self.lo, self.cell = flat, lo, cell
        self.n = tuple(int(math.ceil((hi[i] - lo[i]) / cell)) for i in range(3))
        self.cells = {}
        for k in range(len(flat.tris)):
            a = [max(0, min(self.n[i] - 1, int((boxes.lo[k][i] - lo[i]) / cell))) for i in range(3)]
            b = [max(0, min(self.n[i] - 1, int((boxes.hi[k][i] - lo[i]) / cell))) for i in range(3)]
            for x in range(a[0], b[0] + 1):
                for y in range(a[1], b[1] + 1):
                    for z in range(a[2], b[2] + 1):
                        self.cells.setdefault((x, y, z), []).append(k)

    def trace(self, o, d):
        """Nearest non-glass hit (t, triangle) by walking the grid cells along the ray."""
        t0, t1 = 0.0, 1e9
        for i in range(3):
            hi = self.lo[i] + self.n[i] * self.cell
            if abs(d[i]) < 1e-12:
                if not self.lo[i] <= o[i] <= hi:
                    return None
                continue
            ta, tb = (self.lo[i] - o[i]) / d[i], (hi - o[i]) / d[i]
            t0, t1 = max(t0, min(ta, tb)), min(t1, max(ta, tb))
        if t0 > t1:
            return None
        p = [o[i] + d[i] * (t0 + 1e-6) for i in range(3)]
        c = [max(0, min(self.n[i] - 1, int((p[i] - self.lo[i]) / self.cell))) for i in range(3)]
        step = [1 if d[i] > 0 else -1 for i in range(3)]
        tmax, tdelta = [], []
        for i in range(3):
            if abs(d[i]) < 1e-12:
                tmax.append(1e30)
                tdelta.append(1e30)
            else:
                edge = self.lo[i] + (c[i] + (1 if d[i] > 0 else 0)) * self.cell
                tmax.append((edge - o[i]) / d[i])
                tdelta.append(self.cell / abs(d[i]))
        best = None
        seen = set()
        while True:
            for k in self.cells.get(tuple(c), ()):
                if k in seen:
                    continue
                seen.add(k)
                if self.flat.glass[self.flat.material[k]]:
                    continue
                t = ray_hit(o, d, self.flat.tris[k])
                if t is not None and (best is None or t < best[0]):
                    best = (t, k)
            axis = min(range(3), key=lambda i: tmax[i])
            if best is not None and best[0] <= tmax[axis]:
                return best
            c[axis] += step[axis]
            if not 0 <= c[axis] < self.n[axis]:
                return best
            tmax[axis] += tdelta[axis]


def write_views(folder, doc, flat, grid, scene, width=160, height=100):
    """A flat-shaded picture from every camera: base colour lit by a head
    light, emissive materials bright, glass see-through, sky where nothing."""
    os.makedirs(folder, exist_ok=True)
    colours, glow = [], []
    for m in doc['materials']:
        b = m['pbrMetallicRoughness'].get('baseColorFactor', [1, 1, 1, 1])
        if 'baseColorTexture' in m['pbrMetallicRoughness']:
            b = [0.45 * b[0], 0.3 * b[1], 0.18 * b[2]]
        if m['pbrMetallicRoughness'].get('metallicFactor', 0) > 0.5:
            b = [0.6 * x for x in b]
        colours.append(b[:3])
        glow.append(max(m.get('emissiveFactor', [0, 0, 0])) > 0)
    for cam in scene['cameras']:
        eye, target = cam['eye'], cam['target']
        f = v_sub(target, eye)
        f = tuple(x / math.sqrt(v_dot(f, f)) for x in f)
        r = v_cross(f, (0.0, 1.0, 0.0))
        r = tuple(x / math.sqrt(v_dot(r, r)) for x in r)
        u = v_cross(r, f)
        th = math.tan(math.radians(cam.get('fov_deg', 70.0)) / 2)
        rows = []
        for y in range(height):
            row = bytearray()
            for x in range(width):
                sx = (2 * (x + 0.5) / width - 1) * th * width / height
                sy = (1 - 2 * (y + 0.5) / height) * th
                d = tuple(f[i] + sx * r[i] + sy * u[i] for i in range(3))
                d = tuple(v / math.sqrt(v_dot(d, d)) for v in d)
                hit = grid.trace(tuple(eye), d)
                if hit is None:
                    c = (0.45, 0.6, 0.85) if d[1] > 0 else (0.1, 0.2, 0.05)
                else:
                    k = hit[1]
                    n = flat.normals[k]
                    s = tuple(n[0][i] + n[1][i] + n[2][i] for i in range(3))
                    ln = math.sqrt(v_dot(s, s)) or 1.0
                    lam = abs(v_dot(s, d)) / ln
                    base = colours[flat.material[k]]
                    c = (1.0, 0.95, 0.8) if glow[flat.material[k]] else tuple(b * (0.25 + 0.75 * lam) for b in base)
                row += bytes(min(255, int(255 * max(0.0, v) ** (1 / 2.2))) for v in c)
            rows.append(bytes(row))
        name = cam['name'].replace(' ', '_')
        with open(os.path.join(folder, name + '.png'), 'wb') as fh:
            fh.write(png_bytes(width, height, rows))


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    ap = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    ap.add_argument('--dir', default=os.path.join(here, '..', 'Resources'))
    ap.add_argument('--preview', help='write a top-down plan of both storeys to this PNG')
    ap.add_argument('--views', help='write a flat-shaded picture from every camera into this folder')
    args = ap.parse_args()
    c = Checker()
    doc, binary = read_glb(os.path.join(args.dir, 'house.glb'), c)
    check_document(doc, binary, c)
    flat = flatten(doc, binary, c)
    check_model(doc, flat, c)
    scene = json.load(open(os.path.join(args.dir, 'sample_scene.json')))
    boxes = Boxes(flat)
    check_scene(scene, flat, boxes, c)
    lo = [min(t[j][i] for t in flat.tris for j in range(3)) for i in range(3)]
    hi = [max(t[j][i] for t in flat.tris for j in range(3)) for i in range(3)]
    print('%d triangles, %d materials, %d nodes, %d cameras, %d lights, bounds %s .. %s'
          % (len(flat.tris), len(doc['materials']), len(doc['nodes']), len(scene['cameras']),
             len(scene['lights']), [round(v, 2) for v in lo], [round(v, 2) for v in hi]))
    if args.preview:
        write_plan(args.preview, doc, flat, scene)
    if args.views:
        write_views(args.views, doc, flat, Grid(flat, boxes), scene)
    for f in c.failures:
        print('FAIL: ' + f)
    print('ok' if not c.failures else '%d failure(s)' % len(c.failures))
    return 0 if not c.failures else 1


if __name__ == '__main__':
    sys.exit(main())
