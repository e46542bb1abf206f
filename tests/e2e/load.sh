# Ten thousand operations of several clients, allowed and refused, and what they must not leave
# behind: descriptors, memory, a process with another identity, a wrong number of events. Then many
# operations of one connection at the same moment, copies within the server, and durable handles
# that come back. Run by tests/e2e/smbd, best with the module that checks identities.
. "$project/tests/e2e/checks.sh"

rounds=${LOAD_ROUNDS:-195}
plain=/srv/plain

mkdir -p "$plain/load"
chown -R alice "$plain"
# Durable handles are served where nothing but smbd opens the files.
alone='kernel share modes = no\n  kernel oplocks = no\n  posix locking = no\n'
stop_smbd
SHARE_OPTIONS="kavrin:audit = yes\n  $alone[plain]\n  path = $plain\n  read only = no\n  $alone"
start_smbd
echo hello >"$state/up.txt"
head -c 3000000 /dev/urandom >"$state/big"

# What a server process is: user ids, group ids, groups. The saved group is left out: smbd makes no
# use of it, and the module keeps the user's own there.
cat >"$state/identity.awk" <<'AWK'
/^(Uid|Gid|Groups):/ {
  if ($1 == "Gid:") $4 = "any"
  $1 = ""
  printf "%s |", $0
}
AWK
identity_of() { awk -f "$state/identity.awk" "/proc/$1/status"; }
memory_of() { sed -n 's/^VmRSS:[ \t]*\([0-9]*\) kB/\1/p' "/proc/$1/status"; }
# What it has open, a line each, without the numbers. Sockets to other server processes come and go,
# so of sockets the number counts, and two more of them are none.
descriptors_of() {
  find "/proc/$1/fd" -mindepth 1 -printf '%l\n' 2>/dev/null | grep -v '^socket:' | sort
}
are_sockets_few() { [ "$(sockets_of "$1")" -le $((${sockets[$1]} + 2)) ]; }
sockets_of() { find "/proc/$1/fd" -mindepth 1 -lname 'socket:*' 2>/dev/null | wc -l; }
servers_of() {
  smbstatus -s "$state/smb.conf" -p 2>/dev/null | awk -v u="$1" '$2 == u { print $1 }'
}
# The events so far, counted: "CREATE 3; OPEN 6".
counted_events() {
  events | awk '$2 > 7000 && $2 < 7100 { n[$1]++ } END { for (t in n) print t, n[t] }' | sort |
    paste -sd';' | sed 's/;/; /g'
}
# A smbclient waits here until the script goes on: barrier NAME is a command of smbclient.
barrier() { printf '!touch at.%s.$PPID; until [ -e go.%s ]; do sleep 0.05; done\n' "$1" "$1"; }
are_at() { [ "$(find "$state" -maxdepth 1 -name "at.$1.*" | wc -l)" = "$2" ]; }
reach() {
  for _ in $(seq 900); do
    ! are_at "$1" "$2" || return 0
    sleep 0.1
  done
  wants "$2 clients reach $1" yes no
}

# Ten thousand operations ------------------------------------------------------------------------

# one_round FOLDER ROUND REFUSED1 REFUSED2 REFUSED3: thirteen operations, three of them refused.
one_round() {
  cat <<COMMANDS
put up.txt $1\\f$2
get $1\\f$2 $client.back
ls $1\\*
rename $1\\f$2 $1\\g$2
$3
put up.txt $1\\g$2
$4
allinfo $1\\g$2
mkdir $1\\d$2
rename $1\\d$2 $1\\e$2
$5
rmdir $1\\e$2
del $1\\g$2
COMMANDS
}
commands_of() {
  local round
  one_round "$1" 0 "${@:2}"
  barrier before
  for round in $(seq "$rounds"); do one_round "$1" "$round" "${@:2}"; done
  barrier after
}
clients=()
start_client() { # NAME USER FOLDER REFUSED…
  client=$1
  commands_of "${@:3}" >"$state/$client.commands"
  (cd "$state" && exec smbclient //127.0.0.1/share -U "$2%secret" <"$client.commands" \
    >"$client.out" 2>"$client.err") &
  clients+=($!)
}
designs='Shared\Engineering\Designs'
events >/dev/null
start_client carol carol 'Shared\Engineering\Ideas' 'put up.txt Shared\refused' 'mkdir refused' \
  'rename Private\bob Private\rob'
start_client alice alice "$designs" 'get Shared\Finance\2026.csv alice.back' \
  'put up.txt Shared\Finance\x' 'mkdir Shared\Team'
