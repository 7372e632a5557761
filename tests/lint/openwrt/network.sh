# Stands in for OpenWrt's network.sh. Devices of networks come from variables DEVICE_<network>.
# shellcheck shell=dash disable=SC3043

network_flush_cache() { echo network_flush_cache; }

network_get_device() {
	local found=
	case "$2" in
	*[!A-Za-z0-9_]*) ;;
	*) eval "found=\${DEVICE_$2:-}" ;;
	esac
	unset "$1"
	[ -n "$found" ] && eval "$1=\$found"
}
