# Stands in for the parts of OpenWrt's rc.common, functions.sh, procd.sh, jshn.sh and validate.sh that the init script
# calls. Settings come from variables CONFIG_<section>_<option>, the networks of /etc/config/network from NETWORKS.
# Every request is printed.
# shellcheck shell=dash disable=SC3043,SC2034

config_load() { echo "config_load $1"; }

config_get() {
	eval "$1=\${CONFIG_$2_$3:-}"
}

# passes TYPE VALUE: as validate_data judges one value, which it hands on in `passed`.
passes() {
	passed="$2"
	case "$1" in
	string) ;;
	bool)
		case "$2" in
		1 | on | true | yes | enabled) passed=1 ;;
		0 | off | false | no | disabled) passed=0 ;;
		*) return 1 ;;
		esac
		;;
	uciname) case "$2" in "" | *[!A-Za-z0-9_]*) return 1 ;; esac ;;
	'or('*) case "${1#or}" in *"(\"$2\""[,\)]* | *",\"$2\""[,\)]*) ;; *) return 1 ;; esac ;;
	*) echo "no such type: $1" >&2 && exit 9 ;;
	esac
}

# A value that does not pass leaves its variable unset; a default is for an option that is not there.
validate_option() {
	local type="$1" value="$2" item passed all=
	case "$type" in
	'list('*)
		type="${type#list(}"
		for item in $value; do
			passes "${type%)}" "$item" || return 1
			all="$all${all:+ }$passed"
		done
		;;
	*) passes "$type" "$value" || return 1 && all="$passed" ;;
	esac
	checked="$all"
}

uci_load_validate() {
	local package="$1" section="$3" callback="$4" result=0 option name rest default value checked
	echo "validate $package $2"
	shift 4
	for option in "$@"; do
		eval "local ${option%%:*}"
	done
	for option in "$@"; do
		name="${option%%:*}" rest="${option#*:}" default=
		case "$rest" in *:*) default="${rest#*:}" ;; esac
		config_get value "$section" "$name"
		if [ -z "$value" ]; then
			eval "$name=\$default"
		elif validate_option "${rest%%:*}" "$value"; then
			eval "$name=\$checked"
		else
			eval "$name=" && result=1
		fi
	done
	"$callback" "$section" "$result"
}

uci() {
	case "$* " in
	"-q get network."*) case " ${NETWORKS:-} " in *" ${3#network.} "*) echo interface ;; *) return 1 ;; esac ;;
	*) echo "unexpected: uci $*" >&2 ;;
	esac
}

procd_open_instance() { echo "open $*"; }
procd_set_param() { echo "set $*"; }
procd_append_param() { echo "append $*"; }
procd_close_instance() { echo close; }
procd_add_jail() { echo "jail $*"; }
procd_add_jail_mount() { echo "mount $*"; }
procd_add_jail_mount_rw() { echo "mount_rw $*"; }
procd_open_data() { echo open_data; }
procd_close_data() { echo close_data; }
procd_add_reload_trigger() { echo "reload on $*"; }
procd_add_reload_interface_trigger() { echo "reload with network $*"; }
procd_add_validation() { echo "validation $1"; }
json_add_array() { echo "json [ $1"; }
json_close_array() { echo "json ]"; }
json_add_object() { echo "json { $1"; }
json_close_object() { echo "json }"; }
json_add_string() { echo "json = $1 $2"; }
logger() { echo "logger $*"; }
