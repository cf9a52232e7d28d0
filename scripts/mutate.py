#!/usr/bin/python3
"""Mutation testing of the library against its C++ test suite.

Each mutant is one small fault put into the library's sources: a comparison
flipped, an integer constant off by one, && swapped with ||, a statement
dropped, or a returned value replaced.  A mutant is built in a copy of the
sources with a build folder of its own that persists between mutants, so
that only the changed translation unit and the links are redone; then the
test programs run, fastest first, until one fails (the mutant is killed) or
all pass (it survived).  A mutant that does not compile is not viable and is
left out of the score.

The candidate sites are enumerated in a fixed order and a sample is drawn
with a fixed seed, so the same sources always give the same mutants.  The
sample is written to a file; a later run, after the tests changed, reads it
with --sample and measures the very same faults.

Run under nice:  nice -n 15 /usr/bin/python3 scripts/mutate.py --jobs 2
Python's standard library only.
"""

import argparse
import bisect
import hashlib
import json
import os
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import time

SEED = 190019          # never change: it defines the sample
DEFAULT_COUNT = 150
LIBRARY_DIRS = ("format", "native", "reader", "writer", "tree", "interface", "vos")
SOURCE_SUFFIXES = (".cpp", ".h")

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# ---------------------------------------------------------------------------
# Lexing: enough C++ to tell code from comments, strings and directives.

PUNCTUATORS = sorted("""
    ... <<= >>= <=> ->* :: -> ++ -- << >> <= >= == != && || += -= *= /= %= &=
    |= ^= .* ## { } [ ] ( ) ; : ? , . + - * / % ^ & | ~ ! = < > #
""".split(), key=len, reverse=True)

NUMBER_RE = re.compile(r"\.?[0-9](?:[0-9A-Za-z_.']|[eEpP][+-])*")
IDENT_RE = re.compile(r"[A-Za-z_][A-Za-z_0-9]*")
INTEGER_RE = re.compile(
    r"^(?P<body>0[xX][0-9A-Fa-f']+|0[bB][01']+|[0-9][0-9']*)(?P<suffix>[uUlLzZ]*)$")
STRING_PREFIX_RE = re.compile(r"(?:u8|u|U|L)?R?$")


class Token:
    __slots__ = ("kind", "text", "start", "end", "line")

    def __init__(self, kind, text, start, end, line):
        self.kind, self.text, self.start, self.end, self.line = kind, text, start, end, line

    def __repr__(self):
        return "%s(%r@%d)" % (self.kind, self.text, self.line)


def tokenize(src):
    """Tokens of the code outside comments and preprocessor lines.  String
    and character literals become single 'str' tokens, never mutated."""
    tokens = []
    line_starts = [0] + [m.end() for m in re.finditer(r"\n", src)]

    def line_of(pos):
        return bisect.bisect_right(line_starts, pos)

    i, n = 0, len(src)
    at_line_start = True
    while i < n:
        c = src[i]
        if c == "\n":
            at_line_start = True
            i += 1
            continue
        if c in " \t\r\f\v":
            i += 1
            continue
        if src.startswith("//", i):
            j = src.find("\n", i)
            i = n if j < 0 else j
            continue
        if src.startswith("/*", i):
            j = src.find("*/", i + 2)
            i = n if j < 0 else j + 2
            continue
        if c == "#" and at_line_start:
            # A directive runs to the end of the line, continuations included.
            while i < n:
                if src[i] == "\\" and src.startswith("\n", i + 1):
                    i += 2
                elif src[i] == "\n":
                    break
                elif src.startswith("/*", i):
                    j = src.find("*/", i + 2)
                    i = n if j < 0 else j + 2
                else:
                    i += 1
            continue
        at_line_start = False
        m = IDENT_RE.match(src, i)
        if m:
            word = m.group()
            after = m.end()
            if after < n and src[after] in "\"'" and STRING_PREFIX_RE.match(word):
                i = after  # prefix of a literal: lexed with it below
                start = m.start()
                j = lex_literal(src, after, raw=word.endswith("R") and src[after] == '"')
                tokens.append(Token("str", src[start:j], start, j, line_of(start)))
                i = j
                continue
            tokens.append(Token("id", word, i, after, line_of(i)))
            i = after
            continue
        if c.isdigit() or (c == "." and i + 1 < n and src[i + 1].isdigit()):
            m = NUMBER_RE.match(src, i)
            tokens.append(Token("num", m.group(), i, m.end(), line_of(i)))
            i = m.end()
            continue
        if c in "\"'":
            j = lex_literal(src, i, raw=False)
            tokens.append(Token("str", src[i:j], i, j, line_of(i)))
            i = j
            continue
        for p in PUNCTUATORS:
            if src.startswith(p, i):
                tokens.append(Token("op", p, i, i + len(p), line_of(i)))
                i += len(p)
                break
        else:
            i += 1  # a stray character: nothing to mutate there
    return tokens


def lex_literal(src, i, raw):
    quote = src[i]
    if raw:
        open_paren = src.index("(", i)
        delimiter = src[i + 1:open_paren]
        close = src.index(")" + delimiter + '"', open_paren)
        return close + len(delimiter) + 2
    j = i + 1
    while j < len(src):
        if src[j] == "\\":
            j += 2
            continue
        if src[j] == quote or src[j] == "\n":
            return j + 1
        j += 1
    return j


# ---------------------------------------------------------------------------
# Structure: which braces open function bodies, and what those return.

