# The tables of verdicts as a client meets them: who, where and what, as tables written by hand from
# the rules of the share. Each row is tried over SMB, and compared four ways: what the client was
# told, what happened on the disk, which records it left, and what `kavrinctl check` says of it. Run
# by tests/e2e/smbd.
. "$project/tests/e2e/checks.sh"
. "$project/tests/e2e/client.sh"
. "$project/tests/e2e/cases.sh"
. "$project/tests/e2e/dispositions.sh"

# Accounts: carol administers, alice and bob are power users, alice is an engineer, too. dave is a
# standard user, backup-service in no group; both have every right in the map, in vain.
alice=7002 bob=7003 dave=7004 service=7005 power=5001 engineers=6001 finance=6002

# The kinds of a folder: name, who tries it, and what the map says of it. The column is the
# effective mask of alice, or the place of another caller.
kinds="
nothing    0  alice $alice:0                -
read       1  alice $alice:1                -
write      2  alice $alice:2                -
both       3  alice $alice:3                -
delete     4  alice $alice:4                -
unread     6  alice $alice:6                -
all        7  alice $alice:7                -
navigate   8  alice $alice:8                -
viewer    16  alice $alice:16               -
group      1  alice -                       $engineers:1
groups     3  alice -                       $engineers:1,$power:2
widened    1  alice $alice:0                $engineers:1
widernav   9  alice $alice:8                $engineers:1
own        1  alice $alice:1                $engineers:7
ownview   16  alice $alice:16               $engineers:7
foreign    0  alice $bob:7                  $finance:7
inherits   7  alice -                       -
primary    3  alice -                       $alice:3
admin      A  carol -                       $finance:1
standard   S  dave  $dave:7                 $engineers:7
nobody     S  backup-service $service:7,$dave:7 -
"
# Rights in the folder around them all.
add_element / - $power:8
add_element Shared - $power:8
add_element Shared/Wide $alice:7,$dave:7,$service:7
add_element Shared/Wide/target $alice:7,$dave:7,$service:7
add_element Shared/Wide/target/keep
mkdir -p "$share/Shared/Wide/target" "$share"/Private/{dave,backup-service}
chown dave "$share/Private/dave" && chown backup-service "$share/Private/backup-service"

# Files, a row an operation. The columns are alice's masks on the folder around (0 1 2 3 4 6 7 8 9
# 16); A the administrator, S whoever is in no group of the share; and in Private P the owner, X the
# administrator, O the others. + done, - refused, 0 not found, x exists already.
declare -A column_of=([0]=0 [1]=1 [2]=2 [3]=3 [4]=4 [6]=5 [7]=6 [8]=7 [9]=8 [16]=9 [A]=10 [S]=11
  [P]=12 [X]=13 [O]=14)

