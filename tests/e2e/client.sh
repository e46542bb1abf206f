# What the scripts share that drive e2e_client and make their map by hand. Sourced by them, after
# checks.sh.
client=${E2E_CLIENT:-$build/tests/e2e/e2e_client}
[ -x "$client" ] || { echo "e2e: $client is not there; build the target e2e_client" >&2; exit 77; }

# The map, element by element, parents first: add_element PATH [USERS [GROUPS]], see elements.awk.
elements=()
add_element() { elements+=("$1"$'\t'"${2:--}"$'\t'"${3:--}"); }
apply_elements() {
  printf '%s\n' "${elements[@]}" |
    LC_ALL=C awk -v size=size.json -f "$project/tests/e2e/elements.awk" >data.json
  kavrinctl map lint size.json data.json >"$state/lint" 2>&1 || { cat "$state/lint"; exit 1; }
  kavrinctl map apply size.json data.json --wait >/dev/null
}
