# The shares' trees, the map, the measurement. Run by tests/e2e/smbd, which bench/smb/run starts.
clients=4
entries=1000
bench=Shared/Engineering/Designs/2026/bench # the clients' folder on every share

# make_clients_folders TREE: for each client one, with the folder that it lists.
make_clients_folders() {
  local number
  for number in $(seq "$clients"); do
    mkdir -p "$1/$bench/$number/thousand"
    (cd "$1/$bench/$number/thousand" &&
      seq -f 'entry-%04g' 0 $((entries - 1)) | xargs touch)
  done
}
# Some 10,000 folders around them: 20 teams of 20 projects of 25 folders.
make_company() {
  local team
  for team in "$share"/Shared/Engineering/{Brakes,Gears,Frames,Wheels}-{1..5}; do
    mkdir -p "$team"/project-{1..20}/{drawings,offers,tests,photos,mail}-{1..5}
  done
}
for tree in /srv/plain /srv/acl_audit /srv/audit; do
  make_clients_folders "$tree"
  chown -R alice: "$tree"
done
make_company
make_clients_folders "$share"
make_tree
publish_map
close_tree
# As clients make files, which is how most came there.
chmod -R go+r "$share/Shared"
sleep 1.1

# The client reads nothing of this machine's own configuration.
printf '[global]\n  workgroup = TEST\n  client min protocol = SMB3_11\n' >"$state/client.conf"
SMB_CONF_PATH=$state/client.conf HOME=$state "$BENCH_SMB" --user alice --password secret \
  --folder "$bench" --shares "plain,$SHARE_NAME,acl_audit,audit" --smbd "$smbd_process" "$@" |
  sed "s/\t$SHARE_NAME\t/\tkavrin\t/" >"$state/smb.tsv"
"$project/bench/smb/table" "$state/smb.tsv"
cp "$state/smb.tsv" "$BENCH_RESULTS/smb.tsv"
"$project/bench/smb/plot" "$BENCH_RESULTS/smb.tsv" "$BENCH_RESULTS/smb.svg"
