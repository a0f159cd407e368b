#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Makes hello-daemon.deb of the daemon, its unit, and what systemd and logrotate are to know of it.
set -e
shared=${1:-/usr/share/libutils}
install -D hello_daemon root/usr/sbin/hello_daemon
install -D -m 644 "$shared/daemon/hello.service" root/usr/lib/systemd/system/hello.service
install -D -m 644 "$shared/daemon/hello.sysusers" root/usr/lib/sysusers.d/hello.conf
install -D -m 644 "$shared/daemon/hello.tmpfiles" root/usr/lib/tmpfiles.d/hello.conf
install -D -m 644 "$shared/daemon/hello.logrotate" root/etc/logrotate.d/hello
mkdir -p root/DEBIAN
sed "s/^Architecture: any/Architecture: $(dpkg --print-architecture)/" control >root/DEBIAN/control
echo /etc/logrotate.d/hello >root/DEBIAN/conffiles
dpkg-deb --root-owner-group --build root hello-daemon.deb