# After the columns: records, questions, the operation. @ is the file of that row, @n its new name,
# @t a name in the folder of all rights.
existing_files='
stat            -+-+--+-+- +- ++- .       stat               stat         @
read            -+-+--+-+- +- ++- audit   stat,open_read     read         @
open            ---+--+--- +- ++- .       stat,open_write    open         @
open_both       ---+--+--- +- ++- audit   stat,open_write    open_both    @
write           ---+--+--- +- ++- OPEN    stat,open_write    open         @ new
rewrite         ---+--+--- +- ++- OPEN    stat,open_write    open_both    @ new
open_if         ---+--+--- +- ++- .       stat,open_write    open_if      @
open_if_read    ---+--+--- +- ++- audit   stat,open_write    open_if_read @
create          ---x--x--- x- xx- .       stat,create        create       @ new
overwrite       ---+--+--- +- ++- OPEN    stat,open_write    overwrite    @ new
overwrite_if    ---+--+--- +- ++- OPEN    stat,open_write    overwrite_if @ new
unlink          ---+--+--- +- ++- UNLINK  stat,open_write    unlink       @
rename          ---+--+--- +- ++- RENAME  stat,open_write,>rename_dest rename @ @n
move_away       ---+--+--- +- ++- RENAME  stat,open_write,>rename_dest rename @ @t
times           ---+--+--- +- ++- OPEN    stat,open_write    times        @ 1000000
attributes      ---+--+--- +- ++- OPEN    stat,open_write    attributes   @ 0004
'
# Names that are missing. Overwriting what is missing is an operation without a verdict: refused. Of
# a refused removal libsmbclient tells what it finds when it looks at the name.
missing_files='
no.stat         -0-0--0000 0- 00- .       ^stat,stat         stat         @
no.read         -0-0--0000 0- 00- .       ^stat,open_read    read         @
no.open         ---0--0--- 0- 00- .       ^stat,open_write   open         @
no.create       ---+--+--- +- ++- CREATE  ^stat,create       create       @
no.create_text  ---+--+--- +- ++- CREATE,OPEN ^stat,create   create       @ new
no.open_if      ---+--+--- +- ++- CREATE  ^stat,create       open_if      @
no.open_if_read ---+--+--- +- ++- CREATE  ^stat,create       open_if_read @
no.overwrite    ---------- -- --- .       .                  overwrite    @ new
no.overwrite_if ---+--+--- +- ++- CREATE,OPEN ^stat,create   overwrite_if @ new
no.unlink       -0-0--0000 0- 00- .       .                  unlink       @
no.rename       ---0--0--- 0- 00- .       ^stat,open_write   rename       @ @n
no.mkdir        ---+--+--- +- ++- MKDIR   ^stat,mkdir        mkdir        @
no.rmdir        -0-0--0000 0- 00- .       ^stat,opendir      rmdir        @
'

# rows TABLE COLUMN USER FOLDER LABEL: one case a row.
rows() {
  local row main others private record asks word object rest verdict text
  while read -r row main others private record asks word object rest; do
    [ -n "$row" ] || continue
    text=$main$others$private
    verdict=${text:$2:1}
    case $verdict in
      +) verdict=ok ;; -) verdict=EACCES ;; 0) verdict=ENOENT ;; x) verdict=EEXIST ;;
    esac
    case $verdict/$word in
      ok/stat) verdict='ok file 5' ;; ok/read) verdict='ok gear' ;;
    esac
    rest=${rest/@n/$4/$row.new}
    rest=${rest/@t/Shared/Wide/target/$5.$row}
    say "$row in $5" "$3" "$verdict" "$record" "$asks" "$word" "$4/$row" "$rest"
    [ "$1" = missing ] || echo gear >"$share/$4/$row"
  done <<<"$([ "$1" = missing ] && echo "$missing_files" || echo "$existing_files")"
}

# place NAME COLUMN USER FOLDER: every row in one folder, the folder itself, and what comes into it.
place() {
  local name=$1 column=${column_of[$2]} user=$3 folder=$4 moved=Shared/Wide/target/$1 verdict
  mkdir -p "$share/$folder"
  rows existing "$column" "$user" "$folder" "$name"
  rows missing "$column" "$user" "$folder" "$name"
  # Moving into it needs the right to write here.
  verdict=EACCES
  [[ $2 == [37APX] ]] && verdict=ok
  echo gear >"$share/$moved"
  say "a file into $name" "$user" $verdict RENAME "open_write,>rename_dest" \
    rename "$moved" "$folder/moved"
  mkdir "$share/$moved.d"
  say "a folder into $name" "$user" $verdict RENAME \
    "stat,move_src,>move_dest" rename "$moved.d" "$folder/moved.d"
}

while read -r name column user acl_users acl_groups; do
  [ -n "$name" ] || continue
  add_element "Shared/Wide/$name" "$acl_users" "$acl_groups"
  add_element "Shared/Wide/$name/keep" # without a child its ACL would count as inherited
  place "$name" "$column" "$user" "Shared/Wide/$name"
done <<<"$kinds"
place own-private P alice Private/alice
place admin-private X carol Private/backup-service
place other-private O alice Private/bob
place standard-private O dave Private/dave
place standards-private O alice Private/dave
place services-private O backup-service Private/backup-service/inside

