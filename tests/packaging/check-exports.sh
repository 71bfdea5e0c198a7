#!/usr/bin/env bash
# Checks what the add-on's libraries show a consumer: the C entry point under exactly its name
# in both the static and the shared library, and nothing from the private dependencies or the
# standard library in the shared library's dynamic symbol table.
set -euo pipefail
static_library=$1
shared_library=$2

static_symbols=$(nm --defined-only "$static_library" 2>/dev/null)
shared_symbols=$(nm -D --defined-only "$shared_library")
grep -Eq ' T Nimb_Orra_ApnsService_Register$' <<<"$static_symbols" ||
  { echo "static library lacks Nimb_Orra_ApnsService_Register"; exit 1; }
grep -Eq ' T Nimb_Orra_ApnsService_Register$' <<<"$shared_symbols" ||
  { echo "shared library does not export Nimb_Orra_ApnsService_Register"; exit 1; }
leaked=$(nm -D --defined-only -C "$shared_library" | awk '{ $1 = ""; $2 = ""; print }' |
  grep -v 'nimborra::' | grep -v '^ *Nimb_Orra_ApnsService_Register$' || true)
if [[ -n $leaked ]]; then
  echo "shared library exports symbols beyond its API:"
  echo "$leaked" | head -20
  exit 1
fi
