# What the end-to-end scripts check with. Sourced by them.
failures=0
checks=0

# wants WHAT EXPECTED ACTUAL
wants() {
  checks=$((checks + 1))
  [ "$2" = "$3" ] && return
  failures=$((failures + 1))
  printf 'FAILED %s\n  expected: %s\n  actual:   %s\n' "$1" "$2" "$3"
}
# The status of a refusal, or "ok".
status_of() { grep -o 'NT_STATUS_[A-Z_]*' <<<"$1" | head -1 || true; }
# does USER STATUS COMMAND [RECORDS]: the status that an SMB command ends with and the records that it
# leaves, separated by "; ".
does() {
  local user=$1 expected=$2 command=$3 records=${4:-} output status
  output=$(smb "$user" "$command")
  status=$(status_of "$output")
  wants "$user: $command" "$expected" "${status:-ok}"
  wants "$user: records of $command" "$records" "$(events | grep -v 'Gid' | paste -sd';' | sed 's/;/; /g')"
}
# names USER FOLDER: what a listing shows, sorted.
names() {
  smb "$1" "cd \"$2\"; ls" | sed -n 's/^  \([^ ].*[^ ]\)  *[DAHSRN]*  *[0-9]\+  [A-Z][a-z][a-z] .*/\1/p' |
    sed 's/ *[DAHSRN]*$//' | grep -v '^\.' | sort | paste -sd' '
}
denied=NT_STATUS_ACCESS_DENIED

# Whether no client is connected any more; then all that they did is recorded. smbd's helpers bear
# names of their own.
is_alone() {
  local child
  for child in $(<"/proc/$smbd_process/task/$smbd_process/children"); do
    [ "$(cat "/proc/$child/comm" 2>/dev/null)" != smbd ] || return 1
  done
}

# To be called last.
finish() {
  wants 'no core file' '' "$(find "$state" -name 'core*' -type f)"
  wants 'no complaint in the log' '' \
    "$(grep -iE 'panic|identity|assert' "$state/log/smbd.log" | head -3)"
  printf '%s checks, %s failed\n' "$checks" "$failures"
  [ "$failures" = 0 ]
}
