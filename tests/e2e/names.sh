# Names that are not plain: other letters and other cases of them, as long and as deep as they get,
# signs, thousands in one folder, the names of housekeeping; and a user who is connected before
# there is any map. Run by tests/e2e/smbd with NO_MAP=1.
. "$project/tests/e2e/checks.sh"
. "$project/tests/e2e/client.sh"
[ -n "${NO_MAP:-}" ] || { echo "names: begins without a map; run it with NO_MAP=1" >&2; exit 64; }

# Clients that stay connected: join USER, then tell USER WORD PATH [REST] prints the answer.
declare -A to from clients
join() {
  local descriptor
  mkfifo "$state/$1.in" "$state/$1.out"
  "$client" "$1" secret //127.0.0.1/share <"$state/$1.in" >"$state/$1.out" 2>"$state/$1.err" &
  clients[$1]=$!
  exec {descriptor}>"$state/$1.in" && to[$1]=$descriptor
  exec {descriptor}<"$state/$1.out" && from[$1]=$descriptor
}
tell() {
  local answer='no answer'
  printf '%s\t%s\t%s\n' "$2" "$3" "${4-}" >&"${to[$1]}"
  IFS= read -r -t 30 answer <&"${from[$1]}" || true
  printf '%s\n' "$answer"
}
# asks USER ANSWER WORD PATH [REST]
asks() { wants "$1: $3 $4 ${5-}" "$2" "$(tell "$1" "${@:3}")"; }
# refused USER WORD PATH [REST]: for any reason but one that would let it be tried again.
refused() {
  local answer
  answer=$(tell "$@")
  wants "$1: $2 ${3:0:60} is refused" refused \
    "$([[ $answer == E* ]] && echo refused || echo "$answer")"
}
# leaves RECORD…: the records since the last time, in any order.
leaves() {
  wants "$1" "$(printf '%s\n' "${@:2}" | sort)" "$(events | grep -v Gid | sort)"
}

alice=7002 bob=7003 power=5001

# --- Without a map --------------------------------------------------------------------------------
N=Shared/Names
mkdir -p "$share/$N"
for user in alice carol dave; do join $user; done
events >/dev/null
# Private needs no map, but smbd goes through it, and whether that is allowed, the map says.
for user in alice carol; do
  asks $user EACCES stat Private/alice
  asks $user EACCES list Private/alice
  asks $user 'ok mine' read Private/alice/diary.txt
  asks $user ok create "Private/alice/of-$user" text
  asks $user EACCES rename "Private/alice/of-$user" "Private/alice/by-$user"
  asks $user ok mkdir "Private/alice/of-$user.d"
  asks $user EACCES rmdir "Private/alice/of-$user.d"
done
leaves 'what was done in Private' \
  'CREATE 7002 Private/alice/of-alice' 'OPEN 7002 Private/alice/of-alice' \
  'MKDIR 7002 Private/alice/of-alice.d' \
  'CREATE 7001 Private/alice/of-carol' 'OPEN 7001 Private/alice/of-carol' \
  'MKDIR 7001 Private/alice/of-carol.d'
rm -r "$share"/Private/alice/of-*
for user in alice carol dave; do
  for path in '' Shared Shared/Open Shared/Engineering/Designs; do
    asks $user EACCES list "$path"
  done
  asks $user EACCES read Shared/Engineering/Designs/gear.step
  asks $user EACCES overwrite Shared/Engineering/Designs/gear.step new
  asks $user EACCES mkdir Shared/Open/new
  asks $user EACCES unlink Shared/Finance/2026.csv
  asks $user EACCES rename Shared/Finance/2026.csv Shared/Open/2026.csv
done
for user in alice carol; do # there is no no that could be turned into a yes
  asks $user EACCES create .DS_Store new
done
asks dave ok create .DS_Store new # his standing is one
asks dave ok unlink .DS_Store
leaves 'a standard user keeps house' 'CREATE 7004 .DS_Store' 'OPEN 7004 .DS_Store' \
  'UNLINK 7004 .DS_Store'
for path in Private/bob Private/bob/x; do asks alice EACCES stat $path; done
asks dave EACCES stat Private/alice
leaves 'nothing else was done'
wants 'nothing else happened' 'gear 2026' \
  "$(cd "$share/Shared" && echo "$(cat Engineering/Designs/gear.step) $(cat Finance/2026.csv)")"

