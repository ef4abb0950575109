#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# What was installed: contents.sh PREFIX LIBDIR COMPILER. The shared library shows the public
# routines and shared variables, each in C++ and in C, and nothing else; all headers compile together.
set -eu
include=$1/include
library=$1/$2/libstatsubs.so
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT

readelf -d "$library" | grep -q 'SONAME.*libstatsubs\.so\.[0-9]' || { echo "no versioned SONAME"; exit 1; }
nm -D --defined-only "$library" | awk '{print $3}' > "$work/symbols"

# Everything has a name of ours: mangled in the namespace, or with the prefix.
if grep -vE '^(_ZN8statsubs|statsubs_|_ZNK?St|_ZZNK?St|_ZGVZ?NK?St|_ZT[ISV]N?St|_ZT[ISV]N8statsubs)' "$work/symbols"; then
  echo "is shown and should not be"
  exit 1
fi

sed -nE 's/.*[ *](statsubs_[a-z0-9_]+)\(.*/\1/p' "$include"/statsubs/c/*.h | sort -u > "$work/declared"
grep '^statsubs_' "$work/symbols" | sort > "$work/defined"
test "$(wc -l < "$work/declared")" -gt 100
diff "$work/declared" "$work/defined"

c++filt < "$work/symbols" | sed -nE 's/^statsubs::([a-z0-9_]+)\(.*/\1/p' | sort -u > "$work/c++"
sed -nE 's/.* statsubs_([a-z0-9_]+)\(.*/\1/p' "$include/statsubs/c/routines.h" | sort > "$work/routines"
comm -13 "$work/c++" "$work/routines" > "$work/missing"
test ! -s "$work/missing" || { echo "not shown to C++:"; cat "$work/missing"; exit 1; }

(cd "$include" && find statsubs -name '*.h') | sort | sed 's/.*/#include "&"/' > "$work/all.cpp"
"$3" -std=c++20 -Wall -Wextra -Wpedantic -Werror -I"$include" -fsyntax-only "$work/all.cpp"