# Folders: what is asked of the folder around one and of itself. Every pair of masks is tried with a
# folder of its own for each row. "see" is read, navigate or viewer.
folders='
stat     see see .      stat                             stat   @
list     see see .      stat,opendir                     list   @
rmdir    rwd see RMDIR  stat,opendir,rmdir               rmdir  @
rename   rw  see RENAME stat,opendir,open_write,>rename_dest rename @ @n
rename_sb rw see RENAME stat,opendir,open_write,>rename_dest rename @ @n.sb-1
move     rwd r   RENAME stat,opendir,move_src,>move_dest rename @ @t
times    see rw  .      stat,/create                     times  @ 1000000
hidden   see rw  .      stat,/create                     attributes @ 0001
'
has() { # has MASK NEED
  case $2 in
    see) (($1 & 25)) ;; r) (($1 & 1)) ;; rw) ((($1 & 3) == 3)) ;; rwd) ((($1 & 7) == 7)) ;;
  esac
}
for outer in 0 1 3 7 8 16 6 9; do
  folder=Shared/Wide/outer$outer
  add_element "$folder" "$alice:$outer"
  for inner in 0 1 3 7 8 16; do
    while read -r row around itself record asks word _ rest; do
      [ -n "$row" ] || continue
      [ "$row" != rename_sb ] || [[ $outer == [37] ]] || continue
      path=$folder/$row$inner
      mkdir -p "$share/$path"
      add_element "$path" "$alice:$inner"
      add_element "$path/keep"
      verdict=EACCES
      if has $outer "$around" && has $inner "$itself"; then verdict=ok; fi
      case $verdict/$word in
        ok/stat) verdict='ok folder' ;; ok/list) verdict='ok ' ;;
      esac
      rest=${rest/@n/$path.new}
      rest=${rest/@t/Shared/Wide/target/$outer.$row$inner}
      say "$row of $inner in $outer" alice "$verdict" "$record" "$asks" "$word" "$path" "$rest"
    done <<<"$folders"
  done
done

# Listings: files where the folder may be read, folders that may be seen.
for outer in 0 1 3 7 8 16 9; do
  folder=Shared/Wide/shown$outer
  add_element "$folder" "$alice:$outer"
  mkdir -p "$share/$folder"
  echo gear >"$share/$folder/file"
  shown=
  ! has $outer r || shown='file|'
  for inner in 0 1 16 7 8; do
    mkdir "$share/$folder/is$inner"
    add_element "$folder/is$inner" "$alice:$inner"
    add_element "$folder/is$inner/keep"
  done
  shown+='is1|is16|is7|is8|'
  verdict=EACCES
  ! has $outer see || verdict="ok $shown"
  say "what $outer shows" alice "$verdict" . stat,opendir list "$folder"
done
# Rights of root and its group, as a scan of a tree writes them, are nobody else's, although smbd
# runs with the group of root as its real one.
add_element Shared/Wide/roots 0:7 0:7
add_element Shared/Wide/roots/keep
mkdir "$share/Shared/Wide/roots"
echo gear >"$share/Shared/Wide/roots/file"
say "a folder of root's group" alice EACCES . stat stat Shared/Wide/roots
say "reading a file of root's group" alice EACCES . stat,open_read read Shared/Wide/roots/file
say "writing a file of root's group" alice EACCES . open_write open Shared/Wide/roots/file new
# Only what a folder itself or its ancestors say counts; a navigate entry is not inherited, and the
# ACL of a folder without children is taken as inherited.
add_element Shared/Wide/navigate/child $alice:8
add_element Shared/Wide/bare $alice:8
add_element Shared/Wide/bare-read $alice:1
mkdir -p "$share"/Shared/Wide/{navigate/{child,grandchild},bare,bare-read}
say 'navigate on an element without children' alice EACCES . stat stat Shared/Wide/navigate/child
say 'navigate is not inherited' alice EACCES . stat stat Shared/Wide/navigate/grandchild
say 'navigate on a bare folder' alice EACCES . stat stat Shared/Wide/bare
say 'read on a bare folder' alice 'ok folder' . stat stat Shared/Wide/bare-read
# The folder around is asked, not each above it.
add_element Shared/Wide/closed $alice:0
add_element Shared/Wide/closed/middle $alice:7
add_element Shared/Wide/closed/middle/open $alice:7
add_element Shared/Wide/closed/middle/open/keep
mkdir -p "$share/Shared/Wide/closed/middle/open/inside"
echo gear >"$share/Shared/Wide/closed/middle/file"
echo gear >"$share/Shared/Wide/closed/middle/open/file"
say 'a folder in a closed one' alice EACCES . stat stat Shared/Wide/closed/middle
# smbd opens the folder around what it looks at, and that one is in a closed folder.
say 'two levels below a closed folder' alice EACCES . . stat Shared/Wide/closed/middle/open
say 'three levels below a closed folder' alice 'ok folder' . stat stat \
  Shared/Wide/closed/middle/open/inside
