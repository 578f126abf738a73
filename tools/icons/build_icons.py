#!/usr/bin/python3
"""Compiles the SVG icon sources into the "VICON2" resource of the program.

Usage: build_icons.py --output icons.vicon2 icon.svg...

Each icon is named after its file ("server.client.connected.svg" is
"server.client.connected"). The SVG subset understood is what our own sources use:
<svg viewBox>, <g> (presentation attributes inherited, transform="translate(x y)"),
<path d>, <rect> (with rx/ry), <circle>, <ellipse>, <line>, <polyline>, <polygon>;
attributes fill, fill-rule, fill-opacity, stroke, stroke-width, stroke-linecap,
stroke-linejoin, stroke-miterlimit, stroke-opacity, opacity, also inside style="".
Anything else is an error, so that an icon never silently loses a part.

The program's reader takes a collection whole or not at all: one icon it would reject
(a view box outside 0.01-10000 units or its origin beyond 100000, a stroke wider than the
box, a miter limit above 100, a point more than two box sizes left/above or three right/
below of the box's origin) would make every icon disappear at run time. Such an icon is
refused here instead, at build time, naming its file; keep these limits in step with
validate_icon in src/controls/vector_icons.cpp.

The collection layout is documented in src/controls/vector_icons.h; keep both in step.
"""

import argparse
import math
import os
import re
import struct
import sys
import uuid
import xml.etree.ElementTree as ET

import lz4.block

MAGIC = uuid.UUID("{1395E7F2-8BD3-49A5-B5BC-8BEB4C73B8F7}").bytes_le
LAYOUT_VERSION = 1
SVG_NS = "{http://www.w3.org/2000/svg}"

MOVE, LINE, QUAD, CUBIC, CLOSE = range(5)
CAPS = {"butt": 0, "round": 1, "square": 2}
JOINS = {"miter": 0, "round": 1, "bevel": 2}
NAMED_COLOURS = {"black": (0, 0, 0), "white": (255, 255, 255), "red": (255, 0, 0),
                 "green": (0, 128, 0), "blue": (0, 0, 255), "gray": (128, 128, 128),
                 "grey": (128, 128, 128)}
INHERITED = ("fill", "fill-rule", "fill-opacity", "stroke", "stroke-width", "stroke-linecap",
             "stroke-linejoin", "stroke-miterlimit", "stroke-opacity")
KAPPA = 0.5522847498


class IconError(Exception):
    pass


def parse_colour(text):
    text = text.strip()
    if text == "none":
        return None
    if text in NAMED_COLOURS:
        return NAMED_COLOURS[text]
    m = re.fullmatch(r"#([0-9a-fA-F]{3}|[0-9a-fA-F]{6})", text)
    if not m:
        raise IconError(f"unsupported colour {text!r}")
    digits = m.group(1)
    if len(digits) == 3:
        return tuple(int(d, 16) * 17 for d in digits)
    return tuple(int(digits[i:i + 2], 16) for i in (0, 2, 4))


NUMBER = re.compile(r"[-+]?(?:\d+\.?\d*|\.\d+)(?:[eE][-+]?\d+)?")
TOKEN = re.compile(r"([MmLlHhVvCcSsQqTtAaZz])|([-+]?(?:\d+\.?\d*|\.\d+)(?:[eE][-+]?\d+)?)|([\s,]+)")


def tokenize_path(d):
    pos = 0
    while pos < len(d):
        m = TOKEN.match(d, pos)
        if not m:
            raise IconError(f"bad path data at {d[pos:pos + 20]!r}")
        pos = m.end()
        if m.group(1):
            yield m.group(1)
        elif m.group(2):
            yield float(m.group(2))