# --- A map ----------------------------------------------------------------------------------------
# alice may do everything in Names and only read in the folders below it that are named here, so
# that a folder that is not found in the map shows at once: she could write in it.
add_element /
add_element Shared - $power:8
add_element $N $alice:7,$bob:7
# As on the disk, and in other letters of either case.
letters=('Ärger|äRGER' 'ŁÓDŹ|łódź' 'Ωμέγα|ωΜΈΓΑ' 'Привет|пРИВЕТ' 'Crème Brûlée|cRÈME bRÛLÉE')
for pair in "${letters[@]}"; do
  name=${pair%|*}
  mkdir "$share/$N/$name"
  echo gear >"$share/$N/$name/Inhalt ä.txt"
  add_element "$N/$name" $alice:1,$bob:7
  add_element "$N/$name/keep"
done
# In the map in other letters than on the disk.
spelled=('Übung|üBUNG' 'łąka|ŁĄKA' 'Дом|дОМ' 'plain|PLAIN')
for pair in "${spelled[@]}"; do
  mkdir "$share/$N/${pair%|*}"
  add_element "$N/${pair#*|}" $alice:1
  add_element "$N/${pair#*|}/keep"
done
# Names with the same hash and length, which letters beyond ASCII do not enter.
for name in Ä1:1 Ö1:7 Ä3:3 Ö3:3 A3:3 O3:3; do
  mkdir -p "$share/$N/${name%:*}/sub"
  add_element "$N/${name%:*}" "$alice:${name#*:}"
  add_element "$N/${name%:*}/keep"
done
# 255 bytes, in one byte and in two bytes a letter.
plain_255=$(printf 'n%.0s' {1..255})
wide_255=x$(printf 'ä%.0s' {1..127})
for name in "$plain_255" "$wide_255"; do
  mkdir "$share/$N/$name"
  echo gear >"$share/$N/$name/file"
  add_element "$N/$name" $alice:1,$bob:7
  add_element "$N/$name/keep"
done
# Signs. The second lot has no place in a name of the protocol: clients see another name for it.
signs=('two  blanks' "it's" 'semi;colon' 'a&b' '100%' '#1' '[x]' '{y}' '~tilde' 'comma,' 'a=b' '@'
  '!' '^' '`' '$HOME' '(p)' 'a+b' '%41' '😀' '-dash' '.hidden')
strange=('colon:' 'star*' 'what?' 'pipe|' 'less<' 'quote"' 'blank ')
mkdir "$share/$N/signs" "$share/$N/strange"
add_element $N/signs $alice:7
add_element $N/strange $alice:7
for name in "${signs[@]}"; do
  mkdir "$share/$N/signs/$name d"
  echo gear >"$share/$N/signs/$name d/file"
  add_element "$N/signs/$name d" $alice:1
  add_element "$N/signs/$name d/keep"
done
for name in "${strange[@]}"; do
  mkdir "$share/$N/strange/$name" "$share/$N/strange/closed $name"
  echo gear >"$share/$N/strange/$name/file"
  add_element "$N/strange/$name" $alice:1
  add_element "$N/strange/$name/keep"
  add_element "$N/strange/closed $name" $alice:0
done
# 150 levels; from the hundredth on alice may only read.
depth=150
deep=Shared/Deep
add_element $deep $alice:7,$bob:7
for level in $(seq $depth); do
  deep+=/d
  if [ "$level" = 50 ]; then deep_50=$deep; fi
  if [ "$level" = 99 ]; then deep_99=$deep; fi
  if [ "$level" = 100 ]; then add_element $deep $alice:1,$bob:7; else add_element $deep; fi
done
mkdir -p "$share/Shared/Deep" "$share/Shared/Long"
add_element Shared/Long $bob:7
# 10,000 entries: 5,000 files, 5,000 folders of which alice may see half.
add_element Shared/Many $alice:7
mkdir "$share/Shared/Many"
(cd "$share/Shared/Many" && seq -f 'file %05g' 5000 | xargs -d '\n' touch &&
  seq -f 'folder %05g' 5000 | xargs -d '\n' mkdir)
for number in $(seq 1 2 5000); do
  printf -v name 'folder %05d' "$number"
  add_element "Shared/Many/$name" $alice:0
done
# Housekeeping: where alice may write, but not delete; do everything; look.
for name in House:3 Full:7 Look:1; do
  mkdir -p "$share/Shared/${name%:*}"/{sub1,sub2,sub3,sub4}
  for number in 1 2 3 4 5 6; do echo gear >"$share/Shared/${name%:*}/f$number"; done
  add_element "Shared/${name%:*}" "$alice:${name#*:}"
  add_element "Shared/${name%:*}/keep"
