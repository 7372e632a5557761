#!/bin/sh
# The feed's test on each architecture: test.sh PACKAGE VERSION. It starts no daemon: there are no interfaces for it.

[ "$1" = tarnwick ] || exit 0

is_right=yes
fail() {
	echo "$1"
	is_right=no
}

# The loader says what it could not preload; the program runs all the same.
folder="$(dirname "$(command -v tarnwick-run)")"
said="$(LD_PRELOAD="$folder/../lib/tarnwick/libtarnwick-smooth.so" tarnwick-status --version 2>&1)"
[ "$said" = "tarnwick-status $2" ] || fail "libtarnwick-smooth.so cannot be preloaded: $said"

tarnwick-run -u lo >/dev/null 2>&1
[ $? -eq 2 ] || fail "tarnwick-run does not refuse a command line without -d"

# Without multicast routing, as in a container, it says so with status 1.
said="$(tarnwick-run --explain -u lo -d lo0 2>&1)"
[ $? -le 1 ] || fail "tarnwick-run --explain fails: $said"
case "$said" in
*"--network=private would"*) ;;
*) fail "tarnwick-run --explain says: $said" ;;
esac

[ "$is_right" = yes ]