def arc_to_cubics(x1, y1, rx, ry, angle, large, sweep, x2, y2):
    """Endpoint arc to cubic segments (SVG implementation notes, F.6)."""
    if rx == 0 or ry == 0:
        return [("L", (x2, y2))]
    phi = math.radians(angle)
    cos_phi, sin_phi = math.cos(phi), math.sin(phi)
    dx, dy = (x1 - x2) / 2, (y1 - y2) / 2
    x1p = cos_phi * dx + sin_phi * dy
    y1p = -sin_phi * dx + cos_phi * dy
    rx, ry = abs(rx), abs(ry)
    lam = x1p ** 2 / rx ** 2 + y1p ** 2 / ry ** 2
    if lam > 1:
        rx, ry = rx * math.sqrt(lam), ry * math.sqrt(lam)
    num = rx ** 2 * ry ** 2 - rx ** 2 * y1p ** 2 - ry ** 2 * x1p ** 2
    den = rx ** 2 * y1p ** 2 + ry ** 2 * x1p ** 2
    coef = math.sqrt(max(0.0, num / den)) if den else 0.0
    if large == sweep:
        coef = -coef
    cxp, cyp = coef * rx * y1p / ry, -coef * ry * x1p / rx
    cx = cos_phi * cxp - sin_phi * cyp + (x1 + x2) / 2
    cy = sin_phi * cxp + cos_phi * cyp + (y1 + y2) / 2

    def angle_of(ux, uy, vx, vy):
        a = math.atan2(ux * vy - uy * vx, ux * vx + uy * vy)
        return a

    theta1 = angle_of(1, 0, (x1p - cxp) / rx, (y1p - cyp) / ry)
    delta = angle_of((x1p - cxp) / rx, (y1p - cyp) / ry, (-x1p - cxp) / rx, (-y1p - cyp) / ry)
    if not sweep and delta > 0:
        delta -= 2 * math.pi
    elif sweep and delta < 0:
        delta += 2 * math.pi
    parts = max(1, math.ceil(abs(delta) / (math.pi / 2) - 1e-9))
    step = delta / parts
    t = 4 / 3 * math.tan(step / 4)
    segments = []
    a = theta1
    for _ in range(parts):
        b = a + step
        cos_a, sin_a, cos_b, sin_b = math.cos(a), math.sin(a), math.cos(b), math.sin(b)
        p1 = (cos_a - t * sin_a, sin_a + t * cos_a)
        p2 = (cos_b + t * sin_b, sin_b - t * cos_b)
        p3 = (cos_b, sin_b)
        pts = []
        for px, py in (p1, p2, p3):
            px, py = px * rx, py * ry
            pts.append((cos_phi * px - sin_phi * py + cx, sin_phi * px + cos_phi * py + cy))
        segments.append(("C", tuple(pts)))
        a = b
    return segments


