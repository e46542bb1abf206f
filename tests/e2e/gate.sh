# The promises of the module that a listing of rights does not show: options and accounts that refuse
# a connection, marks and descriptors, signals, maps and groups that change under a connected client,
# descriptors and data under load. Run by tests/e2e/smbd.
. "$project/tests/e2e/checks.sh"

# restart OPTIONS: smbd with these lines in the share.
restart() {
  SHARE_OPTIONS=$1
  stop_smbd
  : >"$state/log/smbd.log"
  start_smbd
}
says() { grep -o "$1" <<<"$2" | head -1 || true; }

# smbd's word for a module that refuses a connection.
unconnected=NT_STATUS_UNSUCCESSFUL

# Options.
for options in 'kavrin:audti = yes' 'kavrin:audit = perhaps' 'admin users = carol' \
  'force user = alice' '[global]\n  kavrin:audti = yes' '[global]\n  kavrin:audit = perhaps'; do
  restart "$options"
  wants "$options refuses" $unconnected "$(status_of "$(smb carol ls)")"
  wants "$options is told once" 1 "$(grep -c 'nobody can connect until it' "$state/log/smbd.log")"
done
restart 'kavrin:audit = yes\n  kavrin:allow computer account = no'
wants 'known options are taken' ok "$(status="$(status_of "$(smb alice ls)")"; echo "${status:-ok}")"

# A computer's account is refused, or let in and shown nothing.
useradd --no-create-home --uid 7010 'desk$'
printf 'secret\nsecret\n' | smbpasswd -c "$state/smb.conf" -s -a 'desk$' >/dev/null
kavrinctl groupmap build >/dev/null 2>&1
wants 'a computer is refused' 1 \
  "$(smb 'desk$' ls >/dev/null; grep -c "is a computer's account" "$state/log/smbd.log")"
restart 'kavrin:allow computer account = yes'
wants 'a computer sees nothing' $denied "$(status_of "$(smb 'desk$' ls)")"
wants 'a computer is connected' 0 "$(grep -c "is a computer's account" "$state/log/smbd.log" || true)"

# A group map that others could have written.
restart ''
chmod g+w /etc/kavrin/groupmap_refresh
wants 'an unsafe group map refuses' $unconnected "$(status_of "$(smb alice ls)")"
wants 'an unsafe group map is told once' 1 "$(grep -c 'nobody is served' "$state/log/smbd.log")"
chmod g-w /etc/kavrin/groupmap_refresh


# A reserved group that was never made.
groupdel kavrin-powerusers
kavrinctl groupmap build >/dev/null 2>&1
wants 'a missing group refuses' $unconnected "$(status_of "$(smb alice ls)")"
wants 'a missing group is named' 1 \
  "$(grep -c "there is no group 'kavrin-powerusers'" "$state/log/smbd.log")"
groupadd --gid 5001 kavrin-powerusers
for user in alice bob; do usermod --append --groups kavrin-powerusers "$user"; done
kavrinctl groupmap build >/dev/null 2>&1

# Marks are no client's business; what the library writes is there.
designs='Shared\Engineering\Designs'
echo hello >"$state/up.txt"
smb alice "put up.txt $designs\\a.txt" >/dev/null
wants 'the last modifier' alice \
  "$(getfattr --only-values -n user.kavrin.last_smb_accessed_by "$share/Shared/Engineering/Designs/a.txt" 2>/dev/null)"
wants 'marks are hidden' '' "$(smb alice "geteas $designs\\a.txt" | grep -i kavrin || true)"
smb alice "setea Shared\\Engineering\\Ideas kavrin.fixed_folder x" >/dev/null
wants 'marks cannot be set' '' \
  "$(getfattr -n user.kavrin.fixed_folder "$share/Shared/Engineering/Ideas" 2>/dev/null || true)"
smb alice "setea $designs\\a.txt colour red" >/dev/null
wants 'other attributes can' red \
  "$(getfattr --only-values -n user.colour "$share/Shared/Engineering/Designs/a.txt" 2>/dev/null || getfattr --only-values -n user.COLOUR "$share/Shared/Engineering/Designs/a.txt" 2>/dev/null)"
smb bob "setea $designs\\a.txt colour blue" >/dev/null
wants 'not by a reader' '' \
  "$(getfattr -d "$share/Shared/Engineering/Designs/a.txt" 2>/dev/null | grep blue || true)"

# A fixed folder stays for users and goes for administrators.
mkdir "$share/Shared/Engineering/Designs/Fixed"
setfattr -n user.kavrin.fixed_folder "$share/Shared/Engineering/Designs/Fixed"
wants 'alice removes a fixed folder' $denied "$(status_of "$(smb alice "rmdir $designs\\Fixed")")"
wants 'alice renames a fixed folder' $denied \
  "$(status_of "$(smb alice "rename $designs\\Fixed $designs\\Loose")")"
wants 'the fixed folder is there' yes "$([ -d "$share/Shared/Engineering/Designs/Fixed" ] && echo yes)"
wants 'carol removes it' '' "$(status_of "$(smb carol "rmdir $designs\\Fixed")")"

