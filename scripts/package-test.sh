#!/bin/sh
# Tries the Debian package on a Debian 12 machine: lintian reads it, and autopkgtest installs it into a Debian 12 of its own and
# runs packaging/debian/tests there. Installs what is missing first, and says so. Only root can do that.
#
#   package-test.sh [AUTOPKGTEST-OPTION...]    such as --test-name=programs
#   package-test.sh --help                     prints this, and does nothing else
#
# Builds the package into build/package, and keeps the Debian 12 in build/boot for the next time; what the tests change in it is
# forgotten. Changes nothing else.
set -eu

case ${1:-} in
-h | --help) sed -n '2,/^set /s/^# \{0,1\}//p' "$0"; exit 0 ;;
esac
[ "$(id -u)" = 0 ] || { echo "package-test.sh: only root can install the package into a Debian of its own" >&2; exit 1; }

checkout=$(dirname "$(dirname "$(readlink -f "$0")")")
if [ "${QUARROW_PACKAGE_TEST:-}" != entered ]; then
    . "$checkout/scripts/packages.sh"
    install_packages python3 util-linux debootstrap lintian autopkgtest
    "$checkout/scripts/package.sh" >&2
    echo '== lintian'
    lintian --fail-on error,warning,info --display-info --tag-display-limit 0 --allow-root "$checkout"/build/package/quarrow*.deb
    QUARROW_PACKAGE_TEST=entered exec unshare --mount --pid --mount-proc --fork --kill-child --propagation private "$0" "$@"
fi
unset QUARROW_PACKAGE_TEST

# shellcheck disable=SC2016 # the words are Python
PYTHONPATH="$checkout/tests/boot" /usr/bin/python3 -B -c 'import sys, machine; machine.make_root(sys.argv[1])' \
    "$checkout/build/boot/root"

. "$checkout/scripts/source-copy.sh"
work=$(mktemp -d) # without what the checkout may have in its name
trap 'umount --lazy "$work/testbed" "$work"; rmdir "$work"' EXIT
trap 'exit 1' HUP INT TERM
mount -t tmpfs -o mode=755 tmpfs "$work"
cd "$work"
mkdir root upper changes testbed
mount --bind "$checkout/build/boot/root" root
mount -t overlay overlay -o lowerdir=root,upperdir=upper,workdir=changes testbed

# What a testbed needs of a machine, without its log.
mount -t proc proc testbed/proc
mount -t sysfs -o ro sysfs testbed/sys
mount -t tmpfs -o mode=755 tmpfs testbed/dev
for name in null zero full random urandom tty; do
    : >"testbed/dev/$name"
    mount --bind "/dev/$name" "testbed/dev/$name"
done
ln -s /proc/self/fd testbed/dev/fd
mkdir -m 1777 testbed/dev/shm
mkdir testbed/dev/pts
mount -t devpts -o newinstance,mode=620,ptmxmode=666 devpts testbed/dev/pts
ln -s pts/ptmx testbed/dev/ptmx
cp --remove-destination /etc/resolv.conf /etc/hosts testbed/etc # as this machine reaches the registry

copy_source "$checkout" source
cp "$checkout"/build/package/quarrow_*.deb .
echo '== autopkgtest'
autopkgtest --setup-commands='apt-get update' "$@" quarrow_*.deb source/ -- chroot "$work/testbed"