start_client bob bob 'Shared\Finance' "put up.txt $designs\\x" "del $designs\\gear.step" \
  "rename $designs\\gear.step $designs\\x"
start_client private alice 'Private\alice' 'put up.txt Private\bob\x' 'rmdir Private\alice' \
  'ls Private\bob\*'
reach before 4
servers=$(servers_of carol; servers_of alice; servers_of bob)
wants 'four server processes' 4 "$(wc -w <<<"$servers")"
declare -A descriptors sockets memory
for server in $servers; do
  descriptors[$server]=$(descriptors_of "$server")
  sockets[$server]=$(sockets_of "$server")
  memory[$server]=$(memory_of "$server")
done
counted_events >/dev/null
touch "$state/go.before"
reach after 4
for server in $servers; do
  wants "descriptors of server $server" '' \
    "$(diff <(echo "${descriptors[$server]}") <(descriptors_of "$server"))"
  wants "sockets of server $server" yes "$(wait_for are_sockets_few "$server" && echo yes)"
  growth=$(($(memory_of "$server") - ${memory[$server]}))
  echo "server $server grew by $growth kB"
  wants "server $server grows by less than 4 MB" yes "$([ "$growth" -lt 4096 ] && echo yes)"
done
n=$((4 * rounds))
wants 'events of the load' \
  "CREATE $n; MKDIR $n; OPEN $((2 * n)); RENAME $((2 * n)); RMDIR $n; UNLINK $n" "$(counted_events)"
touch "$state/go.after"
for process in "${clients[@]}"; do wait "$process" || true; done
for client in carol alice bob private; do
  wants "what $client was refused" $((3 * (rounds + 1))) \
    "$(grep -c NT_STATUS_ACCESS_DENIED "$state/$client.out" || true)"
  wants "nothing else befell $client" '' \
    "$(grep NT_STATUS "$state/$client.out" | grep -v NT_STATUS_ACCESS_DENIED | head -3)"
  wants "$client read what was written" hello "$(cat "$state/$client.back" 2>/dev/null)"
done
echo "$((4 * 13 * rounds)) operations"

# Who an idle server process is after each operation ---------------------------------------------

# Each operation is followed by a look at the process; what a plain share's is after the same
# operation, this one's is. It answers a moment before it is idle, so a look that finds another
# identity is done again.
operations=(
  "put up.txt FOLDER\\i" "get FOLDER\\i i.back" "ls FOLDER\\*" "allinfo FOLDER\\i"
  "rename FOLDER\\i FOLDER\\j" "setmode FOLDER\\j +h"
  "utimes FOLDER\\j 2020:01:01-00:00:00 -1 -1 -1"
  "scopy FOLDER\\j FOLDER\\k" "get FOLDER\\none i.back" "del FOLDER\\k" "del FOLDER\\j"
  "mkdir FOLDER\\m" "rename FOLDER\\m FOLDER\\n" "rmdir FOLDER\\n" "rmdir FOLDER" "del FOLDER\\none"
)
refused=('get Shared\Finance\2026.csv i.back' 'put up.txt Shared\x' 'mkdir Shared\Team'
  'ls Private\bob\*' "del Shared\\Finance\\2026.csv" "rename $designs Shared\\x")
