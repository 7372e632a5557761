#!/bin/sh
# Runs as the first process of new mount and process namespaces: lays a writable layer over an unpacked Debian and
# becomes its systemd, in a control group of its own, so that systems that run side by side never meet. Everything
# vanishes with the process but the group, which whoever has started it removes.
#   boot_systemd.sh ROOT GROUP
set -eu

below=$1
group=$2

# prepare: the layer, the kernel's file systems and a few devices.
prepare() {
  mount -t tmpfs tmpfs /media
  mkdir /media/upper /media/work /media/root
  mount -t overlay overlay -o "lowerdir=$below,upperdir=/media/upper,workdir=/media/work" /media/root
  cd /media/root
  mount -t proc proc proc
  mount -t sysfs sysfs sys
  mount -t cgroup2 cgroup2 sys/fs/cgroup
  mkdir "sys/fs/cgroup/$group"
  echo 0 >"sys/fs/cgroup/$group/cgroup.procs" # this process
  umount sys/fs/cgroup
  mount -t tmpfs tmpfs run
  mount -t tmpfs tmpfs dev
  for device in null zero full random urandom tty; do
    touch "dev/$device"
    mount --bind "/dev/$device" "dev/$device"
  done
  mkdir dev/pts dev/shm dev/mqueue dev/hugepages
  mount -t devpts -o newinstance,ptmxmode=0666 devpts dev/pts
  ln -s pts/ptmx dev/ptmx
  mkdir before
}

prepare
# From here on that control group is the root of all.
exec unshare --cgroup sh -euc '
  mount -t cgroup2 cgroup2 sys/fs/cgroup
  pivot_root . before
  umount -l /before
  rmdir /before
  exec env -i container=lxc PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd --system'
