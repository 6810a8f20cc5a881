"""Makes mutants of a C++ source, without a list: README.md describes the operators.

Works on the text, as clang-format leaves it, with comments, literals and preprocessor lines out of the
way. What it makes may not compile; that is for the caller to see.
"""
import dataclasses
import re

SHOWN = 70  # characters of the place in a mutant's name


@dataclasses.dataclass(frozen=True)
class Change:
    """Replaces source[start:end] by `new`."""
    name: str
    operator: str
    start: int
    end: int
    new: str

    def apply(self, source):
        return source[:self.start] + self.new + source[self.end:]


def masked(source):
    """The source with blanks for comments and preprocessor lines, and the literals' places."""
    text = list(source)
    literals = []
    token = re.compile(r'//[^\n]*|/\*.*?\*/|^[ \t]*#(?:[^\n\\]|\\.|\\\n)*|(?<!\w)\'(?:[^\'\\]|\\.)+\''
                       r'|"(?:[^"\\\n]|\\.)*"', re.DOTALL | re.MULTILINE)
    for found in token.finditer(source):
        if found[0][0] in "\"'":
            literals.append((found.start(), found.end()))
            blank = "_"
        else:
            blank = " "
        for at in range(found.start(), found.end()):
            if text[at] != "\n":
                text[at] = blank
    return "".join(text), literals


def closing(text, at):
    """Where the bracket that opens at `at` is closed."""
    depth = 0
    for place in range(at, len(text)):
        if text[place] in "([{":
            depth += 1
        elif text[place] in ")]}":
            depth -= 1
            if depth == 0:
                return place
    return len(text)


def functions(text):
    """Name, start and end of each function's body, its parameters and initialisers included."""
    found = []
    place = header = 0
    while place < len(text):
        if text[place] in ";}":
            header = place + 1
        elif text[place] == "{":
            before = text[header:place]
            name = re.search(r"(~?[A-Za-z_][\w:~]*)\s*\(", before)
            if name and not re.search(r"\b(?:class|struct|namespace|enum)\b", before):
                end = closing(text, place)
                # An initialiser of a member in braces is no body.
                found.append((name[1].split("::")[-1], header, end))
                place = end
            elif re.search(r"=\s*$", before):
                place = closing(text, place)
            header = place + 1
        place += 1
    return found


