"""Small faults in the sources, all at once: each stands behind a switch that is set when a program
starts. Reads the list of faults, finds their places, weaves them in, and proposes others."""

import re
import textwrap
from dataclasses import dataclass, field

SWITCH = "MutantOn"
NEEDED = ("id", "file", "function", "kind", "old", "new")
FIELDS = NEEDED + ("build", "equivalent")
BUILDS = ("debug", "sanitize")

SILENT = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"(?P<mark>[^()\s\\]*)\(.*?\)(?P=mark)"'
    r'|"(?:\\.|[^"\\\n])*"|(?<![0-9A-Fa-f])\'(?:\\.|[^\'\\\n])+\'',
    re.S,
)


# Behind a function's parameters, up to the brace that opens it.
OPENING = re.compile(r"\s*(?:const\s*)?(?:noexcept\s*)?(?:override\s*)?(?::[^{;]*)?\{")


class Wrong(Exception):
    """The list of faults does not fit the sources."""


def wrapped(line):
    """On lines that can be read, of which the further ones are indented."""
    return "\n  ".join(textwrap.wrap(line, 98, break_long_words=False, break_on_hyphens=False))


@dataclass
class Mutant:
    """A fault: in `function` of `file` the fragment `old` becomes `new`. `build` is the build in which
    tests can tell, when only the sanitizers see it; `equivalent` says why no test can tell, where none
    can."""

    id: str
    file: str
    function: str
    kind: str
    old: str
    new: str
    build: str = ""
    equivalent: str = ""
    number: int = field(default=0, compare=False)

    def is_statement(self):
        return self.old.rstrip().endswith((";", "}"))

    def text(self):
        lines = [f"{name}: {getattr(self, name)}".rstrip() for name in NEEDED]
        lines += [f"{name}: {getattr(self, name)}" for name in FIELDS[6:] if getattr(self, name)]
        return "\n".join(map(wrapped, lines)) + "\n"


def parse_list(text):
    """The faults of a list: paragraphs of "name: value", a value going on in lines that are indented."""
    mutants, seen = [], set()
    for paragraph in re.split(r"\n\s*\n", text):
        values, last = {}, None
        for line in paragraph.splitlines():
            if line.startswith("#"):
                continue
            if line[:1].isspace() and last:
                values[last] += " " + line.strip()
                continue
            last, colon, value = line.partition(":")
            if not colon or last not in FIELDS:
                raise Wrong(f"not understood: {line}")
            values[last] = value.strip()
        if not values:
            continue
        missing = [name for name in NEEDED if name not in values]
        if missing or values["id"] in seen:
            raise Wrong(f"{values.get('id', '?')}: stands twice, or has no {', '.join(missing)}")
        if values.get("build", BUILDS[0]) not in BUILDS:
            raise Wrong(f"{values['id']}: no build {values['build']}")
        seen.add(values["id"])
        mutants.append(Mutant(**values, number=len(mutants) + 1))
    return mutants


# ---- reading sources ----------------------------------------------------------------------------


def silenced(text):
    """The same length, without comments and texts."""
    return SILENT.sub(lambda m: re.sub(r"[^\n]", " ", m.group()), text)


def closing(code, at):
    """Behind the bracket that closes the one at `at`."""
    pairs = {"(": ")", "{": "}"}
    opening, depth = code[at], 0
    for position in range(at, len(code)):
        depth += (code[position] == opening) - (code[position] == pairs[opening])
        if depth == 0:
            return position + 1
    raise Wrong("brackets do not close")


def bodies(code, function):
    """(start, end) of what stands in the braces of each function of that name."""
    found = []
    for match in re.finditer(rf"(?<![\w.>])~?{re.escape(function)}\(", code):
        behind = closing(code, match.end() - 1)
        opening = OPENING.match(code, behind)
        line = code[code.rfind("\n", 0, match.start()) + 1 : match.start()]
        if opening and not re.search(r"\b(if|while|for|switch|return)\b|[=!&|]\s*$", line):
            start = opening.end() - 1
            found.append((start, closing(code, start)))
    return found


def place(text, mutant):
    """(start, end) of the fault's fragment: once in its function, but for the width of spaces."""
    code = silenced(text)
    pattern = r"\s+".join(re.escape(part) for part in mutant.old.split())
    if re.match(r"\w", mutant.old):
        pattern = r"(?<!\w)" + pattern
    if re.search(r"\w$", mutant.old):
        pattern += r"(?!\w)"
    regions = bodies(code, mutant.function)
    if not regions:
        raise Wrong(f"{mutant.id}: no function {mutant.function} in {mutant.file}")
    found = [
        (start + match.start(), start + match.end())
        for start, end in regions
        for match in re.finditer(pattern, text[start:end])
    ]
    if len(found) != 1:
        raise Wrong(
            f"{mutant.id}: {len(found)} times in {mutant.function} of {mutant.file}: {mutant.old}"
        )
    return found[0]