def parse_path_data(d):
    """Path data to a list of (verb, [points]) with absolute coordinates."""
    tokens = list(tokenize_path(d))
    out = []
    i = 0
    cmd = None
    cur = (0.0, 0.0)
    start = (0.0, 0.0)
    last_control = None  # (kind, point) for S and T reflection

    def take(n):
        nonlocal i
        if i + n > len(tokens) or any(isinstance(t, str) for t in tokens[i:i + n]):
            raise IconError(f"path data {d!r}: command {cmd} lacks numbers")
        values = tokens[i:i + n]
        i += n
        return values

    while i < len(tokens):
        if isinstance(tokens[i], str):
            cmd = tokens[i]
            i += 1
            if cmd in "Zz":
                out.append((CLOSE, []))
                cur = start
                last_control = None
                continue
        elif cmd is None:
            raise IconError(f"path data {d!r} does not start with a command")
        rel = cmd.islower()
        c = cmd.upper()
        ox, oy = cur if rel else (0.0, 0.0)
        if c == "M":
            x, y = take(2)
            cur = start = (ox + x, oy + y)
            out.append((MOVE, [cur]))
            cmd = "l" if rel else "L"  # further pairs are line-tos
            last_control = None
        elif c == "L":
            x, y = take(2)
            cur = (ox + x, oy + y)
            out.append((LINE, [cur]))
            last_control = None
        elif c == "H":
            (x,) = take(1)
            cur = ((cur[0] if rel else 0.0) + x, cur[1])
            out.append((LINE, [cur]))
            last_control = None
        elif c == "V":
            (y,) = take(1)
            cur = (cur[0], (cur[1] if rel else 0.0) + y)
            out.append((LINE, [cur]))
            last_control = None
        elif c == "C":
            v = take(6)
            p1, p2, p3 = (ox + v[0], oy + v[1]), (ox + v[2], oy + v[3]), (ox + v[4], oy + v[5])
            out.append((CUBIC, [p1, p2, p3]))
            cur, last_control = p3, ("C", p2)
        elif c == "S":
            v = take(4)
            p1 = (2 * cur[0] - last_control[1][0], 2 * cur[1] - last_control[1][1]) \
                if last_control and last_control[0] == "C" else cur
            p2, p3 = (ox + v[0], oy + v[1]), (ox + v[2], oy + v[3])
            out.append((CUBIC, [p1, p2, p3]))
            cur, last_control = p3, ("C", p2)
        elif c == "Q":
            v = take(4)
            p1, p2 = (ox + v[0], oy + v[1]), (ox + v[2], oy + v[3])
            out.append((QUAD, [p1, p2]))
            cur, last_control = p2, ("Q", p1)
        elif c == "T":
            v = take(2)
            p1 = (2 * cur[0] - last_control[1][0], 2 * cur[1] - last_control[1][1]) \
                if last_control and last_control[0] == "Q" else cur
            p2 = (ox + v[0], oy + v[1])
            out.append((QUAD, [p1, p2]))
            cur, last_control = p2, ("Q", p1)
        elif c == "A":
            rx, ry, angle, large, sweep, x, y = take(7)
            end = (ox + x, oy + y)
            for kind, pts in arc_to_cubics(cur[0], cur[1], rx, ry, angle, int(large), int(sweep), *end):
                if kind == "L":
                    out.append((LINE, [pts]))
                else:
                    out.append((CUBIC, list(pts)))
            cur = end
            last_control = None
        else:
            raise IconError(f"unsupported path command {cmd!r}")
    return out


def ellipse_path(cx, cy, rx, ry):
    kx, ky = rx * KAPPA, ry * KAPPA
    return [
        (MOVE, [(cx + rx, cy)]),
        (CUBIC, [(cx + rx, cy + ky), (cx + kx, cy + ry), (cx, cy + ry)]),
        (CUBIC, [(cx - kx, cy + ry), (cx - rx, cy + ky), (cx - rx, cy)]),
        (CUBIC, [(cx - rx, cy - ky), (cx - kx, cy - ry), (cx, cy - ry)]),
        (CUBIC, [(cx + kx, cy - ry), (cx + rx, cy - ky), (cx + rx, cy)]),
        (CLOSE, []),
    ]


def rect_path(x, y, w, h, rx, ry):
    if rx <= 0 or ry <= 0:
        return [(MOVE, [(x, y)]), (LINE, [(x + w, y)]), (LINE, [(x + w, y + h)]), (LINE, [(x, y + h)]),
                (CLOSE, [])]
    rx, ry = min(rx, w / 2), min(ry, h / 2)
    kx, ky = rx * (1 - KAPPA), ry * (1 - KAPPA)
    return [
        (MOVE, [(x + rx, y)]),
        (LINE, [(x + w - rx, y)]),
        (CUBIC, [(x + w - kx, y), (x + w, y + ky), (x + w, y + ry)]),
        (LINE, [(x + w, y + h - ry)]),
        (CUBIC, [(x + w, y + h - ky), (x + w - kx, y + h), (x + w - rx, y + h)]),
        (LINE, [(x + rx, y + h)]),
        (CUBIC, [(x + kx, y + h), (x, y + h - ky), (x, y + h - ry)]),
        (LINE, [(x, y + ry)]),
        (CUBIC, [(x, y + ky), (x + kx, y), (x + rx, y)]),
        (CLOSE, []),
    ]


def points_attr(text):
    values = [float(v) for v in NUMBER.findall(text)]
    if len(values) % 2 or not values:
        raise IconError(f"bad points {text!r}")
    return [(values[i], values[i + 1]) for i in range(0, len(values), 2)]


