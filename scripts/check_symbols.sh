#!/usr/bin/env bash
# Compares what the library exports with the list kept in the tree, so that nothing leaks and nothing vanishes unseen.
#   scripts/check_symbols.sh [BUILD-FOLDER]            tells the differences
#   scripts/check_symbols.sh --accept [BUILD-FOLDER]   takes them over
source "$(dirname "$0")/common.sh"
list=cmake/exported-symbols.txt
accept=false
[ "${1:-}" != --accept ] || { accept=true; shift; }
folder=${1:-build/release}

# As they are written in C++, which a reader of a change understands. The kinds of constructors and destructors, which come
# together, are one line then. Left out are the type names of closures in the headers' own templates.
exported() {
  nm -DC --defined-only "$folder/lib/libQELNetworkKit.so" | cut -d' ' -f3- | grep -v '^typeinfo name for .*{lambda' | LC_ALL=C sort -u
}
if $accept; then
  symbols=$(exported)
  echo "$symbols" >"$list"
elif ! changes=$(diff "$list" <(exported)); then
  sed -nE 's/^< /vanished: /p; s/^> /new: /p' <<<"$changes" >&2
  echo "What the library exports has changed. Where that is meant: scripts/check_symbols.sh --accept" >&2
  exit 1
else
  echo "the library exports the $(wc -l <"$list") symbols that it should"
fi