CONTROL_KEYWORDS = {"if", "for", "while", "switch", "catch"}
BLOCK_KEYWORDS = {"else", "do", "try"}
SCOPE_KEYWORDS = {"namespace", "class", "struct", "enum", "union", "extern"}
NOT_STATEMENT_START = {
    "if", "for", "while", "do", "switch", "case", "default", "else", "break",
    "continue", "goto", "return", "throw", "delete", "new", "static_assert",
    "using", "typedef", "template", "const", "constexpr", "static", "auto",
    "struct", "class", "enum", "union", "namespace", "sizeof", "alignof",
    "decltype", "operator", "try", "catch", "public", "private", "protected",
    "friend", "virtual", "inline", "extern", "thread_local", "volatile",
    "unsigned", "signed", "int", "long", "short", "char", "bool", "void",
    "float", "double",
}
SPECIFIERS = {"static", "inline", "constexpr", "virtual", "explicit", "friend",
              "extern", "MOXOLE_API", "MOXVOS_API", "MOX_CXX_API", "MOX_EXPORT"}
INTEGRAL_WORDS = {"int", "long", "short", "unsigned", "signed", "char",
                  "size_t", "ssize_t", "off_t", "ptrdiff_t", "uintptr_t", "intptr_t",
                  "int8_t", "int16_t", "int32_t", "int64_t",
                  "uint8_t", "uint16_t", "uint32_t", "uint64_t"}
TYPE_NOISE = {"const", "std", "::", "volatile", "static", "inline", "constexpr",
              "unsigned", "signed", "[[", "]]", "nodiscard"}


class Frame:
    __slots__ = ("kind", "returns", "paren", "boundary", "lambda_")

    def __init__(self, kind, returns=None, lambda_=False):
        self.kind = kind          # 'scope', 'function', 'block', 'init'
        self.returns = returns    # 'bool', 'pointer', 'integral' or None
        self.paren = 0            # ( and [ open in this block
        self.boundary = 0         # first token of the construct under way
        self.lambda_ = lambda_    # a body inside an expression


def matching_open(tokens, close_index, open_text, close_text):
    depth = 0
    for k in range(close_index, -1, -1):
        t = tokens[k].text
        if t == close_text:
            depth += 1
        elif t == open_text:
            depth -= 1
            if depth == 0:
                return k
    return -1


def classify_type(words):
    """The kind of value a return type holds, from its tokens."""
    words = [w for w in words if w not in TYPE_NOISE]
    if not words:
        return None
    if words[-1] == "*":
        return "pointer"
    if any(w in ("&", "&&", "*", "<", ">") for w in words):
        return None
    if words == ["bool"]:
        return "bool"
    if all(w in INTEGRAL_WORDS for w in words):
        return "integral"
    return None


def function_return(tokens, head_start, open_paren, close_paren, brace):
    """The kind of the value returned by the function whose parameter list
    runs from open_paren to close_paren and whose body opens at brace."""
    after = [t.text for t in tokens[close_paren + 1:brace]]
    if "->" in after:
        trailing = after[after.index("->") + 1:]
        return classify_type(trailing)
    if open_paren > 0 and tokens[open_paren - 1].text == "]":
        return None  # a lambda without a declared type
    k = open_paren - 1
    # The name: identifiers joined by ::, or an operator.
    if k >= 0 and tokens[k].kind == "op" and k > 0 and tokens[k - 1].text == "operator":
        k -= 2
    elif k >= 0 and tokens[k].kind == "id":
        k -= 1
        while k >= 1 and tokens[k].text == "::" and tokens[k - 1].kind == "id":
            k -= 2
        if k >= 0 and tokens[k].text == "~":
            return None
    else:
        return None
    head = tokens[head_start:k + 1]
    words = [t.text for t in head]
    # Drop a template header.
    if words and words[0] == "template":
        depth, cut = 0, 0
        for idx, w in enumerate(words):
            if w == "<":
                depth += 1
            elif w == ">":
                depth -= 1
                if depth == 0:
                    cut = idx + 1
                    break
            elif w == ">>":
                depth -= 2
                if depth <= 0:
                    cut = idx + 1
                    break
        words = words[cut:]
    words = [w for w in words if w not in SPECIFIERS]
    if "auto" in words or not words:
        return None
    return classify_type(words)


