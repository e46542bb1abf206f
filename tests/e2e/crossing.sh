# What one user could do through another, through time, or through a neighbour of the module:
# handles that outlive a right, deletions that another client's close carries out, listings begun
# anew, names in another spelling, objects that appear behind smbd's back, modules before and after
# this one, smbd's own helpers, and group maps that nobody may trust. Run by tests/e2e/smbd.
. "$project/tests/e2e/checks.sh"

/usr/bin/python3 -c '' || { echo 'e2e: python3 is not installed' >&2; exit 77; }
unconnected=NT_STATUS_UNSUCCESSFUL
engineering='Shared\Engineering'
designs='Shared\Engineering\Designs'
disk=$share/Shared/Engineering
gear=$disk/Designs/gear.step
everything=0x02000000 reading=0x120089 writing=0x12019f deleting=0x130089

# restart OPTIONS: smbd with these lines in the share; what told counts begins here.
restart() {
  SHARE_OPTIONS=$1
  stop_smbd
  log_length=$(wc -l <"$state/log/smbd.log")
  start_smbd
}
told() { tail -n "+$((log_length + 1))" "$state/log/smbd.log" | grep -c -- "$1" || true; }
log_length=0

# Handles: ask WORD ARGUMENT… prints the answer, see handles.py.
begin() {
  coproc handles {
    exec /usr/bin/python3 "$project/tests/e2e/handles.py" "$port" "$SHARE_NAME" 2>&1
  }
  handles_process=$handles_PID
  exec 5<&"${handles[0]}" 6>&"${handles[1]}" # which subshells have, too
  local user
  for user in "$@"; do wants "$user connects" ok "$(ask connect "$user" "$user")"; done
}
ask() {
  local answer=
  (IFS=$'\t' && printf '%s\n' "$*") >&6 || true
  IFS= read -r -t 20 answer <&5 || true
  echo "${answer:-no answer}"
}
end() { # every client has left, and all that they did is recorded
  printf 'quit\n' >&6 2>/dev/null || true
  wait "$handles_process" 2>/dev/null || true
  wait_for is_alone
}
# handle WHO NAME PATH ACCESS [DISPOSITION [OPTIONS]]: one that the test needs.
handle() { wants "$1 opens $3" ok "$(ask open "$@")"; }
records() { events | paste -sd';' | sed 's/;/; /g'; }
outcome() { local status && status=$(status_of "$(smb "$@")") && echo "${status:-ok}"; }
seen() { [ "$1" = ok ] && echo seen || echo unseen; }
there() { [ -e "$1" ] && echo there || echo gone; }
has() { tr ' ' '\n' <<<"$2" | grep -Fx -- "$1" || true; }

# publish FOLDER…: a map that hides Hidden and these folders of Engineering from alice, who is not
# in finance. It hides Later, too, which is not there; and it is by that group that bob reads.
publish() {
  local folder
  make_tree
  mkdir -p "$disk/Hidden" "$disk/Later"
  for folder in "$disk" "$disk/Designs"; do setfacl -x u:bob -m g:finance:r-x "$folder"; done
  for folder in Hidden Later "$@"; do
    setfacl -b "$disk/$folder"
    chgrp -R finance "$disk/$folder"
    chmod 0770 "$disk/$folder"
  done
  publish_map
  setfacl -Rb "$share"
  close_tree
  rmdir "$disk/Later"
  sleep 1.1
}
publish
events >/dev/null

# A reader deletes nothing through a handle with all that he may have, nor by another's close.
begin alice bob
handle alice a "$designs\\gear.step" $reading
handle bob b "$designs\\gear.step" $everything
wants 'a reader marks nothing for deletion' $denied "$(ask delete b)"
wants 'a reader writes nothing' $denied "$(ask write b evil)"
wants 'the reader closes' ok "$(ask close b)"
wants 'the writer closes' ok "$(ask close a)"
wants 'the file of the writer' there "$(there "$gear")"
[ -e "$gear" ] || echo gear >"$gear"
wants 'its content' gear "$(cat "$gear")"
wants 'records of a reader with all rights' '' "$(records)"

