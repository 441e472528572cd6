"""Tests of scripts/mutate's tokenizer, mutation sites and draw (run: scripts/mutate --self-test).

A mutator that touches comments, literals or template brackets wastes the run on mutants that
cannot fail or cannot build, and one that misses real sites reports a kill rate that means
nothing; these tests pin both down on small sources."""

import os
import sys
import tempfile
import types
import unittest

# The script has no .py suffix, so it is loaded by hand.
_PATH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "mutate")
mutate = sys.modules.get("mutate") or types.ModuleType("mutate")
if not hasattr(mutate, "find_mutants"):
    mutate.__file__ = _PATH
    sys.modules["mutate"] = mutate
    with open(_PATH, encoding="utf-8") as f:
        exec(compile(f.read(), _PATH, "exec"), mutate.__dict__)


def sites(src):
    """(kind.variant, mutated source) of every mutant of src."""
    return [(f"{m.kind}.{m.variant}", mutate.apply_mutant(src, m))
            for m in mutate.find_mutants("a.cpp", src)]


class NothingOutsideCode(unittest.TestCase):
    def test_comments_literals_directives_and_static_assert_are_left_alone(self):
        src = "\n".join([
            '#include <vector>',
            '#define LIMIT(a, b) ((a) < (b) ? 1 : 2)',
            '#if X > 3 \\',
            '    && Y < 2',
            '#endif',
            '// if (a < b && c) { x += 1; }',
            '/* 5 > 4 == 1 */',
            'static_assert(sizeof(int) >= 4 && 2 > 1);',
            'const char* s = "a < b, 7 == 7";',
            "const char c = '<';",
            'const char* r = R"x(" if (a < 2) ")x";',
            'const wchar_t* w = L"3 > 2";',
            'int f() { return 0; }',
        ])
        self.assertEqual(sites(src), [("const.+1", src.replace("return 0", "return 1"))])

    def test_template_brackets_and_their_arguments_are_left_alone(self):
        src = ("std::array<std::vector<int>, 3> a; auto b = static_cast<long>(x) < y;\n"
               "template <typename T> bool g(std::map<int, std::pair<int, int>> m);\n"
               "bool h = std::numeric_limits<int>::max() > v;")
        mutated = [s for _, s in sites(src)]
        self.assertEqual(len(mutated), 4, [k for k, _ in sites(src)])
        self.assertIn(src.replace("(x) < y", "(x) <= y"), mutated)
        self.assertIn(src.replace("(x) < y", "(x) > y"), mutated)
        self.assertIn(src.replace("max() > v", "max() >= v"), mutated)
        self.assertIn(src.replace("max() > v", "max() < v"), mutated)

    def test_a_comparison_is_not_taken_for_a_template(self):
        src = "bool f() { return a < b && c > d; }"
        self.assertIn(src.replace("a < b", "a <= b"), [s for _, s in sites(src)])
        self.assertIn(src.replace("c > d", "c >= d"), [s for _, s in sites(src)])

    def test_pure_specifiers_are_left_alone_but_assignments_of_zero_are_not(self):
        src = "struct B { virtual int f() const = 0; virtual void g() = 0; }; void h() { x = 0; }"
        self.assertEqual(sites(src), [("const.+1", src.replace("x = 0", "x = 1"))])

    def test_array_bounds_of_declarations_are_left_alone_but_indices_are_not(self):
        src = "struct R { int v[2]; }; int g(R r) { return r.v[1]; }"
        self.assertEqual(sites(src), [("const.+1", src.replace("v[1]", "v[2]")),
                                      ("const.-1", src.replace("v[1]", "v[0]"))])