def classify_brace(tokens, k, boundary):
    """Kind of block the brace at k opens; boundary is the index of the
    first token of the construct it belongs to."""
    head = tokens[boundary:k]
    words = [t.text for t in head]
    prev = tokens[k - 1].text if k > boundary else None
    if prev in (None, ";", "{", "}") and not words:
        return Frame("block")
    if any(w in SCOPE_KEYWORDS for w in words) and "(" not in words:
        return Frame("scope")
    if words and words[0] in ("enum", "class", "struct", "union"):
        return Frame("scope")
    if prev in BLOCK_KEYWORDS:
        return Frame("block")
    if prev in ("=", "(", ",", "return", "{", "[", "?", ":") or prev is None:
        if prev == ":" and words and words[0] in ("case", "default"):
            return Frame("block")
        return Frame("init")
    if prev == "]":
        return Frame("function", None, True)  # [&] { ... }
    # Find the parameter list: the last top-level (...) of the head that is
    # followed only by qualifiers, a trailing type, or an initializer list.
    close = None
    for j in range(k - 1, boundary - 1, -1):
        t = tokens[j].text
        if t == ")":
            close = j
            break
        if t in ("const", "noexcept", "override", "final", "mutable", "->", "&", "&&",
                 "*", "::", "<", ">") or tokens[j].kind == "id":
            continue
        if t == "}":
            # Constructor initializer lists end with a braced member.
            o = matching_open(tokens, j, "{", "}")
            if o > boundary and ":" in words[:o - boundary]:
                close = None
                for jj in range(o - 1, boundary - 1, -1):
                    if tokens[jj].text == ":" and jj > boundary and tokens[jj - 1].text == ")":
                        close = jj - 1
                        break
                break
            return Frame("init")
        return Frame("init")
    if close is None:
        return Frame("init")
    # Constructors with an initializer list: the parameter list ends before ':'.
    colon = None
    depth = 0
    for j in range(boundary, k):
        t = tokens[j].text
        if t in "([":
            depth += 1
        elif t in ")]":
            depth -= 1
        elif t == ":" and depth == 0 and j > boundary and tokens[j - 1].text == ")":
            colon = j
            break
    if colon is not None:
        close = colon - 1
    open_ = matching_open(tokens, close, "(", ")")
    if open_ < boundary:
        return Frame("init")
    before = tokens[open_ - 1].text if open_ > boundary else None
    if before in CONTROL_KEYWORDS:
        return Frame("block")
    if before is None:
        return Frame("init")
    if tokens[open_ - 1].kind == "id" or before == "]" or (
            open_ - 2 >= boundary and tokens[open_ - 2].text == "operator"):
        if before in ("sizeof", "decltype", "alignof"):
            return Frame("init")
        if colon is not None:
            return Frame("function", None)
        return Frame("function", function_return(tokens, boundary, open_, close, k),
                     before == "]")
    if before == ">" or before == ">>":
        return Frame("init")  # Foo<T>(...) { is rare; braces of a call
    return Frame("init")


# ---------------------------------------------------------------------------
# Candidate sites.

FLIP = {"<": ">=", ">=": "<", ">": "<=", "<=": ">", "==": "!=", "!=": "=="}
SWAP = {"&&": "||", "||": "&&"}
ASSIGN_OPS = {"=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^=", "<<=", ">>="}


def find_statement_end(tokens, i):
    """Index of the ';' ending the statement starting at i (same nesting
    level), or -1."""
    depth = 0
    for j in range(i, len(tokens)):
        t = tokens[j].text
        if t in ("(", "[", "{"):
            depth += 1
        elif t in (")", "]", "}"):
            depth -= 1
            if depth < 0:
                return -1
        elif t == ";" and depth == 0:
            return j
    return -1


def is_expression_statement(tokens, i, end):
    t0 = tokens[i]
    if t0.text in ("++", "--"):
        return True
    if t0.text == "*" and i + 1 < end and tokens[i + 1].kind == "id":
        return True
    if t0.kind != "id" or t0.text in NOT_STATEMENT_START:
        return False
    if "assert" in t0.text.lower() or t0.text in ("MOX_UNUSED",):
        return False  # dropping a check cannot fail a passing test
    j = i + 1
    while j + 1 < end and tokens[j].text == "::" and tokens[j + 1].kind == "id":
        j += 2
    if j >= end:
        return False
    nxt = tokens[j].text
    return nxt in ("(", ".", "->", "[", "++", "--") or nxt in ASSIGN_OPS


def candidates_in(path, src):
    tokens = tokenize(src)
    lines = src.split("\n")
    found = []

    def add(op, start, end, mutated, line):
        original = src[start:end]
        if original == mutated:
            return
        col = start - (src.rfind("\n", 0, start) + 1)
        found.append({
            "file": path, "line": line, "col": col, "start": start, "end": end,
            "op": op, "original": original, "mutated": mutated,
            "line_text": lines[line - 1],
        })

    stack = [Frame("scope")]
    for k, tok in enumerate(tokens):
        frame = stack[-1]
        text = tok.text
        in_code = frame.kind in ("function", "block")
        prev = tokens[k - 1] if k > 0 else None
        boundary = frame.boundary

        # Statements, at the start of a construct inside a body.
        if in_code and k == boundary and frame.paren == 0:
            end = find_statement_end(tokens, k)
            if end > k and tokens[end].line == tok.line:
                if text == "return" and end > k + 1:
                    add("drop-statement", tok.start, tokens[end].end, ";", tok.line)
                elif is_expression_statement(tokens, k, end):
                    add("drop-statement", tok.start, tokens[end].end, ";", tok.line)

        if text == "return" and in_code:
            end = find_statement_end(tokens, k)
            fn = next((f for f in reversed(stack) if f.kind == "function"), None)
            if end > k + 1 and fn is not None and fn.returns is not None:
                expr = src[tokens[k + 1].start:tokens[end - 1].end]
                if fn.returns == "bool":
                    value = "true" if expr == "false" else "false"
                elif fn.returns == "pointer":
                    value = None if expr in ("nullptr", "NULL", "0") else "nullptr"
                else:
                    value = None if expr == "0" else "0"
                if value is not None:
                    add("replace-return", tokens[k + 1].start, tokens[end - 1].end,
                        value, tok.line)

        if tok.kind == "op" and prev is not None and prev.text != "operator":
            spaced = (tok.start > 0 and src[tok.start - 1] in " \t" and
                      tok.end < len(src) and src[tok.end] in " \t\n")
            if text in FLIP and (text in ("==", "!=") or spaced) and prev.text != "template":
                if text in ("==", "!=") or in_code or frame.kind == "init":
                    add("flip-comparison", tok.start, tok.end, FLIP[text], tok.line)
            elif text in SWAP and spaced:
                add("swap-logical", tok.start, tok.end, SWAP[text], tok.line)

        if tok.kind == "num":
            m = INTEGER_RE.match(tok.text)
            in_assert = any(tokens[j].text == "static_assert" for j in range(boundary, k))
            attribute = prev is not None and prev.text in ("alignas",)
            if m and not in_assert and not attribute:
                add("constant+1", tok.start, tok.end, bump(m, 1), tok.line)
                if integer_value(m.group("body")) > 0:
                    add("constant-1", tok.start, tok.end, bump(m, -1), tok.line)

        # Structure bookkeeping.
        if text == "{":
            opened = classify_brace(tokens, k, boundary)
            if frame.kind == "init" and opened.kind != "function":
                opened = Frame("init")
            if frame.paren > 0 or frame.kind == "init":
                opened.lambda_ = True
            opened.boundary = k + 1
            stack.append(opened)
        elif text == "}":
            closed = stack.pop() if len(stack) > 1 else frame
            # A block ends its construct; an initializer or a lambda's body
            # is part of one that goes on to its ';'.
            if closed.kind != "init" and not closed.lambda_:
                stack[-1].boundary = k + 1
        elif text in ("(", "["):
            frame.paren += 1
        elif text in (")", "]"):
            frame.paren = max(0, frame.paren - 1)
        elif text == ";" and frame.paren == 0:
            frame.boundary = k + 1
        elif text == ":" and frame.paren == 0 and k > boundary and (
                tokens[boundary].text in ("case", "default", "public", "private", "protected")):
            frame.boundary = k + 1
    return found