# The same when the file is marked as it is opened.
handle alice a "$designs\\gear.step" $reading
wants 'a reader opens nothing to delete it' $denied \
  "$(ask open bob b "$designs\\gear.step" $deleting 1 0x1000)"
wants 'nor with what he may have' $denied \
  "$(ask open bob b "$designs\\gear.step" $everything 1 0x1000)"
wants 'the writer closes again' ok "$(ask close a)"
wants 'the file is still there' there "$(there "$gear")"
wants 'records of a refused deletion' '' "$(records)"

# What alice deletes goes when bob, who may not, closes it last.
echo shared >"$disk/Designs/shared.txt"
handle bob b "$designs\\shared.txt" $reading
handle alice a "$designs\\shared.txt" $deleting 1 0x1000
wants 'alice closes what she deletes' ok "$(ask close a)"
wants 'it stays as long as bob reads' there "$(there "$disk/Designs/shared.txt")"
wants 'bob closes it last' ok "$(ask close b)"
wants 'what alice deleted' gone "$(there "$disk/Designs/shared.txt")"
rm -f "$disk/Designs/shared.txt"
wants 'alice deleted it' 'UNLINK 7002 Shared/Engineering/Designs/shared.txt' "$(records)"

# And bob is bob afterwards.
echo read >"$disk/Designs/read.txt"
handle bob b "$designs\\read.txt" $reading
wants 'bob reads' read "$(ask read b)"
wants 'bob closes what he read' ok "$(ask close b)"
wants 'bob is still refused' $denied "$(ask open bob b "$designs\\gear.step" $deleting)"
handle bob b 'Private\bob\own.txt' $writing 2
wants 'bob writes' ok "$(ask write b own)"
wants 'bob closes what he wrote' ok "$(ask close b)"
wants 'the records are his' \
  'CREATE 7003 Private/bob/own.txt; OPEN 7003 Private/bob/own.txt' "$(records)"

# The other way round: bob deletes what both may, and alice closes it last.
echo open >"$share/Shared/Open/both.txt"
handle alice a 'Shared\Open\both.txt' $reading
handle bob b 'Shared\Open\both.txt' $deleting
wants 'bob marks it' ok "$(ask delete b)"
wants 'bob closes it' ok "$(ask close b)"
wants 'alice closes it last' ok "$(ask close a)"
wants 'what bob deleted' gone "$(there "$share/Shared/Open/both.txt")"
handle alice a 'Shared\Open\next.txt' $writing 2
wants 'alice closes hers' ok "$(ask close a)"
wants 'each record has its user' \
  'UNLINK 7003 Shared/Open/both.txt; CREATE 7002 Shared/Open/next.txt' "$(records)"
end
wants 'the audit is his' '7003 Shared/Engineering/Designs/read.txt' \
  "$(audits | awk '/read.txt/ { print $3, $6 }' | paste -sd';')"
rm "$disk/Designs/read.txt" "$share/Shared/Open/next.txt"

# A hidden name is taken in every spelling.
echo twin >"$state/twin"
for command in "mkdir $engineering\\hIDDEN" "put twin $engineering\\HIDDEN" \
  "rename $engineering\\mine.txt $engineering\\hidden" \
  "rename $engineering\\Ideas $engineering\\HiDDeN"; do
  echo mine >"$disk/mine.txt"
  does alice $denied "$command"
  wants "no twin on the disk after $command" 'Designs Hidden Ideas mine.txt' \
    "$(ls "$disk" | paste -sd' ')"
  rm -rf "$disk"/{hIDDEN,HIDDEN,hidden,HiDDeN}
  mkdir -p "$disk/Ideas"
done
does alice ok "rename $engineering\\mine.txt $engineering\\MINE.txt" \
  'RENAME 7002 Shared/Engineering/mine.txt -> Shared/Engineering/MINE.txt'
does alice ok "mkdir $engineering\\Fresh" 'MKDIR 7002 Shared/Engineering/Fresh'
rm -rf "$disk/MINE.txt" "$disk/mine.txt" "$disk/Fresh"

