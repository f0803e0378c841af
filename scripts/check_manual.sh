#!/usr/bin/env bash
# Checks the manual pages and the shell completion of a build: that they are well formed, tell of each option, and complete.
#   scripts/check_manual.sh BUILD-FOLDER
source "$(dirname "$0")/common.sh"
bin=$1/bin
share=$1/share
fail() { echo "$*" >&2; exit 1; }

for page in "$share/man/man1/qelnk.1" tools/orlin-sim/orlin-sim.1; do
  warnings=$(groff -man -ww -z -Tutf8 "$page" 2>&1)
  [ -z "$warnings" ] || fail "$page: $warnings"
done

# Options of the simulated daemon stand in its help and in its manual, which is written by hand; the help's are its own.
options_in() { grep -oE '(^|[][ ])-{1,2}[a-z][a-z-]*' | tr -d '[] ' | sort -u; }
told=$("$bin/orlin-sim" --help | options_in)
written=$(groff -man -Tascii -P-c -P-b -P-u tools/orlin-sim/orlin-sim.1 | options_in)
diff <(echo "$told") <(echo "$written") || fail "orlin-sim.1 and orlin-sim --help tell of different options"

# A bash that completes: what it offers behind a command line.
offered() {
  bash --norc -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); $(complete -p qelnk | sed "s/.*-F \([^ ]*\).*/\1/")
                  printf "%s\n" "${COMPREPLY[@]}"' - "$share/bash-completion/completions/qelnk" "$@"
}
offers() { # WORD... : OFFER...
  local words=()
  while [ "$1" != : ]; do words+=("$1"); shift; done
  shift
  diff <(printf '%s\n' "$@") <(offered "${words[@]}") || fail "completion of: ${words[*]}"
}
offers qelnk pa : pack
offers qelnk --timeout 5 un : unpack
offers qelnk --timeout = 5 un : unpack
offers qelnk --log-level = i : info
offers qelnk legacy '' : listen connect
offers qelnk legacy listen --po : --port
offers qelnk daemon --connect localhost:5600 start : start start-workflow
offers qelnk request localhost 5555 --log-level i : info
offers qelnk ws --binary '' : ''
mapfile -t commands < <("$bin/qelnk" --help | sed -n '/^commands:/,/^$/s/^  \([a-z]*\( [a-z][a-z]*\)\?\)  .*/\1/p' | grep -v '^ping$')
[ ${#commands[@]} -ge 10 ] || fail "qelnk --help lists ${#commands[@]} commands"
for command in "${commands[@]}"; do
  read -ra words <<<"$command"
  "$bin/qelnk" "${words[@]}" --help | sed -n '/^options:/,$s/^ *\(--[a-z-]*\).*/\1/p' | sort >"$share/told"
  offered qelnk "${words[@]}" -- | sort | diff "$share/told" - || fail "completion and help of qelnk $command tell of different options"
done
rm -f "$share/told"
if command -v zsh >/dev/null; then
  zsh -n "$share/zsh/vendor-completions/_qelnk"
else
  echo "no zsh: its completion was not looked at"
fi
echo "manual pages and completion are in order"
