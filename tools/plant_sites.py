"""Where tools/plant can plant a fault: finds the places in a .cpp file with libclang, and writes the file with chosen
ones made switchable.

A place is kept only where the changed text can stand beside the original one in the same expression. What must be
constant at compile time, sizes of arrays, macros and log calls are left out. The rest that does not compile after all is
left out by tools/plant when the compiler says so.
"""

import bisect
import dataclasses
import hashlib
import re

SWAPS = {
    "<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&", "+": "-", "-": "+",
    "*": "+", "/": "*", "%": "/", "<<": ">>", ">>": "<<", "&": "|", "|": "&", "^": "&",
    "+=": "-=", "-=": "+=", "*=": "+=", "/=": "*=", "|=": "&=", "&=": "|=", "^=": "|=", "<<=": ">>=", ">>=": "<<=",
}

# Calls whose loss or whose arguments only change what is logged, or how much room is kept.
NO_FAULT = re.compile(r"(^|_)(log|trace|reserve|debugf?)(_|$)|^(va_start|va_end|va_copy|__builtin_\w+|log_sys|log_suite|static_assert)$")
LOG_FOLDER = re.compile(r"(^|/)log(/|$)")

LAST_NUMBER = 0xFFFFFF

LAMBDA = re.compile(r"\[[&=\w, *]*\]\s*(\(|\{|mutable)")
COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.S)
NUMBER = re.compile(r"^(0[xX][0-9a-fA-F']+|0[bB][01']+|[0-9][0-9']*)([uUlLzZ]*)$")


@dataclasses.dataclass
class Site:
    file: str  # below src
    function: str
    line: int
    start: int  # octets of the file
    end: int
    form: str  # how it is written: swap, flip, lose, zero
    what: str  # kind of fault, for people
    original: str
    mutated: str
    constant: bool  # stands in a constexpr function
    key: str = ""  # what its number is made of
    ident: int = 0


def flat(text):
    """One line without comments: can stand a second time in the same expression."""
    return " ".join(COMMENT.sub(" ", text).split())


def changed_number(text):
    match = NUMBER.match(text)
    if not match:
        return None
    digits, suffix = match.groups()
    digits = digits.replace("'", "")
    if digits[:2] in ("0x", "0X"):
        return f"{int(digits, 16) + 1:#x}{suffix}"
    if digits[:2] in ("0b", "0B"):
        return f"{int(digits, 2) + 1:#b}{suffix}"
    if len(digits) > 1 and digits[0] == "0":
        return f"0{int(digits, 8) + 1:o}{suffix}"
    value = int(digits)
    return f"{0 if value == 1 else value + 1}{suffix}"