# A descriptor that a client creates with is nobody's.
begin alice
handle alice p "$designs\\plain" $writing 2
wants 'alice closes a plain file' ok "$(ask close p)"
events >/dev/null
wants 'a file with a descriptor' ok "$(ask open-full alice f "$designs\\described" $writing 2)"
ask close f >/dev/null
wants 'the file is made' there "$(there "$disk/Designs/described")"
wants 'records of the file' 'CREATE 7002 Shared/Engineering/Designs/described' "$(records)"
wants 'a folder with a descriptor' ok "$(ask open-full alice d "$designs\\Folder" $reading 2 0x1)"
ask close d >/dev/null
wants 'the folder is made' there "$(there "$disk/Designs/Folder")"
wants 'records of the folder' 'MKDIR 7002 Shared/Engineering/Designs/Folder' "$(records)"
wants 'the disk has no descriptor' '' \
  "$(getfattr -d -m - "$disk"/Designs/{described,Folder} 2>/dev/null | grep -E 'NTACL|posix_acl')"
wants 'owner and mode are those of other files' "$(stat -c '%u %g %a' "$disk/Designs/plain")" \
  "$(stat -c '%u %g %a' "$disk/Designs/described" 2>&1)"
end
does bob $denied "put twin $designs\\described"
rm -rf "$disk"/Designs/{plain,described,Folder}

# An attribute is a change of the file, and of its user.
echo bare >"$disk/Designs/bare"
does alice ok "setea $designs\\bare colour red" 'OPEN 7002 Shared/Engineering/Designs/bare'
wants 'the attribute is set' red \
  "$(cd "$disk/Designs" && getfattr -d bare 2>/dev/null | sed -n 's/^user\.colour="\(.*\)"/\1/Ip')"
wants 'the last modifier' alice \
  "$(getfattr --only-values -n user.kavrin.last_smb_accessed_by "$disk/Designs/bare" 2>/dev/null)"
rm "$disk/Designs/bare"

# A folder that is made on the server after alice looked for it.
begin alice
handle alice e "$engineering" 0x81
wants 'nothing is there yet' 'Designs Ideas' "$(ask list e)"
wants 'alice looks for it' unseen "$(seen "$(ask open alice l "$engineering\\Later" 0x80)")"
mkdir "$disk/Later"
wants 'it is not in her listing' '' "$(has Later "$(ask list e)")"
handle alice again "$engineering" 0x81
wants 'nor in a new one' '' "$(has Later "$(ask list again)")"
wants 'nor there by its name' unseen "$(seen "$(ask open alice l "$engineering\\Later" 0x80)")"
wants 'nor to be listed' unseen "$(seen "$(ask open alice l "$engineering\\Later" 0x81)")"
end
rmdir "$disk/Later"

# Handles on folders that move to where alice sees nothing: the folder itself, and one around it.
# One of them was never listed before. An administrator's handle on the folder itself goes on.
mkdir -p "$disk"/Ideas/Top "$disk"/Ideas/Around/Below
for folder in Top Around/Below; do echo first >"$disk/Ideas/$folder/first.txt"; done
begin alice carol
handle carol top-of-carol "$engineering\\Ideas\\Top" 0x81
handle alice top "$engineering\\Ideas\\Top" 0x81
handle alice below "$engineering\\Ideas\\Around\\Below" 0x81
handle alice unlisted "$engineering\\Ideas\\Around\\Below" 0x81
for name in top below; do wants "alice lists $name" first.txt "$(ask list $name)"; done
for name in Top Around; do
  wants "$name moves" '' \
    "$(status_of "$(smb carol "rename $engineering\\Ideas\\$name Shared\\Finance\\$name")")"
  wants "$name moved" there "$(there "$share/Shared/Finance/$name")"
done
for folder in Top Around/Below; do echo later >"$share/Shared/Finance/$folder/later.txt"; done
for name in top below unlisted; do
  answer=$(ask list $name)
  wants "the handle $name does not show what was there" '' "$(has first.txt "$answer")"
  wants "the handle $name does not show what came later" '' "$(has later.txt "$answer")"