done
chown -R root:root "$share/Shared" && chmod -R u=rwX,go= "$share/Shared"
apply_elements

# The users who are connected have it at once: nothing of the time before is remembered.
asks alice 'ok Private|Shared|' list ''
asks alice 'ok Deep|Full|House|Look|Many|Names|' list Shared
asks carol 'ok gear' read Shared/Engineering/Designs/gear.step
asks alice EACCES read Shared/Engineering/Designs/gear.step
asks dave EACCES list Shared
asks alice 'ok mine' read Private/alice/diary.txt
sleep 1.1 # the marker is dated a second ahead
join bob
events >/dev/null
audits >/dev/null

# --- Letters --------------------------------------------------------------------------------------
for pair in "${letters[@]}"; do
  name=${pair%|*} other=${pair#*|}
  for way in "$N/$name" "$N/$other" "shared/NAMES/$other"; do
    asks alice 'ok folder' stat "$way"
    asks alice 'ok Inhalt ä.txt|' list "$way"
    asks alice 'ok gear' read "$way/Inhalt ä.txt"
    asks alice 'ok gear' read "$way/INHALT Ä.TXT"
    asks alice EACCES overwrite "$way/iNHALT ä.txt" new
    asks alice EACCES create "$way/new" new
    asks alice EACCES mkdir "$way/new.d"
    asks alice EACCES unlink "$way/INHALT ä.txt"
    asks alice EACCES rename "$way/INHALT Ä.txt" "$way/new"
  done
  asks bob EEXIST mkdir "$N/$other"
  leaves "nothing changed in $name"
  asks bob ok overwrite_if "$N/$other/INHALT Ä.TXT" 'by bob'
  leaves "$name is written" "OPEN $bob $N/$name/Inhalt ä.txt"
  wants "no second file in $name" 'by bob' "$(cat "$share/$N/$name"/*)"
  asks bob ok create "$N/$name/$name.txt" text
  asks bob EEXIST create "$N/$other/$other.txt" text
  asks bob 'ok text' read "$N/$other/$other.TXT"
  events >/dev/null
  asks bob ok rename "$N/$name/$name.txt" "$N/$other/$other.txt"
  leaves "$name.txt gets other letters" "RENAME $bob $N/$name/$name.txt -> $N/$name/$other.txt"
  wants "the other letters of $name.txt" "$(printf '%s\n' "$other.txt" 'Inhalt ä.txt' | sort)" \
    "$(ls "$share/$N/$name" | sort)"
  asks bob ok unlink "$N/$other/$name.txt"
  leaves "$other.txt is removed by its other name" "UNLINK $bob $N/$name/$other.txt"
  wants "what is left in $name" 'Inhalt ä.txt' "$(ls "$share/$N/$name")"
done
for pair in "${spelled[@]}"; do
  for name in "${pair%|*}" "${pair#*|}"; do
    asks alice 'ok folder' stat "$N/$name"
    asks alice EACCES create "$N/$name/new" text
  done
done
# A letter and its mark apart are another name.
apart=$(printf 'A\u0308rger')
asks bob ENOENT stat "$N/$apart"
asks bob ok mkdir "$N/$apart"
asks bob ok rmdir "$N/$apart"
wants 'Ärger stays' yes "$([ -d "$share/$N/Ärger" ] && echo yes)"
events >/dev/null
# The full name decides between names of one hash.
asks alice EACCES create $N/Ä1/new text
asks alice ok create $N/Ö1/new text
# But whether a folder is moved or renamed is told by the hashes alone: between Ä3 and Ö3 it is a
# renaming, which needs no right to delete.
asks alice EACCES rename $N/A3/sub $N/O3/moved
asks alice ok rename $N/Ä3/sub $N/Ö3/moved
leaves 'one hash' "CREATE $alice $N/Ö1/new" "OPEN $alice $N/Ö1/new" \
  "RENAME $alice $N/Ä3/sub -> $N/Ö3/moved"

# --- Lengths --------------------------------------------------------------------------------------
for name in "$plain_255" "$wide_255"; do
  wants 'a name has 255 bytes' 255 "$(printf %s "$name" | wc -c)"
  asks alice 'ok file|' list "$N/$name"
  asks alice 'ok gear' read "$N/$name/file"
  asks alice EACCES create "$N/$name/$name" text
  asks bob ok create "$N/$name/$name" text
  asks bob 'ok text' read "$N/$name/$name"
  asks bob "ok file|$name|" list "$N/$name"
  asks bob ok rename "$N/$name/$name" "$N/$name/${name%?}y"
  asks bob ok unlink "$N/$name/${name%?}y"
  asks bob ok mkdir "$N/$name/$name"
  asks bob ok rmdir "$N/$name/$name"
  events >/dev/null
  for operation in create mkdir; do refused bob $operation "$N/$name/${name}n"; done
  refused bob rename "$N/$name/file" "$N/$name/${name}n"
  leaves 'a name of 256 bytes'
  wants 'no name of 256 bytes' file "$(ls "$share/$N/$name")"
done

# Depth: made by a client, level by level.
at=Shared/Deep
for level in $(seq $depth); do
  at+=/d
  answer=$(tell bob mkdir $at)
  [ "$answer" = ok ] || wants "making level $level" ok "$answer"
done
wants 'the records of all levels' $depth "$(events | grep -c "^MKDIR $bob ")"
wants 'all levels are there' yes "$([ -d "$share/$deep" ] && echo yes)"
asks bob ok create $deep/file text
asks alice 'ok text' read $deep/file
asks alice 'ok text' read "${deep^^}/FILE"
asks alice EACCES create $deep/new text
asks alice EACCES unlink $deep/file
asks alice ok create $deep_50/new text
asks alice ok create $deep_99/new text
asks alice EACCES create $deep_99/d/new text
asks alice 'ok d|new|' list $deep_50
events >/dev/null
# As far as a path reaches: 4,095 bytes on the disk.
at=Shared/Long made=0
step=$(printf 's%.0s' {1..199})
while [ $((${#share} + 1 + ${#at} + 200)) -lt 4096 ] && [ "$(tell bob mkdir "$at/$step")" = ok ]; do
  at+=/$step made=$((made + 1))
done
wants 'levels of 200 bytes' 20 $made
left=$((4095 - ${#share} - 1 - ${#at} - 1))
asks bob ok create "$at/$(printf 'f%.0s' $(seq $left))" text
asks bob 'ok text' read "$at/$(printf 'f%.0s' $(seq $left))"
for operation in create mkdir stat read; do
  refused bob $operation "$at/$(printf 'f%.0s' $(seq $((left + 1))))"
  refused bob $operation "$at/$step/$step/$step"
done
in_the_deepest() { (cd "$share/Shared/Long" && for _ in $(seq $made); do cd -P "$step"; done && ls); }
wants 'nothing beyond' 1 "$(in_the_deepest | wc -l)"
asks bob 'ok folder' stat Shared/Long
events >/dev/null

# --- Signs ----------------------------------------------------------------------------------------
for name in "${signs[@]}"; do
  asks alice 'ok file|' list "$N/signs/$name d"
  asks alice EACCES create "$N/signs/$name d/new" text
  asks alice ok create "$N/signs/$name" text
  asks alice 'ok text' read "$N/signs/$name"
  asks alice ok rename "$N/signs/$name" "$N/signs/$name $name"
  asks alice ok unlink "$N/signs/$name $name"
  leaves "records of $name" "CREATE $alice $N/signs/$name" "OPEN $alice $N/signs/$name" \
    "RENAME $alice $N/signs/$name -> $N/signs/$name $name" "UNLINK $alice $N/signs/$name $name"
done
wants 'all signs are listed' "$(printf '%s d\n' "${signs[@]}" | LC_ALL=C sort)" \
  "$(tell alice list $N/signs | sed 's/^ok //' | tr '|' '\n' | sed '/^$/d')"
# By their other names they are what they are.
mapfile -t shown < <(tell alice list $N/strange | sed 's/^ok //' | tr '|' '\n' | sed '/^$/d')
wants 'strange names that are shown' ${#strange[@]} ${#shown[@]}
for name in "${shown[@]}"; do
  asks alice 'ok gear' read "$N/strange/$name/file"
  asks alice EACCES create "$N/strange/$name/new" text
done

# --- 10,000 entries -------------------------------------------------------------------------------
{ seq -f 'file %05g' 5000; seq -f 'folder %05g' 5000; } >"$state/all"
awk '$1 == "file" || $2 % 2 == 0' "$state/all" >"$state/seen"
for list in alice:seen carol:all alice:seen; do
  started=$(date +%s%N)
  tell "${list%:*}" list Shared/Many | sed 's/^ok //' | tr '|' '\n' | sed '/^$/d' >"$state/shown"
  printf '%s listed %s of 10,000 entries in %s ms\n' "${list%:*}" "$(wc -l <"$state/shown")" \
    $((($(date +%s%N) - started) / 1000000))
  wants "what ${list%:*} sees of 10,000" '' "$(diff "$state/${list#*:}" "$state/shown" | head -3)"
done
asks alice EACCES stat 'Shared/Many/folder 04999'
asks alice 'ok folder' stat 'Shared/Many/FOLDER 05000'
asks alice 'ok file 0' stat 'Shared/Many/FILE 04999'

# --- Housekeeping ---------------------------------------------------------------------------------
events >/dev/null
H=Shared/House F=Shared/Full L=Shared/Look
asks alice ok mkdir .Trash
leaves 'a .Trash' "MKDIR $alice .Trash"
# A file needs only the right to write where it comes from; where it goes, such a name is free.
asks alice ok rename $H/f1 .Trash/f1
asks alice ok rename $H/f2 .DS_Store
asks alice ok rename $H/f3 $H/f3.sb-1
asks alice ok rename $H/f4 Shared/.DS_Store
asks alice ok rename $H/f5 Shared/f5.sb-1
asks alice EACCES rename $L/f1 .Trash/f2
asks alice EACCES rename $L/f1 .DS_Store-2
asks alice EACCES rename $L/f1 $L/f1.sb-1
leaves 'files get such names' \
  "RENAME $alice $H/f1 -> .Trash/f1" "RENAME $alice $H/f2 -> .DS_Store" \
  "RENAME $alice $H/f3 -> $H/f3.sb-1" "RENAME $alice $H/f4 -> Shared/.DS_Store" \
  "RENAME $alice $H/f5 -> Shared/f5.sb-1"
# A folder that stays where it is needs nothing at all; one that is moved, the right to delete.
asks alice ok rename $H/sub1 $H/sub1.sb-1
asks alice ok rename $L/sub1 $L/sub1.sb-1
asks alice ok rename $F/sub2 .Trash/sub2
asks alice ok rename $F/sub3 Shared/sub3.sb-1
asks alice EACCES rename $H/sub2 .Trash/sub3
asks alice EACCES rename $L/sub2 .Trash/sub3
asks alice EACCES rename $H/sub2 Shared/sub2.sb-1
asks alice EACCES rename Private/alice Private/alice.sb-1
asks alice EACCES rename Private/alice .Trash/alice
leaves 'folders get such names' \
  "RENAME $alice $H/sub1 -> $H/sub1.sb-1" "RENAME $alice $L/sub1 -> $L/sub1.sb-1" \
  "RENAME $alice $F/sub2 -> .Trash/sub2" "RENAME $alice $F/sub3 -> Shared/sub3.sb-1"
# Back: such a name is free to leave, the place it goes to is not.
asks alice ok rename .Trash/f1 $H/back
asks alice EACCES rename $H/f3.sb-1 $L/back
asks alice ok rename .Trash/sub2 $H/sub2-back
leaves 'they come back' "RENAME $alice .Trash/f1 -> $H/back" \
  "RENAME $alice .Trash/sub2 -> $H/sub2-back"
# In other letters, or further below, they are names like others.
asks alice ok rename $H/f6 $H/.DS_Store
asks alice EACCES rename $L/f2 $L/.DS_Store
asks alice EACCES rename $L/sub3 $L/sub3.SB-1
asks alice EACCES rename $L/sub3 $L/.Trash
# What is so named is everybody's who sees its folder: bob has no right in House, carol is asked
# nothing.
asks bob EACCES read $H/f3.sb-1
asks carol 'ok gear' read $H/f3.sb-1
asks bob ok mkdir .Trash/of-bob
asks bob ok create .Trash/of-bob/file text
asks alice 'ok text' read .Trash/of-bob/file
asks alice ok unlink .Trash/of-bob/file
asks alice ok rmdir .Trash/of-bob

# Whoever leaves has his reads written down, by the names that are on the disk.
for user in "${!to[@]}"; do
  descriptor=${to[$user]}
  exec {descriptor}>&-
done
wait "${clients[@]}" # a client has the pipes of those who came before it
wait_for is_alone
audits >"$state/audits" || true
for pair in "${letters[@]}"; do
  wants "alice's reads in ${pair%|*}" 6 \
    "$(grep -F " $alice " "$state/audits" | grep -cF "  $N/${pair%|*}/Inhalt ä.txt")"
done
finish
