"""Draws how the time grows with the work, both in powers of two, beside the line of exact proportion."""
import math

from plot import STYLE, TITLES, text

SIZE, LEFT, TOP, GAP = 280, 56, 92, 70  # of one drawing, in pixels, and what is around it
COLOURS = ("#d9622b", "#4a90c2")


def drawing(networks, direction, left):
    """Time by the smallest work's, over the work by the smallest."""
    steps = 4  # doublings

    def x(factor):
        return left + math.log2(factor) * SIZE / steps

    def y(times):
        return TOP + SIZE - math.log2(times) * SIZE / (steps + 0.5)
    out = [text(left, TOP - 12, "times the %s" % {"batch": "images", "area": "pixels of an image"}[direction])]
    for step in range(steps + 1):
        factor = 1 << step
        out.append('<line x1="%.1f" x2="%.1f" y1="%d" y2="%d" class="grid"/>' % (x(factor), x(factor), TOP, TOP + SIZE))
        out.append('<line x1="%d" x2="%d" y1="%.1f" y2="%.1f" class="grid"/>' % (left, left + SIZE, y(factor), y(factor)))
        out.append(text(x(factor), TOP + SIZE + 16, str(factor), "small", "middle"))
        out.append(text(left - 6, y(factor) + 4, str(factor), "small", "end"))
    out.append('<line x1="%.1f" x2="%.1f" y1="%.1f" y2="%.1f" class="ideal"/>' % (x(1), x(16), y(1), y(16)))
    for colour, result in zip(COLOURS, networks.values()):
        points = [(x(factor), y(factor * r["per_unit"])) for factor, r in result[direction].items()]
        out.append('<polyline points="%s" fill="none" stroke="%s" stroke-width="2"/>'
                   % (" ".join("%.1f,%.1f" % p for p in points), colour))
        out += ['<circle cx="%.1f" cy="%.1f" r="3.5" fill="%s"/>' % (*p, colour) for p in points]
    return out


def draw(figures):
    width, height = LEFT + 2 * SIZE + GAP + 30, TOP + SIZE + 50
    out = [text(16, 24, "Time of a run as the work grows, to that of the smallest", "title")]
    x = 16
    for colour, name in zip(COLOURS, figures["networks"]):
        out.append('<rect x="%d" y="38" width="10" height="10" fill="%s"/>' % (x, colour))
        out.append(text(x + 15, 47, TITLES[name]))
        x += 120
    out.append('<line x1="%d" x2="%d" y1="43" y2="43" class="ideal"/>' % (x, x + 20))
    out.append(text(x + 26, 47, "in proportion"))
    for i, direction in enumerate(("batch", "area")):
        out += drawing(figures["networks"], direction, LEFT + i * (SIZE + GAP))
    out.append(text(16, height - 10, "%s, 1 thread, CPU time, medians of %d rounds"
                    % (figures["processor"], figures["rounds"]), "small"))
    style = STYLE + ("  .grid { stroke: #8b949e; stroke-opacity: .3 } .ideal { stroke: #8b949e; stroke-dasharray: 5 4;"
                     " stroke-width: 1.5 }\n")
    return ('<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 %d %d" width="%d">\n<style>%s</style>\n%s\n</svg>\n'
            % (width, height, width, style, "\n".join(out)))