done
wants 'an administrator lists on' 'first.txt later.txt' "$(ask list top-of-carol)"
end
rm -rf "$share"/Shared/Finance/{Top,Around}

# Listings begun anew after a map has closed a folder to alice, and after she was taken out of the
# power users. bob's handles show that the listing works.
begin alice bob
for user in alice bob; do
  handle $user $user-folders "$engineering" 0x81
  handle $user $user-files "$designs" 0x81
done
wants 'alice lists folders' 'Designs Ideas' "$(ask list alice-folders)"
wants 'alice lists files' gear.step "$(ask list alice-files)"
wants 'bob lists folders' 'Designs Hidden' "$(ask list bob-folders)"
wants 'bob lists files' gear.step "$(ask list bob-files)"
publish Designs
wants 'alice lists folders of the new map' Ideas "$(ask list alice-folders)"
wants 'alice lists no files of the new map' '' "$(has gear.step "$(ask list alice-files)")"
wants 'bob lists folders of the new map' 'Designs Hidden' "$(ask list bob-folders)"
wants 'bob lists files of the new map' gear.step "$(ask list bob-files)"
publish
wants 'alice lists folders again' 'Designs Ideas' "$(ask list alice-folders)"
wants 'alice lists files again' gear.step "$(ask list alice-files)"
for number in $(seq 400); do echo x >"$disk/Designs/file$number"; done
handle alice begun "$designs" 0x81
wants 'alice begins a long listing' yes "$([ "$(ask next begun)" != nothing ] && echo yes)"
gpasswd --delete alice kavrin-powerusers >/dev/null
kavrinctl groupmap build >/dev/null 2>&1
sleep 1.1
wants 'the long listing has come to its end' nothing "$(ask rest begun)"
wants 'a standard user lists no folders' '' \
  "$(ask list alice-folders | grep -E 'Designs|Ideas|Hidden' || true)"
wants 'a standard user lists no files' '' "$(has gear.step "$(ask list alice-files)")"
wants 'bob still lists folders' 'Designs Hidden' "$(ask list bob-folders)"
rm "$disk"/Designs/file*
end
usermod --append --groups kavrin-powerusers alice
kavrinctl groupmap build >/dev/null 2>&1
sleep 1.1

# smbd's helpers let go of the map.
mkdir -p /var/log/samba
attached() {
  ipcs -m | awk '$1 == "0x70657269" || $1 == "0x7065726a" { sum += $6 } END { print sum + 0 }'
}
is_detached() { [ "$(attached)" = 0 ]; }
timeout 20 rpcclient -s "$state/smb.conf" 127.0.0.1 -U alice%secret \
  -c 'netfilegetsec share \Private\alice\diary.txt' >"$state/rpcclient" 2>&1 || true
wants 'a helper answered' yes "$(grep -qE 'WERR_|DACL' "$state/rpcclient" && echo yes)"
wait_for is_alone
for _ in $(seq 30); do
  ! is_detached || break
  sleep 0.1
done
wants 'no helper keeps the map' 0 "$(attached)"

# The group map becomes unsafe while alice has a changed file open.
events >/dev/null
log_length=$(wc -l <"$state/log/smbd.log")
begin alice
handle alice w "$designs\\w.txt" $writing 2
wants 'alice changes a file' ok "$(ask write w changed)"
handle alice e "$engineering" 0x81
sleep 1.1
chmod g+w /etc/kavrin/groupmap_refresh
touch /etc/kavrin/groupmap_refresh
wants 'the connection ends' gone "$(ask open alice other "$designs\\gear.step" $reading)"
wants 'its reason is told once' 1 "$(told 'nobody is served')"
wants 'the server does not panic' 0 "$(told PANIC)"
end
wants 'the change is recorded' \
  'CREATE 7002 Shared/Engineering/Designs/w.txt; OPEN 7002 Shared/Engineering/Designs/w.txt' \
  "$(records)"
rm -f "$disk/Designs/w.txt"
chmod g-w /etc/kavrin/groupmap_refresh

