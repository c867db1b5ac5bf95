"""Triangle-mesh building blocks for the sample house: quads, boxes, convex
solids, cylinders, spheres and walls with openings.

World units are metres, +Y is up. Every face is wound counter-clockwise when
seen from the side its normal points to (the glTF front face). Boxes and other
flat-faced solids get one normal per face (vertices are not shared between
faces); cylinders and spheres get smooth normals on their curved surfaces.
"""

import math


def sub(a, b):
    return (a[0] - b[0], a[1] - b[1], a[2] - b[2])


def add(a, b):
    return (a[0] + b[0], a[1] + b[1], a[2] + b[2])


def mul(a, s):
    return (a[0] * s, a[1] * s, a[2] * s)


def dot(a, b):
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]


def cross(a, b):
    return (a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0])


def length(a):
    return math.sqrt(dot(a, a))


def normalize(a):
    n = length(a)
    return (a[0] / n, a[1] / n, a[2] / n)


def basis(n):
    """Two unit vectors perpendicular to the unit vector n and to each other."""
    helper = (1.0, 0.0, 0.0) if abs(n[0]) < 0.9 else (0.0, 0.0, 1.0)
    t = normalize(cross(helper, n))
    return t, cross(n, t)


class Part:
    """Triangles of one material: shared vertex arrays and an index list."""

    def __init__(self):
        self.positions = []
        self.normals = []
        self.uvs = []
        self.indices = []

    def vertex(self, p, n, uv):
        self.positions.append(p)
        self.normals.append(n)
        self.uvs.append(uv)
        return len(self.positions) - 1


