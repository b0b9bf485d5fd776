#!/usr/bin/env bash
# The kxzel bash completion: loads in a plain bash (no bash-completion package
# needed) and completes subcommands, options and local paths.
set -u
script=$1
# shellcheck source=/dev/null
source "$script" || { echo "completion script does not load"; exit 1; }
complete -p kxzel kxzel-testinstall >/dev/null || { echo "not registered"; exit 1; }

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir "$tmp/subdir"
: >"$tmp/report.pdf"
cd "$tmp" || exit 1

fails=0
# expect "command line as typed (the last word is being completed)" "expected replies"
expect() {
  local line=$1 want=$2
  read -r -a COMP_WORDS <<<"$line"
  [[ $line == *" " ]] && COMP_WORDS+=("")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _kxzel
  local got
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' ')
  want=$(printf '%s\n' $want | sort | tr '\n' ' ')
  if [[ $got != "$want" ]]; then
    echo "FAIL: '$line': got '$got', want '$want'"
    fails=$((fails + 1))
  fi
}

expect "kxzel vg" "vget"
expect "kxzel f" "fdel fget flist fput"
expect "kxzel ls" "lsdisks lsnodes"
expect "kxzel-testinstall ch" "chdisks chnodes"
expect "kxzel --v" "--version"
expect "kxzel vput -" "-P -V -y -F -c -v"
expect "kxzel init -" "-P -V -y -F -c -n -p -d -D"
expect "kxzel vget -c " ""
expect "kxzel fput name rep" "report.pdf"
expect "kxzel fget -c 3 name rep" "report.pdf"
expect "kxzel fget rep" ""
expect "kxzel vput name rep" ""
expect "kxzel init -D su" "subdir"
expect "kxzel init -D rep" ""
expect "kxzel init -d rep" "report.pdf"
expect "kxzel setup -c rep" "report.pdf"
expect "kxzel vput -c rep" ""

if ((fails > 0)); then exit 1; fi
echo "completion: all cases pass"
