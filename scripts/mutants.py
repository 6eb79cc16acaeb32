#!/usr/bin/env python3
"""Changes one thing at one place of the sources, builds, and runs the tests that can see it, nearest first; then the
next one. A change that they do not notice shows a behaviour that has no test. usage: scripts/mutants.sh, which see.

Works in a copy of the tree, build/mutants/tree; the sources themselves are only read.
"""
import argparse
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import time

source = pathlib.Path(__file__).resolve().parent.parent
tree, build = source / "build/mutants/tree", source / "build/mutants/build"
listed_file = source / "tests/mutants.equivalent"

# The programs that see a folder's sources, those that are asked first in front.
tests_of = {
    "agent": "agent capi faults",
    "foundation": "foundation evtmgr agent faults",
    "evtmgr": "evtmgr foundation faults",
    "trace": "trace evtmgr faults",
    "dolrtl": "dolrtl faults capi",
    "devlink": "dolrtl device",
    "device": "device dolrtl capi",
    "platform": "platform foundation evtmgr trace dolrtl",
    "session": "session",
    "capi": "capi",
    "hub": "hub",
    "web": "web",
}

# What these do is seen under Wine or at a terminal, not by the programs above.
left_out = re.compile(r"platform/windows/|platform/posix/desktop/")
no_code = re.compile(r"""//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|(?<![0-9])'(?:\\.|[^'\\\n])+'|^[ \t]*\#(?:\\\n|[^\n])*""",
                     re.DOTALL | re.MULTILINE)
unseen = re.compile(r"\b(?:static_assert|PLAT_CHECK|G_REPORT|__attribute__)(?=\()")
swaps = {"<": "<= >=", "<=": "< >", ">": ">= <=", ">=": "> <", "==": "!=", "!=": "==", "&&": "||", "||": "&&",
         "+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "&": "|", "|": "&", "<<": ">>", ">>": "<<", "+=": "-=",
         "-=": "+=", "|=": "&=", "&=": "|="}