class Mesh:
    """A named mesh made of one part per material. `uv_scale` maps a material
    name to the metres covered by one texture repeat for planar mapping."""

    def __init__(self, name, uv_scale=None):
        self.name = name
        self.parts = {}
        self.uv_scale = uv_scale or {}

    def part(self, material):
        if material not in self.parts:
            self.parts[material] = Part()
        return self.parts[material]

    def triangle_count(self):
        return sum(len(p.indices) // 3 for p in self.parts.values())

    # -- planar faces ---------------------------------------------------

    def planar_uv(self, material, p, n):
        """Projects p onto the plane that the face's dominant axis selects."""
        s = self.uv_scale.get(material, 1.0)
        ax, ay, az = abs(n[0]), abs(n[1]), abs(n[2])
        if ay >= ax and ay >= az:
            return (p[0] / s, p[2] / s)
        if ax >= az:
            return (p[2] / s, -p[1] / s)
        return (p[0] / s, -p[1] / s)

    def polygon(self, material, pts, normal=None):
        """A planar convex polygon, fanned from its first corner. When `normal`
        is given the winding is made to agree with it."""
        face_n = normalize(cross(sub(pts[1], pts[0]), sub(pts[2], pts[0])))
        if normal is not None:
            normal = normalize(normal)
            if dot(face_n, normal) < 0.0:
                pts = list(reversed(pts))
            face_n = normal
        part = self.part(material)
        ids = [part.vertex(p, face_n, self.planar_uv(material, p, face_n)) for p in pts]
        for i in range(1, len(ids) - 1):
            part.indices += [ids[0], ids[i], ids[i + 1]]

    def quad(self, material, p0, p1, p2, p3, normal):
        self.polygon(material, [p0, p1, p2, p3], normal)

    def box(self, material, lo, hi, skip=()):
        """Axis-aligned box from corner lo to corner hi. `material` is one name or
        a dict from face ('+x', '-x', '+y', '-y', '+z', '-z') to name, with
        '*' for the rest. Faces named in `skip` are left out (they touch
        something and can never be seen)."""
        x0, y0, z0 = lo
        x1, y1, z1 = hi
        faces = {
            '+x': ([(x1, y0, z0), (x1, y1, z0), (x1, y1, z1), (x1, y0, z1)], (1, 0, 0)),
            '-x': ([(x0, y0, z0), (x0, y0, z1), (x0, y1, z1), (x0, y1, z0)], (-1, 0, 0)),
            '+y': ([(x0, y1, z0), (x0, y1, z1), (x1, y1, z1), (x1, y1, z0)], (0, 1, 0)),
            '-y': ([(x0, y0, z0), (x1, y0, z0), (x1, y0, z1), (x0, y0, z1)], (0, -1, 0)),
            '+z': ([(x0, y0, z1), (x1, y0, z1), (x1, y1, z1), (x0, y1, z1)], (0, 0, 1)),
            '-z': ([(x0, y0, z0), (x0, y1, z0), (x1, y1, z0), (x1, y0, z0)], (0, 0, -1)),
        }
        for key, (pts, n) in faces.items():
            if key in skip:
                continue
            mat = material if isinstance(material, str) else material.get(key, material.get('*'))
            self.polygon(mat, pts, n)

    def convex_solid(self, material, verts, faces):
        """A convex solid from corner points and faces (lists of corner
        indices); each face is turned to face away from the centroid."""
        c = mul(verts[0], 0.0)
        for v in verts:
            c = add(c, v)
        c = mul(c, 1.0 / len(verts))
        for f in faces:
            pts = [verts[i] for i in f]
            n = cross(sub(pts[1], pts[0]), sub(pts[2], pts[0]))
            if dot(n, sub(pts[0], c)) < 0.0:
                n = mul(n, -1.0)
            self.polygon(material, pts, n)

    # -- curved solids --------------------------------------------------

    def cylinder(self, material, p0, p1, radius, segments=24, caps=(True, True), radius1=None,
                 cap_material=None):
        """A cylinder (or a cone frustum with `radius1` at p1) from p0 to p1 with
        smooth sides and flat caps."""
        r0 = radius
        r1 = radius if radius1 is None else radius1
        axis = sub(p1, p0)
        h = length(axis)
        a = normalize(axis)
        t, b = basis(a)
        part = self.part(material)
        slope = (r0 - r1) / h
        rows = []
        for k in range(segments + 1):
            ang = 2.0 * math.pi * k / segments
            d = add(mul(t, math.cos(ang)), mul(b, math.sin(ang)))
            n = normalize(add(d, mul(a, slope)))
            u = k / segments
            i0 = part.vertex(add(p0, mul(d, r0)), n, (u * 2.0 * math.pi * r0, 0.0))
            i1 = part.vertex(add(p1, mul(d, r1)), n, (u * 2.0 * math.pi * r0, h))
            rows.append((i0, i1))
        for k in range(segments):
            a0, a1 = rows[k]
            b0, b1 = rows[k + 1]
            # d turns from t towards b = a x t, so (a0, b0, b1) winds outwards.
            part.indices += [a0, b0, b1, a0, b1, a1]
        cap_mat = cap_material or material
        for end, (centre, r, n) in enumerate(((p0, r0, mul(a, -1.0)), (p1, r1, a))):
            if not caps[end] or r <= 0.0:
                continue
            ring = []
            for k in range(segments):
                ang = 2.0 * math.pi * k / segments
                ring.append(add(centre, mul(add(mul(t, math.cos(ang)), mul(b, math.sin(ang))), r)))
            self.disc_fan(cap_mat, centre, ring, n)

    def disc_fan(self, material, centre, ring, normal):
        part = self.part(material)
        c = part.vertex(centre, normal, self.planar_uv(material, centre, normal))
        ids = [part.vertex(p, normal, self.planar_uv(material, p, normal)) for p in ring]
        probe = cross(sub(ring[0], centre), sub(ring[1], centre))
        forward = dot(probe, normal) > 0.0
        for k in range(len(ids)):
            i, j = ids[k], ids[(k + 1) % len(ids)]
            part.indices += [c, i, j] if forward else [c, j, i]

    def sphere(self, material, centre, radii, segments=32, rings=16, theta_max=math.pi, inward=False):
        """An ellipsoid with semi-axes `radii`, smooth normals. theta runs from
        the top pole (0) downwards; theta_max < pi leaves an open cap, so
        theta_max = pi/2 is the upper hemisphere. `inward` turns the surface
        inside out (the inside of a lamp shade)."""
        rx, ry, rz = radii
        part = self.part(material)
        grid = []
        for i in range(rings + 1):
            th = theta_max * i / rings
            row = []
            for k in range(segments + 1):
                ph = 2.0 * math.pi * k / segments
                d = (math.sin(th) * math.cos(ph), math.cos(th), math.sin(th) * math.sin(ph))
                p = (centre[0] + rx * d[0], centre[1] + ry * d[1], centre[2] + rz * d[2])
                n = normalize((d[0] / rx, d[1] / ry, d[2] / rz))
                if inward:
                    n = mul(n, -1.0)
                row.append(part.vertex(p, n, (k / segments, i / rings)))
            grid.append(row)
        for i in range(rings):
            for k in range(segments):
                a, b = grid[i][k], grid[i][k + 1]
                c, d = grid[i + 1][k], grid[i + 1][k + 1]
                # phi runs from +x towards +z, which seen from outside is
                # clockwise about +y, so (a, b, d) winds outwards.
                tris = []
                if i > 0:
                    tris.append((a, b, d))
                if i < rings - 1 or theta_max < math.pi - 1e-9:
                    tris.append((a, d, c))
                for tri in tris:
                    if inward:
                        tri = (tri[0], tri[2], tri[1])
                    part.indices += list(tri)


def rectangle_cells(u0, u1, v0, v1, holes):
    """Splits the rectangle [u0,u1] x [v0,v1] along every hole edge and tells
    for each grid cell whether it is solid. Returns (us, vs, solid) with
    solid[i][j] for the cell [us[i], us[i+1]] x [vs[j], vs[j+1]]."""
    us = sorted({u0, u1} | {h[0] for h in holes} | {h[1] for h in holes})
    vs = sorted({v0, v1} | {h[2] for h in holes} | {h[3] for h in holes})
    solid = []
    for i in range(len(us) - 1):
        col = []
        cu = 0.5 * (us[i] + us[i + 1])
        for j in range(len(vs) - 1):
            cv = 0.5 * (vs[j] + vs[j + 1])
            inside = any(h[0] < cu < h[1] and h[2] < cv < h[3] for h in holes)
            col.append(not inside)
        solid.append(col)
    return us, vs, solid


def wall(mesh, axis, centre, u0, u1, y0, y1, thickness, mat_plus, mat_minus, openings=(),
         cap_start=False, cap_end=False, top=False, reveal_material=None, cap_material=None):
    """A straight wall with rectangular openings. The wall runs along `axis`
    ('x' or 'z') from u0 to u1 with its centre plane at the other horizontal
    coordinate `centre`; `mat_plus` faces the positive side. Openings are
    (u_start, u_end, y_bottom, y_top). Only faces that can be seen are made:
    both sides, the reveals round every opening, and on request the ends and
    the top."""
    half = 0.5 * thickness
    us, vs, solid = rectangle_cells(u0, u1, y0, y1, openings)
    reveal = reveal_material or mat_minus
    cap = cap_material or reveal

    def pt(u, y, w):
        return (u, y, centre + w) if axis == 'x' else (centre + w, y, u)

    plus_n = (0.0, 0.0, 1.0) if axis == 'x' else (1.0, 0.0, 0.0)
    along_n = (1.0, 0.0, 0.0) if axis == 'x' else (0.0, 0.0, 1.0)
    nu, nv = len(us) - 1, len(vs) - 1
    for i in range(nu):
        for j in range(nv):
            if not solid[i][j]:
                continue
            ua, ub, va, vb = us[i], us[i + 1], vs[j], vs[j + 1]
            mesh.quad(mat_plus, pt(ua, va, half), pt(ub, va, half), pt(ub, vb, half), pt(ua, vb, half), plus_n)
            mesh.quad(mat_minus, pt(ua, va, -half), pt(ub, va, -half), pt(ub, vb, -half), pt(ua, vb, -half),
                      mul(plus_n, -1.0))
            # Side faces: towards an opening cell, or the wall's own boundary.
            if i == 0 and cap_start or i > 0 and not solid[i - 1][j]:
                mesh.quad(cap if i == 0 else reveal, pt(ua, va, -half), pt(ua, va, half), pt(ua, vb, half), pt(ua, vb, -half),
                          mul(along_n, -1.0))
            if i == nu - 1 and cap_end or i < nu - 1 and not solid[i + 1][j]:
                mesh.quad(cap if i == nu - 1 else reveal, pt(ub, va, -half), pt(ub, va, half), pt(ub, vb, half), pt(ub, vb, -half),
                          along_n)
            if j > 0 and not solid[i][j - 1]:
                mesh.quad(reveal, pt(ua, va, -half), pt(ub, va, -half), pt(ub, va, half), pt(ua, va, half),
                          (0.0, -1.0, 0.0))
            if j == nv - 1 and top or j < nv - 1 and not solid[i][j + 1]:
                mesh.quad(cap if j == nv - 1 else reveal, pt(ua, vb, -half), pt(ub, vb, -half), pt(ub, vb, half), pt(ua, vb, half),
                          (0.0, 1.0, 0.0))


def slab_face(mesh, material, x0, x1, z0, z1, y, holes=(), up=True):
    """A horizontal face over a rectangle minus rectangular holes
    (x_start, x_end, z_start, z_end)."""
    us, vs, solid = rectangle_cells(x0, x1, z0, z1, holes)
    n = (0.0, 1.0, 0.0) if up else (0.0, -1.0, 0.0)
    for i in range(len(us) - 1):
        for j in range(len(vs) - 1):
            if solid[i][j]:
                xa, xb, za, zb = us[i], us[i + 1], vs[j], vs[j + 1]
                mesh.quad(material, (xa, y, za), (xb, y, za), (xb, y, zb), (xa, y, zb), n)