def integer_value(body):
    digits = body.replace("'", "")
    if digits[:2] in ("0x", "0X"):
        return int(digits, 16)
    if digits[:2] in ("0b", "0B"):
        return int(digits, 2)
    if len(digits) > 1 and digits[0] == "0":
        return int(digits, 8)
    return int(digits)


def bump(m, delta):
    body, suffix = m.group("body"), m.group("suffix")
    digits = body.replace("'", "")
    if digits[:2] in ("0x", "0X"):
        value = int(digits, 16) + delta
        width = len(digits) - 2
        text = format(value, "X" if any(ch.isupper() for ch in digits[2:]) else "x")
        return digits[:2] + text.rjust(width, "0") + suffix
    if digits[:2] in ("0b", "0B"):
        value = int(digits, 2) + delta
        return digits[:2] + format(value, "b").rjust(len(digits) - 2, "0") + suffix
    if len(digits) > 1 and digits[0] == "0":
        return "0" + format(int(digits, 8) + delta, "o") + suffix
    return str(int(digits) + delta) + suffix


def library_files(root):
    files = []
    for d in LIBRARY_DIRS:
        base = os.path.join(root, d)
        for dirpath, dirnames, filenames in os.walk(base):
            dirnames.sort()
            for f in sorted(filenames):
                if f.endswith(SOURCE_SUFFIXES):
                    files.append(os.path.relpath(os.path.join(dirpath, f), root))
    return sorted(files)


def enumerate_candidates(root):
    digest = hashlib.sha256()
    every = []
    for rel in library_files(root):
        with open(os.path.join(root, rel), encoding="utf-8") as f:
            src = f.read()
        digest.update(rel.encode() + b"\0" + src.encode() + b"\0")
        every.extend(candidates_in(rel, src))
    every.sort(key=lambda c: (c["file"], c["start"], c["op"]))
    return every, digest.hexdigest()


def draw_sample(root, count):
    every, digest = enumerate_candidates(root)
    rng = random.Random(SEED)
    picked = sorted(rng.sample(range(len(every)), min(count, len(every))))
    mutants = []
    for n, idx in enumerate(picked):
        c = dict(every[idx])
        c["id"] = "m%03d" % n
        c["key"] = "%s:%d:%d:%s" % (c["file"], c["line"], c["col"], c["op"])
        mutants.append(c)
    by_op = {}
    for c in every:
        by_op[c["op"]] = by_op.get(c["op"], 0) + 1
    return {"seed": SEED, "count": count, "sources_sha256": digest,
            "candidates": len(every), "candidates_by_operator": by_op,
            "mutants": mutants}


# ---------------------------------------------------------------------------
# The copy of the sources and its build.

EXCLUDED_TOP = ("build", ".git", "out")


def source_files(root):
    """Files of the checkout (tracked and untracked, not ignored)."""
    try:
        out = subprocess.run(["git", "-C", root, "ls-files", "-z", "--cached", "--others",
                              "--exclude-standard"], check=True, capture_output=True).stdout
        return sorted(set(p for p in out.decode().split("\0")
                          if p and os.path.isfile(os.path.join(root, p))))
    except (OSError, subprocess.CalledProcessError):
        files = []
        for dirpath, dirnames, filenames in os.walk(root):
            rel = os.path.relpath(dirpath, root)
            dirnames[:] = [d for d in dirnames if not (rel == "." and d.startswith(EXCLUDED_TOP))
                           and d != "node_modules"]
            files.extend(os.path.relpath(os.path.join(dirpath, f), root) for f in filenames)
        return sorted(files)


