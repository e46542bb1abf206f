# Makes a permission map by hand: reads a line an element, "PATH<tab>USERS<tab>GROUPS", parents
# before children and "/" for the root; trustees are ID:MASK with commas between them, "-" for none.
# Prints the data file and writes the size file that -v size=FILE names. Run with LC_ALL=C: lengths
# are bytes.
function quoted(text) {
  gsub(/\\/, "\\\\", text)
  gsub(/"/, "\\\"", text)
  return "\"" text "\""
}
function trustees(list,   count, i, parts, pair, text) {
  if (list == "-" || list == "") return "{}"
  count = split(list, parts, ",")
  for (i = 1; i <= count; i++) {
    split(parts[i], pair, ":")
    text = text (i > 1 ? ", " : "") "\"" pair[1] "\": " pair[2]
    aces++
  }
  return "{" text "}"
}
function element(at,   i) {
  elements++
  bytes += length(name[at]) + 1
  printf "{\"DIR\": %s, \"ACL\": [{\"NUMUSERS\": 0}, {\"NUMGROUPS\": 0}, {\"USERS\": %s}, " \
    "{\"GROUPS\": %s}],\n\"CHILDREN\": [{\"NUMCHILDREN\": %d}", quoted(name[at]),
    trustees(users[at]), trustees(groups[at]), children[at]
  for (i = 1; i <= children[at]; i++) {
    printf ",\n"
    element(child[at, i])
  }
  printf "]}"
}
BEGIN { FS = "\t" }
{
  number[$1] = NR; users[NR] = $2; groups[NR] = $3; name[NR] = $1
  if ($1 == "/") next
  slash = match($1, /\/[^\/]*$/)
  parent = slash ? substr($1, 1, slash - 1) : "/"
  if (slash) name[NR] = substr($1, slash + 1)
  if (!(parent in number)) {
    print "elements.awk: line " NR ": no element " parent > "/dev/stderr"
    exit 1
  }
  parent = number[parent]
  child[parent, ++children[parent]] = NR
}
END {
  printf "[{\"NUMCHILDREN\": 1},\n"
  element(1)
  printf "]\n"
  printf "{\"MAPNAME\": \"elements\", \"VERSION\": \"1\", \"GENERATIONNUM\": 1, " \
    "\"TIMESTAMP\": 1, " \
    "\"TOTALFSELEMS\": %d, \"TOTALACES\": %d, \"TOTALNAMELEN\": %d}\n", elements, aces, bytes > size
}
