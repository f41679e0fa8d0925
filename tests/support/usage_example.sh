#!/bin/sh
# Prints the usage example of a public header, a whole program.
# usage: usage_example.sh HEADER
exec sed -n '/@code/,/@endcode/{/@.*code/d; s/^ \*//; s/^ //; p}' "$1"
