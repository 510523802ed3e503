"""Each rule of scripts/check_rules.py, with texts that break it and texts that keep it."""

import contextlib
import io
import pathlib
import subprocess
import sys
import tempfile
import unittest
from unittest import mock

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
sys.dont_write_bytecode = True
import check_rules

INSIDE = "src/storage/some.cpp"
PLATFORM = "src/platform/posix/some.cpp"
OUTSIDE = "tests/storage/some_test.cpp"


def offences(name, text):
    return list(check_rules.check_source(pathlib.PurePosixPath(name), text))


class Rules(unittest.TestCase):
    def assert_kept(self, text, *names):
        for name in names:
            self.assertEqual(offences(name, text), [], f"{name}: {text}")

    def assert_broken(self, text, *names, line=1, words=""):
        for name in names:
            found = offences(name, text)
            self.assertEqual([number for number, _ in found], [line], f"{name}: {text}")
            self.assertIn(words, found[0][1])

    def test_a_file_has_so_many_lines_at_most(self):
        most = "int a;\n" * check_rules.MAX_FILE_LINES
        self.assert_kept(most, INSIDE, OUTSIDE)
        self.assert_broken(most + "int b;\n", INSIDE, OUTSIDE, words=f"at most {check_rules.MAX_FILE_LINES}")

    def test_marks_of_unfinished_work(self):
        for mark in ("// TO" "DO: more", "int a;  // FIX" "ME", "// X" "XX", "// HA" "CK",
                     "GTEST_" "SKIP();", "TEST(Suite, DISA" "BLED_Test) {"):
            self.assert_broken(f"int a;\n{mark}\n", INSIDE, PLATFORM, OUTSIDE, line=2, words="unfinished")
        self.assert_kept("int ha" "ck = maX" "XXimum;  // what is left to do\n", INSIDE, PLATFORM, OUTSIDE)

    def test_characters_are_of_ascii(self):
        self.assert_broken("int a;\n// a \u2013 b\n", INSIDE, PLATFORM, OUTSIDE, line=2, words="ASCII")
        self.assert_kept('const char16_t a[] = u"\\u2013";\n', INSIDE, PLATFORM, OUTSIDE)

    def test_headers_of_the_system_are_for_the_platform(self):
        for header in ("unistd.h", "sys/mman.h", "windows.h"):
            self.assert_broken(f"#include <{header}>\n", INSIDE, "src/api/some.h", words=f"<{header}>")
            self.assert_kept(f"#include <{header}>\n", PLATFORM, OUTSIDE)
        self.assert_kept("#include <vector>\n#include <string_view>\n#include <cstdint>\n", INSIDE)

    def test_the_library_neither_prints_nor_ends_the_process(self):
        for call in ('printf("a");', "puts (a);", "exit(1);", "abort();", "std::cout << a;",
                     "std::cerr << a;", "std::exit(1);", "std::abort();"):
            self.assert_broken(f"  {call}\n", INSIDE, words="prints")
            self.assert_kept(f"  {call}\n", PLATFORM, OUTSIDE, "tools/some.cpp")
        self.assert_kept("  snprintf(a, 1, b);\n  abortTransaction();\n  onExit();\n", INSIDE)

    def test_a_layer_includes_no_upper_one(self):
        lowest, highest = "platform", "api"
        upward = f'#include "{highest}/some.h"\n'
        self.assert_broken(f"int a;\n{upward}", f"src/{lowest}/some.cpp", f"src/{lowest}/posix/some.h", line=2,
                           words=f"{lowest} must not include {highest}")
        self.assert_kept(f'#include "{lowest}/some.h"\n', f"src/{highest}/some.cpp", f"src/{lowest}/some.cpp")
        self.assert_kept(upward, f"src/{highest}/some.cpp", OUTSIDE, "tools/some.cpp")
        self.assert_kept('#include "czelta.h"\n', f"src/{lowest}/some.cpp")

    def test_each_offence_is_told_with_its_line(self):
        found = offences(INSIDE, "#include <poll.h>\nint a;\nexit(1);  // FIX" "ME\n")
        self.assertEqual([number for number, _ in found], [1, 3, 3])


class Program(unittest.TestCase):
    """The whole program, in a repository of its own."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        self.git("init", "--quiet")

    def git(self, *words):
        subprocess.run(["git", *words], cwd=self.root, check=True)

    def write(self, name, text):
        file = self.root / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text, "utf-8")
        self.git("add", name)

    def run_program(self):
        out = io.StringIO()
        with mock.patch.object(check_rules, "ROOT", self.root), contextlib.redirect_stdout(out):
            return check_rules.main(), out.getvalue()

    def test_is_silent_when_all_is_well(self):
        self.write("src/storage/some.cpp", "int a;\n")
        self.assertEqual(self.run_program(), (0, ""))

    def test_names_file_and_line(self):
        self.write("src/storage/some.cpp", "int a;\nexit(1);\n")
        code, out = self.run_program()
        self.assertEqual(code, 1)
        self.assertRegex(out, r"^src/storage/some\.cpp:2: .*\n$")

    def test_reads_sources_alone(self):
        self.write("some.md", "a \u2013 b\n")
        (self.root / "new.cpp").write_text("exit(1);  // \u2013\n", "utf-8")  # unknown to git
        self.assertEqual(self.run_program(), (0, ""))

    def test_goes_on_without_a_file_that_is_gone(self):
        self.write("src/storage/some.cpp", "exit(1);\n")
        (self.root / "src/storage/some.cpp").unlink()
        self.assertEqual(self.run_program(), (0, ""))

    def test_a_file_of_any_kind_has_a_mebibyte_at_most(self):
        self.write("some.bin", "a" * check_rules.MAX_FILE_BYTES)
        self.assertEqual(self.run_program(), (0, ""))
        self.write("some.bin", "a" * (check_rules.MAX_FILE_BYTES + 1))
        self.assertEqual(self.run_program(), (1, "some.bin: larger than 1 MiB\n"))


if __name__ == "__main__":
    unittest.main()
