#!/bin/sh
# The IGMP proxy from end to end on a real kernel, in mode 4to4: hosts of the three IGMP versions join, the stream
# flows, leaves are queried and end upstream, a host that vanishes is forgotten and noted for the snooping program, a
# stop leaves nothing behind. Only for big-endian machines: elsewhere the proxy's native words are other addresses and
# the kernel refuses its start-up.
#
#   igmp_end_to_end.sh PROGRAMS_FOLDER
#
# Prints a line per check and ends with status 0 only if all of them held.

set -u
programs=$1
answered=239.1.2.1 # joined before the proxy runs
old=239.1.2.2      # joined by a host that speaks IGMPv1
lost=239.1.2.3     # joined by a host that vanishes
datagrams=50
record=igmprt_leave_record
last_member_queries="^query from 192.0.2.1 to $answered for $answered within 10$"
first_reports="^v2-report from 192.0.2.101 to $answered for $answered "

# shellcheck source=tests/scenarios/lab.sh
. "$(dirname "$0")/lab.sh"
# shellcheck source=tests/scenarios/checks.sh
. "$(dirname "$0")/checks.sh"

# The proxy marks an output of the kernel's entry by the slot of the interface in its own table, while the kernel counts
# outputs by interface number. Slots follow the order of the addresses: wan0 0, spare0 1, br0 2; so br0 must be number 2.
address_lab() {
  ip -n "$router" link delete br0
  ip -n "$router" link add spare0 index 20 type bridge
  ip -n "$router" link add br0 index 2 address "$lab_mac" type bridge
  ip -n "$router" link set lan-a master br0
  ip -n "$router" link set lan-b master br0
  ip -n "$router" link set spare0 up
  ip -n "$router" link set br0 up
  ip -n "$router" address add 198.51.100.1/24 dev wan0
  ip -n "$router" address add 203.0.113.1/24 dev spare0
  ip -n "$router" address add 192.0.2.1/24 dev br0
  ip -n "$source" address add 198.51.100.10/24 dev src0
  ip -n "$host1" address add 192.0.2.101/24 dev eth0
  ip -n "$host2" address add 192.0.2.102/24 dev eth0
}

# speak NODE INTERFACE VERSION: IGMPv1 or v2; 0 is the kernel's own choice, v3 until it hears an older query.
speak() { ip netns exec "$1" sh -c "echo $3 >/proc/sys/net/ipv4/conf/$2/force_igmp_version"; }

# watch INTERFACE: notes the router's IGMP messages there in INTERFACE.wire.log.
watch() {
  lab_start "$router" "$1.wire.log" "$programs/igmp_watch" -i "$1"
  lab_wait 5 grep -q '^watching' "$lab_folder/$1.wire.log"
}

times_on_wire() { grep -c "$2" "$lab_folder/$1.wire.log"; }

# on_wire INTERFACE PATTERN [COUNT]: that many such messages, one by default.
on_wire() { [ "$(times_on_wire "$1" "$2")" -ge "${3:-1}" ]; }

hears_version_2() { ip netns exec "$1" grep -q "eth0 .* V2$" /proc/net/igmp; }

# hexadecimal GROUP: as a big-endian kernel prints the address.
hexadecimal() { echo "$1" | { IFS=. read -r a b c d && printf '%02X%02X%02X%02X' "$a" "$b" "$c" "$d"; }; }

is_joined_upstream() {
  lab_table igmp | awk -v group="$(hexadecimal "$1")" '
    /^[0-9]/ { interface = $2 }
    interface == "wan0" && $1 == group { found = 1 }
    END { exit !found }'
}

# is_forwarded GROUP: from the WAN (number 3) to br0 (number 2) and nowhere else.
is_forwarded() { lab_table ip_mr_cache | grep -q "^$(hexadecimal "$1") 00000000 3 .* 2:1 *$"; }

has_entry() { lab_table ip_mr_cache | grep -q "^$(hexadecimal "$1") "; }

has_vifs() { lab_table ip_mr_vif | grep -q '^ *[0-9]'; }

vif_is_registered() { lab_table ip_mr_vif | grep -q "^ *[0-9]* $1 "; }

logged() { grep -q "$1" "$lab_folder/$proxy_log"; }

# start_proxy LOG ARGUMENT...: sets proxy_pid and the log that `logged` reads.
start_proxy() {
  proxy_log=$1
  shift
  lab_start_in_router "$proxy_log" igmp_router -u wan0 "$@"
  proxy_pid=$lab_pid
  lab_wait 10 vif_is_registered br0
}

stream_reaches() {
  before=$(lab_received "$2")
  [ "$(lab_send "$1" "$datagrams")" = "$datagrams" ] && eventually lab_received_at_least "$2" $((before + datagrams))
}

trap 'lab_down; exit 130' INT TERM HUP

echo "# lab"
lab_up
address_lab
speak "$router" wan0 2 # so that a leave upstream is a message of its own
flags_before=$(interface_flags br0)
wan_flags_before=$(interface_flags wan0)
watch br0
watch wan0

