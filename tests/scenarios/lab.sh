# Network namespaces for shell scenarios, to be sourced by a POSIX shell. Needs iproute2, mount and root.
#
#   +--------+        +-----------------+            +-------+
#   | source |--------| wan0  router    |---- lan-a -| host1 |
#   +--------+        |           `-br0 |---- lan-b -| host2 |
#   2001:db8:2::10    +-----------------+            +-------+
#
# The caller sets `programs` (the folder with tarnwick, tarnwick-assist, mcast_send and mcast_join) and calls
# lab_down in a trap. The programs in the router have a /tmp of their own: $lab_tmp.
# shellcheck shell=sh

lab_source_address=2001:db8:2::10
lab_port=5004
lab_mac=02:00:00:00:01:fe
lab_started=''

# lab_name FOLDER: what the parts of the lab with that folder are called.
lab_name() {
  lab_folder=$1
  lab_suffix=${lab_folder##*.}
  lab_tmp=$lab_folder/tmp
  router=router-$lab_suffix
  source=source-$lab_suffix
  host1=host1-$lab_suffix
  host2=host2-$lab_suffix
}

# lab_up: makes the namespaces and waits until every address can be used.
lab_up() {
  lab_name "$(mktemp -d /tmp/tarnwick-lab.XXXXXX)"
  mkdir -p "$lab_tmp/programs"
  for lab_node in "$router" "$source" "$host1" "$host2"; do
    ip netns add "$lab_node"
    # Without duplicate address detection every address can be used at once.
    ip netns exec "$lab_node" sh -c 'cd /proc/sys/net/ipv6/conf && echo 0 >all/accept_dad && echo 0 >default/accept_dad'
    ip -n "$lab_node" link set lo up
  done
  ip -n "$router" link add br0 address "$lab_mac" type bridge
  lab_wire_wan
  lab_wire lan-a 02:00:00:00:0a:fe "$host1" eth0 02:00:00:00:01:01
  lab_wire lan-b 02:00:00:00:0b:fe "$host2" eth0 02:00:00:00:01:02
  ip -n "$router" link set lan-a master br0
  ip -n "$router" link set lan-b master br0
  ip -n "$router" link set br0 up
  ip -n "$router" address add 2001:db8:1::1/64 dev br0
  ip -n "$host1" address add 2001:db8:1::101/64 dev eth0
  ip -n "$host2" address add 2001:db8:1::102/64 dev eth0
  printf '# the settings of this router\net0macaddr=%s\n' "$lab_mac" >"$lab_tmp/nvram"
  lab_wait 10 lab_has_link_local "$router" br0
  lab_wait 10 lab_has_link_local "$router" wan0
  lab_wait 10 lab_has_link_local "$host1" eth0
  lab_wait 10 lab_has_link_local "$host2" eth0
}

# lab_wire NAME MAC NODE PEER PEER_MAC: a cable from the router to another node. Made inside the router, so that
# interface numbers stay small: the kernel's multicast routing knows 32.
lab_wire() {
  ip -n "$router" link add "$1" address "$2" type veth peer name "$4" address "$5" netns "$3"
  ip -n "$router" link set "$1" up
  ip -n "$3" link set "$4" up
}

lab_wire_wan() {
  lab_wire wan0 02:00:00:00:02:fe "$source" src0 02:00:00:00:02:01
  ip -n "$router" address add 2001:db8:2::1/64 dev wan0
  ip -n "$source" address add "$lab_source_address/64" dev src0
}

lab_has_link_local() {
  ip -n "$1" -6 address show dev "$2" scope link | grep 'fe80::' | grep -qv tentative
}

# lab_wait SECONDS COMMAND...: asks ten times a second until the command succeeds; 1 when it never does. The command must
# not wait in this way itself.
lab_wait() {
  lab_tries=$(($1 * 10))
  shift
  until "$@" >/dev/null 2>&1; do
    lab_tries=$((lab_tries - 1))
    [ "$lab_tries" -gt 0 ] || return 1
    sleep 0.1
  done
}

# lab_start NODE LOG COMMAND...: in the background, output to $lab_folder/LOG; sets lab_pid.
lab_start() {
  lab_node=$1
  lab_log=$lab_folder/$2
  shift 2
  ip netns exec "$lab_node" "$@" </dev/null >"$lab_log" 2>&1 &
  lab_pid=$!
  lab_started="$lab_pid $lab_started"
}

# lab_start_in_router LOG PROGRAM...: with the router's own /tmp, line by line into the log where stdbuf is there.
lab_start_in_router() {
  lab_log_name=$1
  shift
  case $1 in
    tarnwick-*) lab_stdbuf= ;; # writes line by line itself
    *) lab_stdbuf=$(command -v stdbuf || true) ;;
  esac
  # shellcheck disable=SC2016,SC2154 # the inner shell expands them; `programs` is the caller's
  lab_start "$router" "$lab_log_name" sh -c '
    mount -o bind "$1" "$2/programs" && mount -o rbind "$2" /tmp || exit 1
    line_buffered=$3 program=$4
    shift 4
    TARNWICK_NVRAM=/tmp/nvram exec $line_buffered "/tmp/programs/$program" "$@"' \
    sh "$programs" "$lab_tmp" "${lab_stdbuf:+$lab_stdbuf -oL}" "$@"
}

