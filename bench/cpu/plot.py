#!/usr/bin/env python3
"""Draws the times of all engines, each as a part of the fastest other engine's. usage: plot.py FIGURES.json OUT.svg"""
import html
import json
import statistics
import sys

from report import OURS

TITLES = {"squeezenet": "SqueezeNet 1.1", "mobilenet": "MobileNet v1", "alexnet": "AlexNet",
          "mobilenet_ssd": "MobileNet-SSD 300", "mobilenet_ssd_heads": "MobileNet-SSD, heads only",
          "googlenet": "GoogLeNet", "resnet18": "ResNet-18", "resnet50": "ResNet-50", "vgg16": "VGG-16"}
NAMES = {OURS: "Corvalith", "opencv": "OpenCV DNN", "onnxruntime": "ONNX Runtime", "pytorch": "PyTorch"}
WIDTH, LEFT, RIGHT, BAR, GAP, TOP = 720, 190, 60, 11, 14, 66
WIDEST = 2.5  # slower engines' bars end here, with their number beside

# Mid-tones read on white and on dark alike; what is drawn in text colour follows the reader's scheme.
STYLE = """
  text { font: 12px sans-serif; fill: #24292f } .small { font-size: 10px } .title { font-size: 15px; font-weight: bold }
  .line { stroke: #24292f; stroke-opacity: .35 } .ours { fill: #d9622b } .opencv { fill: #4a90c2 }
  .onnxruntime { fill: #7fa35a } .pytorch { fill: #9a82bd }
  @media (prefers-color-scheme: dark) { text { fill: #e6edf3 } .line { stroke: #e6edf3 } }
"""


def text(x, y, content, kind="", anchor="start"):
    return '<text x="%.1f" y="%.1f" class="%s" text-anchor="%s">%s</text>' % (x, y, kind, anchor, html.escape(content))


def bars(result, threads):
    """Each engine's time by the fastest other one's; ours is the median of the rounds' ratios."""
    time = "cpu" if threads == 1 else "wall"
    fastest = min(r[time] for engine, r in result["engines"].items() if engine != OURS)
    for engine, r in result["engines"].items():
        yield engine, statistics.median(result["ratios"]) if engine == OURS else r[time] / fastest


def draw(figures):
    scale = (WIDTH - LEFT - RIGHT) / WIDEST
    out, y = [], TOP
    networks = {name: r for name, r in figures["networks"].items() if r["ratios"]}
    for name, result in networks.items():
        rows = list(bars(result, figures["threads"]))
        out.append(text(LEFT - 8, y + len(rows) * BAR / 2 + 4, TITLES.get(name, name), anchor="end"))
        for engine, ratio in rows:
            length = min(ratio, WIDEST) * scale
            out.append('<rect x="%d" y="%d" width="%.1f" height="%d" class="%s"/>'
                       % (LEFT, y, length, BAR - 1, "ours" if engine == OURS else engine))
            out.append(text(LEFT + length + 4, y + BAR - 2, "%.2f" % ratio, "small"))
            y += BAR
        y += GAP
    lines = ['<line x1="%.1f" x2="%.1f" y1="%d" y2="%d" class="line"/>' % (LEFT + scale, LEFT + scale, TOP - 6, y - 8)]
    head = [text(16, 24, "Time of a run, as a part of the fastest other engine's (shorter is faster)", "title")]
    x = 16
    for engine in [e for e in NAMES if any(e in r["engines"] for r in networks.values())]:
        head.append('<rect x="%d" y="38" width="10" height="10" class="%s"/>' % (x, "ours" if engine == OURS else engine))
        head.append(text(x + 15, 47, NAMES[engine]))
        x += 120
    cores = "1 thread" if figures["threads"] == 1 else "%d threads" % figures["threads"]
    head.append(text(16, y + 8, "%s, %s, batch 1, 32-bit floats" % (figures["processor"], cores), "small"))
    return ('<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 %d %d" width="%d">\n<style>%s</style>\n%s\n</svg>\n'
            % (WIDTH, y + 18, WIDTH, STYLE, "\n".join(head + lines + out)))


def main(figures, drawing):
    with open(figures) as f:
        svg = draw(json.load(f))
    with open(drawing, "w") as f:
        f.write(svg)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
