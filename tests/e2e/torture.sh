# smbtorture against a kavrin share where the user has all rights, and against a plain share of the
# same smbd: what passes there passes here, or torture.txt says why not. Run by tests/e2e/smbd.
#
#   TORTURE_SLOW=1   run the tests that torture.txt calls slow, too: some minutes
. "$project/tests/e2e/checks.sh"

reasons=$project/tests/e2e/torture.txt
plain=/srv/plain
suites='aio_delay acls acls_non_canonical compound compound_async compound_find connect create
  create_no_streams credits delete-on-close-perms deny dir dosmode durable-open
  durable-open-disconnect durable-v2-open durable-v2-delay ea fileid getinfo ioctl lease lock mangle
  maximum_allowed mkdir notify notify-inotify openattr oplock read rename rw samba3misc sdread
  session-id set-sparse-ioctl setinfo sharemode streams tcon timestamps twrp winattr
  zero-data-ioctl'

command -v smbtorture >/dev/null ||
  { echo 'e2e: smbtorture is not installed; apt-get install samba-testsuite' >&2; exit 77; }
library=$state/below_folder.so
${CC:-cc} -shared -fPIC -o "$library" "$project/tests/e2e/below_folder.c"
# Durable handles are served where nothing but smbd opens the files.
alone='kernel share modes = no\n  kernel oplocks = no\n  posix locking = no\n'
stop_smbd
SHARE_OPTIONS="kavrin:audit = yes\n  $alone[plain]\n  path = $plain\n  read only = no\n  $alone"
start_smbd

# Names with a word of torture.txt: listed WORD.
listed() { awk -F '  +' -v word="$1" '!/^#/ && $2 == word { print $1 }' "$reasons"; }
# Every test of the suites; smbtorture lists some with their last part twice.
all_tests() {
  smbtorture --list 2>/dev/null | sed -E 's/\.([^.]+)\.\1$/.\1/' |
    grep -E "^smb2\.($(echo $suites | tr ' ' '|'))(\.|$)" | sort -u
}
# without WORD…: of the names that come in, those that torture.txt does not give such a word.
without() {
  local word
  grep -vxFf <(for word in "$@"; do listed "$word"; done) || true
}

# torture SHARE LANE SECONDS TEST…: the tests one after the other, in a folder of the lane's own.
torture() {
  local target=$1 lane=$2 seconds=$3 root=$share
  shift 3
  [ "$target" = share ] || root=$plain
  mkdir -p "$root/Shared/Open/$lane"
  chown alice "$root/Shared/Open/$lane"
  TORTURE_FOLDER="Shared\\Open\\$lane" LD_PRELOAD=$library timeout "$seconds" smbtorture \
    "//127.0.0.1/$target" --fullname -U alice%secret --target=samba3 \
    --option=torture:progress=no "$@" >>"$state/torture.$target.$lane" 2>&1 </dev/null || true
}
# in_lanes NAME SECONDS COUNT SHARE…: the tests that come in, on each of the shares, in so many lanes
# at once. Lanes take turns, and each has its tests in the order of the list.
processes=()
in_lanes() {
  local name=$1 seconds=$2 count=$3 lane target tests all
  shift 3
  all=$(cat)
  for ((lane = 0; lane < count; lane++)); do
    mapfile -t tests < <(awk -v lane="$lane" -v count="$count" \
      'NF && n++ % count == lane' <<<"$all")
    [ ${#tests[@]} != 0 ] || continue
    for target in "$@"; do
      torture "$target" "$name$lane" "$seconds" "${tests[@]}" &
      processes+=($!)
    done
  done
}
wait_for_lanes() {
  local process
  for process in "${processes[@]}"; do wait "$process"; done
  processes=()
}
# results SHARE NAME: "TEST<tab>RESULT" of the lanes of that name.
results() {
  find "$state" -name "torture.$1.$2*" -exec cat {} + |
    sed -nE 's/^(success|failure|error|skip): ([^[]*[^[ ])( \[)?$/\2\t\1/p' | sort -u
}
passed() { results "$1" "$2" | awk -F '\t' '$2 == "success" { print $1 }'; }
# missing WHAT WANTED FOUND: every line of one is a line of the other.
missing() { wants "$1" '' "$(grep -vxFf <(echo "$3") <<<"$2" | paste -sd'|')"; }

# Most run in lanes, those of notifications in one of their own, since they wait without end when one
# does not come. Those that differ run each alone, for some wait for long where they fail.
started=$SECONDS
limit=70
[ -z "${TORTURE_SLOW:-}" ] || limit=500
all_tests | without differs unsteady never $([ -n "${TORTURE_SLOW:-}" ] || echo slow) \
  >"$state/tests"
in_lanes lane "$limit" 4 share plain < <(grep -v '^smb2\.notify\.' "$state/tests")
in_lanes notify $((limit / 2)) 1 share plain < <(grep '^smb2\.notify\.' "$state/tests")
in_lanes differs 12 100 share plain < <(listed differs)
wait_for_lanes
# Many tests measure time, which a busy machine spoils: what failed here alone gets another try.
mapfile -t again < <(passed plain '[ln]' | grep -vxFf <(passed share '[ln]'))
if [ ${#again[@]} != 0 ]; then
  printf 'once more: %s\n' "${again[@]}"
  in_lanes retry $((limit / 5)) 100 share < <(printf '%s\n' "${again[@]:0:20}")
  wait_for_lanes
fi
echo "smbtorture ran for $((SECONDS - started)) s"

missing 'what passes on a plain share passes here' "$(passed plain '[ln]')" \
  "$(passed share '[lnr]')"
missing 'what differs passes on a plain share' "$(listed differs)" "$(passed plain differs)"
wants 'what differs fails here' '' "$(passed share differs | paste -sd'|')"
missing 'every line of torture.txt names a test' \
  "$(awk -F '  +' '!/^#/ && NF { print $1 }' "$reasons")" "$(all_tests)"
wants 'every line has a known word, and a reason' '' "$(awk -F '  +' \
  '!/^#/ && NF && ($2 !~ /^(slow|never|unsteady|differs)$/ || $2 != "slow" && $3 == "")' \
  "$reasons")"
total=$(passed plain '[ln]' | grep -c . || true)
wants 'many tests pass' yes "$([ "$total" -ge 200 ] && echo yes || echo "only $total")"
echo "$total tests pass on a plain share and here; $(listed differs | grep -c . || true) differ," \
  "$(listed unsteady | grep -c . || true) do now and then, $(listed slow | grep -c . || true) are" \
  "slow, $(comm -23 <(results plain '[ln]' | cut -f1 | sort -u) <(passed plain '[ln]') |
    grep -c . || true) do not pass on a plain share"
finish
