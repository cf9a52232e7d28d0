"""The mutation script's choice of sites: what is a site, what each
mutant becomes, and that the sample does not move while the sources stay."""

import importlib.util
import json
import os

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
_script = importlib.util.spec_from_file_location("mutate", os.path.join(HERE, "mutate.py"))
mutate = importlib.util.module_from_spec(_script)
_script.loader.exec_module(mutate)


def sites(src, op=None):
    found = mutate.candidates_in("x.cpp", src)
    return [(c["op"], c["original"], c["mutated"]) for c in found if op is None or c["op"] == op]


def test_comments_strings_and_directives_hold_no_sites():
    src = ('#if LIMIT > 4\n#endif\n'
           'bool f(int a) {\n'
           '  // a < 3 && a == 9\n'
           '  /* a >= 7 */\n'
           '  const char* s = "a != b || 5";\n'
           '  return a < s[0];\n'
           '}\n')
    ops = sites(src)
    assert ("flip-comparison", "<", ">=") in ops
    assert [o for o in ops if o[0] in ("flip-comparison", "swap-logical")] == [
        ("flip-comparison", "<", ">=")]
    # "0" of s[0] is the only constant: none from the comments, the string or #if.
    assert sorted(o[1] for o in ops if o[0].startswith("constant")) == ["0"]


def test_template_brackets_and_rvalue_references_are_not_operators():
    src = ('template <typename T>\n'
           'void g(std::vector<T>&& v, T&& w) {\n'
           '  if (v.size() > 2 && w) h();\n'
           '}\n')
    assert sites(src, "flip-comparison") == [("flip-comparison", ">", "<=")]
    assert sites(src, "swap-logical") == [("swap-logical", "&&", "||")]


def test_only_one_line_expression_statements_and_returns_are_dropped():
    src = ('int f(int a) {\n'
           '  int x = a;\n'
           '  std::size_t n{2};\n'
           '  x += 2;\n'
           '  call(x,\n'
           '       n);\n'
           '  assert(x > 0);\n'
           '  if (x) x = 3;\n'
           '  return x;\n'
           '}\n'
           'struct S { int member = 1; };\n')
    dropped = [o[1] for o in sites(src, "drop-statement")]
    assert dropped == ["x += 2;", "return x;"]


def test_returned_values_follow_the_declared_type():
    src = ('bool b(int a) { return a > 1; }\n'
           'bool c() { return false; }\n'
           'const char* p(int a) { return name(a); }\n'
           'static inline std::uint32_t u(int a) { return a + 1; }\n'
           'std::string s() { return text(); }\n'
           'int z() { return 0; }\n'
           'void l() { auto k = [](int a) { return a; }; k(1); }\n')
    replaced = sites(src, "replace-return")
    assert replaced == [("replace-return", "a > 1", "false"),
                        ("replace-return", "false", "true"),
                        ("replace-return", "name(a)", "nullptr"),
                        ("replace-return", "a + 1", "0")]


@pytest.mark.parametrize("literal,delta,expected", [
    ("0x1F", 1, "0x20"), ("0x10", -1, "0x0f"), ("0xFFFF", 1, "0x10000"),
    ("1u", 1, "2u"), ("10'000", 1, "10001"), ("0b0100", -1, "0b0011"), ("7", -1, "6"),
])
def test_constants_keep_their_form(literal, delta, expected):
    m = mutate.INTEGER_RE.match(literal)
    assert mutate.bump(m, delta) == expected


def test_zero_only_goes_up_and_floats_are_left_alone():
    src = 'double f(int a) { return a * 0 + 1.5; }\n'
    constants = [o for o in sites(src) if o[0].startswith("constant")]
    assert constants == [("constant+1", "0", "1")]


def make_tree(root, body):
    os.makedirs(os.path.join(root, "reader"))
    os.makedirs(os.path.join(root, "tests"))
    with open(os.path.join(root, "reader", "a.cpp"), "w") as f:
        f.write(body)
    with open(os.path.join(root, "tests", "t.cpp"), "w") as f:
        f.write("int t() { return 1 < 2; }\n")


def test_the_sample_is_the_same_for_the_same_sources(tmp_path):
    body = "".join("int f%d(int a) {\n  if (a < %d) a += %d;\n  return a;\n}\n" % (i, i, i)
                   for i in range(40))
    make_tree(str(tmp_path), body)
    first = mutate.draw_sample(str(tmp_path), 25)
    second = mutate.draw_sample(str(tmp_path), 25)
    assert json.dumps(first, sort_keys=True) == json.dumps(second, sort_keys=True)
    assert len(first["mutants"]) == 25
    assert first["candidates"] > 25
    assert all(m["file"] == "reader/a.cpp" for m in first["mutants"])  # tests/ never
    assert len({m["key"] for m in first["mutants"]}) == 25


def test_a_site_is_found_again_after_lines_move(tmp_path):
    make_tree(str(tmp_path), "int f(int a) {\n  return a < 4;\n}\n")
    mutant = next(c for c in mutate.candidates_in(
        "reader/a.cpp", open(os.path.join(tmp_path, "reader", "a.cpp")).read())
        if c["op"] == "flip-comparison")
    path = os.path.join(tmp_path, "reader", "a.cpp")
    with open(path, "w") as f:
        f.write("// moved down\nint f(int a) {\n  return a < 4;\n}\n")
    src, span = mutate.locate(str(tmp_path), mutant)
    assert src[span[0]:span[1]] == "<"
    assert span[0] == mutant["start"] + len("// moved down\n")
    with open(path, "w") as f:  # moved, and two such lines: ambiguous, so stale
        f.write("// moved\nint f(int a) {\n  return a < 4;\n  return a < 4;\n}\n")
    assert mutate.locate(str(tmp_path), mutant)[1] is None
