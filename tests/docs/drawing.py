"""A diagram of docs/diagrams as the tests see it: its boxes, its texts with the room that they
take, and its lines. Knows what these drawings use: <rect>, <text>, <tspan>, and <path> with M, H, V
and L."""
import re
import xml.etree.ElementTree as ElementTree

SVG = "{http://www.w3.org/2000/svg}"
# Width of a character as a part of the type size, in a wide font: DejaVu Sans, DejaVu Sans Mono.
SANS, BOLD, MONO = 0.57, 0.66, 0.605


class box:
    """From x1, y1 to x2, y2; `element` is what takes the room."""

    def __init__(self, x1, y1, x2, y2, element):
        self.x1, self.y1, self.x2, self.y2, self.element = x1, y1, x2, y2, element
        self.classes = element.get("class", "").split()

    def holds(self, other):
        return (self.x1 <= other.x1 and other.x2 <= self.x2 and
                self.y1 <= other.y1 and other.y2 <= self.y2)

    def meets(self, other):
        return (self.x1 < other.x2 and other.x1 < self.x2 and
                self.y1 < other.y2 and other.y1 < self.y2)


class drawing:
    def __init__(self, path):
        self.name = path.name
        self.source = path.read_text(encoding="utf-8")
        self.root = ElementTree.fromstring(self.source)
        self.style = self.root.findtext(SVG + "style", "")
        self.view = [float(number) for number in self.root.get("viewBox", "").split()]
        self.rects = [rect_box(each) for each in self.root.iter(SVG + "rect")]
        self.texts = [self.text_box(each) for each in self.root.iter(SVG + "text")]

    def rule(self, classes, name, otherwise=None):
        """The value that the last fitting rule of the style sets."""
        for selectors, body in re.findall(r"([^{}]+)\{([^}]*)\}", self.style):
            if selectors.strip() in ["text"] + ["." + each for each in classes]:
                found = re.search(rf"(?:^|[\s;]){name}: ([^;]+?)\s*(?:;|$)", body)
                otherwise = found.group(1) if found else otherwise
        return otherwise

    def size(self, classes):
        return float(self.rule(classes, "font-size").removesuffix("px"))

    def width(self, text, classes):
        factor = (MONO if self.rule(classes, "font-family") == "monospace" else
                  BOLD if self.rule(classes, "font-weight") == "bold" else SANS)
        return len(text) * factor * self.size(classes)

    def text_box(self, element):
        classes = element.get("class", "").split()
        width = self.width(element.text or "", classes)
        for span in element:
            width += self.width(span.text or "", classes + span.get("class", "").split())
            width += self.width(span.tail or "", classes)
        x, y, size = float(element.get("x")), float(element.get("y")), self.size(classes)
        anchor = self.rule(classes, "text-anchor", "start")
        x -= {"start": 0, "middle": width / 2, "end": width}[anchor]
        return box(x, y - 0.78 * size, x + width, y + 0.22 * size, element)

    def by_id(self, name):
        found = [each for each in self.root.iter() if each.get("id") == name]
        assert len(found) == 1, f"{self.name}: {len(found)} elements are called {name}"
        return found[0]

    def text_of(self, name):
        return "".join(self.by_id(name).itertext())

    def paths(self):
        """The lines, without the arrow head's own."""
        return [each for each in self.root.findall(SVG + "path")]

    def names(self):
        """The texts in the type of names, without those of a worked example."""
        return ["".join(each.itertext()) for each in self.root.iter()
                if {"name", "sample"} & set(each.get("class", "").split()) == {"name"}]


def rect_box(element):
    x, y, width, height = (float(element.get(key)) for key in ("x", "y", "width", "height"))
    return box(x, y, x + width, y + height, element)


def points_of(path):
    """The lines of a path, each a list of points."""
    lines, x, y = [], 0.0, 0.0
    for command, text in re.findall(r"([A-Za-z])([^A-Za-z]*)", path.get("d")):
        numbers = [float(each) for each in text.split()]
        assert command in "MHVL", f"{path.get('d')}: {command} is unknown"
        if command == "H":
            x, = numbers
        elif command == "V":
            y, = numbers
        else:
            x, y = numbers
        if command == "M":
            lines.append([])
        lines[-1].append((x, y))
    return lines


def crosses(begin, end, room):
    """Whether the line from begin to end meets the box `room`: the part of it that is inside."""
    first, last = 0.0, 1.0
    for at, to, low, high in ((begin[0], end[0], room.x1, room.x2),
                              (begin[1], end[1], room.y1, room.y2)):
        if at == to:
            if not low < at < high:
                return False
            continue
        enter, leave = sorted(((low - at) / (to - at), (high - at) / (to - at)))
        first, last = max(first, enter), min(last, leave)
    return first < last