# Descriptors.
acl() { smbcacls //127.0.0.1/share "$2" -U "$1%secret" "${@:3}" 2>&1 || true; }
wants 'bob reads' ALLOWED/0x0/READ \
  "$(acl bob "$designs\\gear.step" | sed -n 's/^ACL:.*bob:\(.*\)/\1/p')"
wants 'alice changes' ALLOWED/0x0/RWXD \
  "$(acl alice "$designs\\gear.step" | sed -n 's/^ACL:.*alice:\(.*\)/\1/p')"
wants 'rights are not changed over SMB' $denied \
  "$(status_of "$(acl alice "$designs\\gear.step" -a 'ACL:bob:ALLOWED/0x0/FULL')")"

# The names that desktops keep beside documents are allowed where nothing else is.
for name in 'Shared\.DS_Store' '.DS_Store' "$designs\\draft.sb-1234"; do
  wants "bob's $name" '' "$(status_of "$(smb bob "put up.txt $name; del $name")")"
done
wants 'no other name' $denied "$(status_of "$(smb bob "put up.txt $designs\\draft")")"

# Notifications name what their reader may see.
(cd "$state" && exec timeout 3 stdbuf -oL smbclient //127.0.0.1/share -U alice%secret -c 'notify Private') \
  >"$state/notified" 2>&1 &
listener=$!
sleep 1
smb bob 'put up.txt Private\bob\secret.txt' >/dev/null
smb alice 'put up.txt Private\alice\own.txt' >/dev/null
wait "$listener" || true
wants 'alice hears of her own' 'own.txt' "$(says 'own.txt' "$(cat "$state/notified")")"
wants 'alice does not hear of others' '' "$(says 'secret.txt' "$(cat "$state/notified")")"

# What a client that died had written is recorded as his.
head -c 400000000 /dev/zero >"$state/zeros"
events >/dev/null
(cd "$state" && exec smbclient //127.0.0.1/share -U alice%secret -c "put zeros $designs\\zeros") &>/dev/null &
client_process=$!
zeros="$share/Shared/Engineering/Designs/zeros"
wait_for test -s "$zeros"
kill -9 "$client_process"
wait "$client_process" 2>/dev/null || true
wait_for is_alone
wants 'the dead client wrote' 'CREATE 7002 Shared/Engineering/Designs/zeros;OPEN 7002 Shared/Engineering/Designs/zeros' \
  "$(events | paste -sd';')"
rm "$zeros" "$state/zeros"

# A client that stays connected.
connect_as alice
wants 'a server process is known' yes "$([ -d "/proc/${server:-none}" ] && echo yes)"
wants 'alice sees Engineering' Engineering "$(says 'Engineering' "$(tell 'ls Shared\*')")"
wants 'alice does not see Finance' '' "$(says 'Finance' "$(tell 'ls Shared\*')")"

# Groups that change reach her by SIGUSR1, without a newer marker.
usermod --append --groups finance alice
kavrinctl groupmap build >/dev/null 2>&1
touch -d '1 hour ago' /etc/kavrin/groupmap_refresh
wants 'not before the signal' '' "$(says 'Finance' "$(tell 'ls Shared\*')")"
kill -USR1 "$server"
wants 'after the signal' Finance "$(says 'Finance' "$(tell 'ls Shared\*')")"
wants 'the server lives' yes "$([ -d "/proc/$server" ] && echo yes)"
gpasswd --delete alice finance >/dev/null

# And by the marker.
sleep 1.1
kavrinctl groupmap build >/dev/null 2>&1
wants 'after the marker' '' "$(says 'Finance' "$(tell 'ls Shared\*')")"

# A map that changes.
chmod 0755 "$share"
setfacl -m u:alice:r-x "$share/Shared/Finance"
setfacl -m g:kavrin-powerusers:r-x "$share/Shared"
chgrp -R engineers "$share/Shared/Engineering"; chmod -R 0770 "$share/Shared/Engineering"
sleep 1.1
publish_map
chmod 0700 "$share"
wants 'after a new map' Finance "$(says 'Finance' "$(tell 'ls Shared\*')")"
sleep 1.1

# An unsafe group map ends it.
sleep 1.1
chmod g+w /etc/kavrin/groupmap_refresh
touch /etc/kavrin/groupmap_refresh
tell 'ls' >/dev/null
sleep 0.3
wants 'the connection ended' gone "$([ -d "/proc/$server" ] && echo there || echo gone)"
chmod g-w /etc/kavrin/groupmap_refresh
leave

# Descriptors after many operations of one connection, and data through helper threads.
head -c 20000000 /dev/urandom >"$state/big"
connect_as alice
count_descriptors() { find "/proc/$server/fd" -mindepth 1 | wc -l; }
for round in 0 1 2 3 4 5; do
  for command in "put up.txt $designs\\x" "get $designs\\x down.txt" "ls $designs\\*" \
    "rename $designs\\x $designs\\z" "del $designs\\z" "mkdir $designs\\f" \
    "rmdir $designs\\f" "get $designs\\none down.txt" 'put up.txt Shared\Open\x' \
    'put up.txt Shared\x' 'ls Private\bob\*'; do
    tell "$command" >/dev/null
  done
  [ "$round" != 0 ] || before=$(count_descriptors)
done
wants 'no descriptor leaks' "$before" "$(count_descriptors)"
leave
smb alice "put big $designs\\big; get $designs\\big big.back" >/dev/null
wants 'the same bytes come back' same "$(cmp -s "$state/big" "$state/big.back" && echo same)"

finish
