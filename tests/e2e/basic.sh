# Four users and what each can do, with smbclient; what is refused, and with which status; one record
# for each action. Run by tests/e2e/smbd.
. "$project/tests/e2e/checks.sh"

echo hello >"$state/up.txt"
events >/dev/null

# Listings show what the user may see and nothing else.
wants 'carol lists the root' 'Private Shared' "$(names carol '\')"
wants 'carol lists Shared' 'Engineering Finance Open' "$(names carol '\Shared')"
wants 'carol lists Private' 'alice bob' "$(names carol '\Private')"
wants 'alice lists Shared' 'Engineering Open' "$(names alice '\Shared')"
wants 'alice lists Engineering' 'Designs Ideas' "$(names alice '\Shared\Engineering')"
wants 'alice lists Private' 'alice' "$(names alice '\Private')"
wants 'bob lists Shared' 'Engineering Finance Open' "$(names bob '\Shared')"
wants 'bob lists Engineering' 'Designs' "$(names bob '\Shared\Engineering')"
wants 'dave lists the root' '' "$(names dave '\')"
wants 'the service lists the root' '' "$(names backup-service '\')"
does dave $denied 'ls'
does backup-service $denied 'ls'
does alice $denied 'cd \Private\bob; ls'
does alice $denied 'cd \Shared\Finance; ls'

# An administrator does all of it.
designs='Shared\Engineering\Designs'
D=Shared/Engineering/Designs
does carol ok "put up.txt $designs\\c.txt" "CREATE 7001 $D/c.txt; OPEN 7001 $D/c.txt"
does carol ok "put up.txt $designs\\c.txt" "OPEN 7001 $D/c.txt"
does carol ok "get $designs\\c.txt down.txt"
wants 'carol reads what she wrote' hello "$(cat "$state/down.txt")"
does carol ok "rename $designs\\c.txt $designs\\d.txt" "RENAME 7001 $D/c.txt -> $D/d.txt"
does carol ok "del $designs\\d.txt" "UNLINK 7001 $D/d.txt"
does carol ok "mkdir $designs\\m" "MKDIR 7001 $D/m"
does carol ok "rename $designs\\m $designs\\n" "RENAME 7001 $D/m -> $D/n"
does carol ok "rmdir $designs\\n" "RMDIR 7001 $D/n"
does carol ok 'mkdir Shared\Team' 'MKDIR 7001 Shared/Team'
does carol ok 'rmdir Shared\Team' 'RMDIR 7001 Shared/Team'
does carol $denied 'put up.txt Shared\file.txt'
does carol $denied 'put up.txt file.txt'
does carol $denied 'mkdir folder'
does carol ok 'put up.txt Private\alice\c.txt' \
  'CREATE 7001 Private/alice/c.txt; OPEN 7001 Private/alice/c.txt'
does carol ok 'del Private\alice\c.txt' 'UNLINK 7001 Private/alice/c.txt'
does carol $denied 'rmdir Private\bob'
does carol $denied 'rename Private\bob Private\rob'

# A power user with all rights on a folder.
does alice ok "put up.txt $designs\\a.txt" "CREATE 7002 $D/a.txt; OPEN 7002 $D/a.txt"
does alice ok "put up.txt $designs\\a.txt" "OPEN 7002 $D/a.txt"
does alice ok "get $designs\\a.txt down.txt"
does alice ok "rename $designs\\a.txt Shared\\Engineering\\Ideas\\b.txt" \
  "RENAME 7002 $D/a.txt -> Shared/Engineering/Ideas/b.txt"
does alice ok 'del Shared\Engineering\Ideas\b.txt' 'UNLINK 7002 Shared/Engineering/Ideas/b.txt'
does alice ok "mkdir $designs\\m" "MKDIR 7002 $D/m"
does alice ok "rmdir $designs\\m" "RMDIR 7002 $D/m"
# smbclient sends this in two requests, one for what is set and one for what is cleared.
does alice ok "setmode $designs\\gear.step +h" \
  "OPEN 7002 $D/gear.step; OPEN 7002 $D/gear.step"
does alice ok "utimes $designs\\gear.step 2020:01:01-00:00:00 2020:01:01-00:00:00 2020:01:01-00:00:00 2020:01:01-00:00:00" \
  "OPEN 7002 $D/gear.step"