echo "# start, with a host that has already joined"
check "a host joins while nobody listens" lab_listen "$host1" answered.log "$answered"
answered_pid=$lab_pid
check "the proxy registers the interfaces" start_proxy proxy.log
check "the LAN bridge takes every group" is_different "$(interface_flags br0)" "$flags_before"
check "a general query goes to all hosts" eventually on_wire br0 \
  '^query from 192.0.2.1 to 224.0.0.1 for 0.0.0.0 within 100$'
check "the host hears it and speaks IGMPv2 from now on" eventually hears_version_2 "$host1"
check "the host answers" eventually on_wire br0 "$first_reports"
check "the router joins upstream" eventually is_joined_upstream "$answered"
check "the join goes out on the WAN" eventually on_wire wan0 "^v2-report from 198.51.100.1 .* for $answered "
check "the kernel forwards the group to the LAN alone" eventually is_forwarded "$answered"
check "the stream reaches the host" stream_reaches "$answered" answered.log

echo "# an IGMPv2 host joins and leaves a group that another host keeps"
speak "$host2" eth0 2
check "the second host joins" lab_listen "$host2" second.log "$answered"
second_pid=$lab_pid
check "it reports in IGMPv2" eventually on_wire br0 "^v2-report from 192.0.2.102 to $answered for $answered "
check "the stream reaches it, too" stream_reaches "$answered" second.log
answers=$(times_on_wire br0 "$first_reports")
check "the second host leaves" lab_stop "$second_pid"
check "its leave goes to all routers" eventually on_wire br0 "^leave from 192.0.2.102 to 224.0.0.2 for $answered "
check "the group is asked for" eventually on_wire br0 "$last_member_queries"
check "the first host answers" eventually on_wire br0 "$first_reports" $((answers + 1))
check "the first host keeps the stream" stream_reaches "$answered" answered.log

echo "# an IGMPv1 host"
speak "$host2" eth0 1
check "a host joins" lab_listen "$host2" old.log "$old"
old_pid=$lab_pid
check "it reports in IGMPv1" eventually on_wire br0 "^v1-report from 192.0.2.102 to $old for $old "
check "the router joins upstream for it" eventually is_joined_upstream "$old"
check "the stream reaches it" stream_reaches "$old" old.log
check "an IGMPv2 host joins and leaves the same group" lab_listen "$host1" guest.log "$old"
guest_pid=$lab_pid
check "its report is heard" eventually on_wire br0 "^v2-report from 192.0.2.101 to $old for $old "
lab_stop "$guest_pid"
check "its leave is ignored for the IGMPv1 host's sake" eventually logged 'but in V1 state. Ignoring.'
check "the IGMPv1 host keeps the stream" stream_reaches "$old" old.log

echo "# the last host leaves"
queries=$(times_on_wire br0 "$last_member_queries")
check "the first host leaves" lab_stop "$answered_pid"
check "two last-member queries ask for it" eventually on_wire br0 "$last_member_queries" $((queries + 2))
check "the router leaves upstream" eventually is_not is_joined_upstream "$answered"
check "the leave goes out on the WAN" eventually on_wire wan0 \
  "^leave from 198.51.100.1 to 224.0.0.2 for $answered "
check "the kernel's entry is gone" is_not has_entry "$answered"
check "the other group stays" is_forwarded "$old"
check "a leave writes no record" is_not test -e "$lab_tmp/$record"

echo "# stop"
check "the proxy ends with status 0" lab_stop "$proxy_pid"
check "it reports no leak" logged 'No memory leaks detected.'
check "no VIF is left" is_not has_vifs
check "no entry is left" is_not has_entry "$old"
check "the other group is left upstream" is_not is_joined_upstream "$old"
check "the flags of br0 are back" is_equal "$(interface_flags br0)" "$flags_before"
check "the flags of wan0 are back" is_equal "$(interface_flags wan0)" "$wan_flags_before"
lab_stop "$old_pid"

echo "# a host vanishes: timers of minutes, a hundred times as fast"
speak "$host2" eth0 2
lab_start "$router" snooping.log "$programs/igmp_snooping" "$lab_tmp/notes"
check "the snooping program runs" lab_wait 5 grep -q ready "$lab_tmp/notes"
check "the proxy starts again" start_proxy fast.log -m 10
check "a host joins" lab_listen "$host2" lost.log "$lost"
check "the router joins upstream" eventually is_joined_upstream "$lost"
ip -n "$router" link set lan-b down
check "the router forgets the host's group" eventually is_not is_joined_upstream "$lost"
check "the leave record names the group" is_equal "$(cat "$lab_tmp/$record")" "grp=$lost"
check "the snooping program is told" eventually grep -q USR1 "$lab_tmp/notes"
check "the proxy ends with status 0 again" lab_stop "$proxy_pid"
check "no message had a wrong checksum" is_not grep -q '^bad' "$lab_folder/br0.wire.log" "$lab_folder/wan0.wire.log"

finish ip_mr_vif ip_mr_cache igmp
