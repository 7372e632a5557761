#!/bin/sh
# The feed's check of versions: test-version.sh PACKAGE VERSION. The daemon itself shows none, only its usage text.

[ "$1" = tarnwick ] || exit 0

is_right=yes
for program in tarnwick-run tarnwick-assist tarnwick-status; do
	shown="$("$program" --version)"
	if [ "$shown" != "$program $2" ]; then
		echo "$program --version shows '$shown'"
		is_right=no
	fi
done
case "$(tarnwick '-?' 2>&1)" in
*"Usage: tarnwick "*) ;;
*)
	echo "tarnwick -? does not show the usage text"
	is_right=no
	;;
esac
[ "$is_right" = yes ]
