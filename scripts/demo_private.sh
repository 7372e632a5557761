# The part of scripts/demo that shows daemon and companion in a network of their own, to be sourced by it: on a router whose
# names are too long and whose index is too high for multicast routing in the host's network.
# shellcheck shell=bash disable=SC2034,SC2154 # steps, results and the network are the demo's

private_upstream=wan-port.2001
private_lan=br-lan.100
private_options=(-u "$private_upstream" -d "$private_lan" --network=private)

in_router() { ip netns exec "$router" "$@"; }

show_private_picture() {
  cat <<TEXT
${bold}tarnwick-run --network=private: the daemon in a network of its own${plain}

               router                                                hosts
   source ---- $private_upstream <-- up0 [ private network ] down0 --.
               $private_lan (bridge) <------- tarnwick0 -------'
                 +-- lan-a ------------------------------------------ host1 joins
                 +-- lan-b ------------------------------------------ host2 does not

TEXT
}

# As on a router that has made many interfaces.
give_private_names() {
  ip -n "$router" link set wan0 down
  ip -n "$router" link set wan0 name "$private_upstream"
  ip -n "$router" link set "$private_upstream" up
  ip -n "$router" link delete br0
  ip -n "$router" link add "$private_lan" index 140 address "$lab_mac" type bridge
  ip -n "$router" link set lan-a master "$private_lan"
  ip -n "$router" link set lan-b master "$private_lan"
  ip -n "$router" link set "$private_lan" up
}

# Ends with status 1: the host's own network, the default, does not work here.
explain_private() {
  in_router "$programs/tarnwick-run" --explain -u "$private_upstream" -d "$private_lan" || [ $? -eq 1 ]
}


start_private() {
  lab_start_in_router tarnwick-run.log tarnwick-run "${private_options[@]}" --runtime-folder=/tmp/run
  private_pid=$lab_pid
  lab_wait 30 streams_can_flow tarnwick-run.log
}

# A command in the private network. The namespace has no name, so the daemon's process serves to enter it.
in_private_network() {
  local daemon
  daemon=$(pgrep -P "$private_pid" -x tarnwick) || return 1
  nsenter --net="/proc/$daemon/ns/net" "$@"
}

watch_other_port() {
  lab_start "$host2" host2.log "$programs/mcast_watch" -i eth0 -g "$group"
  private_watch_pid=$lab_pid
  lab_wait 5 grep -q '^watching' "$lab_folder/host2.log"
}

# The bridge floods every port until some seconds after the daemon's first query, which is the first that it sees.
bridge_knows_who_has_joined() {
  local before
  before=$(lab_received host2.log)
  lab_send "$group" 5 >/dev/null
  [ "$(lab_received host2.log)" -eq "$before" ]
}

count_from_here() {
  received_before[host1]=$(lab_received host1.log)
  received_before[host2]=$(lab_received host2.log)
}

is_private_gone() { ! ip -n "$router" -brief link | grep -q '^tarnwick'; }

show_private() {
  step "The router's interfaces have long names and a high index"
  give_private_names
  show "$(ip -n "$router" -oneline link show | sed -n 's/^\([0-9]*: [^:@]*\).*/\1/p')"
  step "tarnwick-run --explain -u $private_upstream -d $private_lan"
  show "$(explain_private)"
  step "tarnwick-run ${private_options[*]}"
  expect "streams can flow" start_private
  show "on the host:   $(ip -n "$router" -brief link show tarnwick0 | tr -s ' ')"
  show "inside:        $(in_private_network ip -6 -brief address show dev up0 | tr -s ' ')"
  show "               $(in_private_network ip -6 -brief address show dev down0 | tr -s ' ')"
  step "host1 joins the group; host2 only looks at what its port gets"
  expect "host2 looks" watch_other_port
  lab_listen "$host1" host1.log "$group"
  listener_pid=$lab_pid
  expect "host1 has answered the router's first query" lab_wait_until_said "$host1"
  expect "the bridge has learned who has joined" lab_wait 30 bridge_knows_who_has_joined
  count_from_here
  send 300
  expect_arrival host1 300
  expect_arrival host2 0
  step "tarnwick-status finds the daemon"
  show "$(nsenter --target "$private_pid" --mount --net /tmp/programs/tarnwick-status 2>&1 | cut -c 1-100)"
  lab_stop "$private_watch_pid" || true # only the signal ends it
  step "host1 leaves, and SIGTERM stops tarnwick-run"
  expect "host1 has left" lab_stop "$listener_pid"
  expect "exit status 0" lab_stop "$private_pid"
  expect "no link of it is left" is_private_gone
  printf '\n%sPASS%s: all %d steps did what they should; of %d datagrams %d reached host1 and 0 host2.\n' \
    "$green$bold" "$plain" "$steps" "$sent" "$sent"
}
