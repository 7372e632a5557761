# Checks for shell scenarios, to be sourced after lab.sh: one line of result each, a count at the end.
# SCENARIO_PATIENCE_S (30) is how long a scenario waits for a single event; a slow board may need more.
#
# SCENARIO_LOSS (0) is how many datagrams of all streams together may be missing: a host's repeated report makes the
# daemon delete the kernel's entry and add it again, and on a slow board a datagram may fall between the two.
# shellcheck shell=sh disable=SC2154 # router and lab_folder come from lab.sh

patience=${SCENARIO_PATIENCE_S:-30}
# shellcheck disable=SC2034 # the scenario reads it
loss=${SCENARIO_LOSS:-0}
checks=0
failures=0

# check TEXT COMMAND...
check() {
  text=$1
  shift
  checks=$((checks + 1))
  if "$@"; then
    echo "ok $checks - $text"
  else
    echo "not ok $checks - $text"
    failures=$((failures + 1))
  fi
}

eventually() { lab_wait "$patience" "$@"; }

is_equal() {
  [ "$1" = "$2" ] || { echo "# $1 is not $2" && false; }
}

# is_within LOSS ALL NUMBER: the number is that of all, or at most LOSS below it.
is_within() {
  if [ "$3" -gt "$2" ] || [ "$3" -lt $(($2 - $1)) ]; then
    echo "# $3 is not within $1 below $2"
    return 1
  fi
}

is_different() { [ "$1" != "$2" ]; }

is_not() { ! "$@"; }

interface_flags() { ip -n "$router" link show dev "$1" | sed -n 's/.*<\(.*\)>.*/\1/p' | tr ',' '\n' | sort | tr '\n' ','; }

# finish TABLE...: removes the lab and prints the count; after a failure also every log and the router's tables.
# Its status is 0 only if every check held.
finish() {
  if [ "$failures" -gt 0 ]; then
    for file in "$lab_folder"/*.log; do
      echo "# --- $file"
      grep -v '^datagram' "$file"
    done
    for table in "$@"; do
      echo "# --- router: $table"
      lab_table "$table"
    done
  fi
  lab_down
  echo "$checks checks, $failures failed"
  [ "$failures" -eq 0 ]
}