# A group map of somebody else.
log_length=$(wc -l <"$state/log/smbd.log")
chown nobody /etc/kavrin/groupmap_refresh
wants "nobody's group map refuses" $unconnected "$(status_of "$(smb alice ls)")"
wants "nobody's group map is told once" 1 "$(told 'must belong to root')"
chown root /etc/kavrin/groupmap_refresh

# One whose power users are those of the group of root. The tool makes none, so it is made by hand:
# the file begins with where its reserved groups are and how many; each is a name's place and an id.
log_length=$(wc -l <"$state/log/smbd.log")
group_map=/etc/kavrin/groupmap_refresh
number_at() { od -An -tu4 -j "$1" -N 4 "$group_map" | tr -d ' '; }
patched=0
for ((item = $(number_at 0), left = $(number_at 4); left > 0; item += 8, left--)); do
  [ "$(number_at $((item + 4)))" = 5001 ] || continue
  printf '\0\0\0\0' | dd of="$group_map" bs=1 seek=$((item + 4)) conv=notrunc status=none
  patched=$((patched + 1))
done
wants 'one group has the id 0' 1 $patched
wants 'a reserved group with the id 0 refuses' $unconnected "$(status_of "$(smb alice ls)")"
wants 'the group with the id 0 is named' 1 \
  "$(told "gives group 'kavrin-powerusers' the id 0; nobody is served")"
kavrinctl groupmap build >/dev/null 2>&1
sleep 1.1
wants 'a sound group map serves again' ok "$(outcome alice ls)"

# An old client.
restart 'kavrin:audit = yes\n[global]\n  server min protocol = NT1'
old() {
  (cd "$state" && smbclient "//127.0.0.1/$SHARE_NAME" -p "$port" -m NT1 \
    --option='client min protocol=NT1' -U "$1%secret" -c "$2" 2>&1) || true
}
answer=$(old bob 'setmode Shared\Engineering\Designs\gear.step +h')
wants 'a client of SMB1 is refused' 'tree connect failed' \
  "$(grep -o 'tree connect failed' <<<"$answer")"
wants 'its refusal is told once' 1 "$(told SMB2)"
wants 'a client of SMB2 is not' ok "$(outcome alice ls)"
wants 'nothing more is told' 1 "$(told SMB2)"

# A module behind.
SHARE_MODULES='kavrin full_audit' restart 'kavrin:audit = yes'
wants 'a module behind refuses' $unconnected "$(status_of "$(smb alice ls)")"
wants 'a module behind is told once' 1 "$(told "last of 'vfs objects'")"

# A module before, with a descriptor on the disk that gives everything to everybody.
SHARE_MODULES='acl_xattr kavrin' restart "acl_xattr:ignore system acls = yes
[raw]
  path = $share
  read only = no
  vfs objects = acl_xattr
  acl_xattr:ignore system acls = yes
  admin users = carol"
smbcacls //127.0.0.1/raw "$designs\\gear.step" -U carol%secret \
  -S 'REVISION:1,OWNER:root,GROUP:root,ACL:Everyone:ALLOWED/0x0/FULL' &>"$state/smbcacls" || true
wants 'the descriptor is on the disk' there \
  "$(getfattr -n security.NTACL "$gear" >/dev/null 2>&1 && echo there)"
echo gear >"$gear"
events >/dev/null
begin bob alice
handle bob b "$designs\\gear.step" $everything
wants 'bob reads with it' gear "$(ask read b)"
wants 'bob does not write with it' $denied "$(ask write b evil)"
wants 'bob does not delete with it' $denied "$(ask delete b)"
wants 'bob closes it' ok "$(ask close b)"
wants 'bob does not open it to write' $denied "$(ask open bob b "$designs\\gear.step" $writing)"
wants 'bob does not open it to delete' $denied "$(ask open bob b "$designs\\gear.step" $deleting)"
wants 'it is what it was' gear "$(cat "$gear" 2>/dev/null)"
[ -e "$gear" ] || echo gear >"$gear"
wants 'records of what bob did not do' '' "$(records)"
handle alice a "$designs\\gear.step" $everything
wants 'alice writes with it' ok "$(ask write a gear)"
wants 'alice closes it' ok "$(ask close a)"
end

finish
