"""Tests of scripts/check_includes.py and scripts/check_kept.py on small trees made here."""

import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SCRIPTS = Path(__file__).parents[2] / "scripts"


class ScriptTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="ravu_scripts_")
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)

    def write(self, path, text):
        (self.root / path).parent.mkdir(parents=True, exist_ok=True)
        (self.root / path).write_text(text, encoding="utf-8")

    def run_script(self, name):
        """Its exit status and the lines that it printed."""
        done = subprocess.run([sys.executable, SCRIPTS / name, self.root], text=True, check=False,
                              capture_output=True)
        return done.returncode, done.stdout.splitlines()


class CheckIncludes(ScriptTest):
    def verdict(self, path, included):
        self.write("src/api/exports.cpp", "")
        self.write(path, f'// A file.\n#include "{included}"\n#include <vector>\n')
        status, lines = self.run_script("check_includes.py")
        self.assertEqual(status, 1 if lines else 0)
        (self.root / path).unlink()
        return "\n".join(lines)

    def test_each_folder_may_include_itself_and_those_after_it(self):
        folders = ["api", "model", "layers", "graph", "kernels"]
        for i, folder in enumerate(folders):
            for j, target in enumerate(folders):
                verdict = self.verdict(f"src/{folder}/a.cpp", f"{target}/b.h")
                self.assertEqual(verdict == "", j >= i, f"{folder} includes {target}: {verdict}")

    def test_a_complaint_names_file_include_and_rule(self):
        self.assertEqual(self.verdict("src/kernels/a.h", "graph/Blob.h"),
                         'src/kernels/a.h: #include "graph/Blob.h": '
                         "kernels must not include graph: that points backwards")

    def test_sub_folders_count_as_their_folder(self):
        self.assertIn("backwards", self.verdict("src/layers/x/a.cpp", "model/record.h"))

    def test_only_api_includes_the_public_header(self):
        self.assertEqual(self.verdict("src/api/a.h", "ravu/ravu.h"), "")
        self.assertIn("only api", self.verdict("src/model/a.h", "ravu/ravu.h"))

    def test_interfaces_are_for_those_who_speak_to_the_other_side(self):
        self.assertEqual(self.verdict("src/graph/a.h", "cldnn/cldnn.h"), "")
        self.assertEqual(self.verdict("src/layers/a.h", "fixpoint/fixpoint.h"), "")
        self.assertIn("interface", self.verdict("src/kernels/a.cpp", "cldnn/cldnn.h"))
        self.assertEqual(self.verdict("src/graph/a.h", "fixpoint/fixpoint.h"), "")
        self.assertIn("interface", self.verdict("src/model/a.cpp", "fixpoint/fixpoint.h"))

    def test_a_quoted_include_without_folder_is_refused_in_the_engine(self):
        self.assertIn("name a folder", self.verdict("src/graph/a.cpp", "Blob.h"))

    def test_the_separate_projects_see_nothing_of_the_engine(self):
        self.write("opencl/src/api/engine.h", "")
        self.assertEqual(self.verdict("opencl/src/a.cpp", "api/engine.h"), "")
        self.assertEqual(self.verdict("opencl/src/a.cpp", "cldnn/cldnn.h"), "")
        self.assertIn("meet only", self.verdict("opencl/src/a.cpp", "graph/Blob.h"))
        self.assertIn("meet only", self.verdict("fixpoint/src/a.cpp", "ravu/ravu.h"))

    def test_examples_see_the_public_headers_alone(self):
        self.assertEqual(self.verdict("examples/a.c", "ravu/ravu.h"), "")
        self.assertIn("public headers", self.verdict("examples/a.cpp", "graph/Blob.h"))

    def test_tests_and_tools_may_include_all(self):
        for folder in ["tests/graph", "tools", "bench"]:
            self.assertEqual(self.verdict(f"{folder}/a.cpp", "kernels/kernels.h"), "")


class CheckKept(ScriptTest):
    def lines(self, marker="odd on purpose, for once.", row="odd on purpose",
              test="TEST(Suite, Name) {}", named="`Suite.Name`"):
        self.write("src/graph/Blob.cpp", f"// Kept: {marker}\n" if marker else "")
        self.write("tests/graph/Blob_test.cpp", test)
        self.write("docs/testing.md", "| file | the marker begins | test |\n|---|---|---|\n" +
                   (f"| `src/graph/Blob.cpp` | {row} | {named} |\n" if row else ""))
        status, lines = self.run_script("check_kept.py")
        self.assertEqual(status, 1 if lines else 0)
        return "\n".join(lines)

    def test_a_marker_with_a_row_and_a_test_passes(self):
        self.assertEqual(self.lines(), "")
        self.assertEqual(self.lines(test="TEST_F(Suite, Name) {}"), "")
        self.assertEqual(self.lines(test="TEST(Suite,\n     Name) {}"), "")

    def test_a_marker_without_a_row_fails(self):
        self.assertIn("odd on purpose, for once.: 0 rows", self.lines(row=None))

    def test_a_row_without_a_marker_fails(self):
        self.assertIn("no marker that begins with: odd", self.lines(marker=None))

    def test_a_row_of_another_marker_does_not_count(self):
        self.assertIn("0 rows", self.lines(row="even on purpose"))

    def test_a_row_whose_test_is_gone_fails(self):
        self.assertEqual(self.lines(test="TEST(Suite, Other) {}"),
                         "docs/testing.md: there is no test Suite.Name")

    def test_every_test_of_a_row_must_exist(self):
        self.assertEqual(self.lines(named="`Suite.Name`, `Suite.Other`"),
                         "docs/testing.md: there is no test Suite.Other")


if __name__ == "__main__":
    unittest.main()
