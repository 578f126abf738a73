#!/usr/bin/python3
"""Builds the icon font "Fluent" (TrueType-flavoured OpenType) from its glyph sources.

Usage: build_font.py --output fluent.ttf res/font/glyphs.txt

glyphs.txt lists one glyph per line: character, advance width and the SVG file (relative
to glyphs.txt) whose <path d> elements are the glyph's filled outline, drawn in a
1000 × 1000 view box with y pointing down and the baseline at y = 800.
"""

import argparse
import os
import sys
import xml.etree.ElementTree as ET

from fontTools.fontBuilder import FontBuilder
from fontTools.pens.cu2quPen import Cu2QuPen
from fontTools.pens.reverseContourPen import ReverseContourPen
from fontTools.pens.transformPen import TransformPen
from fontTools.pens.ttGlyphPen import TTGlyphPen
from fontTools.svgLib.path import parse_path

FAMILY = "Fluent"
UNITS_PER_EM = 1000
ASCENT = 800
DESCENT = 200
SVG_NS = "{http://www.w3.org/2000/svg}"
# Fixed timestamps keep the build reproducible: the same sources give the same bytes.
TIMESTAMP = 3786825600  # 2020-01-01, seconds since 1904


def read_manifest(path):
    glyphs = []
    for number, line in enumerate(open(path, encoding="utf-8"), 1):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        fields = line.split(None, 3)
        if len(fields) < 3 or len(fields[0]) != 1:
            sys.exit(f"{path}:{number}: expected <character> <advance> <file.svg>")
        glyphs.append((fields[0], int(fields[1]), os.path.join(os.path.dirname(path), fields[2])))
    return glyphs


def draw_glyph(svg_path, glyph_set_pen):
    root = ET.parse(svg_path).getroot()
    paths = [e for e in root.iter(SVG_NS + "path")]
    if not paths:
        sys.exit(f"{svg_path}: no <path> element")
    # SVG's y axis points down, a font's up; flipping reverses the contours' direction,
    # which ReverseContourPen puts right again (TrueType wants clockwise outer contours).
    pen = ReverseContourPen(TransformPen(glyph_set_pen, (1, 0, 0, -1, 0, ASCENT)))
    for element in paths:
        parse_path(element.attrib["d"], pen)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--output", required=True)
    parser.add_argument("manifest")
    args = parser.parse_args()

    entries = read_manifest(args.manifest)
    order = [".notdef", "space"]
    cmap = {0x20: "space"}
    advances = {".notdef": 500, "space": 500}
    glyphs = {}

    empty = TTGlyphPen(None)
    glyphs["space"] = empty.glyph()
    notdef = TTGlyphPen(None)
    for rect in ((50, 0, 450, 700), (100, 50, 400, 650)):
        x0, y0, x1, y1 = rect
        points = [(x0, y0), (x0, y1), (x1, y1), (x1, y0)] if rect[0] == 50 else [(x0, y0), (x1, y0), (x1, y1), (x0, y1)]
        notdef.moveTo(points[0])
        for p in points[1:]:
            notdef.lineTo(p)
        notdef.closePath()
    glyphs[".notdef"] = notdef.glyph()

    for character, advance, svg in entries:
        name = f"uni{ord(character):04X}"
        tt_pen = TTGlyphPen(None)
        draw_glyph(svg, Cu2QuPen(tt_pen, max_err=1.0, reverse_direction=False))
        glyphs[name] = tt_pen.glyph()
        order.append(name)
        cmap[ord(character)] = name
        advances[name] = advance

    fb = FontBuilder(UNITS_PER_EM, isTTF=True)
    fb.setupGlyphOrder(order)
    fb.setupCharacterMap(cmap)
    fb.setupGlyf(glyphs)
    glyf = fb.font["glyf"]
    metrics = {}
    for name in order:
        glyph = glyf[name]
        glyph.recalcBounds(glyf)
        metrics[name] = (advances[name], getattr(glyph, "xMin", 0))
    fb.setupHorizontalMetrics(metrics)
    fb.setupHorizontalHeader(ascent=ASCENT, descent=-DESCENT)
    fb.setupNameTable({"familyName": FAMILY, "styleName": "Regular",
                       "uniqueFontIdentifier": f"{FAMILY} Regular", "fullName": FAMILY,
                       "psName": FAMILY, "version": "Version 1.000"})
    fb.setupOS2(sTypoAscender=ASCENT, sTypoDescender=-DESCENT, sTypoLineGap=0,
                usWinAscent=ASCENT, usWinDescent=DESCENT, achVendID="QMX ",
                fsType=0, usWeightClass=400)
    fb.setupPost()
    fb.updateHead(created=TIMESTAMP, modified=TIMESTAMP)
    fb.save(args.output)


if __name__ == "__main__":
    main()