say 'a file there' alice 'ok gear' audit stat,open_read read Shared/Wide/closed/middle/open/file

# The top level.
echo gear >"$share/stray.txt"
mkdir "$share/Stray"
mkdir "$share"/Shared/Wide/target/{top,top-carol}
for name in top-file top-file-carol; do echo gear >"$share/Shared/Wide/target/$name"; done
for user in alice carol dave backup-service; do
  listed=EACCES missing=EACCES about='ok folder'
  [[ $user != [ac]* ]] || listed='ok Private|Shared|'
  [[ $user == [ac]* ]] || about=EACCES
  say 'the root' $user "$listed" . opendir list ''
  say 'Shared' $user "$about" . stat stat Shared
  say 'Private' $user "$about" . stat stat Private
  say 'a file in the root' $user EACCES . stat stat stray.txt
  say 'reading a file in the root' $user EACCES . open_read read stray.txt
  say 'writing a file in the root' $user EACCES . open_write open stray.txt new
  say 'removing a file in the root' $user EACCES . open_write unlink stray.txt
  say 'a folder in the root' $user EACCES . stat stat Stray
  say 'listing a folder in the root' $user EACCES . opendir list Stray
  say 'removing a folder in the root' $user EACCES . rmdir rmdir Stray
  say 'a missing name in the root' $user $missing . stat stat none
  say 'making a file in the root' $user EACCES . create create "new-$user" new
  say 'making a folder in the root' $user EACCES . mkdir mkdir "new-$user.d"
  say 'renaming Shared' $user EACCES . '>rename_dest' rename Shared "Shared-$user"
  say 'renaming Private' $user EACCES . '>rename_dest' rename Private "Private-$user"
  say 'moving a file to the root' $user EACCES . '>rename_dest' rename Shared/Wide/target/top-file \
    "top-$user"
  say 'moving a folder to the root' $user EACCES . '>move_dest' rename Shared/Wide/target/top \
    "top-$user.d"
done
say 'the size of the disk' alice 'ok some' . opendir space ''
say 'the size of the disk, of a folder' alice 'ok some' . opendir space Shared/Wide/all
say 'the size of the disk' carol 'ok some' . opendir space ''
say 'times of Shared' alice EACCES . /create times Shared 1000000
say 'times of Shared' carol EACCES . /create times Shared 1000000

# Below Shared itself.
echo gear >"$share/Shared/stray.txt"
for mask in 0 1 7 8 16; do
  add_element Shared/Top$mask $alice:$mask,$dave:7,$service:7
  add_element Shared/Top$mask/keep
  mkdir "$share/Shared/Top$mask"
  seen=EACCES
  ! has $mask see || seen='ok folder'
  say "a top folder of $mask" alice "$seen" . stat stat Shared/Top$mask
  say "listing a top folder of $mask" alice "${seen/folder}" . stat,opendir list Shared/Top$mask
  say "removing a top folder of $mask" alice EACCES . stat,opendir,rmdir rmdir Shared/Top$mask
  say "renaming a top folder of $mask" alice EACCES . '>rename_dest' \
    rename Shared/Top$mask Shared/New
  say "moving a top folder of $mask" alice EACCES . move_src rename Shared/Top$mask \
    Shared/Wide/target/Top$mask
  seen=EACCES
  ! has $mask rw || seen=ok
  say "times of a top folder of $mask" alice $seen . stat,/create times Shared/Top$mask 1000000
