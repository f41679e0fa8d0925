#!/usr/bin/env python3
"""The manual pages of keel, section 3, from what Doxygen reads in the public headers: one page a header,
and for each function and data object that it declares an alias of that page.

usage: manual.py XML_DIR OUT_DIR VERSION DATE HEADER..."""
import datetime
import pathlib
import re
import sys
import textwrap
import xml.etree.ElementTree as ElementTree

# fstab(5) is what everybody looks for, and man looks into section 3 before 5: our page alone lists it.
SHADOWS = {"fstab"}


def escaped(text):
    return re.sub(r"(?<!\w)-(?=\d)", r"\-", text.replace("\\", "\\e"))


def literal(text):
    """A word or a line of code: what a reader copies is what stands in the header."""
    for character, escape in (("\\", r"\e"), ("-", r"\-"), ("'", r"\(aq"), ("`", r"\(ga"), ("^", r"\(ha"), ("~", r"\(ti")):
        text = text.replace(character, escape)
    return re.sub(r"^(?=\.)", r"\&", text)


def quoted(text):
    return '"' + text.replace('"', r"\(dq") + '"'


def plain(element):
    """The text of an element, with the blanks and line ends of listings."""
    if element is None:
        return ""
    parts = [" " if element.tag == "sp" else element.text or ""]
    for child in element:
        parts += [plain(child), "\n" if child.tag == "codeline" else child.tail or ""]
    return "".join(parts)


def name_of(member):
    return member.findtext("name")


def full_name_of(member):
    return member.findtext("qualifiedname") or name_of(member)


def declared(member):
    """A declaration, spaced as the headers space it, which Doxygen does not."""
    text = f"{plain(member.find('type'))} {name_of(member)}{member.findtext('argsstring') or ''}".strip()
    for pattern, spaced in ((r"(?<=\w)\s*\(\*\s*", " (*"), (r"\*\s*\(\*\s*", "*(*"), (r"([*&])\s+(?=\w)", r"\1"),
                            (r",(?=\S)", ", "), (r"<\s+", "<"), (r"\s+>", ">"), (r"(?<=\w)=(?=[\"{\w])", " = ")):
        text = re.sub(pattern, spaced, text)
    return text


class Prose:
    """Comments as lines of mdoc. Names of parameters are set in italics, other words of code in bold."""

    def __init__(self, parameters=()):
        self.parameters, self.lines = parameters, []

    def inline(self, element):
        if element.tag == "computeroutput":
            text = plain(element)
            return rf"\%\f{'I' if text in self.parameters else 'B'}{literal(text)}\fP"
        text = escaped(element.text or "")
        for child in element:
            text += ("\n.br\n" if child.tag == "linebreak" else self.inline(child)) + escaped(child.tail or "")
        return rf"\fB{text}\fP" if element.tag == "bold" else text

    def sentences(self, element):
        """One a line, as mdoc is written."""
        text = re.sub(r"\s+", " ", self.inline(element)).strip()
        text = re.sub(r"(?<![\\\w:])((?:\w+::)*\w+)\(\)", r"\\%\\fB\1\\fP()", text)
        text = re.sub(r"\b(x\w+\.h)\b", r"\\%\1", text)
        text = re.sub(r"(?<=[^.][.?!])(\\fP|[)\"])? (?=[A-Z0-9\\\"])", r"\1\n", text)
        for sentence in text.splitlines():
            lines = textwrap.wrap(sentence, 79, break_long_words=False, break_on_hyphens=False)
            self.lines += [re.sub(r"^(?=[.'])", r"\&", line) for line in lines]

    def listing(self, element, offset=" -offset indent"):
        self.lines += [f".Bd -literal{offset}", *map(literal, plain(element).strip("\n").split("\n")), ".Ed"]
        return self

    def items(self, element):
        if self.lines and self.lines[-1] == ".Pp":
            self.lines.pop()
        self.lines.append(f".Bl -{'enum' if element.tag == 'orderedlist' else 'bullet'} -width 3n")
        for item in element:
            self.lines.append(".It")
            self.blocks(item)
        self.lines.append(".El")

    def paragraph(self, element):
        """Doxygen nests lists and listings in paragraphs."""
        nested = {"programlisting": self.listing, "verbatim": self.listing, "itemizedlist": self.items, "orderedlist": self.items}
        run = ElementTree.Element("para")
        run.text = element.text
        for child in element:
            if child.tag not in nested:
                run.append(child)
                continue
            self.sentences(run)
            nested[child.tag](child)
            run = ElementTree.Element("para")
            run.text = child.tail
            if (child.tail or "").strip():
                self.lines.append(".Pp")
        self.sentences(run)

    def blocks(self, element):
        for child in element if element is not None else ():
            if child.tag == "para":
                if self.lines and not self.lines[-1].startswith((".It", ".Ss", ".Pp")):
                    self.lines.append(".Pp")
                self.paragraph(child)
                if self.lines and self.lines[-1] == ".Pp":
                    self.lines.pop()
            elif child.tag.startswith("sect"):
                self.lines.append(f".Ss {plain(child.find('title'))}")
                self.blocks(child)
        return self


