# Every create disposition of the protocol, read and write, on what is there and what is missing, in
# the folders of verdicts.sh, which sources this and says when.

# libsmbclient cannot supersede, nor overwrite without asking to write; Samba's own client of Python
# can. Reads lines "DISPOSITION read|write PATH", prints "ok" or a status.
dispositions() { # dispositions USER
  /usr/bin/python3 -c '
import sys
from samba import NTSTATUSError, param, credentials
from samba.samba3 import libsmb_samba_internal as client, param as client_param
settings = client_param.get_context()
settings.load("/dev/null")
account = credentials.Credentials()
account.guess(settings)
account.set_username(sys.argv[1])
account.set_password("secret")
account.set_kerberos_state(credentials.DONT_USE_KERBEROS)
connection = client.Conn("127.0.0.1", "share", settings, account)
for line in sys.stdin:
    disposition, access, path = line.split()
    try:
        handle = connection.create(path.replace("/", "\\"), CreateDisposition=int(disposition),
                                   DesiredAccess={"read": 0x1, "write": 0x2}[access], ShareAccess=7)
        connection.close(handle)
        print("ok")
    except NTSTATUSError as error:
        print("%08X" % (error.args[0] & 0xffffffff))
' "$1"
}
# DISPOSITION ACCESS, there, missing, for these callers: alice where she may do nothing, read,
# write, navigate, view; the administrator; a standard user. + done, - refused, 0 not found, x there
# already. Then the records when it is done, there and missing.
disposition_rows='
0 read   --+--+- --+--+- OPEN CREATE
0 write  --+--+- --+--+- OPEN CREATE
1 read   -++--+- -00000- audit .
1 write  --+--+- --0--0- . .
2 read   --x--x- --+--+- . CREATE
2 write  --x--x- --+--+- . CREATE
3 read   --+--+- --+--+- audit CREATE
3 write  --+--+- --+--+- . CREATE
4 read   --+--+- ------- OPEN .
4 write  --+--+- ------- OPEN .
5 read   --+--+- --+--+- OPEN CREATE
5 write  --+--+- --+--+- OPEN CREATE
'
declare -A told=([+]=ok [-]=C0000022 [0]=C0000034 [x]=C0000035)
disposition_folders='alice:nothing alice:read alice:both alice:navigate alice:viewer
  carol:admin dave:standard'
make_disposition_files() {
  local caller number access rest
  for caller in $disposition_folders; do
    while read -r number access rest; do
      [ -z "$number" ] || echo gear >"$share/Shared/Wide/${caller#*:}/there.$number.$access"
    done <<<"$disposition_rows"
  done
}
run_dispositions() {
  local caller user folder column=0 number access there missing changed made verdict record uid i at
  local lines answers labels statuses done_records
  for caller in $disposition_folders; do
    user=${caller%:*} folder=Shared/Wide/${caller#*:} uid=$(uid_of "${caller%:*}")
    lines=() labels=() statuses=() done_records=()
    while read -r number access there missing changed made; do
      [ -n "$number" ] || continue
      lines+=("$number $access $folder/there.$number.$access"
        "$number $access $folder/new.$number.$access")
      statuses+=("${told[${there:$column:1}]}" "${told[${missing:$column:1}]}")
      [ "${there:$column:1}" != + ] || done_records+=("$changed $uid $folder/there.$number.$access")
      [ "${missing:$column:1}" != + ] || done_records+=("$made $uid $folder/new.$number.$access")
    done <<<"$disposition_rows"
    mapfile -t answers < <(printf '%s\n' "${lines[@]}" | dispositions "$user" 2>&1)
    for i in "${!lines[@]}"; do
      wants "$user: disposition ${lines[$i]}" "${statuses[$i]}" "${answers[$i]-none}"
      at=$share/${lines[$i]##* }
      case ${statuses[$i]}/$at in
        ok/*/new.*) wants "$at is made" yes "$([ -e "$at" ] && echo yes)" ;;
        ok/*/there.[045]*) wants "$at is empty now" '' "$(cat "$at")" ;;
        */there.*) wants "$at is as before" gear "$(cat "$at")" ;;
        *) wants "$at is not made" no "$([ -e "$at" ] || echo no)" ;;
      esac
    done
    wait_for is_alone
    wants "$user: records of dispositions in $folder" \
      "$(printf '%s\n' "${done_records[@]}" | grep -v '^\.' | sort)" \
      "$({ events | grep -v Gid; audits | awk '{ print "audit", $3, $6 }'; } | sort)"
    column=$((column + 1))
  done
}