class Finder:
    def __init__(self, cindex, name, text, arguments, path):
        self.c = cindex
        self.k = cindex.CursorKind
        self.name, self.text, self.path = name, text, path
        self.sites = []
        self.in_log = bool(LOG_FOLDER.search(name.rsplit("/", 1)[0] if "/" in name else ""))
        index = cindex.Index.create()
        unit = index.parse(path, arguments, options=cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
        self.line_starts = [0] + [m.end() for m in re.finditer("\n", text)]
        self.macros = []
        tops = []
        for cursor in unit.cursor.get_children():
            place = cursor.location
            if place.file is None or place.file.name != path:
                continue
            if cursor.kind == self.k.MACRO_INSTANTIATION:
                extent = cursor.extent
                self.macros.append((extent.start.offset, extent.end.offset))
            else:
                tops.append(cursor)
        self.macros.sort()
        for cursor in tops:
            self.outside(cursor)

    # ---- what stands outside of functions ----

    def outside(self, c):
        k = self.k
        if c.kind in (k.FUNCTION_DECL, k.CXX_METHOD, k.CONSTRUCTOR, k.DESTRUCTOR, k.CONVERSION_FUNCTION, k.FUNCTION_TEMPLATE):
            self.function(c)
        elif c.kind in (k.NAMESPACE, k.CLASS_DECL, k.STRUCT_DECL, k.CLASS_TEMPLATE, k.UNEXPOSED_DECL, k.LINKAGE_SPEC):
            for child in c.get_children():
                self.outside(child)

    def function(self, c):
        if not c.is_definition():
            return
        start, name_at = c.extent.start.offset, c.location.offset
        head = self.text[start:name_at]
        if re.search(r"\bconsteval\b", head):
            return
        name = c.spelling
        if not self.in_log and NO_FAULT.search(name):
            return
        parent = c.semantic_parent
        if parent is not None and parent.kind in (self.k.CLASS_DECL, self.k.STRUCT_DECL, self.k.CLASS_TEMPLATE):
            name = f"{parent.spelling}::{name}"
        self.fn = name
        self.constant = bool(re.search(r"\bconstexpr\b", head))
        self.reference = c.result_type.kind in (self.c.TypeKind.LVALUEREFERENCE, self.c.TypeKind.RVALUEREFERENCE)
        for child in c.get_children():
            if child.kind == self.k.COMPOUND_STMT:
                self.walk(child)

    # ---- inside ----

    def span(self, c):
        extent = c.extent
        return extent.start.offset, extent.end.offset

    def in_macro(self, start, end):
        at = bisect.bisect_right(self.macros, (start, 1 << 60)) - 1
        return at >= 0 and self.macros[at][0] <= start and end <= self.macros[at][1]

    def add(self, start, end, form, what, mutated):
        raw = self.text[start:end]
        if not raw or "\n#" in raw or (form == "swap" and LAMBDA.search(raw)):
            return
        line = bisect.bisect_right(self.line_starts, start)
        self.sites.append(Site(self.name, self.fn, line, start, end, form, what, flat(raw), flat(mutated), self.constant))

    def operator_between(self, left, right):
        """(text of the operator, its start, its end), or None when there is more than an operator between them."""
        begin, end = self.span(left)[1], self.span(right)[0]
        if begin >= end:
            return None
        raw = self.text[begin:end]
        word = flat(raw)
        at = raw.find(word)
        return (word, begin + at, begin + at + len(word)) if word and at >= 0 else None

    def swap(self, start, end, children):
        found = self.operator_between(children[0], children[-1])
        if found and found[0] == "-" and children[-1].type.get_canonical().kind == self.c.TypeKind.POINTER:
            return  # the sum of two pointers
        if found and found[0] in SWAPS and start <= found[1] and found[2] <= end:
            word, at, after = found
            self.add(start, end, "swap", word, self.text[start:at] + SWAPS[word] + self.text[after:end])

    def peel(self, c):
        """Below the nodes that only say that temporaries end here, or that a value is converted."""
        while c.kind == self.k.UNEXPOSED_EXPR:
            children = list(c.get_children())
            if len(children) != 1 or self.span(children[0]) != self.span(c):
                break
            c = children[0]
        return c

    def condition(self, c):
        k = self.k
        start, end = self.span(c)
        if not k.is_expression(c.kind) or start >= end or self.in_macro(start, end):
            return
        c = self.peel(c)
        text = flat(self.text[start:end])
        if c.kind == k.BINARY_OPERATOR or text.startswith("!") or c.kind in (k.INTEGER_LITERAL, k.CXX_BOOL_LITERAL_EXPR):
            return
        if c.kind == k.CALL_EXPR and re.match(r"operator\W", c.spelling):
            return
        self.add(start, end, "flip", "condition", f"!({text})")

    def statement(self, c):
        """A whole statement that could be lost."""
        k = self.k
        c = self.peel(c)
        start, end = self.span(c)
        if start >= end or self.in_macro(start, end):
            return
        if c.kind == k.CALL_EXPR:
            if not self.quiet(c):
                self.add(start, end, "lose", "lost call", "")
        elif c.kind == k.CSTYLE_CAST_EXPR and re.match(r"\(\s*void\s*\)", self.text[start:end]):
            inner = list(c.get_children())
            if inner and self.peel(inner[-1]).kind == k.CALL_EXPR and not self.quiet(self.peel(inner[-1])):
                self.add(start, end, "lose", "lost call", "")
        elif c.kind == k.BINARY_OPERATOR:
            children = list(c.get_children())
            found = self.operator_between(children[0], children[1]) if len(children) == 2 else None
            if found and found[0] == "=":
                self.add(start, end, "lose", "lost assignment", "")

    def quiet(self, c):
        return not self.in_log and bool(NO_FAULT.search(c.spelling or ""))

    def returned(self, c):
        k = self.k
        children = list(c.get_children())
        if not children or self.reference:
            return
        value = self.peel(children[0])
        start, end = self.span(children[0])
        if start >= end or self.in_macro(start, end) or self.text[start] == "{":
            return
        if value.kind in (k.BINARY_OPERATOR, k.INTEGER_LITERAL, k.CXX_BOOL_LITERAL_EXPR, k.CXX_NULL_PTR_LITERAL_EXPR, k.INIT_LIST_EXPR):
            return
        if value.kind == k.DECL_REF_EXPR and value.referenced is not None and value.referenced.kind == k.ENUM_CONSTANT_DECL and value.referenced.enum_value == 0:
            return
        kind = children[0].type.get_canonical().kind
        t = self.c.TypeKind
        text = flat(self.text[start:end])
        if kind == t.BOOL:
            if not text.startswith("!"):
                self.add(start, end, "flip", "return", f"!({text})")
        elif kind in (t.POINTER, t.INT, t.UINT, t.LONG, t.ULONG, t.LONGLONG, t.ULONGLONG, t.SHORT, t.USHORT, t.UCHAR, t.SCHAR,
                      t.CHAR_S, t.CHAR_U, t.ENUM) and text not in ("nullptr", "NULL") and not text.startswith('"'):
            self.add(start, end, "zero", "return", "nullptr" if kind == t.POINTER else "0")

    def walk(self, c):
        k, kind = self.k, c.kind
        if kind in (k.STATIC_ASSERT, k.ENUM_DECL, k.CXX_UNARY_EXPR, k.DECL_REF_EXPR, k.TYPE_REF, k.TEMPLATE_REF, k.STRING_LITERAL,
                    k.CLASS_DECL, k.STRUCT_DECL, k.TYPEDEF_DECL, k.TYPE_ALIAS_DECL, k.USING_DECLARATION):
            return
        start, end = self.span(c)
        if self.in_macro(start, end):
            return
        children = list(c.get_children())
        if kind == k.CALL_EXPR:
            if self.quiet(c) or c.spelling == "reserve":
                return
            if re.match(r"operator(<|>|=|!|\+|-)", c.spelling or "") and len(children) == 3:
                if c.spelling != "operator=":
                    self.swap(start, end, children)
        elif kind == k.VAR_DECL:
            if re.search(r"\bconstexpr\b", self.text[start:c.location.offset]):
                return
            after = c.location.offset
            array = c.type.kind == self.c.TypeKind.CONSTANTARRAY
            children = [x for x in children if self.span(x)[0] >= after and not (array and x.kind != k.INIT_LIST_EXPR)]
        elif kind in (k.BINARY_OPERATOR, k.COMPOUND_ASSIGNMENT_OPERATOR) and len(children) == 2:
            self.swap(start, end, children)
        elif kind == k.UNARY_OPERATOR:
            text = self.text[start:end]
            if text.startswith("!"):
                self.add(start, end, "swap", "lost !", f"static_cast<bool>({text[1:]})")
            elif text[:2] in ("++", "--"):
                self.add(start, end, "swap", text[:2], ("--" if text[0] == "+" else "++") + text[2:])
            elif text[-2:] in ("++", "--"):
                self.add(start, end, "swap", text[-2:], text[:-2] + ("--" if text[-1] == "+" else "++"))
        elif kind == k.INTEGER_LITERAL:
            mutated = changed_number(self.text[start:end])
            if mutated:
                self.add(start, end, "swap", "constant", mutated)
            return
        elif kind == k.CXX_BOOL_LITERAL_EXPR:
            text = self.text[start:end]
            if text in ("true", "false"):
                self.add(start, end, "swap", "constant", "false" if text == "true" else "true")
            return
        elif kind == k.RETURN_STMT:
            self.returned(c)
        elif kind == k.COMPOUND_STMT:
            for child in children:
                self.statement(child)
        elif kind in (k.CASE_STMT, k.DEFAULT_STMT):
            if kind == k.CASE_STMT:
                children = children[1:]
            if children:
                self.statement(children[-1])
        elif kind == k.IF_STMT:
            if re.match(r"if\s+constexpr\b", self.text[start:end]):
                children = children[1:]
            else:
                self.if_parts(children)
        elif kind == k.WHILE_STMT and len(children) == 2:
            self.condition(children[0])
            self.statement(children[1])
        elif kind in (k.FOR_STMT, k.CXX_FOR_RANGE_STMT) and children:
            self.statement(children[-1])
        elif kind == k.CONDITIONAL_OPERATOR and len(children) == 3:
            self.condition(children[0])
        elif kind == k.CXX_NEW_EXPR:
            return
        for child in children:
            self.walk(child)

    def if_parts(self, children):
        if len(children) < 2:
            return
        between = self.text[self.span(children[-2])[1]:self.span(children[-1])[0]]
        has_else = len(children) > 2 and re.search(r"\belse\b", COMMENT.sub(" ", between))
        bodies = children[-2:] if has_else else children[-1:]
        if not any(child.kind == self.k.VAR_DECL for child in children):
            self.condition(children[len(children) - len(bodies) - 1])
        for body in bodies:
            self.statement(body)


def find(cindex, name, path, arguments):
    with open(path, "rb") as stream:
        text = stream.read().decode("latin-1")
    sites = Finder(cindex, name, text, arguments, path).sites
    # The same fault twice in a function: the first, the second.
    seen = {}
    for site in sorted(sites, key=lambda s: (s.start, s.end)):
        key = "|".join((site.function, site.original, site.what, site.mutated))
        seen[key] = seen.get(key, 0) + 1
        site.key = f"{key}|{seen[key]}"
    return sites


def number(sites):
    """Gives each site its number, made of its function and its text alone, so that it stays when other code changes and
    when a file is moved; where two files have the same, the file's name decides."""
    files = {}
    for site in sites:
        files.setdefault(site.key, set()).add(site.file)
    taken, kept = set(), []
    for site in sorted(sites, key=lambda s: (s.key, s.file)):
        key = site.key
        if len(files[key]) > 1:
            key += "|" + site.file.rsplit("/", 1)[-1]
        ident = int.from_bytes(hashlib.sha256(key.encode("latin-1", "replace")).digest()[:4], "big") & LAST_NUMBER
        while ident in taken or ident == 0:  # rare
            ident = (ident + 1) & LAST_NUMBER
        taken.add(ident)
        site.ident = ident
        kept.append(site)
    return kept


def planted_text(site, inner):
    ask = f"{'planted_constant' if site.constant else 'planted'}({site.ident:#08x}u)"
    if site.form == "flip":
        return f"({ask} != static_cast<bool>({inner}))"
    if site.form == "lose":
        return f"({ask} ? (void)0 : (void)({inner}))"
    if site.form == "zero":
        name = "planted_zero_constant" if site.constant else "planted_zero"
        return f"{name}({site.ident:#08x}u, {inner})"
    return f"({ask} ? ({site.mutated}) : ({inner}))"


def write(text, sites):
    """The text with `sites` made switchable; every line keeps its number."""
    chosen = sorted(sites, key=lambda s: (s.start, -s.end, s.form))

    def render(begin, end, at, limit):
        out, place = [], begin
        while at < limit:
            site = chosen[at]
            inside = at + 1
            while inside < limit and chosen[inside].start < site.end:
                inside += 1
            out.append(text[place:site.start])
            out.append(planted_text(site, render(site.start, site.end, at + 1, inside)))
            place, at = site.end, inside
        out.append(text[place:end])
        return "".join(out)

    return render(0, len(text), 0, len(chosen))


HEADER = """// Written by tools/plant.
#pragma once
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <type_traits>

inline std::uint32_t planted_number;      // the fault that is in force, or 0
inline unsigned char* planted_reached;    // one octet a fault, when it is noted which of them are reached
inline bool planted_asked;

__attribute__((constructor(101))) inline void planted_setup() {
    if (planted_asked) return;
    planted_asked = true;
    if (const char* number = ::getenv("PLANT_NUMBER")) planted_number = static_cast<std::uint32_t>(::strtoul(number, nullptr, 10));
    const char* path = ::getenv("PLANT_REACHED");
    if (!path) return;
    const int fd = ::open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) return;
    void* map = ::mmap(nullptr, 1 << 24, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (map != MAP_FAILED) planted_reached = static_cast<unsigned char*>(map);
}
namespace {
[[maybe_unused]] const bool planted_ready = (planted_setup(), true);
}

inline bool planted(std::uint32_t number) {
    if (__builtin_expect(planted_reached != nullptr, 0)) planted_reached[number] = 1;
    return number == planted_number;
}
template <class T>
T planted_zero(std::uint32_t number, T value) {
    return planted(number) ? T{} : value;
}
constexpr bool planted_constant(std::uint32_t number) {
    return std::is_constant_evaluated() ? false : planted(number);
}
template <class T>
constexpr T planted_zero_constant(std::uint32_t number, T value) {
    return planted_constant(number) ? T{} : value;
}
"""