# ---- weaving ------------------------------------------------------------------------------------


def woven(text, mutants):
    """The source with every fault of it behind its switch."""
    places = sorted(
        ((place(text, mutant), mutant) for mutant in mutants),
        key=lambda found: (found[0][0], -found[0][1]),
    )
    rendered, end = _render(text, 0, len(text), places)
    assert end == len(places)
    return rendered


def _render(text, start, end, places, first=0):
    """The text from start to end, and the first of the places behind it."""
    parts, at = [], start
    while first < len(places) and places[first][0][0] < end:
        (left, right), mutant = places[first]
        if right > end:
            raise Wrong(f"{mutant.id}: overlaps another fault")
        parts.append(text[at:left])
        inner, first = _render(text, left, right, places, first + 1)
        parts.append(switched(mutant, inner))
        at = right
    parts.append(text[at:end])
    return "".join(parts), first


def switched(mutant, old):
    condition = f"{SWITCH}({mutant.number})"
    if mutant.is_statement():
        return f"{{ if ({condition}) {{ {mutant.new} }} else {{ {old} }} }}"
    return f"({condition} ? ({mutant.new}) : ({old}))"


# ---- proposing ----------------------------------------------------------------------------------

TURNED = {"<=": "<", "<": "<=", ">=": ">", ">": ">=", "==": "!=", "!=": "=="}
OPERATOR = re.compile(r"(?<=\s)(<=|>=|==|!=|<|>)(?=\s)")
HEAD = re.compile(
    r"^ *(?!\s*(?:if|for|while|switch|return|else|do|case)\b)[\w:<>,*&~\[\] ]*?\b(\w+)\((?=[^;{]*\{)",
    re.M,
)
CONDITION = re.compile(r"\b(?:if|while) (?=\()")
RETURN = re.compile(r"\breturn ([^;{}]+);")
CALL = re.compile(r"(?<=[;{}\n])\n(?P<indent> +)(?P<call>[\w:.>-]+\([^;{}]*\);)(?=\n)")


def propose(file, text):
    """Faults of every function of a source: comparisons turned, conditions joined otherwise, numbers off
    by one, calls left out. Where a fragment stands more than once in its function, none."""
    code = silenced(text)
    proposals, seen = [], set()
    for head in HEAD.finditer(code):
        function = head.group(1)
        line = code[head.start() : code.find("\n", head.start())]
        if function in seen or "constexpr" in line:
            continue
        seen.add(function)
        for start, end in bodies(code, function):
            for kind, old, new in _faults(text, code, start, end):
                mutant = Mutant("?", file, function, kind, " ".join(old.split()), " ".join(new.split()))
                try:
                    place(text, mutant)
                except Wrong:
                    continue
                if mutant not in proposals:
                    proposals.append(mutant)
    stem = file.rpartition("/")[2].rpartition(".")[0]
    for number, mutant in enumerate(proposals, 1):
        mutant.id = f"{stem}-{number:02}"
    return proposals


def _faults(text, code, start, end):
    """(kind, old, new) for the body of a function."""
    for match in CONDITION.finditer(code, start, end):
        inner = match.end() + 1, closing(code, match.end()) - 1
        yield from _in_expression(text[slice(*inner)], code[slice(*inner)])
    for match in RETURN.finditer(code, start, end):
        inner = match.span(1)
        yield from _in_expression(text[slice(*inner)], code[slice(*inner)])
    for match in CALL.finditer(code, start, end):
        # Not what is governed by an "if" without braces: the line before ends a statement.
        before = code[: match.start()].rstrip()[-1:]
        if before in ";{}" and not re.match(r"(?:static_)?assert\(", match.group("call")):
            yield "a call left out", text[match.start("call") : match.end("call")], ""


def _in_expression(text, code):
    # What declares, assigns or chooses on the way has parts that are no conditions of their own.
    if re.search(r"(?<![=!<>])=(?!=)|\[[^\]]*\]\(|[;?]", code):
        return
    for match in OPERATOR.finditer(code):
        turned = text[: match.start()] + TURNED[match.group()] + text[match.end() :]
        yield "a comparison turned", text, turned
    for one, other in (("&&", "||"), ("||", "&&")):
        if code.count(one) == 1 and other not in code:
            yield "conditions joined otherwise", text, text.replace(one, other)
            left, right = text.split(one)
            yield "a condition dropped", text, f"bool({left.strip()})"
            yield "a condition dropped", text, f"bool({right.strip()})"
    for match in re.finditer(r" [+-] 1\b(?![\w'.])", code):
        yield "off by one", text, text[: match.start()] + text[match.end() :]