done
say 'Shared' alice 'ok Open|Top1|Top16|Top7|Top8|Wide|' . opendir list Shared
add_element Shared/Open - $power:7
add_element Shared/Open/keep
for user in alice carol dave backup-service; do
  say 'a file in Shared' $user EACCES . stat stat Shared/stray.txt
  say 'reading a file in Shared' $user EACCES . open_read read Shared/stray.txt
  say 'writing a file in Shared' $user EACCES . open_write open Shared/stray.txt new
  say 'removing a file in Shared' $user EACCES . open_write unlink Shared/stray.txt
  say 'making a file in Shared' $user EACCES . create create "Shared/new-$user" new
  [ $user = carol ] ||
    say 'moving a file to Shared' $user EACCES . '>rename_dest' rename Shared/Wide/target/top-file \
      "Shared/to-$user"
  missing=ENOENT
  [[ $user == [ac]* ]] || missing=EACCES
  say 'a missing name in Shared' $user $missing . ^stat,stat stat Shared/none
done
for user in alice dave backup-service; do
  say 'making a top folder' $user EACCES . mkdir mkdir "Shared/new-$user.d"
  say 'moving a folder to Shared' $user EACCES . '>move_dest' rename Shared/Wide/target/top \
    "Shared/to-$user.d"
done
say 'making a top folder' carol ok MKDIR mkdir mkdir Shared/made
mkdir "$share"/Shared/Carol{1,2,3,4}
say 'renaming a top folder' carol ok RENAME stat,open_write,'>rename_dest' rename Shared/Carol1 \
  Shared/Carol1.new
say 'removing a top folder' carol ok RMDIR stat,rmdir rmdir Shared/Carol2
# A name that is missing yet is no file: an administrator can move one here, where nobody sees it.
say 'moving a file to Shared' carol ok RENAME open_write,'>rename_dest' rename \
  Shared/Wide/target/top-file-carol Shared/to-carol
say 'moving a folder to Shared' carol ok RENAME move_src,'>move_dest' rename \
  Shared/Wide/target/top-carol Shared/came
say 'moving a top folder' carol ok RENAME stat,move_src,'>move_dest' rename Shared/Carol3 \
  Shared/Wide/target/went
say 'times of a top folder' carol ok . stat,/create times Shared/Carol4 2000000
mkdir "$share"/Shared/Wide/admin/{removed,renamed,moved-away}
say 'an administrator lists' carol 'ok ' . opendir list Shared/Wide/admin/removed
say 'an administrator removes' carol ok RMDIR rmdir rmdir Shared/Wide/admin/removed
say 'an administrator renames' carol ok RENAME open_write,'>rename_dest' rename \
  Shared/Wide/admin/renamed Shared/Wide/admin/renamed.new
say 'an administrator moves' carol ok RENAME move_src,'>move_dest' rename \
  Shared/Wide/admin/moved-away Shared/Wide/nothing/arrived

# Private.
echo gear >"$share/Private/stray.txt"
mkdir -p "$share"/Private/alice/{removed,renamed,moved-away,listed/inside,fixed}
mkdir -p "$share/Private/bob/inside"
chown -R alice "$share/Private/alice"
setfattr -n user.kavrin.fixed_folder "$share/Private/alice/fixed"
say 'Private' alice 'ok alice|' . opendir list Private
say 'Private' carol 'ok alice|backup-service|bob|dave|' . opendir list Private
say 'Private' dave EACCES . opendir list Private
for user in alice carol dave backup-service; do
  say 'a file in Private' $user EACCES . stat stat Private/stray.txt
  say 'reading a file in Private' $user EACCES . open_read read Private/stray.txt
  say 'writing a file in Private' $user EACCES . open_write open Private/stray.txt new
  say 'making a file in Private' $user EACCES . create create "Private/new-$user" new
  say 'making a folder in Private' $user EACCES . mkdir mkdir "Private/new-$user.d"
  say 'moving a file to Private' $user EACCES . '>rename_dest' rename Shared/Wide/target/top-file \
    "Private/to-$user"
  say 'moving a folder to Private' $user EACCES . '>move_dest' rename Shared/Wide/target/top \
    "Private/to-$user.d"
  for name in alice bob dave; do
    say "renaming Private/$name" $user EACCES . '>rename_dest' \
      rename Private/$name "Private/$user-$name"
    say "moving Private/$name" $user EACCES . . \
      rename Private/$name "Shared/Wide/target/$user-$name"
  done
  missing=EACCES
  [ $user != carol ] || missing=ENOENT
  say 'a missing name in Private' $user $missing . ^stat,stat stat Private/none
  # Making it asks for the folder of a person who is not there.
  say 'a file of a missing person' $user "$([ $user = carol ] && echo ENOENT || echo EACCES)" . . \
    read Private/none/file
