#!/bin/sh
# tarnwick-run from end to end: of two viewers one leaves and the other keeps its stream, the upstream interface is made
# anew and the stream comes back, and all of it flows through a private network. Runs wherever there is a POSIX shell,
# iproute2 and root: in the test suite and inside emulated boards.
#
#   supervisor_end_to_end.sh PROGRAMS_FOLDER
#
# Prints a line per check and ends with status 0 only if all of them held.

set -u
programs=$1
group=ff3e::1:2:3
datagrams=500
per_second=20 # 25 s: longer than the daemon keeps a source that nobody has confirmed after a leave
start_queries_s=36 # the daemon asks at its start and 31 s later; hosts have answered then

# shellcheck source=tests/scenarios/lab.sh
. "$(dirname "$0")/lab.sh"
# shellcheck source=tests/scenarios/checks.sh
. "$(dirname "$0")/checks.sh"

# start_run LOG OPTION...: sets run_pid; until streams can flow.
start_run() {
  run_log=$1
  shift
  lab_start_in_router "$run_log" tarnwick-run -u wan0 -d br0 --runtime-folder=/tmp/run "$@"
  run_pid=$lab_pid
  eventually can_flow 1 || return 1
  flowing_since=$(date +%s)
}

# can_flow TIMES: tarnwick-run has said so that often.
can_flow() { [ "$(grep -c 'can flow to' "$lab_folder/$run_log")" -ge "$1" ]; }

# No answer to a general query may come after a leave and hide that nobody asked.
is_no_query_due() { [ "$(date +%s)" -ge $((flowing_since + start_queries_s)) ]; }

# watch NODE LOG: a viewer of the source's stream.
watch() {
  lab_start "$1" "$2" "$programs/mcast_join" -i eth0 -g "$group" -p "$lab_port" -s "$lab_source_address"
  eventually grep -q '^joined' "$lab_folder/$2"
}

# start_stream COUNT: sets stream_pid.
start_stream() {
  lab_start "$source" stream.log "$programs/mcast_send" -i src0 -g "$group" -p "$lab_port" -n "$1" -r "$per_second"
  stream_pid=$lab_pid
}

# stream_reaches LOG...: datagrams arrive at these viewers after a while.
stream_reaches() {
  reached=0
  start_stream $((per_second * 600))
  for log; do
    eventually lab_received_at_least "$log" $(($(lab_received "$log") + per_second)) || reached=1
  done
  lab_stop "$stream_pid"
  return "$reached"
}

# Another interface with the same name, wired to another one of the source.
remake_wan() {
  ip -n "$router" link delete wan0
  lab_wire_wan
}

shows_the_group() {
  lab_start_in_router status.log tarnwick-status
  wait "$lab_pid"
  grep -q "$group" "$lab_folder/status.log"
}

trap 'lab_down; exit 130' INT TERM HUP

echo "# lab"
lab_up
flags_before=$(interface_flags br0)
wan_flags_before=$(interface_flags wan0)

echo "# two viewers of whom one leaves"
check "streams can flow" start_run run.log
check "the first viewer joins" watch "$host1" stays.log
first_pid=$lab_pid
check "the second viewer joins" watch "$host2" leaves.log
second_pid=$lab_pid
check "the stream reaches both" stream_reaches stays.log leaves.log
check "tarnwick-status shows the group" eventually shows_the_group
check "both have answered the general queries" lab_wait 60 is_no_query_due
received_before=$(lab_received stays.log)
start_stream "$datagrams"
check "the second viewer leaves" lab_stop "$second_pid"
wait "$stream_pid"
check "the first viewer gets the whole stream" eventually lab_received_at_least stays.log \
  $((received_before + datagrams - loss))

echo "# an interface that is made anew"
remake_wan
check "streams can flow again" eventually can_flow 2
check "the stream is back" stream_reaches stays.log

echo "# stop"
check "tarnwick-run ends with status 0" lab_stop "$run_pid"
check "no multicast interface is left" is_equal "$(lab_table ip6_mr_vif | wc -l)" 1
check "the flags of br0 are back" is_equal "$(interface_flags br0)" "$flags_before"
check "the flags of wan0 are back" is_equal "$(interface_flags wan0)" "$wan_flags_before"

echo "# a private network"
check "streams can flow in it" start_run private.log --network=private
check "it has a port in the LAN bridge" is_equal \
  "$(ip -n "$router" -oneline link show master br0 | grep -c tarnwick0)" 1
check "the host's own multicast routing is free" is_equal "$(lab_table ip6_mr_vif | wc -l)" 1
check "the stream reaches the viewer" stream_reaches stays.log
check "tarnwick-run ends with status 0 again" lab_stop "$run_pid"
check "its port is gone" is_not ip -n "$router" link show dev tarnwick0 2>/dev/null
check "the viewer leaves" lab_stop "$first_pid"

finish ip6_mr_vif ip6_mr_cache igmp6
