#!/bin/sh
# The completion scripts: bash loads its script and completes commands,
# options and values from it as vxadmin's own table has them; so does zsh's
# script (scripts/setup.sh installs zsh).
#
#   check_completion.sh VXADMIN
set -eu
vxadmin=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  printf '%s\n' "$*" >&2
  exit 1
}
"$vxadmin" completion bash > "$work/vxadmin.bash"
"$vxadmin" completion zsh > "$work/_vxadmin"

bash -c ". '$work/vxadmin.bash'; complete -p vxadmin" > "$work/registered"
grep -qx 'complete -F _vxadmin vxadmin' "$work/registered" || fail "not registered: $(cat "$work/registered")"

# The candidates for the words "$@", the last being the one completed.
complete_words() {
  bash -c '. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _vxadmin
           printf "%s\n" "${COMPREPLY[@]}"' completion "$work/vxadmin.bash" "$@"
}
expect() {  # words..., then "--", then the candidates expected, in order
  words=""
  while [ "$1" != -- ]; do words="$words '$1'"; shift; done
  shift
  eval "complete_words $words" > "$work/got"
  printf '%s\n' "$@" | cmp -s - "$work/got" || fail "for$words: $(tr '\n' ' ' < "$work/got")"
}
expect vxadmin cr -- create
expect vxadmin st -- status start stop
expect vxadmin create '' -- queue --help --qmgr --data --direct --json --quiet --wait
expect vxadmin create queue A --max -- --max-msg-length --max-depth
expect vxadmin change queue A --def-persistence '' -- not_persistent persistent
expect vxadmin --qmgr QM2 list q -- queues
expect vxadmin create queue A --type m -- model
expect vxadmin completion '' -- --help --qmgr --data --direct --json --quiet --wait
# A flag takes no value: the word after it is a command.
expect vxadmin --json list q -- queues
# The value of an option is not a command.
expect vxadmin --data show '' -- ping show create change copy delete clear list status put get \
  shell serve start stop help completion --help --qmgr --data --direct --json --quiet --wait \
  --version
expect vxadmin --data DIR show '' -- qmgr queue --help --qmgr --data --direct --json --quiet --wait

command -v zsh > /dev/null || fail "zsh is not installed (sh scripts/setup.sh)"
zsh -c "autoload -U compinit && compinit -u; . '$work/_vxadmin'; print \${_comps[vxadmin]}" |
  grep -qx _vxadmin || fail "zsh: _vxadmin does not complete vxadmin"
# The function called as zsh's completion calls it, compadd printing what
# it is offered (zsh itself keeps those that match the word).
zsh_offers() {
  zsh -c 'compdef() { :; }; compadd() { shift; print -l -- "$@"; }; . "$1"; shift
          words=("$@"); CURRENT=$#; _vxadmin' completion "$work/_vxadmin" "$@"
}
zsh_offers vxadmin cr | grep -qx create || fail "zsh: create not offered"
zsh_offers vxadmin --json list q | grep -qx queues || fail "zsh: queues not offered"
[ "$(zsh_offers vxadmin change queue A --def-persistence '' | tr '\n' ' ')" = \
  "not_persistent persistent " ] || fail "zsh: values of --def-persistence"
head -n 1 "$work/_vxadmin" | grep -qx '#compdef vxadmin' || fail "zsh: no #compdef line"
echo "bash and zsh complete vxadmin's commands, options and values"