does alice $denied 'mkdir Shared\Team'
does alice $denied 'put up.txt Shared\file.txt'
does alice $denied 'rename Shared\Engineering Shared\Eng'
does alice $denied 'rmdir Shared\Engineering'
does alice $denied 'get Shared\Finance\2026.csv down.txt'
does alice $denied 'put up.txt Shared\Finance\a.txt'
does alice $denied 'del Shared\Finance\2026.csv'
does alice ok 'put up.txt Private\alice\a.txt' \
  'CREATE 7002 Private/alice/a.txt; OPEN 7002 Private/alice/a.txt'
does alice ok 'mkdir Private\alice\m' 'MKDIR 7002 Private/alice/m'
does alice ok 'rmdir Private\alice\m' 'RMDIR 7002 Private/alice/m'
does alice ok 'del Private\alice\a.txt' 'UNLINK 7002 Private/alice/a.txt'
does alice $denied 'put up.txt Private\bob\a.txt'
does alice $denied 'rmdir Private\alice'
does alice $denied 'mkdir Private\eve'

# A power user who may read only.
does bob ok "get $designs\\gear.step down.txt"
wants 'bob reads' gear "$(cat "$state/down.txt")"
does bob $denied "put up.txt $designs\\b.txt"
does bob $denied "put up.txt $designs\\gear.step"
does bob $denied "rename $designs\\gear.step $designs\\b.step"
does bob $denied "del $designs\\gear.step"
does bob $denied "mkdir $designs\\m"
does bob $denied "rmdir $designs"
does bob $denied "setmode $designs\\gear.step -h"
does bob $denied "utimes $designs\\gear.step 2021:01:01-00:00:00 2021:01:01-00:00:00 2021:01:01-00:00:00 2021:01:01-00:00:00"
does bob $denied 'get Private\alice\diary.txt down.txt'
wants 'nothing of it happened' gear "$(cat "$share/$D/gear.step")"

# A standard user and one in no group: nothing.
for user in dave backup-service; do
  does $user $denied "get $designs\\gear.step down.txt"
  does $user $denied "put up.txt $designs\\x.txt"
  does $user $denied "del $designs\\gear.step"
  does $user $denied "mkdir $designs\\x"
  does $user $denied "rename $designs\\gear.step $designs\\x.step"
  does $user $denied "rmdir $designs"
done

# What is missing is missing.
does alice ok 'ls shared\engineering\DESIGNS\GEAR.STEP'
does alice $denied 'ls Shared\finance\*' # hidden from her, as in its own letters
does alice NT_STATUS_OBJECT_NAME_NOT_FOUND "get $designs\\none.txt down.txt"
does alice NT_STATUS_NO_SUCH_FILE "del $designs\\none.txt"
does alice NT_STATUS_DIRECTORY_NOT_EMPTY 'rmdir Shared\Engineering\Designs'

# The gate: links, paths that climb, streams, marks.
ln -s /etc/passwd "$share/$D/out"
ln -s ../../Finance "$share/$D/inside"
ln -s ../../Finance/2026.csv "$share/$D/file"
for name in out file 'inside\2026.csv'; do
  output=$(smb alice "get $designs\\$name down.txt")
  wants "alice reads through the link $name" refused \
    "$(grep -q NT_STATUS <<<"$output" && echo refused || echo "$output")"
done
rm "$share/$D"/{out,inside,file}
ln -s ../../Shared/Engineering/Designs/gear.step "$share/Private/bob/link"
output=$(smb bob 'get Private\bob\link down.txt')
wants 'a link to what he may read' refused \
  "$(grep -q NT_STATUS <<<"$output" && echo refused || echo "$output")"
smb bob 'put up.txt Private\bob\link' >/dev/null
wants 'a link to what he may not write' gear "$(cat "$share/$D/gear.step")"
rm -f "$share/Private/bob/link"
output=$(smb alice "get ..\\..\\etc\\passwd down.txt")
wants 'a path that climbs' refused "$(grep -q NT_STATUS <<<"$output" && echo refused || echo "$output")"
output=$(smb alice "put up.txt $designs\\gear.step:stream")
wants 'a stream' refused "$(grep -q NT_STATUS <<<"$output" && echo refused || echo "$output")"
events >/dev/null

# A read leaves one audit record; a listing and a write none.
audits >/dev/null
smb bob "get $designs\\gear.step down.txt" >/dev/null
wants 'one audit record' "7003 127.0.0.1 5 $D/gear.step" \
  "$(audits | awk '{print $3, $4, $5, $6}' | paste -sd';')"
smb bob "cd $designs; ls" >/dev/null
smb alice "put up.txt $designs\\a.txt; del $designs\\a.txt" >/dev/null
wants 'no audit record' '' "$(audits | paste -sd';')"

finish