def same_content(a, b):
    try:
        if os.path.getsize(a) != os.path.getsize(b):
            return False
        with open(a, "rb") as fa, open(b, "rb") as fb:
            return fa.read() == fb.read()
    except OSError:
        return False


def sync_copy(root, copy):
    """Brings the copy up to date with the checkout, touching only files
    whose content differs (so the build redoes only what changed).  This
    also undoes a mutant left behind by a run that was killed."""
    wanted = source_files(root)
    changed = 0
    for rel in wanted:
        src, dst = os.path.join(root, rel), os.path.join(copy, rel)
        if not same_content(src, dst):
            os.makedirs(os.path.dirname(dst), exist_ok=True)
            shutil.copyfile(src, dst)
            shutil.copymode(src, dst)
            changed += 1
    wanted_set = set(wanted)
    for dirpath, dirnames, filenames in os.walk(copy):
        dirnames[:] = [d for d in dirnames if d != "node_modules"]
        for f in filenames:
            rel = os.path.relpath(os.path.join(dirpath, f), copy)
            if rel not in wanted_set:
                os.remove(os.path.join(copy, rel))
                changed += 1
    # The interop oracles' npm packages are not in git: share the checkout's.
    modules = os.path.join(root, "tests", "oracles", "node_modules")
    link = os.path.join(copy, "tests", "oracles", "node_modules")
    if os.path.isdir(modules) and not os.path.lexists(link):
        os.symlink(modules, link)
    return changed


def configure(root, copy, build, sanitize, log, coverage=False):
    have_ninja = shutil.which("ninja") is not None
    linker = "lld" if shutil.which("ld.lld") else ("gold" if shutil.which("ld.gold") else None)
    # Optimised a little, assertions kept: a mutant that breaks an invariant
    # the code asserts is caught there.  The coverage build is not
    # optimised, so that every line that runs is counted where it is.
    flags = "-O0 --coverage" if coverage else "-O1"
    args = ["cmake", "-S", copy, "-B", build,
            "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
            "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=" + flags,
            "-DCMAKE_C_FLAGS_RELWITHDEBINFO=" + flags,
            "-DMOX_BUILD_TESTS=ON", "-DMOX_BUILD_PYTHON=OFF",
            "-DMOX_BUILD_BENCH=OFF", "-DMOX_BUILD_FUZZ=OFF",
            "-DMOX_SANITIZE=" + ("ON" if sanitize else "OFF"),
            # The corpus beside the real checkout, not beside the copy.
            "-DMOX_CORPUS_DIR=" + os.path.normpath(os.path.join(root, "..", "shared", "corpus")),
            # No test listing after every link: the programs are run directly.
            "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"]
    if have_ninja:
        args += ["-G", "Ninja"]
    link_flags = ("-fuse-ld=" + linker if linker else "") + (" --coverage" if coverage else "")
    if link_flags:
        args += ["-DCMAKE_EXE_LINKER_FLAGS=" + link_flags.strip(),
                 "-DCMAKE_SHARED_LINKER_FLAGS=" + link_flags.strip()]
    if os.path.exists(os.path.join(build, "CMakeCache.txt")):
        args = ["cmake", build]  # keep what the first configure chose
    result = subprocess.run(args, stdout=log, stderr=subprocess.STDOUT)
    if result.returncode != 0:
        sys.exit("mutate: configuring %s failed (see %s)" % (build, log.name))


def build_all(build, jobs, log, limit=1800):
    start = time.monotonic()
    try:
        result = subprocess.run(["cmake", "--build", build, "-j", str(jobs)],
                                stdout=log, stderr=subprocess.STDOUT, timeout=limit)
        ok = result.returncode == 0
    except subprocess.TimeoutExpired:
        ok = False
    return ok, time.monotonic() - start


# ---------------------------------------------------------------------------
# The test programs.

def test_programs(build):
    """The suites' programs, less those labelled 'large'."""
    out = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"],
                         capture_output=True, text=True)
    programs = set()
    large = set()
    tests_dir = os.path.join(build, "tests")
    if out.returncode == 0:
        for test in json.loads(out.stdout).get("tests", []):
            command = test.get("command") or []
            if not command:
                continue
            exe = os.path.realpath(command[0])
            if os.path.dirname(exe) != os.path.realpath(tests_dir):
                continue
            labels = set()
            for p in test.get("properties", []):
                if p.get("name") == "LABELS":
                    labels.update(p.get("value") or [])
            (large if "large" in labels else programs).add(exe)
    if not programs:  # no CTest listing: every program of the folder
        for f in sorted(os.listdir(tests_dir)):
            path = os.path.join(tests_dir, f)
            if f.startswith("test_") and os.access(path, os.X_OK) and os.path.isfile(path) \
                    and not f.endswith("_large"):
                programs.add(os.path.realpath(path))
    return sorted(programs - large)


def limits(memory_bytes, file_bytes):
    def apply():
        if memory_bytes:
            resource.setrlimit(resource.RLIMIT_AS, (memory_bytes, memory_bytes))
        resource.setrlimit(resource.RLIMIT_FSIZE, (file_bytes, file_bytes))
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    return apply


