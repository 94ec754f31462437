"""Runs the three example programs on one picture: each must name what the picture's file name says.

Arguments: the C program, the C++ program, the shell program, the ravu program, the folder of the
demo model.
"""

import os
import subprocess
import sys
import tempfile
from pathlib import Path

from PIL import Image

INPUT_SIZE = 32


def run(*command, expect=0, **options):
    result = subprocess.run(command, capture_output=True, text=True, check=False, **options)
    assert result.returncode == expect, (command, result)
    return result.stdout


def main(c_program, cpp_program, shell_program, ravu, model_folder):
    model = str(Path(model_folder) / "characters.ravu")
    picture = Path(model_folder) / "images" / "06_F.png"
    label = picture.stem.split("_")[1]
    with tempfile.TemporaryDirectory() as folder:
        ppm = str(Path(folder) / "picture.ppm")
        with Image.open(picture) as image:
            image.convert("RGB").resize((INPUT_SIZE, INPUT_SIZE), Image.BOX).save(ppm)
        from_c = run(c_program, model, ppm)
        from_cpp = run(cpp_program, model, ppm)
        assert from_c == from_cpp, (from_c, from_cpp)
        assert from_c.split()[0] == label, from_c
        assert float(from_c.split()[1]) > 0.5, from_c
        from_shell = run(shell_program, model, str(picture), env=os.environ | {"RAVU": ravu})
        assert from_shell.split("\t")[3].strip() == label, from_shell

        for program in (c_program, cpp_program):
            run(program, model, str(picture), expect=1)  # a PNG is no PPM
            run(program, str(picture), ppm, expect=1)  # a picture is no model
        run(c_program, expect=2)


def check_readme(readme, source):
    """The program that the README shows is the one that is built here."""
    code = Path(source).read_text(encoding="utf-8")
    body = code[code.index("int main(") :]
    assert body in Path(readme).read_text(encoding="utf-8"), f"{readme} differs from {source}"


if __name__ == "__main__":
    check_readme(sys.argv[6], sys.argv[7])
    main(*sys.argv[1:6])