done
say 'his own folder' alice 'ok folder' . stat stat Private/alice
say "another's folder" alice EACCES . stat stat Private/bob
say "listing another's folder" alice EACCES . opendir list Private/bob
say "a folder in another's" alice EACCES . stat stat Private/bob/inside
say "a standard user's own folder" dave EACCES . stat stat Private/dave
say "listing a standard user's own folder" dave EACCES . opendir list Private/dave
say "another's folder" carol 'ok folder' . stat stat Private/bob
say 'a folder in his own' alice 'ok inside|' . stat,opendir list Private/alice/listed
say 'removing in his own' alice ok RMDIR rmdir rmdir Private/alice/removed
say 'renaming in his own' alice ok RENAME open_write,'>rename_dest' rename Private/alice/renamed \
  Private/alice/renamed.new
say 'moving out of his own' alice ok RENAME move_src,'>move_dest' rename Private/alice/moved-away \
  Shared/Wide/target/moved-out
say "moving into another's" alice EACCES . '>move_dest' \
  rename Private/alice/listed Private/bob/listed
say 'a mark means nothing in Private' alice ok RMDIR rmdir rmdir Private/alice/fixed

# Fixed folders: neither removed nor renamed but by administrators; their parents may be renamed.
for mark in fixed odd; do
  add_element Shared/Wide/$mark $alice:7
  add_element Shared/Wide/$mark/keep
  for way in removed renamed moved; do
    mkdir -p "$share/Shared/Wide/$mark/$way"-{alice,carol}
    for user in alice carol; do
      folder=Shared/Wide/$mark/$way-$user
      if [ $mark = fixed ]; then
        setfattr -n user.kavrin.fixed_folder "$share/$folder"
      else
        setfattr -n user.kavrin.fixed_folder -v x "$share/$folder"
      fi
    done
  done
  for user in alice carol; do
    verdict=EACCES
    [ $user != carol ] || verdict=ok
    folder=Shared/Wide/$mark
    say "a $mark folder, removed" $user $verdict RMDIR . rmdir $folder/removed-$user
    say "a $mark folder, renamed" $user $verdict RENAME . rename $folder/renamed-$user \
      $folder/new-$user
    say "a $mark folder, moved" $user $verdict RENAME . rename $folder/moved-$user \
      Shared/Wide/target/$mark-$user
    say "a $mark folder, used" $user ok MKDIR mkdir mkdir $folder/renamed-alice/by-$user
  done
done
mkdir -p "$share/Shared/Wide/outside/fixed"
setfattr -n user.kavrin.fixed_folder "$share/Shared/Wide/outside/fixed"
say 'around a fixed folder' alice ok RENAME 'open_write,>rename_dest' rename Shared/Wide/outside \
  Shared/Wide/outside.new

