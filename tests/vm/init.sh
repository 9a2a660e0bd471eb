#!/bin/busybox sh
# PID 1 of the test VM. Builds a root from the host's / (9p, read-only) under a tmpfs overlay,
# runs the job the host left in the job share, writes its exit status back there and powers off.
# Everything the host needs to know goes through the job share; the console carries only the
# job's output between two marker lines.

/bin/busybox mkdir -p /sbin /usr/bin /usr/sbin
/bin/busybox --install -s
export PATH=/bin:/sbin:/usr/bin:/usr/sbin

mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
# The job's output goes to the host as written, without the tty adding carriage returns.
stty -onlcr 2>/dev/null

# Boot steps with the guest's uptime, for the runner's --verbose.
step() { read -r up _ </proc/uptime; echo "$up $*" >>/job/steps; }

die() {
   echo "ravel-vm init: $*"
   [ -d /job/ok ] && echo "$*" >/job/boot-error
   reboot -f
}

while read -r m; do
   insmod "/modules/$m" || die "insmod $m failed"
done </modules/order

P9="trans=virtio,version=9p2000.L,msize=262144"
mount -t 9p -o "$P9" ravel-job /job || die "cannot mount the job share"
mkdir -p /job/ok
step modules loaded, job share mounted
# NONCE, KVER, MODDIR (host path of the module tree), KEEP (scratch dirs to leave as they are)
. /job/params

mkdir -p /lower /rw
mount -t 9p -o "$P9,cache=loose,ro" hostroot /lower || die "cannot mount the host root"
mount -t tmpfs -o mode=755 tmpfs /rw
mkdir -p /rw/upper /rw/work
R=/newroot
mount -t overlay overlay -o lowerdir=/lower,upperdir=/rw/upper,workdir=/rw/work $R ||
   die "cannot mount the root overlay"

step root mounted
mount -t proc proc $R/proc
mount -t sysfs sysfs $R/sys
mount -t devtmpfs devtmpfs $R/dev
mkdir -p $R/dev/pts $R/dev/shm
mount -t devpts -o ptmxmode=666 devpts $R/dev/pts
mount -t tmpfs -o mode=1777 tmpfs $R/dev/shm
mount -t bpf bpf $R/sys/fs/bpf
mount -t tracefs tracefs $R/sys/kernel/tracing
mount -t debugfs debugfs $R/sys/kernel/debug
mount -t cgroup2 cgroup2 $R/sys/fs/cgroup
# Fresh scratch space, except where the caller's working directory lives.
mount -t tmpfs -o mode=755 tmpfs $R/run
for d in /tmp /var/tmp; do
   case " $KEEP " in
   *" $d "*) ;;
   *) mount -t tmpfs -o mode=1777 tmpfs $R$d ;;
   esac
done
# The host has no module tree for this kernel; modprobe finds the cached one here.
mkdir -p $R/lib/modules/$KVER
mount --bind "/lower$MODDIR" $R/lib/modules/$KVER || die "cannot mount the module tree"
mkdir -p $R/run/ravel-vm
mount --bind /job $R/run/ravel-vm

step filesystems mounted
# The kernel asks for modules (nft, veth) from this root, not the command's: send it there.
printf '#!/bin/sh\nexec chroot %s /sbin/modprobe "$@"\n' $R >/bin/modprobe-vm
chmod 755 /bin/modprobe-vm
echo /bin/modprobe-vm >/proc/sys/kernel/modprobe
hostname ravel-vm
ip link set lo up

step starting the command
echo "@@ravel-vm start $NONCE"
chroot $R /bin/sh /run/ravel-vm/cmd </dev/null
echo $? >/job/status
step command done
echo "@@ravel-vm end $NONCE"
reboot -f
