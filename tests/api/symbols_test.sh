#!/bin/bash
# What the two libraries offer: the shared one exactly the names of its version script, each of them
# declared in a public header; the static one also the functions with a leading underscore, all of
# them with C linkage.
#
#   symbols_test.sh C_COMPILER SOURCE_FOLDER GENERATED_FOLDER SHARED_LIBRARY STATIC_LIBRARY
set -euo pipefail
cc=$1 source=$2 generated=$3 shared=$4 static=$5
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
fail() { echo "symbols: $*" >&2; failed=1; }

underscored=(
  __kavrin_strcasecmp __kavrin_strncasecmp _change_id _d_print_acl
  _get_op_create_file _init_perm_map_semaphore _is_admin _is_poweruser _paths_match _paths_match_len
  _recreate_perm_map_semaphore _set_group_bit _tlb_lookup_path _update_tlb_hit)

# Names of the version script's global part, without its comments.
sed -e 's|/\*.*\*/||' -e '/\/\*/,/\*\//d' "$source/libkavrin.map" |
  sed -n '/global:/,/local:/p' | grep -oE '^ +[A-Za-z_][A-Za-z_0-9]*;' | tr -d ' ;' |
  sort -u > "$work/script"
[ "$(wc -l < "$work/script")" -ge 60 ] || fail "the version script was not understood"

# 1. Exported is what the script names, neither more nor less.
nm -D --defined-only "$shared" | awk '$2 != "A" {sub(/@.*/, "", $3); print $3}' | sort -u > "$work/exported"
diff "$work/script" "$work/exported" > "$work/diff" ||
  fail "exported names differ from the version script (< script, > library):
$(cat "$work/diff")"
! nm -D --defined-only "$shared" | awk '$2 != "A"' | grep -v '@@LIBKAVRIN_0$' ||
  fail "a name without the version LIBKAVRIN_0"

# 2. Each of these and of the underscored ones is declared for C: a use without a declaration is an
#    error here.
{
  echo '#include "kavrin.h"'
  echo 'void kavrin_every_name(void);'
  echo 'void kavrin_every_name(void) {'
  while read -r name; do echo "    (void)&$name;"; done < "$work/exported"
  for name in "${underscored[@]}"; do echo "    (void)&$name;"; done
  echo '}'
} > "$work/names.c"
"$cc" -std=c11 -Werror -fsyntax-only -I"$source/include" -I"$generated" "$work/names.c" ||
  fail "a name is not declared in a public header"

# 3. The other way round: no public header promises a function that the shared library withholds,
#    but for those with a leading underscore. Only gcc can list prototypes.
if command -v gcc > /dev/null; then
  echo '#include "kavrin.h"' > "$work/all.c"
  gcc -std=c11 -fsyntax-only -aux-info "$work/prototypes" -I"$source/include" -I"$generated" "$work/all.c"
  grep -F -e "/* $source/include/" -e "/* $generated/" "$work/prototypes" | grep -v ' static ' |
    grep -oE '[A-Za-z_][A-Za-z_0-9]* \(' | tr -d ' (' | sort -u > "$work/declared"
  [ "$(wc -l < "$work/declared")" -ge 60 ] || fail "the prototypes were not understood"
  for name in $(comm -23 "$work/declared" "$work/exported"); do
    case $name in
      _*) printf '%s\n' "${underscored[@]}" | grep -qx "$name" || fail "$name is declared, but unknown here" ;;
      *) fail "$name is declared, but not exported" ;;
    esac
  done
fi

# 4. The static library defines all of them, unmangled.
nm --defined-only "$static" 2> /dev/null | awk 'NF == 3 && $2 ~ /[TDBRVW]/ {print $3}' | sort -u > "$work/static"
for name in "${underscored[@]}" $(cat "$work/script"); do
  grep -qx -- "$name" "$work/static" || fail "$name is not defined with C linkage in libkavrin.a"
done
for name in "${underscored[@]}"; do
  ! grep -qx -- "$name" "$work/exported" || fail "$name must not leave the shared library"
done

# 5. The name that programs are bound to.
readelf -d "$shared" | grep -q 'SONAME.*\[libkavrin\.so\.0\]' || fail "the soname is not libkavrin.so.0"

[ "$failed" = 0 ] && echo "symbols: $(wc -l < "$work/exported") exported, ${#underscored[@]} in the static library only"
exit "$failed"
