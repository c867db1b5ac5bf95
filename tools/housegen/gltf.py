"""A small glTF 2.0 binary (.glb) writer: meshes of indexed triangles with
POSITION, NORMAL and TEXCOORD_0, a node tree with roles in `extras`,
metallic-roughness materials with the emissive-strength, transmission and
IOR extensions, and embedded PNG images."""

import json
import math
import struct

ARRAY_BUFFER = 34962
ELEMENT_ARRAY_BUFFER = 34963
FLOAT = 5126
UNSIGNED_SHORT = 5123
UNSIGNED_INT = 5125


def yaw_quaternion(degrees):
    """Rotation about +Y as a glTF quaternion (x, y, z, w)."""
    h = math.radians(degrees) * 0.5
    return [0.0, round(math.sin(h), 7), 0.0, round(math.cos(h), 7)]


def _r(v):
    return round(float(v), 6)


class GLBWriter:
    def __init__(self):
        self.bin = bytearray()
        self.doc = {
            'asset': {'version': '2.0', 'generator': 'Quorvane make_sample_house.py'},
            'scene': 0,
            'scenes': [{'name': 'House', 'nodes': []}],
            'nodes': [],
            'meshes': [],
            'materials': [],
            'accessors': [],
            'bufferViews': [],
            'buffers': [],
        }
        self.material_index = {}
        self.extensions = set()

    # -- buffers --------------------------------------------------------

    def _view(self, data, target=None):
        while len(self.bin) % 4:
            self.bin.append(0)
        view = {'buffer': 0, 'byteOffset': len(self.bin), 'byteLength': len(data)}
        if target is not None:
            view['target'] = target
        self.bin += data
        self.doc['bufferViews'].append(view)
        return len(self.doc['bufferViews']) - 1

    def _accessor(self, view, component_type, count, kind, lo=None, hi=None):
        acc = {'bufferView': view, 'componentType': component_type, 'count': count, 'type': kind}
        if lo is not None:
            acc['min'] = lo
            acc['max'] = hi
        self.doc['accessors'].append(acc)
        return len(self.doc['accessors']) - 1

    def _float_attribute(self, values, width, with_bounds):
        flat = [c for v in values for c in v]
        data = struct.pack('<%df' % len(flat), *flat)
        lo = hi = None
        if with_bounds:
            # Bounds of the float32 values as stored, so that they match exactly.
            stored = struct.unpack('<%df' % len(flat), data)
            lo = [min(stored[k::width]) for k in range(width)]
            hi = [max(stored[k::width]) for k in range(width)]
        view = self._view(data, ARRAY_BUFFER)
        return self._accessor(view, FLOAT, len(values), 'VEC%d' % width, lo, hi)

    # -- materials, images ----------------------------------------------

    def add_image_texture(self, name, png):
        view = self._view(png)
        doc = self.doc
        doc.setdefault('images', []).append({'name': name, 'bufferView': view, 'mimeType': 'image/png'})
        if 'samplers' not in doc:
            doc['samplers'] = [{'magFilter': 9729, 'minFilter': 9987, 'wrapS': 10497, 'wrapT': 10497}]
        doc.setdefault('textures', []).append({'name': name, 'sampler': 0, 'source': len(doc['images']) - 1})
        return len(doc['textures']) - 1

    def add_material(self, name, base=(0.8, 0.8, 0.8), metallic=0.0, roughness=0.9, texture=None,
                     emissive=None, emissive_strength=None, transmission=None, ior=None,
                     double_sided=False, transmission_roughness=None):
        pbr = {'baseColorFactor': [_r(c) for c in (list(base) + [1.0])[:4]],
               'metallicFactor': _r(metallic), 'roughnessFactor': _r(roughness)}
        if texture is not None:
            pbr['baseColorTexture'] = {'index': texture, 'texCoord': 0}
        mat = {'name': name, 'pbrMetallicRoughness': pbr}
        ext = {}
        if emissive is not None:
            mat['emissiveFactor'] = [_r(c) for c in emissive]
            if emissive_strength is not None:
                ext['KHR_materials_emissive_strength'] = {'emissiveStrength': _r(emissive_strength)}
        if transmission is not None:
            ext['KHR_materials_transmission'] = {'transmissionFactor': _r(transmission)}
        if ior is not None:
            ext['KHR_materials_ior'] = {'ior': _r(ior)}
        if ext:
            mat['extensions'] = ext
            self.extensions |= set(ext)
        if double_sided:
            mat['doubleSided'] = True
        if transmission_roughness is not None:
            mat['extras'] = {'transmission_roughness': _r(transmission_roughness)}
        self.doc['materials'].append(mat)
        self.material_index[name] = len(self.doc['materials']) - 1

    # -- meshes, nodes --------------------------------------------------

    def add_mesh(self, mesh):
        prims = []
        for material in sorted(mesh.parts):
            part = mesh.parts[material]
            if not part.indices:
                continue
            pos = self._float_attribute(part.positions, 3, True)
            nrm = self._float_attribute(part.normals, 3, False)
            uv = self._float_attribute(part.uvs, 2, False)
            n = len(part.positions)
            if n < 65536:
                data = struct.pack('<%dH' % len(part.indices), *part.indices)
                ctype = UNSIGNED_SHORT
            else:
                data = struct.pack('<%dI' % len(part.indices), *part.indices)
                ctype = UNSIGNED_INT
            idx = self._accessor(self._view(data, ELEMENT_ARRAY_BUFFER), ctype, len(part.indices), 'SCALAR')
            prims.append({'attributes': {'POSITION': pos, 'NORMAL': nrm, 'TEXCOORD_0': uv},
                          'indices': idx, 'material': self.material_index[material], 'mode': 4})
        self.doc['meshes'].append({'name': mesh.name, 'primitives': prims})
        return len(self.doc['meshes']) - 1

    def add_node(self, name, mesh=None, role=None, translation=None, rotation=None, scale=None, parent=None):
        node = {'name': name}
        if mesh is not None:
            node['mesh'] = mesh
        if translation is not None:
            node['translation'] = [_r(c) for c in translation]
        if rotation is not None:
            node['rotation'] = rotation
        if scale is not None:
            node['scale'] = [_r(c) for c in scale]
        if role is not None:
            node['extras'] = {'role': role}
        self.doc['nodes'].append(node)
        index = len(self.doc['nodes']) - 1
        if parent is None:
            self.doc['scenes'][0]['nodes'].append(index)
        else:
            self.doc['nodes'][parent].setdefault('children', []).append(index)
        return index

    # -- file -----------------------------------------------------------

    def to_bytes(self):
        while len(self.bin) % 4:
            self.bin.append(0)
        self.doc['buffers'] = [{'byteLength': len(self.bin)}]
        if self.extensions:
            self.doc['extensionsUsed'] = sorted(self.extensions)
        text = json.dumps(self.doc, separators=(',', ':')).encode('utf-8')
        text += b' ' * ((4 - len(text) % 4) % 4)
        total = 12 + 8 + len(text) + 8 + len(self.bin)
        out = bytearray(struct.pack('<III', 0x46546C67, 2, total))
        out += struct.pack('<II', len(text), 0x4E4F534A) + text
        out += struct.pack('<II', len(self.bin), 0x004E4942) + self.bin
        return bytes(out)