def element_attributes(element, inherited):
    attrs = dict(inherited)
    for key, value in element.attrib.items():
        attrs[key] = value
    for item in element.attrib.get("style", "").split(";"):
        if ":" in item:
            key, value = item.split(":", 1)
            attrs[key.strip()] = value.strip()
    return attrs


def translate_of(element):
    text = element.attrib.get("transform")
    if not text:
        return (0.0, 0.0)
    m = re.fullmatch(r"\s*translate\(\s*(" + NUMBER.pattern + r")(?:[\s,]+(" + NUMBER.pattern + r"))?\s*\)\s*", text)
    if not m:
        raise IconError(f"unsupported transform {text!r}")
    return (float(m.group(1)), float(m.group(2) or 0))


def shape_commands(tag, a):
    f = lambda key, default=0.0: float(a.get(key, default))
    if tag == "path":
        return parse_path_data(a["d"])
    if tag == "rect":
        rx = a.get("rx", a.get("ry", 0))
        ry = a.get("ry", rx)
        return rect_path(f("x"), f("y"), f("width"), f("height"), float(rx), float(ry))
    if tag == "circle":
        return ellipse_path(f("cx"), f("cy"), f("r"), f("r"))
    if tag == "ellipse":
        return ellipse_path(f("cx"), f("cy"), f("rx"), f("ry"))
    if tag == "line":
        return [(MOVE, [(f("x1"), f("y1"))]), (LINE, [(f("x2"), f("y2"))])]
    if tag in ("polyline", "polygon"):
        pts = points_attr(a["points"])
        cmds = [(MOVE, [pts[0]])] + [(LINE, [p]) for p in pts[1:]]
        if tag == "polygon":
            cmds.append((CLOSE, []))
        return cmds
    raise IconError(f"unsupported element <{tag}>")


def rgba(colour, opacity):
    r, g, b = colour
    a = max(0, min(255, round(opacity * 255)))
    return r | (g << 8) | (b << 16) | (a << 24)


