#!/bin/sh
# The main job from end to end: a host's report makes the stream flow, the last leave makes it stop, SIGUSR1 writes
# the state files, SIGTERM leaves nothing behind. Runs wherever there is a POSIX shell, iproute2 and root: in the test
# suite and inside emulated boards.
#
#   mld_end_to_end.sh PROGRAMS_FOLDER
#
# Prints a line per check and ends with status 0 only if all of them held.

set -u
programs=$1
group=ff0e::1:2:3
group_digits=ff0e0000000000000000000100020003
datagrams=50

# shellcheck source=tests/scenarios/lab.sh
. "$(dirname "$0")/lab.sh"
# shellcheck source=tests/scenarios/checks.sh
. "$(dirname "$0")/checks.sh"

# Whether an entry of the group has an output.
is_forwarded() { lab_table ip6_mr_cache | grep -Eq '^ff0e:0000:0000:0000:0000:0001:0002:0003 .* [0-9]+:1( |$)'; }

trap 'lab_down; exit 130' INT TERM HUP

echo "# lab"
lab_up
flags_before=$(interface_flags br0)
wan_flags_before=$(interface_flags wan0)

echo "# start"
check "daemon and companion are ready" lab_start_proxy
check "the LAN bridge takes every group" is_different "$(interface_flags br0)" "$flags_before"

echo "# a host joins"
check "the first host joins" lab_listen "$host1" host1.log "$group"
first_pid=$lab_pid
check "the router joins upstream" eventually lab_joined_upstream "$group_digits"
check "the kernel forwards the group" eventually is_forwarded
check "the host has answered the first query" lab_wait_until_said "$host1"
sent=$(lab_send "$group" "$datagrams")
check "all datagrams were sent" is_equal "$sent" "$datagrams"
check "all datagrams have arrived" eventually lab_received_at_least host1.log $((datagrams - loss))

echo "# a second host joins and leaves"
check "the second host joins" lab_listen "$host2" host2.log "$group"
second_pid=$lab_pid
check "it has repeated its join" lab_wait_until_said "$host2"
lab_send "$group" "$datagrams" >/dev/null
check "the second host gets the stream, too" eventually lab_received_at_least host2.log $((datagrams - loss))
check "the second host leaves" lab_stop "$second_pid"
check "the first host has answered the queries" lab_wait_until_said "$host1"
lab_send "$group" "$datagrams" >/dev/null
check "the first host still gets it" eventually lab_received_at_least host1.log $((3 * datagrams - loss))

echo "# state files"
kill -USR1 "$daemon_pid"
check "counters of the LAN" eventually grep -q '^\[MLD\]ifname: br0 query: [0-9]* join: [1-9]' \
  "$lab_tmp/tarnwick_type_messages"
check "counters of the WAN" eventually grep -q '^\[MLD\]ifname: wan0 ' "$lab_tmp/tarnwick_type_messages"
check "the group and where it is" eventually grep -q "^ifname: br0 group: $group average: [0-9]" \
  "$lab_tmp/tarnwick_join_state"
check "an empty third file" is_equal "$(wc -c <"$lab_tmp/tarnwick_host_in_group")" 0

echo "# the last host leaves"
check "the first host leaves" lab_stop "$first_pid"
check "the router leaves upstream" eventually is_not lab_joined_upstream "$group_digits"
# The companion may leave an entry without outputs behind; whether it forwards, the next datagrams tell.
eventually is_not is_forwarded || true
forwarded_before=$(lab_forwarded)
check "all in all $((3 * datagrams)) datagrams were forwarded" is_within "$loss" $((3 * datagrams)) "$forwarded_before"
lab_send "$group" "$datagrams" >/dev/null
check "the stream stays on the WAN" is_equal "$(lab_forwarded)" "$forwarded_before"

echo "# stop"
check "the daemon ends with status 0" lab_stop "$daemon_pid"
check "it reports on its memory" grep -q 'MLD Proxy was using [0-9]* bytes\.' "$lab_folder/tarnwick.log"
check "no multicast interface is left" is_equal "$(lab_table ip6_mr_vif | wc -l)" 1
check "the flags of br0 are back" is_equal "$(interface_flags br0)" "$flags_before"
check "the flags of wan0 are back" is_equal "$(interface_flags wan0)" "$wan_flags_before"
check "the companion ends with status 0" lab_stop "$companion_pid"

finish ip6_mr_vif ip6_mr_cache igmp6
