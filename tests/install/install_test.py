"""Installs the library, moves what was installed, and uses it from there as other projects do: once
found by CMake, once by pkg-config, each from C and from C++.

usage: install_test.py --build FOLDER --source FOLDER --model FILE --libdir lib --cc CC --cxx CXX
                       [--flags FLAGS] [--fixed-point]
"""

import argparse
import os
import shlex
import shutil
import subprocess
import tempfile
from pathlib import Path


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True, help="build folder that is installed")
    parser.add_argument("--source", required=True, help="root of the source tree")
    parser.add_argument("--model", required=True, help="model file that write_test_model wrote")
    parser.add_argument("--libdir", required=True, help="library folder below the prefix")
    parser.add_argument("--generator", required=True, help="CMake's, for the outside project")
    parser.add_argument("--cc", required=True)
    parser.add_argument("--cxx", required=True)
    parser.add_argument("--flags", default="", help="for compiling and linking, say -fsanitize=...")
    parser.add_argument("--fixed-point", action="store_true",
                        help="whether the fixed-point library and the program were built too")
    return parser.parse_args()


def run(*command, **options):
    print("+", *command, flush=True)
    return subprocess.run([str(part) for part in command], check=True, text=True, **options)


def install(options, work):
    """Installs into one prefix and moves it to another, with a space in its name."""
    first, second = work / "first", work / "moved here"
    run("cmake", "--install", options.build, "--prefix", first, stdout=subprocess.DEVNULL)
    shutil.move(first, second)
    return first, second


def check_files(options, first, prefix):
    lib = prefix / options.libdir
    for path in [prefix / "include/ravu/ravu.h", lib / "libravu.so", lib / "pkgconfig/ravu.pc",
                 lib / "cmake/ravu/ravuConfig.cmake", lib / "cmake/ravu/ravuConfigVersion.cmake"]:
        assert path.exists(), f"{path} was not installed"
    assert list(lib.glob("*.a")) == [], "the static library is for the project's own use"
    headers = sorted(path.name for path in (prefix / "include").rglob("*.h*"))
    assert headers == ["ravu.h", "ravu.hpp"], f"installed headers: {headers}"
    # What others read must not speak of this machine or of what the library is made of.
    for path in [*lib.glob("pkgconfig/*"), *lib.glob("cmake/ravu/*")]:
        text = path.read_text(encoding="utf-8")
        for word in [str(first), str(Path(options.source).resolve()),
                     str(Path(options.build).resolve()), "ravu_core", "PkgConfig::", "openblas"]:
            assert word not in text, f"{path} contains {word}"


def check_with_cmake(options, work, prefix):
    build = work / "outside"
    # Other copies on the machine must not help.
    run("cmake", "-G", options.generator, "-S", Path(options.source) / "tests/install/outside",
        "-B", build,
        f"-DCMAKE_PREFIX_PATH={prefix}", f"-DCMAKE_C_COMPILER={options.cc}",
        f"-DCMAKE_CXX_COMPILER={options.cxx}", f"-DCMAKE_C_FLAGS={options.flags}",
        f"-DCMAKE_CXX_FLAGS={options.flags}", "-DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF",
        stdout=subprocess.DEVNULL)
    run("cmake", "--build", build, stdout=subprocess.DEVNULL)
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    assert f"ravu_DIR:PATH={prefix}" in cache, "another copy of the library was found"
    for program in ["outside_c", "outside_cpp"]:
        run(build / program, options.model)


def check_with_pkg_config(options, work, prefix):
    lib = prefix / options.libdir
    environment = {**os.environ, "PKG_CONFIG_PATH": str(lib / "pkgconfig"),
                   "LD_LIBRARY_PATH": str(lib)}
    found = run("pkg-config", "--cflags", "--libs", "ravu >= 0.1", env=environment,
                stdout=subprocess.PIPE).stdout
    api = Path(options.source) / "tests/api"
    for compiler, source, standard in [(options.cc, "ravu_c_test.c", "c11"),
                                       (options.cxx, "ravu_cpp_test.cpp", "c++11")]:
        program = work / source.replace(".", "_")
        run(compiler, f"-std={standard}", *shlex.split(options.flags), api / source,
            *shlex.split(found), "-o", program)
        run(program, options.model, env=environment)


def check_fixed_point(options, prefix):
    """The program finds the library where it was moved to."""
    library = "libravu_fixpoint.so"
    assert (prefix / options.libdir / library).exists(), f"{library} was not installed"
    run(prefix / "bin/ravu", "bench", options.model, "--mode", 3, "--repeats", 1,
        stdout=subprocess.DEVNULL)


def main():
    options = arguments()
    with tempfile.TemporaryDirectory(prefix="ravu_install_") as folder:
        work = Path(folder).resolve()
        first, prefix = install(options, work)
        check_files(options, first, prefix)
        check_with_cmake(options, work, prefix)
        check_with_pkg_config(options, work, prefix)
        if options.fixed_point:
            check_fixed_point(options, prefix)


if __name__ == "__main__":
    main()
