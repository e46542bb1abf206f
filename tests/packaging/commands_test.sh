#!/bin/bash
# What the completion and kavrinctl(1) know of kavrinctl, against what the tool says of itself: every
# command and option is completed, map commands complete files, and the page has an entry for each
# command and for no other.
#
#   commands_test.sh KAVRINCTL COMPLETION MANUAL_PAGE_SOURCE
set -euo pipefail
tool=$(realpath "$1") completion=$(realpath "$2") page=$(realpath "$3")
failed=0
fail() { echo "commands: $*" >&2; failed=1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# proposals WORD...: what is offered for the last word.
proposals() {
  bash -c '. "$1"; shift; COMP_WORDS=(kavrinctl "$@"); COMP_CWORD=$#
           $(complete -p kavrinctl | sed "s/.*-F \([^ ]*\) .*/\1/"); printf "%s\n" "${COMPREPLY[@]}"' \
    bash "$completion" "$@" 2>/dev/null
}

# The words that a part of a help text begins its lines with.
part() { # TITLE COMMAND...
  local title=$1
  shift
  "$tool" "$@" --help | sed -n "/^$title:/,/^[^ ]*:\?$/p" | sed -n 's/^  \([-a-z][^ ]*\).*/\1/p'
}

leaves=0
visit() { # COMMAND...
  local names name offered
  names=$(part Subcommands "$@")
  [ -z "$names" ] || [ "$(proposals "$@" '' | sort)" = "$(sort <<<"$names")" ] ||
    fail "'kavrinctl $*' offers '$(proposals "$@" '' | tr '\n' ' ')', the help lists '${names//$'\n'/ }'"
  offered=$(proposals "$@" -)
  for name in $(part Options "$@" | tr ',' ' '); do
    grep -qxe "$name" <<<"$offered" || fail "'kavrinctl $*' does not offer $name"
  done
  if [ -z "$names" ]; then
    leaves=$((leaves + 1))
    echo "$*" >>"$work/leaves"
    return
  fi
  for name in $names; do visit "$@" "$name"; done
}
visit
[ "$leaves" -ge 20 ] || fail "only $leaves commands were found in the help"

cd "$work"
touch pair.size.json
for command in lint build verify; do
  [ "$(proposals map "$command" pair)" = pair.size.json ] || fail "'map $command' does not complete files"
done
[ "$(proposals map tree --file pair)" = pair.size.json ] || fail "'map tree --file' does not complete files"
[ "$(proposals check --type fo)" = folder ] || fail "'check --type' does not complete its words"
[ "$(proposals check --user roo | head -n 1)" = root ] || fail "'check --user' does not complete users"

sed -n '/^# COMMANDS/,/^# EXIT/s/^\*\([a-z][-a-z ]*\)\*$/\1/p' "$page" | sort >entries
sort leaves | diff - entries >difference ||
  fail "kavrinctl(1) has not the commands of the tool (< tool, > page):"$'\n'"$(cat difference)"

[ "$failed" = 0 ] && echo "commands: $leaves commands in completion and manual page"
exit "$failed"
