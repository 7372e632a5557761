# Stands in for the parts of OpenWrt's rc.common, procd.sh and functions.sh that the init script calls: settings come
# from variables CONFIG_<section>_<option> (lists one value a line), and every procd request is printed.
# shellcheck shell=dash disable=SC3043

config_load() { echo "config_load $1"; }

config_get() {
	eval "local value=\${CONFIG_$2_$3:-}"
	# shellcheck disable=SC2154 # set by eval
	eval "$1=\${value:-\${4:-}}"
}

config_get_bool() {
	config_get "$@"
	eval "case \$$1 in 1 | on | true | yes | enabled) $1=1 ;; *) $1=0 ;; esac"
}

config_list_foreach() {
	local section="$1" list="$2" callback="$3" item
	eval "local items=\${CONFIG_${section}_${list}:-}"
	# shellcheck disable=SC2154 # set by eval
	for item in $items; do
		"$callback" "$item"
	done
}

procd_open_instance() { echo "open $*"; }
procd_set_param() { echo "set $*"; }
procd_append_param() { echo "append $*"; }
procd_close_instance() { echo "close"; }
procd_add_reload_trigger() { echo "reload on $*"; }
logger() { echo "logger $*"; }