# Housekeeping names: every no becomes a yes, for everybody; where they begin, and .sb- anywhere.
for user in alice carol dave backup-service; do
  names='.DS_Store ._.DS_Store-1 .ds_store-2 .Trash-1000 .temporaryitems ._.TemporaryItems'
  [[ $user == [ac]* ]] || names=.DS_Store # the rest is no different
  for name in $names; do
    say "making $name" $user ok CREATE,OPEN create create "$name-$user" text
    say "reading $name" $user 'ok text' audit open_read read "$name-$user"
    say "removing $name" $user ok UNLINK open_write unlink "$name-$user"
  done
  say 'a folder .Trash' $user ok MKDIR mkdir mkdir ".Trash-$user"
  say 'in it' $user ok CREATE,OPEN create create ".Trash-$user/file" text
  say 'listing it' $user 'ok file|' . opendir list ".Trash-$user"
  say 'renaming in it' $user ok RENAME 'open_write,>rename_dest' rename ".Trash-$user/file" \
    ".Trash-$user/other"
  say 'removing from it' $user ok UNLINK open_write unlink ".Trash-$user/other"
  say 'removing it' $user ok RMDIR rmdir rmdir ".Trash-$user"
  say 'not so named' $user EACCES . create create ".DS_Stor-$user" text
done
for user in alice carol; do
  for name in Shared/.DS_Store Private/.DS_Store Shared/Wide/read/a.sb-1 Private/alice/a.sb-1; do
    say "making $name" $user ok CREATE,OPEN create create "$name-$user" text
    say "reading $name" $user 'ok text' audit open_read read "$name-$user"
    say "removing $name" $user ok UNLINK open_write unlink "$name-$user"
  done
done
say 'the tail in other letters' alice EACCES . create create Shared/Wide/read/a.SB-1 text
say 'the name further below' alice EACCES . create create Shared/Wide/read/.DS_Store text
say 'a folder .sb-' alice ok MKDIR mkdir mkdir Shared/Wide/read/d.sb-1
say 'in it' alice ok CREATE,OPEN create create Shared/Wide/read/d.sb-1/file text
say 'removing from it' alice ok UNLINK open_write unlink Shared/Wide/read/d.sb-1/file
say 'removing it' alice ok RMDIR rmdir rmdir Shared/Wide/read/d.sb-1
for name in navigate viewer; do
  echo gear >"$share/Shared/Wide/$name/a.sb-1"
  say "reading a.sb-1 in $name" alice 'ok gear' audit open_read read Shared/Wide/$name/a.sb-1
done
mkdir -p "$share/Private/bob/d.sb-1"
echo gear >"$share/Private/bob/d.sb-1/file"
say "all below .sb- in another's folder" alice 'ok gear' audit open_read \
  read Private/bob/d.sb-1/file
say 'times of his own folder' alice ok . /create times Private/alice 1000000
# Whoever does not see the folder does not reach the name.
echo gear >"$share/Shared/Wide/nothing/a.sb-1"
say 'a.sb-1 in a hidden folder' alice EACCES . ^stat read Shared/Wide/nothing/a.sb-1

# The account whose work is nobody's: it does everything and leaves nothing.
reserved=kavrin_smb_admin_reserved
useradd --no-create-home --uid 7006 --user-group --groups kavrin-admins $reserved
printf 'secret\nsecret\n' | smbpasswd -c "$state/smb.conf" -s -a $reserved >/dev/null
say 'making a file' $reserved ok . create create Shared/Wide/all/reserved text
say 'reading it' $reserved 'ok text' . open_read read Shared/Wide/all/reserved
say 'renaming it' $reserved ok . open_write \
  rename Shared/Wide/all/reserved Shared/Wide/all/reserved2
say 'removing it' $reserved ok . open_write unlink Shared/Wide/all/reserved2
say 'making a folder' $reserved ok . mkdir mkdir Shared/Wide/all/reserved.d

kavrinctl groupmap build >/dev/null 2>&1
apply_elements
make_disposition_files
chown -R root:root "$share/Shared" && chmod -R u=rwX,go= "$share/Shared"
sleep 1.1 # the marker is dated a second ahead
wait_for is_alone
events >/dev/null
audits >/dev/null
ask_kavrinctl
for user in carol alice dave backup-service $reserved; do run_user $user; done
run_dispositions
# libsmbclient tells of a refused removal whether the folder is empty, smbclient what it was told.
for user in carol alice dave; do
  for folder in Shared Private 'Private\alice' 'Private\bob' 'Private\dave'; do
    does $user $denied "rmdir $folder"
  done
done

finish
