# A table of cases, each one operation of one user: they are tried through e2e_client and compared
# four ways: what the client was told, what happened on the disk, which records it left, and what
# `kavrinctl check` says of it. Sourced by verdicts.sh, after client.sh.

# say LABEL USER EXPECTED RECORDS ASKED WORD PATH [REST]: one operation of one user. EXPECTED is
# "ok", "ok TEXT" or an error; RECORDS names the events ("CREATE,OPEN"), "audit" or "."; ASKED the
# operations that kavrinctl must allow exactly when the client is not denied: OP of the path, ^OP of
# the folder around it, /OP of a new entry in it, >OP of the target; "." for none.
labels=() users=() expected=() records=() asked=() words=() paths=() rests=()
say() {
  labels+=("$1") users+=("$2") expected+=("$3") records+=("$4") asked+=("$5")
  words+=("$6") paths+=("$7") rests+=("${8-}")
}
folder_of() { case $1 in */*) printf '%s' "${1%/*}" ;; *) printf . ;; esac; }

# The path that a question of case $1 is about, and its operation: sets about and op.
resolve() {
  local path=${paths[$1]} question=$2
  if [[ $question == '>'* ]]; then
    path=${rests[$1]} question=${question#>}
  fi
  case $question in
    ^*) path=$(folder_of "$path") question=${question#^} ;;
    /*) path=$path/entry question=${question#/} ;;
  esac
  about=${path:-.} op=$question
}

declare -A questions verdicts
# Asks about the keys on standard input, "USER|PATH"; prints each before what kavrinctl says.
ask_keys() {
  local key
  while IFS= read -r key; do
    printf 'key %s\n' "$key"
    kavrinctl check --user "${key%%|*}" --root "$share" "${key#*|}" ${questions[$key]} || true
  done
}
# Asks kavrinctl everything that the cases want to know, each path of a user once, on two
# processors.
ask_kavrinctl() {
  local i half question about op key='' line asking=()
  for i in "${!labels[@]}"; do
    [ "${asked[$i]}" != . ] || continue
    for question in ${asked[$i]//,/ }; do
      resolve "$i" "$question"
      key="${users[$i]}|$about"
      [[ " ${questions[$key]-} " == *" $op "* ]] || questions[$key]+=" $op"
    done
  done
  for half in 0 1; do
    printf '%s\n' "${!questions[@]}" | sed -n "$((half + 1))~2p" | ask_keys >"$state/said.$half" &
    asking+=($!)
  done
  wait "${asking[@]}"
  while read -r op line; do
    case $op in
      key) key=$line ;;
      *) verdicts["$key|$op"]=${line%%,*} ;; # what follows tells what the yes is for
    esac
  done < <(cat "$state"/said.[01])
}
# Sets fate: "allowed" when kavrinctl allows all that case $1 asks, else its other word.
foretell() {
  local question about op
  for question in ${asked[$1]//,/ }; do
    resolve "$1" "$question"
    fate=${verdicts["${users[$1]}|$about|$op"]-none}
    [ "$fate" = allowed ] || return 0
  done
}

# Sets found: what is on the disk after case $1, "done", "undone", or what is neither.
look_at_disk() {
  local word=${words[$1]} path=$share/${paths[$1]} rest=${rests[$1]} line=''
  found=undone
  case $word in
    stat | read | list | space) ;;
    mkdir) [ ! -d "$path" ] || found=done ;;
    unlink | rmdir) [ -e "$path" ] || found=done ;;
    rename)
      if [ -e "$path" ]; then
        [ ! -e "$share/$rest" ] || found=both
      else
        if [ -e "$share/$rest" ]; then found=done; else found=neither; fi
      fi ;;
    times) [ "$(stat -c %Y "$path" 2>&1)" != "$rest" ] || found=done ;;
    attributes) ! getfattr -n user.DOSATTRIB "$path" >/dev/null 2>&1 || found=done ;;
    *) # an open: with text, what the file holds; without, whether it is there
      [ ! -e "$path" ] || found=done
      if [ -n "$rest" ]; then
        # Without truncation the end of the old contents stays.
        [ ! -f "$path" ] || IFS= read -r line <"$path" || true
        [[ $line == "$rest"* ]] || found=undone
      fi ;;
  esac
}
# Whether the disk tells nothing, for the object is there and opened without being changed, or is
# missing and to be removed.
leaves_disk() {
  case ${words[$1]} in
    stat | read | list | space) return 0 ;;
    unlink | rmdir | rename) [[ ${expected[$1]} != ok ]] && [ ! -e "$share/${paths[$1]}" ] ;;
    open | open_both | open_if | open_if_read | create)
      [ -e "$share/${paths[$1]}" ] && [ -z "${rests[$1]}" ] ;;
    *) return 1 ;;
  esac
}

uid_of() { id -u "$1"; }

# Runs the cases of one user through one connection and compares everything.
run_user() {
  local user=$1 i at=0 type path label answer answers=() mine=() silent=() wanted uid fate found
  local -A gone=()
  uid=$(uid_of "$user")
  for i in "${!labels[@]}"; do
    [ "${users[$i]}" = "$user" ] || continue
    mine+=("$i")
    leaves_disk "$i" && silent[$i]=y
    # What a later row takes away cannot be looked at in the end.
    [[ ${words[$i]} =~ ^(unlink|rmdir|rename)$ && ${expected[$i]} == ok ]] && gone[${paths[$i]}]=$i
  done
  for i in "${mine[@]}"; do
    printf '%s\t%s\t%s\n' "${words[$i]}" "${paths[$i]}" "${rests[$i]}"
  done >"$state/commands"
  timeout 120 "$client" "$user" secret //127.0.0.1/share <"$state/commands" >"$state/answers" || true
  mapfile -t answers <"$state/answers"
  wait_for is_alone # the records are complete when the connection is gone
  events | grep -v Gid | sort >"$state/events" || true
  audits | awk '{ print $3, $6 }' | sort >"$state/audits" || true
  : >"$state/events.wanted" && : >"$state/audits.wanted"
  for i in "${mine[@]}"; do
    label="$user: ${labels[$i]}" answer=${answers[$at]-none} at=$((at + 1))
    wants "$label" "${expected[$i]}" "$answer"
    # The disk: done when it was allowed, else as before.
    path=${paths[$i]}
    [ "${words[$i]}" != rename ] || path=${rests[$i]}
    if [ -z "${silent[$i]-}" ] && [ "${gone[$path]-0}" -le "$i" ]; then
      wanted=undone
      [[ ${expected[$i]} == ok* ]] && wanted=done
      look_at_disk "$i"
      wants "$label, on the disk" "$wanted" "$found"
    fi
    if [ "${asked[$i]}" != . ]; then
      wanted=allowed
      [ "${expected[$i]}" != EACCES ] || wanted=denied
      foretell "$i"
      wants "$label, foretold" "$wanted" "$fate"
    fi
    if [[ ${expected[$i]} == ok* ]]; then
      path=${paths[$i]}
      for type in ${records[$i]//,/ }; do
        case $type in
          .) ;;
          audit) echo "$uid $path" >>"$state/audits.wanted" ;;
          RENAME) echo "RENAME $uid $path -> ${rests[$i]}" >>"$state/events.wanted" ;;
          *) echo "$type $uid $path" >>"$state/events.wanted" ;;
        esac
      done
    fi
  done
  sort -o "$state/events.wanted" "$state/events.wanted"
  sort -o "$state/audits.wanted" "$state/audits.wanted"
  wants "$user: events, missing (<) and unexpected (>)" '' \
    "$(diff "$state/events.wanted" "$state/events" | grep '^[<>]')"
  wants "$user: audit records, missing (<) and unexpected (>)" '' \
    "$(diff "$state/audits.wanted" "$state/audits" | grep '^[<>]')"
}
