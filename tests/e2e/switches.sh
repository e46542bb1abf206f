# Clients at work while the map is switched a hundred times between two that differ for one folder,
# while kavrind is ended, killed and started anew, and while server processes are killed: no answer
# may be wrong, and nothing may be left behind. Run by tests/e2e/smbd.
. "$project/tests/e2e/checks.sh"

switches=${SWITCHES:-100}
designs='Shared\Engineering\Designs'
now() { echo "${EPOCHREALTIME/,/.}"; }

# Two maps: with the first, alice may read Finance; with the second she may not. Her rights on
# Engineering, and bob's, are the same in both.
make_tree
kavrinctl map scan "$share" --name without -o without.size.json without.data.json &>/dev/null
setfacl -m u:alice:r-x "$share/Shared/Finance"
kavrinctl map scan "$share" --name with -o with.size.json with.data.json &>/dev/null
setfacl -x u:alice "$share/Shared/Finance"
close_tree
apply() { kavrinctl map apply "$1.size.json" "$1.data.json" --wait >/dev/null; }
is_kavrind_up() { kavrinctl status &>/dev/null; }
restart_kavrind() { # SIGNAL
  kill "-$1" "$kavrind_process"
  wait "$kavrind_process" 2>/dev/null || true
  start_kavrind
  wait_for is_kavrind_up # the socket of a killed one is still there
}
segments() { ipcs -m | grep -c '^0x' || true; }
semaphores() { ipcs -s | grep -c '^0x' || true; }
# Sockets to other server processes come and go.
descriptors_of() { find "/proc/$1/fd" -mindepth 1 -not -lname 'socket:*' 2>/dev/null | wc -l; }
servers_of() {
  smbstatus -s "$state/smb.conf" -p 2>/dev/null | awk -v u="$1" '$2 == u { print $1 }'
}

# Every command makes one line that names its path; each gets the time of its arrival.
round_of() {
  case $1 in
    alice*) cat <<COMMANDS ;;
ls $designs\\gear.step
get Shared\\Finance\\2026.csv $1.finance
put up.txt $designs\\$1
ls Shared\\Finance\\2026.csv
get $designs\\gear.step $1.gear
get Private\\bob\\secret $1.secret
put up.txt Shared\\Finance\\$1
!sleep 0.02
COMMANDS
    *) cat <<COMMANDS ;;
get $designs\\gear.step $1.gear
put up.txt $designs\\$1
put up.txt Shared\\Finance\\$1
get Private\\alice\\diary.txt $1.secret
ls Shared\\Finance\\2026.csv
COMMANDS
  esac
}
# stamped NAME: with its server gone, a client would go on with errors for ever, so it is ended.
stamped() {
  local line
  while IFS= read -r line; do
    printf '%s %s\n' "${EPOCHREALTIME/,/.}" "$line"
    case $line in *NT_STATUS_*CONNECTION*) kill "$(cat "$1.pid")" 2>/dev/null || true ;; esac
  done
}
# client NAME: rounds until the file "stop" is there or the server is gone; how many were sent is in
# NAME.rounds.
client() {
  local rounds=0 round
  round=$(round_of "$1")
  cd "$state"
  {
    while [ ! -e stop ] && printf '%s\n' "$round"; do rounds=$((rounds + 1)); done 2>/dev/null
    echo "$rounds" >"$1.rounds"
  } | (
    echo "$BASHPID" >"$1.pid"
    exec stdbuf -o0 smbclient //127.0.0.1/share -U "${1%%[0-9]*}%secret" 2>&1
  ) | stamped "$1" >>"$1.answers"
}
# A client whose server process is killed comes back.
victim() {
  while [ ! -e "$state/stop" ]; do client bob || true; done
}

echo hello >"$state/up.txt"
echo secret >"$share/Private/bob/secret"
apply without
sleep 1.1
apply without
sleep 1.1
segments_before=$(segments) semaphores_before=$(semaphores)
events >/dev/null
client alice1 &
clients=($!)
client alice2 &
clients+=($!)
victim 2>/dev/null &
clients+=($!)
wait_for test -s "$state/alice1.answers"
wait_for test -s "$state/alice2.answers"
sleep 0.5
alices=$(servers_of alice)
wants 'two servers' 2 "$(wc -w <<<"$alices")"
# It is at work; the fewest of many looks are what it has open between operations.
declare -A descriptors
least_of() { for _ in $(seq 30); do descriptors_of "$1"; sleep 0.02; done | sort -n | head -1; }
for server in $alices; do descriptors[$server]=$(least_of "$server"); done