class MutationOperators(unittest.TestCase):
    def test_relational_operators_move_their_boundary_and_turn_round(self):
        for op, expected in [("<", ["<=", ">"]), ("<=", ["<", ">="]), (">", [">=", "<"]),
                             (">=", [">", "<="]), ("==", ["!="]), ("!=", ["=="])]:
            src = f"bool f(int a, int b) {{ return a {op} b; }}"
            self.assertEqual([s for _, s in sites(src)],
                             [src.replace(f"a {op} b", f"a {e} b") for e in expected], op)

    def test_integer_constants_keep_their_base_and_suffix(self):
        cases = [("0", ["1"]), ("1", ["2", "0"]), ("7u", ["8u", "6u", "14u"]),
                 ("0x10", ["0x11", "0xF", "0x20"]), ("1'000", ["1001", "999", "2000"]),
                 ("0666", ["0667", "0665", "01554"])]
        for literal, expected in cases:
            src = f"long v = {literal};"
            self.assertEqual([s for _, s in sites(src)],
                             [f"long v = {e};" for e in expected], literal)
        self.assertEqual(sites("double d = 2.5e3 + 1.0f;"), [])

    def test_an_if_becomes_true_false_and_loses_each_clause(self):
        src = "void f() { if (a < 0 && (b || c) && d) g(); }"
        conds = {k: s for k, s in sites(src) if k.startswith("cond")}
        self.assertEqual(conds, {
            "cond.true": "void f() { if (true) g(); }",
            "cond.false": "void f() { if (false) g(); }",
            "cond.drop1": "void f() { if ((b || c) && d) g(); }",
            "cond.drop2": "void f() { if (a < 0 && d) g(); }",
            "cond.drop3": "void f() { if (a < 0 && (b || c)) g(); }",
        })

    def test_or_binds_looser_than_and_when_a_clause_is_dropped(self):
        src = "void f() { if (a || b && c) g(); }"
        conds = {k: s for k, s in sites(src) if k.startswith("cond.drop")}
        self.assertEqual(conds, {"cond.drop1": "void f() { if (b && c) g(); }",
                                 "cond.drop2": "void f() { if (a) g(); }"})

    def test_a_while_only_loses_clauses_and_never_turns_endless(self):
        src = "void f() { while (a && b) g(); while (c) g(); }"
        self.assertEqual(sorted(k for k, _ in sites(src)), ["cond.drop1", "cond.drop2"])

    def test_plus_and_minus_assignments_swap_except_when_appending_text(self):
        src = 'void f() { x += 2; y -= z; s += "a"; }'
        asg = [s for k, s in sites(src) if k.startswith("asg")]
        self.assertEqual(asg, [src.replace("x += 2", "x -= 2"), src.replace("y -= z", "y += z")])

    def test_positions_are_one_based_lines_and_columns(self):
        m = mutate.find_mutants("a.cpp", "// x\n  int v = 42;\n")[0]
        self.assertEqual((m.line, m.col, m.ident), (2, 11, "a.cpp:2:11:const.+1"))
        m = mutate.find_mutants("a.cpp", "bool b = x <= y;")[0]
        self.assertEqual(m.ident, "a.cpp:1:12:rel.lt")


class Draw(unittest.TestCase):
    def mutants(self):
        out = []
        for name, n in [("a.cpp", 30), ("b.cpp", 5), ("c.h", 1)]:
            src = " ".join(f"int v{i} = {i + 2};" for i in range(n))
            out += mutate.find_mutants(name, src)
        return out

    def test_the_seed_fixes_the_draw_and_every_file_gets_a_share(self):
        first = [m.ident for m in mutate.select(self.mutants(), 12, seed=7)]
        self.assertEqual(first, [m.ident for m in mutate.select(self.mutants(), 12, seed=7)])
        self.assertNotEqual(first, [m.ident for m in mutate.select(self.mutants(), 12, seed=8)])
        self.assertEqual(len(first), 12)
        self.assertEqual(len(set(first)), 12)
        self.assertEqual({i.split(":")[0] for i in first}, {"a.cpp", "b.cpp", "c.h"})
        self.assertGreater(sum(i.startswith("a.cpp") for i in first), 6)


    def test_spares_are_the_same_files_left_out_of_the_draw(self):
        mutants = self.mutants()
        chosen = mutate.select(mutants, 12, seed=7)
        spare = mutate.spares(mutants, chosen, seed=7)
        taken = {m.ident for m in chosen}
        for name, left in spare.items():
            self.assertTrue(all(m.file == name and m.ident not in taken for m in left))
        self.assertEqual(sum(map(len, spare.values())) + len(chosen), len(mutants))
        again = mutate.spares(mutants, mutate.select(mutants, 12, seed=7), seed=7)
        self.assertEqual([m.ident for m in spare["a.cpp"]], [m.ident for m in again["a.cpp"]])

class Reports(unittest.TestCase):
    def test_the_killed_of_a_report_are_read_back_even_across_a_condition_of_two_lines(self):
        src = "bool f(int a, int b) {\n  if (a > 1 &&\n      b < 2) return true;\n  return a == b;\n}\n"
        mutants = mutate.find_mutants("a.cpp", src)
        outcomes = ["killed", "survived", "timeout", "invalid"]
        for i, m in enumerate(mutants):
            m.outcome, m.detail, m.seconds = outcomes[i % 4], "t | x", 1.0
        self.assertTrue(any("\n" in m.before for m in mutants if m.outcome in ("killed", "timeout")))
        with tempfile.TemporaryDirectory() as tree:
            with open(os.path.join(tree, "a.cpp"), "w", encoding="utf-8") as f:
                f.write(src)
            args = types.SimpleNamespace(tree=tree, revision="r", folder="x", targets=["t"],
                                         patch=None, seed=1, command_line=["scripts/mutate"])
            path = os.path.join(tree, "report.md")
            mutate.write_markdown(args, mutants, len(mutants), path)
            with open(path, encoding="utf-8") as f:
                read = mutate.killed_in(f.read())
        self.assertEqual(read, [m.ident for m in mutants if m.outcome in ("killed", "timeout")])


if __name__ == "__main__":
    unittest.main()