def run_program(exe, timeout, tmpdir, memory_bytes, file_bytes):
    """Runs one test program; returns (passed, seconds, detail)."""
    shutil.rmtree(tmpdir, ignore_errors=True)
    os.makedirs(tmpdir)
    env = dict(os.environ, TMPDIR=tmpdir)
    env.setdefault("ASAN_OPTIONS", "detect_leaks=1:abort_on_error=1")
    env.setdefault("UBSAN_OPTIONS", "print_stacktrace=1")
    start = time.monotonic()
    proc = subprocess.Popen([exe, "--gtest_fail_fast", "--gtest_brief=1"],
                            cwd=os.path.dirname(exe), env=env,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, start_new_session=True,
                            preexec_fn=limits(memory_bytes, file_bytes))
    try:
        output, _ = proc.communicate(timeout=timeout)
        timed_out = False
    except subprocess.TimeoutExpired:
        kill_group(proc)
        output, _ = proc.communicate()
        timed_out = True
    finally:
        if proc.poll() is None:
            kill_group(proc)
            proc.wait()
    seconds = time.monotonic() - start
    shutil.rmtree(tmpdir, ignore_errors=True)
    text = output.decode("utf-8", "replace")
    if timed_out:
        return False, seconds, "timeout after %ds" % timeout
    if proc.returncode == 0:
        return True, seconds, ""
    failed = re.findall(r"^\[  FAILED  \] (\S+)", text, re.M)
    if failed:
        detail = failed[0].rstrip(",")  # a parameterised test's name ends in ','
    elif proc.returncode < 0:
        detail = "signal %d" % -proc.returncode
    else:
        detail = "exit %d" % proc.returncode
    return False, seconds, detail


def kill_group(proc):
    try:
        os.killpg(proc.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


# ---------------------------------------------------------------------------
# Which test programs run which library lines.

def covered_lines(build, copy):
    """{library file: {line: count}} from the .gcda files of a coverage
    build; lines gcov lists with count 0 are code that did not run."""
    gcdas = []
    for dirpath, _, filenames in os.walk(build):
        gcdas.extend(os.path.join(dirpath, f) for f in filenames if f.endswith(".gcda"))
    lines = {}
    for k in range(0, len(gcdas), 50):
        out = subprocess.run(["gcov", "-j", "-t"] + gcdas[k:k + 50], cwd=build,
                             capture_output=True, text=True).stdout
        for doc in out.splitlines():
            try:
                data = json.loads(doc)
            except ValueError:
                continue
            cwd = data.get("current_working_directory", build)
            for f in data.get("files", []):
                rel = os.path.relpath(os.path.normpath(os.path.join(cwd, f["file"])), copy)
                if rel.split(os.sep)[0] not in LIBRARY_DIRS:
                    continue
                counts = lines.setdefault(rel, {})
                for line in f.get("lines", []):
                    n = line["line_number"]
                    counts[n] = counts.get(n, 0) + line["count"]
    return lines


def coverage_map(root, paths, args, log):
    """{file: {line: [names of the programs that run it]}} for every line
    of library code, from a coverage build of the unmutated sources run
    one program at a time.  Kept in coverage.json for as long as the
    sources are the same."""
    out = os.path.dirname(paths["copy"])
    cache = os.path.join(out, "coverage.json")
    key = hashlib.sha256("".join(
        rel + hashlib.sha256(open(os.path.join(paths["copy"], rel), "rb").read()).hexdigest()
        for rel in source_files(paths["copy"])).encode()).hexdigest()
    if os.path.exists(cache):
        with open(cache, encoding="utf-8") as f:
            data = json.load(f)
        if data.get("key") == key:
            return data["lines"]
    build = os.path.join(out, "build-coverage")
    print("mutate: building for coverage in %s ..." % build, flush=True)
    configure(root, paths["copy"], build, False, log, coverage=True)
    ok, _ = build_all(build, args.jobs, log, limit=3600)
    if not ok:
        sys.exit("mutate: the coverage build failed (see %s)" % log.name)
    runs = {}
    for exe in test_programs(build):
        for dirpath, _, filenames in os.walk(build):
            for f in filenames:
                if f.endswith(".gcda"):
                    os.remove(os.path.join(dirpath, f))
        run_program(exe, max(args.timeout, 1800), paths["tmp"], 0, paths["file_limit"])
        name = os.path.basename(exe)
        for rel, counts in covered_lines(build, paths["copy"]).items():
            file_runs = runs.setdefault(rel, {})
            for n, count in counts.items():
                programs = file_runs.setdefault(str(n), [])
                if count > 0:
                    programs.append(name)
        print("mutate: coverage of %s taken" % name, flush=True)
    with open(cache, "w", encoding="utf-8") as f:
        json.dump({"key": key, "lines": runs}, f)
    return runs


def programs_for(mutant, line, programs, coverage):
    """The programs that run the mutated line, or all of them when the line
    is not code gcov counts (a declaration or a constant, whose change can
    act anywhere)."""
    if coverage is None:
        return programs
    names = coverage.get(mutant["file"], {}).get(str(line))
    if names is None:
        return programs
    return [(exe, secs) for exe, secs in programs if os.path.basename(exe) in names]


# ---------------------------------------------------------------------------
# Mutants.

def locate(copy, mutant):
    """Offsets of the mutant's text in the current file, or None when the
    sources moved on and the site cannot be found unambiguously."""
    path = os.path.join(copy, mutant["file"])
    try:
        with open(path, encoding="utf-8") as f:
            src = f.read()
    except OSError:
        return None, None
    start, end = mutant["start"], mutant["end"]
    if src[start:end] == mutant["original"] and \
            src.split("\n")[mutant["line"] - 1] == mutant["line_text"]:
        return src, (start, end)
    lines = src.split("\n")
    hits = [i for i, line in enumerate(lines) if line == mutant["line_text"]]
    if len(hits) != 1:
        return src, None
    offset = sum(len(line) + 1 for line in lines[:hits[0]]) + mutant["col"]
    length = end - start
    if src[offset:offset + length] != mutant["original"]:
        return src, None
    return src, (offset, offset + length)


def write_restoring(path, text):
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)
    now = time.time()
    os.utime(path, (now, now))


