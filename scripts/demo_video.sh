# The part of scripts/demo that shows real pictures, to be sourced by it: two television channels and a player.
# shellcheck shell=bash disable=SC2034,SC2154 # steps, results and the network are the demo's

video_packages=(ffmpeg)
channel_groups=(ff0e::1:2:3 ff0e::1:2:4)
channel_digits=(ff0e0000000000000000000100020003 ff0e0000000000000000000100020004)
channel_patterns=(testsrc smptebars) # of ffmpeg: colours with a clock, colour bars
picture=size=640x360:rate=25
frames_wanted=75
watch_deadline_s=60
longest_show_s=180
pictures=$project/build/demo-video

# Packets of 1316 bytes hold seven of the transport stream's 188, as usual. 8 hops, since one hop ends at a router.
channel_address() { echo "udp://[${channel_groups[$1]}]:$lab_port?pkt_size=1316&ttl=8"; }

start_channel() {
  lab_start "$source" "channel$1.log" ffmpeg -v error -nostdin -re -f lavfi -i "${channel_patterns[$1]}=$picture" \
    -t "$longest_show_s" -c:v mpeg2video -b:v 1M -g 12 -f mpegts "$(channel_address "$1")"
  channel_pids+=("$lab_pid")
}

# An encoder that is stopped ends with a status other than 0, which is not a failure here.
stop_channels() {
  local pid
  for pid in "${channel_pids[@]}"; do
    lab_stop "$pid" || true
  done
}

packets_from_upstream() { lab_table dev_snmp6/wan0 | sed -n 's/^Ip6InMcastPkts[^0-9]*//p'; }

arrive_upstream() { [ "$(packets_from_upstream)" -ge $((packets_before + 50)) ]; }

# The player joins by itself and keeps the last frame that it has seen.
watch_channel() {
  local player=(ffmpeg -v error -nostdin -analyzeduration 1000000 -i "$(channel_address "$1")" -an
    -frames:v "$frames_wanted" -update 1 -y -progress "$lab_folder/progress" "$2")
  ip netns exec "$host1" timeout -k 5 "$watch_deadline_s" "${player[@]}" </dev/null \
    >"$lab_folder/player.log" 2>&1 || true
  frames=$(sed -n 's/^frame= *//p' "$lab_folder/progress" 2>/dev/null | tail -n 1)
  frames=${frames:-0}
}

# likeness FILE CHANNEL: how similar the picture is to the channel's, in hundredths (structural similarity).
likeness() {
  local hundredths
  hundredths=$(ffmpeg -nostdin -i "$1" -f lavfi -i "${channel_patterns[$2]}=$picture" -frames:v 1 -lavfi ssim \
    -f null - 2>&1 | sed -n 's/.* All:\([01]\)\.\([0-9][0-9]\).*/\1\2/p')
  echo $((10#${hundredths:-0}))
}

# shows FILE CHANNEL OTHER: the picture is the one channel's and not the other's. It is compared with the pattern's
# first frame: the clock's frames score 0.8 and more with it, and less than 0.6 with the bars.
shows() { [ "$(likeness "$1" "$2")" -ge 75 ] && [ "$(likeness "$1" "$3")" -lt 65 ]; }

show_channel() {
  local file=$pictures/channel-$(($1 + 1)).png
  rm -f "$file"
  watch_channel "$1" "$file"
  expect "$frames of $frames_wanted frames came through the router" [ "$frames" -ge "$frames_wanted" ]
  expect "the last one shows channel $(($1 + 1))'s picture" shows "$file" "$1" "$2"
  frames_total=$((frames_total + frames))
  show "${file#"$project"/}"
}

show_video() {
  local packets_before frames frames_total=0 channel_pids=()
  show_start
  step "The source sends two channels, each an MPEG transport stream"
  packets_before=$(packets_from_upstream)
  start_channel 0
  start_channel 1
  expect "packets of the channels arrive at the router" lab_wait 20 arrive_upstream
  expect "0 forwarded: nobody watches" is_forwarded_nothing_since 0
  step "host1 watches channel 1 (${channel_groups[0]})"
  mkdir -p "$pictures"
  show_channel 0 1
  step "host1 zaps to channel 2 (${channel_groups[1]})"
  show_channel 1 0
  expect "channel 1 has been left upstream" lab_wait "$answer_deadline_s" left_upstream "${channel_digits[0]}"
  step "host1 switches off"
  expect "channel 2 has been left upstream" lab_wait "$answer_deadline_s" left_upstream "${channel_digits[1]}"
  stop_channels
  show_stop
  printf '\n%sPASS%s: all %d steps did what they should; %d frames seen, pictures in %s.\n' \
    "$green$bold" "$plain" "$steps" "$frames_total" "${pictures#"$project"/}"
}
