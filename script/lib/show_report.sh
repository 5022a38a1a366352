# shellcheck shell=bash disable=SC2154
# Sourced by script/run: shows what becomes of a watch that cannot start. Uses its $root, $scratch, $build_dir and $kestrine, in a network
# namespace of its own.

host=$(sed -n 's/^KESTRINE_REST_HOST:[^=]*=//p' "$build_dir/CMakeCache.txt")

# Where the server is expected; only this machine's own address can be played.
check_host() {
  case "${host%:*}" in
    localhost | 127.*) ;;
    *) echo "script/run: this build's server is $host, which cannot be played here; build with -DKESTRINE_REST_HOST=localhost" >&2; return 1 ;;
  esac
}

# ask_in_vain REPORTS: asks for the watch and waits until the service's log tells the end of that many reports. `kestrine start` would see
# that the path is of no use and not ask at all, so another client does.
ask_in_vain() {
  local log=$XDG_STATE_HOME/xpc/$name.log told=0
  python3 "$root/tests/system/protocol_client.py" call >/dev/null
  for _ in $(seq 300); do
    # The service may not have made its log yet.
    told=$(grep -cs 'Error occured\.\.\.\.' "$log" || true)
    told=${told:-0}
    [ "$told" -lt "$1" ] || break
    sleep 0.1
  done
  [ "$told" -ge "$1" ] || { echo "script/run: the service reported nothing in 30 s; its log:" >&2; cat "$log" >&2; return 1; }
  echo "The service's log says of its report:"
  grep 'Error occured\.\.\.\.' "$log" | sed -n "$1,\$s/^/  /p"
}

show_report() {
  check_host
  mkdir "$scratch/a base" "$scratch/a base/Kestrine"
  "$kestrine" defaults write Ostrabyte.Kestrine kestrinePathKey "$scratch/a base"
  "$kestrine" defaults write Ostrabyte.Kestrine computerIdKey a-computer
  "$kestrine" defaults write Ostrabyte.Kestrine userIdKey a-user
  printf '== A base path with a blank, and no network\n'
  ask_in_vain 1

  ip link set lo up
  ip link add v0 type veth peer name v1
  ip link set v0 up
  ip link set v1 up
  ip address add 192.0.2.2/24 dev v0
  ip route add default via 192.0.2.1
  local port=80
  case "$host" in *:*) port=${host##*:} ;; esac
  # Whatever it gets in this time is shown, so that a second report would be.
  python3 "$root/script/lib/report_server.py" "$port" 5 >"$scratch/requests" &
  local server=$!
  for _ in $(seq 100); do
    [ -s "$scratch/requests" ] && break
    sleep 0.1
  done
  printf '\n== The same, with a network and a server\n'
  ask_in_vain 2
  wait "$server"
  cat "$scratch/requests"
  printf '\n== The service afterwards\n'
  "$kestrine" status || [ $? -eq 4 ]
}