def run_mutant(mutant, args, paths, programs, log, coverage=None):
    src, span = locate(paths["copy"], mutant)
    if span is None:
        return {"status": "stale", "detail": "site not found in the current sources"}
    programs = programs_for(mutant, src.count("\n", 0, span[0]) + 1, programs, coverage)
    path = os.path.join(paths["copy"], mutant["file"])
    mutated = src[:span[0]] + mutant["mutated"] + src[span[1]:]
    result = {}
    try:
        write_restoring(path, mutated)
        log.write("\n==== %s %s\n" % (mutant["id"], mutant["key"]))
        log.flush()
        ok, build_seconds = build_all(paths["build"], args.jobs, log)
        result["build_seconds"] = round(build_seconds, 1)
        if not ok:
            result.update(status="not viable", detail="build failed")
            return result
        test_seconds = 0.0
        result["status"] = "survived"
        for exe, baseline in programs:
            timeout = max(args.timeout, 4 * baseline)
            passed, seconds, detail = run_program(
                exe, timeout, paths["tmp"], paths["memory"], paths["file_limit"])
            test_seconds += seconds
            if not passed:
                result.update(status="killed", killed_by=os.path.basename(exe), detail=detail)
                break
        result["test_seconds"] = round(test_seconds, 1)
        if not programs:
            result["detail"] = "no test program runs this line"
        return result
    finally:
        write_restoring(path, src)


# ---------------------------------------------------------------------------
# Results.

def load_results(path):
    done = {}
    if os.path.exists(path):
        with open(path, encoding="utf-8") as f:
            for line in f:
                line = line.strip()
                if not line:
                    continue
                try:
                    r = json.loads(line)
                except ValueError:
                    continue  # a line cut short by a kill
                done[r["key"]] = r
    return done


def summarize(sample, done):
    counts = {"killed": 0, "survived": 0, "not viable": 0, "stale": 0}
    for r in done.values():
        counts[r["status"]] = counts.get(r["status"], 0) + 1
    scored = counts["killed"] + counts["survived"]
    lines = []
    lines.append("mutants run: %d of %d in the sample" % (len(done), len(sample["mutants"])))
    lines.append("killed %d, survived %d, not viable %d%s" % (
        counts["killed"], counts["survived"], counts["not viable"],
        ", stale %d" % counts["stale"] if counts["stale"] else ""))
    if scored:
        lines.append("score: %d / %d = %.1f%%" % (counts["killed"], scored,
                                                   100.0 * counts["killed"] / scored))
    times = [r.get("build_seconds", 0) + r.get("test_seconds", 0) for r in done.values()
             if r["status"] in ("killed", "survived")]
    if times:
        lines.append("average time of a built mutant: %.0f s (build + tests)" % (
            sum(times) / len(times)))
    survivors = [r for r in done.values() if r["status"] == "survived"]
    if survivors:
        lines.append("survivors:")
        for r in sorted(survivors, key=lambda r: r["id"]):
            lines.append("  %s %s:%d  %s: %s -> %s" % (
                r["id"], r["file"], r["line"], r["op"], one_line(r["original"]),
                one_line(r["mutated"])))
    return "\n".join(lines) + "\n"


def one_line(text, width=70):
    text = " ".join(text.split())
    return text if len(text) <= width else text[:width - 3] + "..."


# ---------------------------------------------------------------------------

