#!/usr/bin/env bash
# Lists what zelta.dll exports and imports: the members of CZELTA alone, from libraries of the system
# alone. Argument: the DLL.
set -euo pipefail
dump=$(x86_64-w64-mingw32-objdump -p "$1")
exports=$(sed -n '/^\[Ordinal\/Name Pointer\] Table/,/^$/s/^\t\[ *[0-9]*\] \(+base\[ *[0-9]*\]  *[0-9a-f]* \)\?//p' <<< "$dump")
imports=$(sed -n 's/^\tDLL Name: //p' <<< "$dump")
echo "exports:"
x86_64-w64-mingw32-c++filt <<< "$exports"
echo "imports:"
echo "$imports"
[ "$(wc -l <<< "$exports")" -ge 38 ] || { echo "members of CZELTA are missing"; exit 1; }
if grep -vE '^_ZN6CZELTA(C[12]E|D[12]E|aSE|[0-9]+[A-Z])' <<< "$exports"; then echo "more than CZELTA is exported"; exit 1; fi
if grep -viE '^(kernel32|advapi32|msvcrt)\.dll$' <<< "$imports"; then echo "more than the system is needed"; exit 1; fi
