# A kavrind and an smbd of one's own, with the module that was built, and people who use them. Sourced
# by tests/e2e/smbd and demo/run, which run inside scripts/sandbox with a network of their own: all of
# it is private and vanishes at the end, and both services are ended by their process ids.
#
# Before it is sourced: $project, $share (the share's folder), $state (logs and smb.conf).
#
# BUILD_FOLDER   where kavrind, kavrinctl and the module lie (default: build/release)
# KAVRIN_MODULE  another module than the one in BUILD_FOLDER
# SHARE_NAME     the share's name, default "share"
# SHARE_OPTIONS  further lines of the share in smb.conf, default "kavrin:audit = yes"
# LOG_LEVEL      of smbd, default 1
for tool in smbd smbclient smbpasswd; do
  command -v "$tool" >/dev/null ||
    { echo "${0#"$project/"}: $tool is not installed; apt-get install samba smbclient" >&2; exit 77; }
done
build=$(realpath "${BUILD_FOLDER:-$project/build/release}")
PATH="$build/tools:$build/service:$PATH"
module=${KAVRIN_MODULE:-$build/samba/kavrin.so}
port=445
export LC_ALL=C.UTF-8 # names are more than ASCII
SHARE_NAME=${SHARE_NAME:-share}
SHARE_OPTIONS=${SHARE_OPTIONS-kavrin:audit = yes}

ip link set lo up
mkdir -p "$state"/{private,lock,state,cache,pid,ncalrpc,log} "$share"
install -D -m 644 "$module" "$(smbd -b | sed -n "s/^ *MODULESDIR: *//p")/vfs/kavrin.so"

# An administrator, two power users, a standard user; and an account that is in no group at all.
add_people() {
  groupadd --gid 5000 kavrin-admins
  groupadd --gid 5001 kavrin-powerusers
  groupadd --gid 6001 engineers
  groupadd --gid 6002 finance
  useradd --no-create-home --uid 7001 --user-group --groups kavrin-admins carol
  useradd --no-create-home --uid 7002 --user-group --groups kavrin-powerusers,engineers alice
  useradd --no-create-home --uid 7003 --user-group --groups kavrin-powerusers,finance bob
  useradd --no-create-home --uid 7004 --user-group --groups engineers dave
  useradd --no-create-home --uid 7005 --user-group backup-service
}
# They need smb.conf, which start_smbd writes as well.
add_passwords() {
  write_smb_conf
  for user in carol alice bob dave backup-service; do
    printf 'secret\nsecret\n' | smbpasswd -c "$state/smb.conf" -s -a "$user" >"$state/log/smbpasswd" 2>&1 ||
      { cat "$state/log/smbpasswd" >&2; return 1; }
  done
}

write_smb_conf() {
  cat >"$state/smb.conf" <<CONF
[global]
  workgroup = TEST
  server role = standalone server
  interfaces = lo
  bind interfaces only = yes
  smb ports = $port
  disable netbios = yes
  private dir = $state/private
  lock directory = $state/lock
  state directory = $state/state
  cache directory = $state/cache
  pid directory = $state/pid
  ncalrpc dir = $state/ncalrpc
  log file = $state/log/smbd.log
  log level = ${LOG_LEVEL:-1}
  max log size = 0
  load printers = no
  printing = bsd
  disable spoolss = yes
[$SHARE_NAME]
  path = $share
  read only = no
  vfs objects = ${SHARE_MODULES:-kavrin}
  $(printf '%b' "${SHARE_OPTIONS:-}")
CONF
}

wait_for() {
  for _ in $(seq 100); do
    "$@" 2>/dev/null && return
    sleep 0.1
  done
  echo "${0#"$project/"}: waited in vain for: $*" >&2
  return 1
}
is_answering() { (exec 3<>"/dev/tcp/127.0.0.1/$port"); }

smbd_process='' kavrind_process=''
start_kavrind() {
  mkdir -p /kavrin/staging /kavrin/auditing /run/kavrin
  kavrind --foreground >"$state/log/kavrind.log" 2>&1 &
  kavrind_process=$!
  wait_for test -S /run/kavrin/kavrind.sock
}
start_smbd() {
  write_smb_conf
  smbd -F -s "$state/smb.conf" </dev/null >"$state/log/smbd.out" 2>&1 &
  smbd_process=$!
  wait_for is_answering
}
stop_smbd() {
  [ -n "$smbd_process" ] || return 0
  kill "$smbd_process" && wait "$smbd_process" || true
  smbd_process=''
}
stop_all() {
  stop_smbd
  [ -z "$kavrind_process" ] || { kill "$kavrind_process" && wait "$kavrind_process"; } || true
}
trap stop_all EXIT
trap 'exit 143' TERM

# A client that stays: connect_as USER, then tell COMMAND prints what came back.
connect_as() {
  coproc client { cd "$state" && exec stdbuf -oL smbclient "//127.0.0.1/$SHARE_NAME" -U "$1%secret" 2>&1; }
  client_process=$client_PID # which bash forgets with the process
  exec 7<&"${client[0]}" 8>&"${client[1]}" # which subshells have, too
  tell 'pwd' >/dev/null
  server=$(smbstatus -s "$state/smb.conf" -p 2>/dev/null | awk -v u="$1" '$2 == u { print $1; exit }')
}
tell() {
  local line tries=0
  # What smbclient does not know comes back in the order of everything else. It looks at one line
  # for each arrival of input, so lines go apart, and an empty one pushes what waits.
  printf '%s\n' "$1" >&8 || return 0
  sleep 0.03
  printf 'end-of-answer\n' >&8 || return 0
  while [ "$tries" -lt 100 ]; do
    if IFS= read -r -t 0.2 line <&7; then
      [[ $line == *end-of-answer:* ]] && break
      printf '%s\n' "$line"
    else
      tries=$((tries + 1))
      printf '\n' >&8 2>/dev/null || return 0
    fi
  done
}
leave() { printf 'quit\n' >&8 2>/dev/null || true; wait "$client_process" 2>/dev/null || true; }