# lab_start_proxy: the daemon and its companion, ready for reports; sets daemon_pid and companion_pid.
# shellcheck disable=SC2034
lab_start_proxy() {
  lab_start_in_router tarnwick.log tarnwick -u wan0 -d br0
  daemon_pid=$lab_pid
  lab_wait 10 lab_mif_is_registered br0 || return 1
  lab_start_in_router tarnwick-assist.log tarnwick-assist -u wan0 -d br0
  companion_pid=$lab_pid
  lab_wait 10 lab_companion_is_ready
}

lab_table() { ip netns exec "$router" cat "/proc/net/$1"; }

lab_mif_is_registered() { lab_table ip6_mr_vif | grep -q " $1 "; }

lab_companion_is_ready() {
  lab_table igmp6 | grep -q '^[0-9]* *br0 *ff020000000000000000000000000016 ' &&
    lab_table ip6_mr_cache | grep -q '^0000:0000:0000:0000:0000:0000:0000:0000 .*:1'
}

# lab_joined_upstream GROUP: the group as 32 hexadecimal digits.
lab_joined_upstream() { lab_table igmp6 | grep -q "^[0-9]* *wan0 *$1 "; }

# lab_forwarded: how many datagrams the kernel has forwarded to the LAN since the daemon's start.
lab_forwarded() { lab_table ip6_mr_vif | sed -n 's/^ *[0-9]* br0 *[0-9]* *[0-9]* *[0-9]* *\([0-9]*\) .*/\1/p'; }

# lab_listen NODE LOG GROUP: a program that joins with an ordinary socket; its process is lab_pid.
lab_listen() {
  lab_start "$1" "$2" "$programs/mcast_join" -i eth0 -g "$3" -p "$lab_port"
  lab_wait 5 grep -q '^joined' "$lab_folder/$2"
}

# lab_received LOG: how many datagrams a listener has got.
lab_received() { grep -c '^datagram' "$lab_folder/$1" || true; }

lab_received_at_least() { [ "$(lab_received "$1")" -ge "$2" ]; }

# lab_wait_until_said NODE: until the host has answered a general query and then said nothing for four seconds. Every
# report for all sources makes the daemon take its forwarding entry away and add it again, which may cost a datagram;
# a host repeats a change within a second, the query after it comes a second later, the answer two more.
lab_wait_until_said() {
  lab_wait 30 lab_was_asked "$1" || return 1
  lab_quiet_tenths=0
  lab_said_before=$(lab_reports "$1")
  lab_tries=300
  while [ "$lab_quiet_tenths" -lt 40 ]; do
    sleep 0.1
    lab_quiet_tenths=$((lab_quiet_tenths + 1))
    lab_said=$(lab_reports "$1")
    [ "$lab_said" = "$lab_said_before" ] || lab_quiet_tenths=0
    lab_said_before=$lab_said
    lab_tries=$((lab_tries - 1))
    [ "$lab_tries" -gt 0 ] || return 1
  done
}

# How many MLD version 2 reports (ICMPv6 type 143) a host has sent.
lab_reports() { ip netns exec "$1" sed -n 's/^Icmp6OutType143[^0-9]*//p' /proc/net/dev_snmp6/eth0; }

# Whether a host has got an MLD query (ICMPv6 type 130).
lab_was_asked() { ip netns exec "$1" grep -q '^Icmp6InType130[^0-9]*[1-9]' /proc/net/dev_snmp6/eth0; }

# lab_send GROUP COUNT: sends a stream, a hundred datagrams a second; prints the number sent.
lab_send() {
  ip netns exec "$source" "$programs/mcast_send" -i src0 -g "$1" -p "$lab_port" -n "$2" | sed 's/^sent //'
}

# lab_stop PID: SIGTERM, then its exit status.
lab_stop() {
  kill "$1"
  lab_status=0
  wait "$1" || lab_status=$?
  lab_forgotten=''
  for lab_one in $lab_started; do
    [ "$lab_one" = "$1" ] || lab_forgotten="$lab_forgotten $lab_one"
  done
  lab_started=$lab_forgotten
  return "$lab_status"
}

# lab_down: ends what runs in the namespaces and removes everything; harmless when called twice.
lab_down() {
  [ -n "${lab_folder:-}" ] || return 0
  for lab_node in "${router:-}" "${source:-}" "${host1:-}" "${host2:-}"; do
    [ -n "$lab_node" ] || continue
    for lab_one in $(ip netns pids "$lab_node" 2>/dev/null); do
      kill -9 "$lab_one" 2>/dev/null || true
    done
    ip netns delete "$lab_node" 2>/dev/null || true
  done
  for lab_one in $lab_started; do
    wait "$lab_one" 2>/dev/null || true # takes the shell's own note about the killed program
  done
  lab_started=''
  rm -rf "$lab_folder"
  lab_folder=''
}