def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--out", default=os.path.join(ROOT, "build-mutate"),
                        help="folder of the copy, its build and the results")
    parser.add_argument("--sample", help="run the mutants of this sample file")
    parser.add_argument("--count", type=int, default=DEFAULT_COUNT,
                        help="size of the sample drawn (default %(default)s)")
    parser.add_argument("--list", action="store_true", help="print the sample and stop")
    parser.add_argument("--limit", type=int, help="run the first N mutants of the sample")
    parser.add_argument("--slice", help="run mutants A to B-1 of the sample (A:B)")
    parser.add_argument("--resume", action="store_true",
                        help="keep the results file and skip the mutants it has")
    parser.add_argument("--jobs", type=int, default=2, help="build jobs (default 2)")
    parser.add_argument("--timeout", type=int, default=120,
                        help="seconds a test program may take, at least (default 120)")
    parser.add_argument("--sanitize", action="store_true",
                        help="build with AddressSanitizer and UBSan (slower)")
    parser.add_argument("--memory-limit", type=int, default=4096,
                        help="MiB of address space per test program (0: none)")
    parser.add_argument("--coverage", action="store_true",
                        help="run only the programs that run the mutated line (found "
                             "once with a coverage build); far faster, same verdicts")
    args = parser.parse_args()

    out = os.path.abspath(args.out)
    os.makedirs(out, exist_ok=True)
    sample_path = os.path.join(out, "sample.json")
    results_path = os.path.join(out, "results.jsonl")
    summary_path = os.path.join(out, "summary.txt")

    if args.sample:
        with open(args.sample, encoding="utf-8") as f:
            sample = json.load(f)
        if os.path.abspath(args.sample) != sample_path:
            with open(sample_path, "w", encoding="utf-8") as f:
                json.dump(sample, f, indent=1)
    elif args.resume and os.path.exists(sample_path):
        with open(sample_path, encoding="utf-8") as f:
            sample = json.load(f)
    else:
        sample = draw_sample(ROOT, args.count)
        with open(sample_path, "w", encoding="utf-8") as f:
            json.dump(sample, f, indent=1)

    mutants = sample["mutants"]
    if args.slice:
        a, _, b = args.slice.partition(":")
        mutants = mutants[int(a or 0):int(b) if b else len(mutants)]
    if args.limit is not None:
        mutants = mutants[:args.limit]

    if args.list:
        print("%d candidate sites %s; sample of %d (seed %d), sources %s" % (
            sample["candidates"], json.dumps(sample["candidates_by_operator"], sort_keys=True),
            len(sample["mutants"]), sample["seed"], sample["sources_sha256"][:12]))
        for m in mutants:
            print("%s %s:%d  %s: %s -> %s" % (m["id"], m["file"], m["line"], m["op"],
                                              one_line(m["original"]), one_line(m["mutated"])))
        return 0

    paths = {"copy": os.path.join(out, "src"),
             "build": os.path.join(out, "build-asan" if args.sanitize else "build"),
             "tmp": os.path.join(out, "tmp"),
             "memory": 0 if args.sanitize else args.memory_limit << 20,
             "file_limit": 4 << 30}
    with open(os.path.join(out, "build.log"), "a", encoding="utf-8") as log:
        # A signal ends the run by an exception, so that the mutated file
        # is put back by run_mutant's finally.
        def stop(signum, _frame):
            raise KeyboardInterrupt("signal %d" % signum)
        signal.signal(signal.SIGTERM, stop)
        signal.signal(signal.SIGHUP, stop)

        os.makedirs(paths["copy"], exist_ok=True)
        changed = sync_copy(ROOT, paths["copy"])
        print("mutate: copy of the sources in %s (%d files refreshed)" % (paths["copy"], changed))
        configure(ROOT, paths["copy"], paths["build"], args.sanitize, log)
        print("mutate: building the unmutated sources ...", flush=True)
        ok, seconds = build_all(paths["build"], args.jobs, log)
        if not ok:
            sys.exit("mutate: the unmutated sources do not build (see %s)" % log.name)
        print("mutate: built in %.0f s" % seconds)

        # The programs' times on the unmutated build order them (fastest
        # first) and set their time limits; one that fails already is left out.
        baseline_path = os.path.join(out, "baseline.json")
        exes = test_programs(paths["build"])
        baseline = {}
        if args.resume and os.path.exists(baseline_path):
            with open(baseline_path, encoding="utf-8") as f:
                baseline = json.load(f)
            known = set(baseline.get("seconds", {})) | set(baseline.get("failing", []))
            if known != set(exes):
                baseline = {}  # the programs changed: time them again
        if not baseline:
            print("mutate: timing the %d test programs on the unmutated build ..." % len(exes),
                  flush=True)
            baseline = {"seconds": {}, "failing": []}
            for exe in exes:
                passed, secs, detail = run_program(exe, max(args.timeout, 600), paths["tmp"],
                                                   paths["memory"], paths["file_limit"])
                if passed:
                    baseline["seconds"][exe] = round(secs, 2)
                else:
                    baseline["failing"].append(exe)
                    print("mutate: %s fails without a mutant (%s): left out" % (
                        os.path.basename(exe), detail))
            with open(baseline_path, "w", encoding="utf-8") as f:
                json.dump(baseline, f, indent=1)
        programs = sorted(baseline["seconds"].items(), key=lambda kv: (kv[1], kv[0]))
        print("mutate: %d test programs, %.0f s in all unmutated" % (
            len(programs), sum(s for _, s in programs)), flush=True)

        coverage = coverage_map(ROOT, paths, args, log) if args.coverage else None
        done = load_results(results_path) if args.resume else {}
        mode = "a" if args.resume else "w"
        with open(results_path, mode, encoding="utf-8") as results:
            try:
                for m in mutants:
                    if m["key"] in done:
                        continue
                    started = time.monotonic()
                    r = run_mutant(m, args, paths, programs, log, coverage)
                    record = {k: m[k] for k in ("id", "key", "file", "line", "op",
                                                "original", "mutated")}
                    record.update(r)
                    record["seconds"] = round(time.monotonic() - started, 1)
                    results.write(json.dumps(record) + "\n")
                    results.flush()
                    done[m["key"]] = record
                    print("%s %-10s %5.0fs  %s:%d %s: %s -> %s%s" % (
                        m["id"], record["status"], record["seconds"], m["file"], m["line"],
                        m["op"], one_line(m["original"], 40), one_line(m["mutated"], 40),
                        "  [%s %s]" % (record.get("killed_by", ""), record.get("detail", ""))
                        if record["status"] == "killed" else ""), flush=True)
                    with open(summary_path, "w", encoding="utf-8") as f:
                        f.write(summarize(sample, done))
            except KeyboardInterrupt:
                print("mutate: interrupted; the sources are restored and the results "
                      "so far kept (--resume goes on)", file=sys.stderr)
        summary = summarize(sample, done)
        with open(summary_path, "w", encoding="utf-8") as f:
            f.write(summary)
        print()
        print(summary, end="")
        print("results: %s" % results_path)
    return 0


if __name__ == "__main__":
    sys.exit(main())