class Source:
    def __init__(self, source):
        self.source = source
        self.text, self.literals = masked(source)
        self.functions = functions(self.text)

    def function_at(self, place):
        return next((function for function in self.functions if function[1] <= place < function[2]),
                    None)

    def shown(self, start, end):
        words = " ".join(self.source[start:end].split())
        return words if len(words) <= SHOWN else words[:SHOWN] + "..."

    def statement(self, place):
        """The part of a statement around a place, for a name."""
        start = max(self.text.rfind(mark, 0, place) for mark in ";{}") + 1
        ends = [end for end in (self.text.find(mark, place) for mark in ";{}") if end >= 0]
        return self.shown(*self.without_blanks(start, min(ends, default=len(self.text))))

    def without_blanks(self, start, end):
        while start < end and self.text[start] in " \n":
            start += 1
        return start, end

    def changed(self, operator, start, end, new, place=None):
        """`place` is where the change is told to be, if not by the statement around it."""
        function = self.function_at(start)
        where = f"{function[0]}: " if function else ""
        if place is None:
            place = f"{self.shown(start, end)} -> {new or 'nothing'} in {self.statement(start)}"
        return Change(f"{where}{operator} {place}", operator, start, end, new)

    # ---- The operators ----

    def delete(self):
        heads = [(found.end() - 1, closing(self.text, found.end() - 1))
                 for found in re.finditer(r"\bfor \(", self.text)]
        for _, header, end in self.functions:
            body = self.text.index("{", header)
            for found in re.finditer(r"[;{}]\s*(?=[^\s;{}])", self.text[body:end]):
                start = body + found.end()
                statement_end = self.end_of_statement(start, end)
                if statement_end is None or not self.can_go(start, statement_end, end):
                    continue
                if any(head_start < start < head_end for head_start, head_end in heads):
                    continue
                yield self.changed("delete", start, statement_end, "",
                                   f"`{self.shown(start, statement_end)}`")

    def end_of_statement(self, start, limit):
        """Behind its semicolon; None for what is no simple statement."""
        if re.match(r"(?:if|for|while|do|switch|else|case|default|try|class|struct|public|private)\b",
                    self.text[start:]):
            return None
        place = start
        while place < limit:
            if self.text[place] in "([{":
                place = closing(self.text, place)
            elif self.text[place] in ")]}":
                return None
            elif self.text[place] == ";":
                return place + 1
            place += 1
        return None

    def can_go(self, start, end, limit):
        statement = self.text[start:end]
        if statement.startswith("return"):
            return self.text[end:limit].strip() != ""  # the last one is the function's value
        # A declaration can go only where what it declares is not used.
        declared = re.match(r"(?:const |static |constexpr )*[\w:]+(?:<[^;=]*>)?[*&]*(?: const)? [*&]?(\w+)"
                            r"(?=\s*[;=({])", statement)
        if not declared or re.match(r"(?:return|delete|throw|break|continue|goto)\b", statement):
            return True
        return not re.search(rf"\b{declared[1]}\b", self.text[end:limit])

    def replace_text(self):
        for start, end in self.literals:
            literal = self.source[start:end]
            if self.source[:start].endswith("extern "):
                continue
            if literal[0] == '"':
                new = literal[:-1] + ' "'
            else:
                new = r"'\1'"
            yield self.changed("text", start, end, new, self.shown(start, end))

    def numbers(self):
        # A comparison with 0 asks whether there is something; compare() turns it round.
        for found in re.finditer(r"(?<![\w.'])(?<![!=]= (?=0))(\d+)(?=[uUlL]*\b)(?![.'\w]*\w)",
                                 self.text):
            yield self.changed("number", found.start(1), found.end(1), str(int(found[1]) + 1))
        for found in re.finditer(r"\b(true|false)\b", self.text):
            other = "false" if found[1] == "true" else "true"
            yield self.changed("number", found.start(), found.end(), other)

    def negate(self):
        for found in re.finditer(r"\b(?:if|while) (?=\()", self.text):
            start, end = found.end() + 1, closing(self.text, found.end())
            # One comparison and one negation are turned round below and by compare().
            if re.search(r"&&|\|\|", self.text[start:end]) or not re.search(
                    r"(?:^!)|\s(?:[!=<>]=|[<>])\s", self.text[start:end]):
                yield self.changed("negate", start, end, f"!({self.source[start:end]})")
        for found in re.finditer(r"(?<=[ (])!(?=[\w(])", self.text):
            yield self.changed("negate", found.start(), found.end(), "")
        for found in re.finditer(r" \? ", self.text):
            colon = self.text.find(" : ", found.end())
            end = colon + 3
            while end < len(self.text) and self.text[end] not in ",;)":
                end = closing(self.text, end) + 1 if self.text[end] in "([{" else end + 1
            first, second = self.source[found.end():colon], self.source[colon + 3:end]
            yield self.changed("negate", found.end(), end, f"{second} : {first}")

    def compare(self):
        other = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}
        for found in re.finditer(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)", self.text):
            yield self.changed("compare", found.start(), found.end(), other[found[1]])

    def join(self):
        for found in re.finditer(r"&&|\|\|", self.text):
            if not self.text[found.end()].isspace():
                continue  # a reference
            start, end = self.operand_before(found.start()), self.operand_behind(found.end())
            other = "||" if found[0] == "&&" else "&&"
            yield self.changed("join", found.start(), found.end(), other)
            yield self.changed("join", start, found.end(), "")
            yield self.changed("join", found.start(), end, "")

    def operand_before(self, place):
        depth = 0
        while place > 0:
            place -= 1
            if self.text[place] in ")]}":
                depth += 1
            elif self.text[place] in "([{":
                if depth == 0:
                    return place + 1
                depth -= 1
            elif depth == 0 and (self.text[place] in ",;?:|&" or re.search(
                    r"\breturn $|[^=!<>]= $", self.text[max(0, place - 7):place + 1])):
                return place + 1
        return place

    def operand_behind(self, place):
        while place < len(self.text):
            if self.text[place] in "([{":
                place = closing(self.text, place)
            elif self.text[place] in ")]},;?" or self.text[place:place + 2] in ("&&", "||"):
                return place
            place += 1
        return place

    def exchange(self, one, other):
        for found in re.finditer(rf"\b({one}|{other})\b", self.text):
            new = other if found[1] == one else one
            yield self.changed("exchange", found.start(), found.end(), new)


def make(text, exchanges=()):
    """All mutants of a source, each with a name of its own, none with the text of another."""
    source = Source(text)
    changes = [*source.delete(), *source.replace_text(), *source.numbers(), *source.negate(),
               *source.compare(), *source.join()]
    for one, other in exchanges:
        changes += source.exchange(one, other)
    seen = {"".join(text.split())}
    names = {}
    for change in sorted(changes, key=lambda change: change.start):
        result = change.apply(text)
        if change.operator != "text":
            result = "".join(result.split())
        if result in seen:
            continue
        seen.add(result)
        names[change.name] = names.get(change.name, 0) + 1
        if names[change.name] > 1:
            change = dataclasses.replace(change, name=f"{change.name} ({names[change.name]})")
        yield change
