"""Compares the functions that libravu exports with those that the export map and the header name.

usage: symbols_test.py NM READELF LIBRARY EXPORT_MAP HEADER MAJOR_VERSION
"""

import re
import subprocess
import sys
from pathlib import Path

FUNCTIONS = """
ravu_create_data_blob
ravu_create_network_caffe
ravu_create_network_private
ravu_destroy_network
ravu_forward
ravu_getOutput_Labels
ravu_getOutput_blob
ravu_getOutput_blob_num
ravu_get_network_inputChannels
ravu_get_network_inputSize
ravu_hidden_blob
ravu_print_timeTable
ravu_release_netowrk_weights
ravu_save_network_to_private
ravu_set_InputData
ravu_set_InputData_byRawData_byte
ravu_set_InputData_byRawData_float
ravu_set_InputData_byRawData_test
ravu_set_meanData
ravu_setup_runEngine
""".split()


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def exported(nm, library):
    lines = output_of(nm, "-D", "--defined-only", library).splitlines()
    return [line.split()[-1].split("@")[0] for line in lines]


def in_map(export_map):
    text = Path(export_map).read_text(encoding="utf-8")
    names = re.search(r"global:(.*?)local:\s*\*;", text, re.DOTALL).group(1)
    return re.findall(r"\S+(?=;)", names)


def in_header(header):
    return re.findall(r"^RAVU_API [^;(]*?(\w+)\(", Path(header).read_text(encoding="utf-8"),
                      re.MULTILINE)


def main():
    nm, readelf, library, export_map, header, major = sys.argv[1:]
    failed = False
    for place, names in [(library, exported(nm, library)), (export_map, in_map(export_map)),
                         (header, in_header(header))]:
        if sorted(names) != sorted(FUNCTIONS):
            failed = True
            print(f"{place}: missing {sorted(set(FUNCTIONS) - set(names))}, "
                  f"too many {sorted(set(names) - set(FUNCTIONS))}, {len(names)} names in all")
    soname = re.search(r"\(SONAME\).*\[(.*)\]", output_of(readelf, "-d", library))
    if soname is None or soname.group(1) != f"libravu.so.{major}":
        failed = True
        print(f"{library}: the soname is {soname and soname.group(1)}, not libravu.so.{major}")
    sys.exit(failed)


if __name__ == "__main__":
    main()