words = {"true": "false", "false": "true", "TRUE": "FALSE", "FALSE": "TRUE", "++": "--", "--": "++"}
binary = re.compile(r"(?<= )(?:%s)(?=[ \n])" % "|".join(re.escape(s) for s in sorted(swaps, key=len, reverse=True)))
word = re.compile(r"\b(?:true|false|TRUE|FALSE)\b|\+\+|--")
number = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F]+|[0-9]+)([uUlL]*)(?![\w.'])")
negation = re.compile(r"(?<=[(\s])!(?=[\w(:])")
condition = re.compile(r"\b(?:if|while) (?=\()")
keyword = r"(?!(?:return|if|while|for|switch|throw|case|default|else|using|static_assert|PLAT_CHECK|G_REPORT)\b)"
call = re.compile(r"(?<=[;{}:])\s*^ +(" + keyword + r"(?:\w+(?:::|\.|->))*\w+)(?=\()", re.MULTILINE)
assignment = re.compile(r"(?<=[;{}:])\s*^ +(" + keyword + r"[\w.\->\[\]*]+ [-+|&]?= [^;{}]*;|delete [^;]*;)", re.MULTILINE)


def code_of(text):
    """The text with blanks in place of all that is no code, so that places stay the same."""
    code = no_code.sub(lambda match: re.sub(r"[^\n]", " ", match[0]), text)
    for match in unseen.finditer(code):
        end = after_parenthesis(code, match.end())
        code = code[:match.start()] + " " * (end - match.start()) + code[end:]
    return code


def after_parenthesis(code, start):
    depth = 0
    for place in range(start, len(code)):
        depth += {"(": 1, ")": -1}.get(code[place], 0)
        if depth == 0:
            return place + 1
    return len(code)


def places_of(code):
    """All places as (start, end, texts to put there instead)."""
    for match in binary.finditer(code):
        yield match.start(), match.end(), swaps[match[0]].split()
    for match in word.finditer(code):
        yield match.start(), match.end(), [words[match[0]]]
    for match in number.finditer(code):
        value = int(match[1], 0) if match[1] != "0" * len(match[1]) else 0
        yield match.start(), match.end(), [f"{value + step}{match[2]}" for step in (1, -1) if value + step >= 0]
    for match in negation.finditer(code):
        yield match.start(), match.end(), [""]
    for match in condition.finditer(code):
        end = after_parenthesis(code, match.end())
        if not re.search(r";| = ", code[match.end():end]):  # a declaration cannot be negated
            yield match.end(), end, ["(!" + code[match.end():end] + ")"]
    for match in call.finditer(code):
        end = after_parenthesis(code, match.end())
        if code[end:end + 1] == ";":
            yield match.start(1), end, [""]
    for match in assignment.finditer(code):
        yield match.start(1), match.end(1), [";"]


class Mutant:
    def __init__(self, room, file, text, place, new):
        start, end, _ = place
        if new.startswith("(!"):
            new = "(!" + text[start:end] + ")"  # with its texts, which the code lacks
        self.room, self.file, self.text = room, file, text[:start] + new + text[end:]
        first, last = text.rfind("\n", 0, start) + 1, text.find("\n", end)
        self.line = text.count("\n", 0, start) + 1
        self.old = " ".join(text[first:last].split())
        self.new = " ".join((text[first:start] + new + text[end:last]).split())

    def name(self):
        return f"{self.file}\n- {self.old}\n+ {self.new}"


def room_of(file):
    return file.split("/")[0]


def draw(rooms, count, rng):
    """As many from each of the rooms, no place twice."""
    tracked = output("git", "ls-files", "*.cpp")
    mutants = []
    for index, room in enumerate(rooms):
        places = []
        for file in sorted(f for f in tracked if (f + "/").startswith(room + "/") and not left_out.match(f)):
            text = (source / file).read_text()
            places += [(file, text, place) for place in sorted(places_of(code_of(text)), key=lambda p: p[:2])]
        if not places:
            sys.exit(f"mutants: there are no sources in {room}")
        share = count * (index + 1) // len(rooms) - count * index // len(rooms)
        for file, text, place in rng.sample(places, min(share, len(places))):
            mutants.append(Mutant(room, file, text, place, rng.choice(place[2])))
    rng.shuffle(mutants)  # who ends it early has seen something of each room
    return mutants


def output(*command):
    return subprocess.run(command, cwd=source, check=True, text=True, stdout=subprocess.PIPE).stdout.split("\n")[:-1]


def copy_tree():
    wanted = {f for f in output("git", "ls-files", "-co", "--exclude-standard") if (source / f).is_file()}
    for file in wanted:
        old, new = source / file, tree / file
        if not new.exists() or new.read_bytes() != old.read_bytes():
            new.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(old, new)
    for path in [p for p in tree.rglob("*") if p.is_file() and str(p.relative_to(tree)) not in wanted]:
        path.unlink()


def configure():
    link = "-fuse-ld=lld"
    subprocess.run(["cmake", "-S", tree, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                    "-DCMAKE_CXX_FLAGS_DEBUG=-O0", f"-DCMAKE_EXE_LINKER_FLAGS={link}",
                    f"-DCMAKE_SHARED_LINKER_FLAGS={link}", "-DQOMA_WARNINGS_AS_ERRORS=OFF"],
                   check=True, stdout=subprocess.DEVNULL)


def compiles(test, jobs):
    with open(build / "mutants.log", "wb") as log:
        return subprocess.run(["ninja", "-C", build, "-j", str(jobs), f"test_{test}"], stdout=log, stderr=log).returncode == 0


def limit():
    """What a wrong size or a wrong loop could take of the machine."""
    resource.setrlimit(resource.RLIMIT_AS, (8 << 30, 8 << 30))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def run(test, seconds):
    """Whether the test's cases pass; None when they do not end."""
    command = [build / "bin" / f"test_{test}", "--gtest_fail_fast", "--gtest_brief=1"]
    process = subprocess.Popen(command, cwd=build, start_new_session=True, preexec_fn=limit, stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        return process.wait(seconds) == 0
    except subprocess.TimeoutExpired:
        return None
    finally:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()


def judged(mutant, seconds_of, jobs):
    original = (tree / mutant.file).read_text()
    (tree / mutant.file).write_text(mutant.text)
    try:
        return first_to_notice(mutant, seconds_of, jobs)
    finally:
        (tree / mutant.file).write_text(original)


def first_to_notice(mutant, seconds_of, jobs):
    for test in tests_of[room_of(mutant.file)].split():
        if not compiles(test, jobs):
            return "does not compile"
        passed = run(test, seconds_of[test])
        if passed is None:
            return f"timed out ({test})"
        if not passed:
            return f"killed ({test})"
    return "survived"


def measure(rooms, jobs):
    """What each program may take: several times what it takes unchanged, as others use the machine, too."""
    seconds_of = {}
    for test in dict.fromkeys(" ".join(tests_of[room_of(room)] for room in rooms).split()):
        if not compiles(test, jobs):
            sys.exit(f"mutants: test_{test} does not compile, see {build}/mutants.log")
        start = time.monotonic()
        if not run(test, 600):
            sys.exit(f"mutants: test_{test} fails as it is")
        seconds_of[test] = 60 + 5 * (time.monotonic() - start)
        print(f"mutants: test_{test} takes {time.monotonic() - start:.0f} s", flush=True)
    return seconds_of


def listed():
    """Those that nobody can notice: a file's name, "- line", "+ line" for each change, the reason; a blank line."""
    known = set()
    for entry in re.split(r"\n\s*\n", listed_file.read_text()):
        lines = [line for line in entry.split("\n") if not line.startswith("#")]
        known.update("\n".join([*lines[:2], line]) for line in lines[2:] if line.startswith("+ "))
    return known


def show(results, rooms):
    print(f"\n{'room':32} {'killed':>7} {'timed out':>10} {'survived':>9} {'listed':>7} {'no build':>9} {'share':>6}")
    for room in [*rooms, "together"]:
        outcomes = [result for mutant, result in results if room in (mutant.room, "together")]
        count = {kind: sum(o.startswith(kind) for o in outcomes) for kind in
                 ("killed", "timed out", "survived", "listed", "does not compile")}
        seen = count["killed"] + count["timed out"]
        judged = seen + count["survived"]
        share = f"{100 * seen // judged} %" if judged else "-"
        print(f"{room:32} {count['killed']:7} {count['timed out']:10} {count['survived']:9} {count['listed']:7} "
              f"{count['does not compile']:9} {share:>6}")
    survivors = [mutant for mutant, result in results if result == "survived"]
    for mutant in sorted(survivors, key=lambda m: (m.file, m.line)):
        print(f"\n{mutant.file}:{mutant.line}\n- {mutant.old}\n+ {mutant.new}")


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutants.sh")
    parser.add_argument("--rooms", default="agent,foundation,evtmgr,trace", metavar="R,R...",
                        help="folders or single files, as many mutants of each")
    parser.add_argument("--count", type=int, default=100, metavar="N", help="of all rooms together")
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 31), metavar="S",
                        help="the same one draws the same mutants of the same sources")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), metavar="J", help="compilations side by side")
    parser.add_argument("--list", action="store_true", help="shows what would be changed, and ends")
    wanted = parser.parse_args()
    rooms = [room.rstrip("/") for room in wanted.rooms.split(",")]
    for room in rooms:
        if room_of(room) not in tests_of:
            parser.error(f"{room} is none of {' '.join(tests_of)} or below one of them")
    print(f"mutants: --rooms {wanted.rooms} --count {wanted.count} --seed {wanted.seed}", flush=True)
    mutants = draw(rooms, wanted.count, random.Random(wanted.seed))
    if wanted.list:
        for mutant in mutants:
            print(f"\n{mutant.file}:{mutant.line}\n- {mutant.old}\n+ {mutant.new}")
        return
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, signal.default_int_handler)  # both show the table of what has been done
    copy_tree()
    configure()
    seconds_of, known, results = measure(rooms, wanted.jobs), listed(), []
    try:
        for mutant in mutants:
            start = time.monotonic()
            result = "listed" if mutant.name() in known else judged(mutant, seconds_of, wanted.jobs)
            results.append((mutant, result))
            print(f"{len(results):4}/{len(mutants)} {time.monotonic() - start:4.0f} s  {mutant.file}:{mutant.line}  "
                  f"{result}", flush=True)
    except KeyboardInterrupt:
        print("mutants: ended early")
    show(results, rooms)


main()