def described(member):
    parameters = [plain(name) for p in member.findall("param") for name in p if name.tag in ("declname", "defname")]
    return Prose(parameters).blocks(member.find("detaileddescription")).lines


def entries(labelled, compact=""):
    """A tagged list of members under their labels; of none, nothing."""
    lines = [line for label, member in labelled for line in (f".It {label}", *described(member))]
    return [f".Bl -tag -width Ds{compact}", *lines, ".El"] if lines else []


def line_of(member):
    return int(member.find("location").get("line"))


def first_line(group):
    return min(map(line_of, group.findall("memberdef")), default=0)


def label(member):
    before, behind = re.split(rf"(?<!\w){re.escape(name_of(member))}(?!\w)", declared(member), maxsplit=1)
    return quoted(rf"{literal(before)}\fB{name_of(member)}\fP{literal(behind)}")


def label_of_macro(macro):
    parameters = ", ".join(p.findtext("defname") for p in macro.findall("param"))
    value = plain(macro.find("initializer"))
    behind = f"({parameters})" if parameters else f" {value}" if re.fullmatch(r"\w+", value) else ""
    return quoted(rf"\fB{name_of(macro)}\fP{behind}".strip())


class Page:
    def __init__(self, header, compounds):
        self.header, self.file = header, compounds[header]
        scopes = [self.file, *(compounds[n.text] for n in self.file.findall("innernamespace"))]
        self.groups = sorted((group for scope in scopes for group in scope.findall("sectiondef")), key=first_line)
        names = {r.text for scope in scopes for r in scope.findall("innerclass") if r.get("prot") == "public"}
        self.records = sorted((compounds[name] for name in names), key=line_of)
        self.name = header.removesuffix(".h")
        self.brief = " ".join(plain(self.file.find("briefdescription")).split()).removesuffix(".")
        # The usage program, which stands in the header's comment, has a section of its own.
        self.example = None
        for paragraph in self.file.find("detaileddescription").iter("para"):
            for listing in paragraph.findall("programlisting[@filename]"):
                paragraph.remove(listing)
                self.example = listing

    def members(self, kind):
        found = (m for group in self.groups for m in group.findall("memberdef") if m.get("kind") == kind)
        return sorted(found, key=line_of)

    def aliases(self):
        """What the library exports; what is there for C++ alone is inline, and in a namespace."""
        members = self.members("function") + self.members("variable") if self.header.endswith(".h") else []
        names = [name_of(member) for member in members]
        return [name for name in dict.fromkeys(names) if name not in SHADOWS]

    def synopsis(self):
        yield f".In {self.header}"
        for record in self.records:
            yield f".Vt {record.get('kind')} {record.findtext('compoundname')} ;"
        for member in self.members("typedef"):
            yield f".Vt {quoted(f'typedef {declared(member)};')}"
        for member in self.members("variable"):
            yield f".Vt {quoted('extern ' * self.header.endswith('.h') + declared(member) + ';')}"
        for function in self.members("function"):
            returned, arguments = re.fullmatch(rf"(.*?)\b{name_of(function)}\((.*)\).*", declared(function)).groups()
            yield from (f".Ft {quoted(returned.strip())}", f".Fo {full_name_of(function)}")
            yield from (f".Fa {quoted(argument)}" for argument in re.split(r", (?![^()]*\))", arguments))
            yield ".Fc"

    def functions(self):
        for group in self.groups:
            found = [m for m in group.findall("memberdef") if m.get("kind") == "function"]
            if found and group.find("header") is not None:
                yield f".Ss {escaped(group.findtext('header'))}"
                yield from Prose().blocks(group.find("description")).lines
            yield from entries((f"Fn {full_name_of(m)}", m) for m in found)

    def record_types(self):
        for record in self.records:
            yield f".Ss {record.get('kind')} {record.findtext('compoundname')}"
            yield from (*described(record), ".Pp")
            members = [m for m in record.iter("memberdef") if m.get("prot") == "public"]
            if self.header.endswith(".hpp"): # where a class has members that go without saying
                members = [m for m in members if described(m)]
            yield from entries(((label(m), m) for m in sorted(members, key=line_of)), " -compact")

    def constants(self):
        yield from entries((label_of_macro(m), m) for m in self.members("define"))
        for enumeration in self.members("enum"):
            yield from (".Pp", *described(enumeration))
            yield from entries((f"Dv {name_of(v)}", v) for v in enumeration.findall("enumvalue"))

    def see_also(self, pages):
        """The families that the header includes or names; the overview has its list of them."""
        told = ("includes", "briefdescription", "detaileddescription")
        text = " ".join(plain(e) for compound in (self.file, *self.records) for e in compound.iter() if e.tag in told)
        seen = sorted(p.name for p in pages if p is not self and (p.name == "keel" or re.search(rf"\b{p.header}", text)))
        return [f".Xr {name} 3{' ,' * (name != seen[-1])}" for name in seen if self.name != "keel"]

    def families(self, pages):
        """The overview's page lists the others."""
        others = (p for p in pages if p is not self) if self.name == "keel" else ()
        lines = [line for p in others for line in (f".It Xr {p.name} 3", f"{escaped(p.brief)}.")]
        return [".Bl -tag -width xthread_util(3)", *lines, ".El"] if lines else []

    def text(self, pages, version, date):
        names = [self.name, *self.aliases()]
        lines = [f".Dd {date:%B} {date.day}, {date.year}", f'.Dt {self.name.upper()} 3', ".ds doc-volume keel manual", f".Os {quoted(f'keel {version}')}"]
        lines += [".Sh NAME", *(f".Nm {name} ," for name in names[:-1]), f".Nm {names[-1]}", f".Nd {escaped(self.brief)}"]
        sections = {
            "LIBRARY": [r"keel (libkeel, \-lkeel)"],
            "SYNOPSIS": self.synopsis(),
            "DESCRIPTION": described(self.file),
            "FUNCTIONS": self.functions(),
            "DATA": entries((label(m), m) for m in self.members("variable")),
            "TYPES": entries((label(m), m) for m in self.members("typedef")),
            "RECORDS": self.record_types(),
            "CONSTANTS": self.constants(),
            "FAMILIES": self.families(pages),
            "EXAMPLES": Prose().listing(self.example, offset="").lines if self.example is not None else [],
            "SEE ALSO": self.see_also(pages),
        }
        for title, section in sections.items():
            section = list(section)
            lines += [f".Sh {title}", *section] if section else []
        return "\n".join(lines) + "\n"


def compounds_in(directory):
    """By name. A namespace or a record bears no name that a header has."""
    found = {}
    for path in directory.glob("*.xml"):
        for compound in ElementTree.parse(path).iter("compounddef"):
            if compound.get("kind") not in ("dir", "page"):
                found[compound.findtext("compoundname")] = compound
    return found


def main(xml_directory, out_directory, version, date, *headers):
    compounds = compounds_in(pathlib.Path(xml_directory))
    pages = [Page(header, compounds) for header in headers]
    out = pathlib.Path(out_directory)
    out.mkdir(parents=True, exist_ok=True)
    for old in out.glob("*.3"):
        old.unlink()
    for page in pages:
        (out / f"{page.name}.3").write_text(page.text(pages, version, datetime.date.fromisoformat(date)))
    for page in pages:
        for name in page.aliases():
            alias = out / f"{name}.3"
            if not alias.exists():
                alias.write_text(f".so man3/{page.name}.3\n")


main(*sys.argv[1:])
