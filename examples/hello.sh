#!/bin/sh
# The same as hello.c, from the shell: hello.sh MODEL PICTURE. The picture is a JPEG or PNG of any
# size; RAVU names the program when it is not on the path.
set -eu
[ $# -eq 2 ] || { echo "usage: hello.sh MODEL PICTURE" >&2; exit 2; }
"${RAVU:-ravu}" classify "$1" "$2" --top 1