def encode_path(commands, a, offset):
    fill = parse_colour(a.get("fill", "black"))
    stroke = parse_colour(a.get("stroke", "none"))
    opacity = float(a.get("opacity", 1))
    flags = 0
    if fill is not None:
        flags |= 1
    if a.get("fill-rule", "nonzero") == "evenodd":
        flags |= 2
    if stroke is not None:
        flags |= 4
    if not flags & 5:
        return b""
    cap = CAPS[a.get("stroke-linecap", "butt")]
    join = JOINS[a.get("stroke-linejoin", "miter")]
    verbs = bytearray()
    coords = []
    for verb, pts in commands:
        verbs.append(verb)
        for x, y in pts:
            coords += [x + offset[0], y + offset[1]]
    if not verbs or verbs[0] != MOVE:
        raise IconError("a path must start with a move")
    head = struct.pack("<BBBBIIffII", flags, cap, join, 0,
                       rgba(fill or (0, 0, 0), opacity * float(a.get("fill-opacity", 1))) if fill else 0,
                       rgba(stroke or (0, 0, 0), opacity * float(a.get("stroke-opacity", 1))) if stroke else 0,
                       float(a.get("stroke-width", 1)), float(a.get("stroke-miterlimit", 4)),
                       len(verbs), len(coords) // 2)
    verbs += b"\0" * (-len(verbs) % 4)
    return head + bytes(verbs) + struct.pack(f"<{len(coords)}f", *coords)


def as_float32(value):
    """The value as the reader sees it, after storing it in 32 bits."""
    try:
        return struct.unpack("<f", struct.pack("<f", value))[0]
    except OverflowError:
        return math.inf


def check_view(view):
    x, y, w, h = (as_float32(v) for v in view)
    for name, v in (("x", x), ("y", y)):
        if not math.isfinite(v) or abs(v) >= 1.0e5:
            raise IconError(f"the viewBox {name} {v:g} lies too far from the origin (limit 100000)")
    for name, v in (("width", w), ("height", h)):
        if not (0.01 <= v <= 1.0e4):
            raise IconError(f"the viewBox {name} {v:g} is outside 0.01-10000")


def check_path(view, commands, a, offset):
    """Refuses what the reader would refuse in one path (see the module's docstring)."""
    x, y, w, h = (as_float32(v) for v in view)
    extent = max(w, h)
    stroke_width = as_float32(float(a.get("stroke-width", 1)))
    if not (0 <= stroke_width <= extent):
        raise IconError(f"stroke-width {stroke_width:g} is wider than the view box ({extent:g})")
    miter = as_float32(float(a.get("stroke-miterlimit", 4)))
    if not (0 <= miter <= 100):
        raise IconError(f"stroke-miterlimit {miter:g} is outside 0-100")
    for _, points in commands:
        for px, py in points:
            for value, origin, axis in ((px + offset[0], x, "x"), (py + offset[1], y, "y")):
                v = as_float32(value)
                if not (math.isfinite(v) and abs(v) < 1.0e5 and origin - 2 * extent <= v <= origin + 3 * extent):
                    raise IconError(f"point {axis} = {value:g} lies far outside the view box")


def icon_shapes(path):
    """The icon's view box (x, y, width, height) and its shapes in drawing order, each
    (commands, attributes, offset); the rasterizer of the application icon reads them too."""
    root = ET.parse(path).getroot()
    if root.tag != SVG_NS + "svg":
        raise IconError("not an SVG document")
    view = [float(v) for v in NUMBER.findall(root.attrib.get("viewBox", ""))]
    if len(view) != 4 or view[2] <= 0 or view[3] <= 0:
        raise IconError("the viewBox is missing or empty")
    shapes = []

    def walk(element, inherited, offset):
        for child in element:
            tag = child.tag.replace(SVG_NS, "")
            if tag in ("title", "desc"):
                continue
            a = element_attributes(child, inherited)
            dx, dy = translate_of(child)
            child_offset = (offset[0] + dx, offset[1] + dy)
            if tag == "g":
                walk(child, {k: v for k, v in a.items() if k in INHERITED or k == "opacity"}, child_offset)
                continue
            shapes.append((shape_commands(tag, a), a, child_offset))

    walk(root, {}, (0.0, 0.0))
    return view, shapes


def compile_icon(path):
    view, shapes = icon_shapes(path)
    check_view(view)
    paths = []
    for commands, a, offset in shapes:
        encoded = encode_path(commands, a, offset)
        if encoded:  # a shape with neither fill nor stroke is not stored, so not checked
            check_path(view, commands, a, offset)
            paths.append(encoded)
    return struct.pack("<ffffI", *view, len(paths)) + b"".join(paths)


def build_collection(icons):
    """icons: {name: record bytes} -> decompressed collection bytes."""
    names = sorted(icons, key=lambda n: n.encode("utf-8"))
    header = LAYOUT_VERSION | (len(names) << 32)
    index_size = 8 + 16 * len(names)
    blob = bytearray()
    entries = []
    for name in names:
        encoded = name.encode("utf-8")
        name_offset = index_size + len(blob)
        blob += encoded
        blob += b"\0" * (-len(blob) % 4)
        icon_offset = index_size + len(blob)
        blob += icons[name]
        entries.append(struct.pack("<IIII", name_offset, len(encoded), icon_offset, len(icons[name])))
    return struct.pack("<Q", header) + b"".join(entries) + bytes(blob)


def build_resource(collection):
    block = lz4.block.compress(collection, mode="high_compression", store_size=False)
    return MAGIC + struct.pack("<II", len(collection), len(block)) + block


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--output", required=True)
    parser.add_argument("sources", nargs="+")
    args = parser.parse_args()
    icons = {}
    for source in args.sources:
        name = os.path.basename(source)[:-len(".svg")]
        if not re.fullmatch(r"[a-z0-9][a-z0-9._-]*", name):
            sys.exit(f"{source}: icon names are lower-case ASCII words separated by dots")
        try:
            icons[name] = compile_icon(source)
        except (IconError, KeyError, ValueError, ET.ParseError) as error:
            sys.exit(f"{source}: {error}")
    data = build_resource(build_collection(icons))
    with open(args.output + ".tmp", "wb") as out:
        out.write(data)
    os.replace(args.output + ".tmp", args.output)


if __name__ == "__main__":
    main()
