"""Shows Doxygen the comments of a header, which are ordinary ones, as documentation.

What the filter relies on is how the headers are written: a comment at the head of a file is about the file,
and about its first class that has none of its own; one right above a declaration is about it and about those
that follow down to the next empty line; one behind a declaration is about that. Any other comment, with an
empty line below it, is about nothing in particular. In platform/, what has no comment is as in Win32.
"""
import re
import sys

COMMAND = r"(?:param|return|retval|note)\b"
NO_DECLARATION = re.compile(r"#|[{}]|(?:public|protected|private):|namespace\b|friend (?:class|struct)\b|template\b|extern \"C|static_assert")


def text_of(comment):
    """The lines of a comment without its marks, safe from Doxygen's own meaning of signs."""
    joined = "\n".join(line.strip() for line in comment)
    if joined.startswith("/*"):
        inner = [re.sub(r"^\*(?!/) ?", "", line) for line in joined[2:].rsplit("*/", 1)[0].lstrip("*<").split("\n")]
    else:
        inner = [re.sub(r"^///?<? ?", "", line) for line in joined.split("\n")]
    if re.match(r"-{3,}", inner[0].strip()):
        return []
    return [re.sub(rf"@(?!{COMMAND})", "@@", re.sub(r"([\\#%])", r"\\\1", line))
            .replace("&", "&amp;").replace("<", "\\<").replace(">", "\\>") for line in inner]


def documentation(comment, mark):
    lines = [line for line in text_of(comment)]
    if not any(line.strip() for line in lines):
        return ""
    return f"/**{mark} " + "\n".join(lines).strip() + " */"


def split_trailing(line):
    """Code and the comment behind it."""
    match = re.match(r"""((?:[^"'/]|"(?:[^"\\]|\\.)*"|'(?:[^'\\]|\\.)*'|/(?![/*]))*[^\s/])\s*(//.*|/\*.*\*/)\s*$""", line)
    return (match.group(1), match.group(2)) if match else (line, "")


class Filter:
    def __init__(self, lines):
        self.lines = lines
        self.at = 0
        self.out = []
        self.head = []
        self.mirrors = re.search(r"platform/\w+\.h$", sys.argv[1])

    def take_comment(self):
        """The comment that begins here, a block or consecutive lines."""
        begin = self.at
        if self.lines[begin].lstrip().startswith("//"):
            while self.at < len(self.lines) and self.lines[self.at].lstrip().startswith("//"):
                self.at += 1
        else:
            while "*/" not in self.lines[self.at]:
                self.at += 1
            self.at += 1
        return self.lines[begin:self.at]

    def take_trailing(self, first):
        """A comment behind code, with the lines below that hold nothing but its end."""
        comment = [first]
        while (first.startswith("//") and self.at < len(self.lines)
               and re.match(r"\s{8,}//", self.lines[self.at])):
            comment.append(self.lines[self.at])
            self.at += 1
        return comment

    def take_declaration(self):
        """The code lines of one declaration; a body in braces belongs to it if it begins and ends on a line."""
        begin, depth = self.at, 0
        while self.at < len(self.lines):
            code = split_trailing(self.lines[self.at])[0]
            depth += code.count("(") - code.count(")")
            self.at += 1
            if depth <= 0 and re.search(r"[;{},:]\s*$", code):
                break
        return self.lines[begin:self.at]

    def emit(self, declaration, comment):
        if not comment and re.match(r"class\b[^;]*\{$", " ".join(declaration)):
            comment, self.head = self.head, []
        if not comment and self.mirrors and "Plat" not in " ".join(declaration):
            comment = ["// As Win32."]
        code = [split_trailing(line) for line in declaration]
        behind = [c for _, c in code if c]
        if behind:
            comment = self.take_trailing(behind[-1])
            self.out += [c for c, _ in code[:-1]]
            self.out.append(code[-1][0] + " " + documentation(comment, "<"))
        else:
            if comment:
                self.out.append(documentation(comment, ""))
            self.out += declaration

    def run(self):
        comment, depth_of = [], -1
        head = True
        while self.at < len(self.lines):
            line = self.lines[self.at]
            if re.match(r"\s*(//|/\*)", line):
                comment = self.take_comment()
                follows = self.lines[self.at].strip() if self.at < len(self.lines) else ""
                if head:
                    self.out += ["/** @file", *text_of(comment), "*/"]
                    self.head = comment
                    comment = []
                elif not follows or re.match(r"#(include|ifdef|ifndef|else|endif)", follows):
                    comment = []
                depth_of = len(line) - len(line.lstrip())
                head = False
            elif line.startswith("#define"):
                while self.lines[self.at].endswith("\\"):
                    self.at += 1
                self.at += 1
                begin = self.lines.index(line, max(0, self.at - 20))
                self.emit(self.lines[begin:self.at] if begin + 1 < self.at else [line], comment)
            elif not line.strip() or NO_DECLARATION.match(line.strip()):
                if not line.strip().startswith(("template", "#", "{", "}")):
                    comment = []
                if line.strip().startswith("template") and comment:
                    self.out.append(documentation(comment, ""))
                    comment = []
                self.out.append(line)
                self.at += 1
                head = head and (not line.strip() or line.startswith("#pragma"))
            else:
                head = False
                indent = len(line) - len(line.lstrip())
                self.emit(self.take_declaration(), comment if indent == depth_of else [])
                if re.match(r"\s*(class|struct|union|enum)\b.*\{$", line):
                    comment = []
        return "\n".join(self.out) + "\n"


sys.stdout.write(Filter(open(sys.argv[1], encoding="utf-8").read().split("\n")).run())