# Each switch: the map, when it was asked for, when it was done.
echo "0 0 without" >"$state/switches"
map=without
killed=0
for ((n = 1; n <= switches; n++)); do
  [ "$map" = with ] && map=without || map=with
  begun=$(now)
  apply "$map"
  echo "$begun $(now) $map" >>"$state/switches"
  case $((n % 25)) in
    5) restart_kavrind TERM ;;
    15) restart_kavrind KILL ;;
  esac
  # Between two switches lies less than the marker's second, and now and then more than two.
  [ $((n % 20)) != 0 ] && sleep 0.1 || sleep 2.2
  if [ $((n % 8)) = 0 ]; then
    for server in $(servers_of bob); do
      kill -9 "$server" 2>/dev/null && killed=$((killed + 1))
    done
  fi
done
for server in $alices; do
  wants "descriptors of server $server" "${descriptors[$server]}" "$(least_of "$server")"
done
touch "$state/stop"
for process in "${clients[@]}"; do wait "$process" || true; done
wants 'servers were killed' yes "$([ "$killed" -ge $((switches / 16)) ] && echo yes)"

# Answers that may not change: how many there are, and that none is another.
answers() { grep -c -- "$2" "$state/$1.answers" || true; }
cd "$state"
for name in alice1 alice2; do
  rounds=$(cat "$name.rounds")
  wants "$name was busy" yes "$([ "$rounds" -gt "$switches" ] && echo yes)"
  wants "$name sees gear.step" "$rounds" "$(answers $name '^[0-9.]*   gear.step ')"
  wants "$name reads gear.step" "$rounds" "$(answers $name ' getting file .*gear.step of size 5')"
  wants "$name writes" "$rounds" "$(answers $name " putting file .*Designs.$name ")"
  wants "$name may not read bob's" "$rounds" "$(answers $name ' NT_STATUS_ACCESS_DENIED .*secret')"
  wants "$name may not write in Finance" "$rounds" \
    "$(answers $name " NT_STATUS_ACCESS_DENIED .*Finance.$name")"
  wants "$name: as many answers on Finance" $((2 * rounds)) "$(answers $name '2026\.csv')"
  wants "$name: every other status" '' "$(grep NT_STATUS "$name.answers" |
    grep -vE 'NT_STATUS_ACCESS_DENIED .*(secret|Finance)|NO_SUCH_FILE .*2026' | head -3)"
  wants "$name: what was read" 'gear 2026' "$(cat $name.gear $name.finance 2>&1 | paste -sd' ')"
done
wants 'bob: what a dead server did not say apart' '' "$(
  grep NT_STATUS bob.answers |
    grep -vE 'NT_STATUS_ACCESS_DENIED .*(Designs.bob|diary)|CONNECTION|IO_TIMEOUT|NETWORK|PIPE' |
    head -3)"
wants 'bob never wrote in Designs' '' "$(grep -E 'putting file .*Designs' bob.answers | head -3)"
wants 'bob never read a diary' '' "$(grep -E 'getting file .*diary' bob.answers | head -3)"
wants 'bob read gear.step' yes \
  "$([ "$(answers bob 'getting file .*gear.step of size 5')" -gt "$switches" ] && echo yes)"

# Answers that change with the map: each is that of a map which was in force between the second
# before the question and the answer.
for name in alice1 alice2; do
  wants "$name: answers of another map" '' "$(awk '
    FNR == NR { asked[NR] = $1; done[NR] = $2; map[NR] = $3; n = NR; next }
    /2026\.csv/ {
      # A listing whose folder was opened with one map and read with the other shows no such file.
      told = /NT_STATUS_ACCESS_DENIED|NT_STATUS_NO_SUCH_FILE/ ? "without" : "with"
      good = 0
      for (i = n; i >= 1; i--) {
        if (asked[i] > $1) continue
        if (map[i] == told) { good = 1; break }
        if (done[i] < before - 1) break
      }
      if (!good && wrong++ < 3) print
      count[told]++
    }
    { before = $1 }
    END {
      if (count["with"] < 20 || count["without"] < 20)
        print "few:", count["with"], count["without"]
    }
  ' "$state/switches" "$name.answers")"
done

# What is left behind.
wants 'segments' "$segments_before" "$(segments)"
wants 'semaphores' "$semaphores_before" "$(semaphores)"
wants 'the live map is whole' 0 "$(kavrinctl map verify >"$state/verify" 2>&1; echo $?)"
wants 'the service is well' 0 "$(kavrinctl status >"$state/status" 2>&1; echo $?)"
flush_events
for name in alice1 alice2; do
  rounds=$(cat "$name.rounds")
  events_of="$(kavrinctl events cat /kavrin/staging 2>/dev/null | grep "Designs/$name\$" || true)"
  wants "the events of $name" "$rounds" "$(grep -c OPEN <<<"$events_of" || true)"
done
echo "$switches switches, $killed servers killed," \
  "$(($(cat alice1.rounds) + $(cat alice2.rounds))) rounds"
finish