# identities SHARE FOLDER COMMAND…: one line for each command.
identities() {
  local target=$1 folder=$2 command
  shift 2
  rm -f "$state"/identity.{ready,server,seen,usual}
  {
    echo 'ls'
    printf '!touch identity.ready; until [ -e identity.server ]; do sleep 0.05; done\n'
    for command in "$@"; do
      printf '%s\n' "${command//FOLDER/$folder}"
      printf '!sh identity.look\n'
    done
  } >"$state/identity.commands"
  cat >"$state/identity.look" <<'LOOK'
server=$(cat identity.server)
look() { awk -f identity.awk "/proc/$server/status"; }
usual=$(cat identity.usual)
for n in 1 2 3 4 5; do
  now=$(look)
  [ "$now" != "$usual" ] || break
  sleep 0.05
done
echo "$now" >>identity.seen
LOOK
  (cd "$state" && exec smbclient "//127.0.0.1/$target" -U alice%secret <identity.commands \
    >"identity.out" 2>&1) &
  local process=$! server
  wait_for test -e "$state/identity.ready"
  server=$(servers_of alice)
  sleep 0.2
  identity_of "$server" >"$state/identity.usual"
  echo "$server" >"$state/identity.server.new"
  mv "$state/identity.server.new" "$state/identity.server"
  wait "$process" || true
  cat "$state/identity.seen"
}
on_plain=$(identities plain load "${operations[@]}")
on_kavrin=$(identities share "$designs" "${operations[@]}")
usual=$(cat "$state/identity.usual")
echo "an idle server is $usual"
wants 'the looks' ${#operations[@]} "$(grep -c 7002 <<<"$on_plain")"
wants 'identities are those of a plain share' "$on_plain" "$on_kavrin"
on_kavrin=$(identities share "$designs" "${refused[@]}")
wants 'six are refused' ${#refused[@]} "$(grep -c NT_STATUS_ACCESS_DENIED "$state/identity.out")"
wants 'identities after refusals' "${#refused[@]} $usual" \
  "$(sort <<<"$on_kavrin" | uniq -c | sed 's/^ *//')"

# Copies within the server -----------------------------------------------------------------------

D=Shared/Engineering/Designs
${CC:-cc} -o "$state/server_copy" "$project/tests/e2e/server_copy.c" \
  $(pkg-config --cflags --libs smbclient)
# copies USER RESULT FROM TO [RECORDS]
copies() {
  local address=smb://127.0.0.1/share
  wants "$1 copies $3 to $4" "$2" \
    "$("$state/server_copy" "$1" secret "$address/$3" "$address/$4" 2>&1 | tail -1)"
  wants "records of $1's copy of $3 to $4" "${5:-}" \
    "$(events | grep -v Gid | paste -sd';' | sed 's/;/; /g')"
}
smb alice "put big $designs\\big" >/dev/null
events >/dev/null
copies alice ok $D/big $D/copy "CREATE 7002 $D/copy; OPEN 7002 $D/copy"
wants 'the copy is the same' same "$(cmp -s "$state/big" "$share/$D/copy" && echo same)"
copies alice ok $D/gear.step $D/copy "OPEN 7002 $D/copy"
wants 'the second copy is the same' gear "$(cat "$share/$D/copy")"
copies alice EACCES $D/big Shared/Finance/copy
copies alice EACCES $D/big Private/bob/copy
copies alice EACCES Shared/Finance/2026.csv $D/copy2
copies bob EACCES Shared/Finance/2026.csv $D/copy2
copies bob EACCES Shared/Finance/2026.csv $D/gear.step
wants 'what may not be read or written was not copied' 'gear no' \
  "$(cat "$share/$D/gear.step") $([ -e "$share/$D/copy2" ] && echo yes || echo no)"
does alice ok "del $designs\\copy" "UNLINK 7002 $D/copy"

# Many operations of one connection at the same moment -------------------------------------------

# Threads of one client share a connection: some write and read files with many requests under way,
# which helper threads of the server do, while others make, rename, look at and remove folders, and
# are refused.
seconds=${LOAD_SECONDS:-8}
cat >"$state/threads.py" <<'PYTHON'
import os, sys, threading, time
from samba import NTSTATUSError, credentials, param
from samba.samba3 import libsmb_samba_internal as libsmb, param as s3param

state, end = sys.argv[1], time.monotonic() + float(sys.argv[2])
configuration = param.LoadParm()
configuration.load(state + "/smb.conf")
s3param.get_context().load(state + "/smb.conf")
user = credentials.Credentials()
user.guess(configuration)
user.set_username("alice")
user.set_password("secret")
user.set_kerberos_state(credentials.DONT_USE_KERBEROS)
share = libsmb.Conn("127.0.0.1", "share", lp=configuration, creds=user, multi_threaded=True)
folder = "Shared\\Engineering\\Designs\\"
denied = 0xC0000022
counts = {"file": 0, "folder": 0, "refused": 0, "wrong": 0}
lock = threading.Lock()

def count(word, text=None):
    with lock:
        counts[word] += 1
    if text:
        print("WRONG", text)

def until_end(action):
    def run():
        n = 0
        while time.monotonic() < end:
            try:
                action(n)
            except Exception as error:
                count("wrong", f"{action.__name__}: {error}")
            n += 1
    return run

def files(name):
    def write_and_read(n):
        data = os.urandom(2_000_000 + 4096 * n % 100_000 + n)
        share.savefile(folder + name, data)
        if share.loadfile(folder + name) != data:
            count("wrong", "other bytes came back from " + name)
        count("file")
    return write_and_read

def folders(n):
    one, two = f"{folder}one{n}", f"{folder}two{n}"
    share.mkdir(one)
    share.rename(one, two)
    if not share.chkpath(two) or share.chkpath(one):
        count("wrong", f"{one} is not {two}")
    share.rmdir(two)
    count("folder")

def refusals(n):
    for action, *arguments in ((share.savefile, "Shared\\Finance\\x", b"x"),
                               (share.loadfile, "Shared\\Finance\\2026.csv"),
                               (share.mkdir, "Shared\\Team"),
                               (share.unlink, "Shared\\Finance\\2026.csv"),
                               (share.create, "Private\\bob")):
        try:
            answer = action(*arguments)
            count("wrong", f"{action.__name__} {arguments} was done: {answer}")
        except NTSTATUSError as error:
            if error.args[0] != denied:
                raise
            count("refused")

actions = [files("big1"), files("big2"), files("big3"), folders, refusals]
threads = [threading.Thread(target=until_end(action)) for action in actions]
for thread in threads:
    thread.start()
open(state + "/threads.run", "w").close()
for thread in threads:
    thread.join()
print(counts["file"], counts["folder"], counts["refused"], counts["wrong"], flush=True)
open(state + "/threads.done", "w").close()
while not os.path.exists(state + "/threads.go"):
    time.sleep(0.05)
PYTHON
if /usr/bin/python3 -c 'import samba.samba3' 2>/dev/null; then
  /usr/bin/python3 "$state/threads.py" "$state" "$seconds" >"$state/threads.out" 2>&1 &
  process=$!
  wait_for test -e "$state/threads.run"
  server=$(servers_of alice)
  most=0
  while [ ! -e "$state/threads.done" ] && [ -d "/proc/$process" ]; do
    helpers=$(find "/proc/$server/task" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l)
    [ "$helpers" -le "$most" ] || most=$helpers
    # A helper thread has the identity that it began with, and it begins as the user.
    for task in "/proc/$server/task/"*; do
      [ "$task" != "/proc/$server/task/$server" ] || continue
      [ "$(awk '$1 == "Uid:" { print $3 }' "$task/status" 2>/dev/null)" != 0 ] ||
        echo "$task is root"
    done >>"$state/threads.root"
    sleep 0.05
  done
  read -r n_files n_folders n_refused n_wrong < <(tail -1 "$state/threads.out")
  wants 'nothing is wrong' 0 "$n_wrong"
  grep -m 3 WRONG "$state/threads.out" || true
  wants 'threads were at work' yes \
    "$([ "$n_files" -ge 6 ] && [ "$n_folders" -ge 20 ] && [ "$n_refused" -ge 20 ] &&
      [ "$most" -ge 2 ] && echo yes || echo "$n_files $n_folders $n_refused, $most threads")"
  wants 'no helper thread is root' '' "$(head -3 "$state/threads.root")"
  n=$n_folders
  wants 'their events' "CREATE 3; MKDIR $n; OPEN $n_files; RENAME $n; RMDIR $n" "$(counted_events)"
  echo "threads: $n_files files, $n folders, $n_refused refusals; $most threads of the server"
  touch "$state/threads.go"
  wait "$process" || true
else
  echo 'not tested: many operations of one connection; apt-get install python3-samba'
fi

# Durable handles ------------------------------------------------------------------------------

# A client that loses its connection comes back to its open file: no event more than of one that did
# not, whether the file was changed before or not. Which of smbtorture's tests of them pass is a
# matter of torture.sh.
comes_back() {
  local output
  counted_events >/dev/null
  output=$(TORTURE_FOLDER='Shared\Open\torture' LD_PRELOAD=$state/below_folder.so timeout 30 \
    smbtorture //127.0.0.1/share -U alice%secret --target=samba3 "smb2.durable-v2-open.$1" 2>&1 || true)
  wants "$1 comes back" 1 "$(grep -c '^success' <<<"$output" || true)"
  wants "events of $1" "$2" "$(counted_events)"
}
if command -v smbtorture >/dev/null; then
  ${CC:-cc} -shared -fPIC -o "$state/below_folder.so" "$project/tests/e2e/below_folder.c"
  mkdir "$share/Shared/Open/torture"
  comes_back reopen1 'CREATE 1; UNLINK 1'
  comes_back durable-v2-setinfo 'CREATE 1; MKDIR 1; OPEN 1; RMDIR 1; UNLINK 1' # in a folder of its own
else
  echo 'not tested: durable handles; apt-get install samba-testsuite'
fi

finish
