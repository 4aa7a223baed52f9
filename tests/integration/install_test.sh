#!/usr/bin/env bash
# cmake --install into a scratch DESTDIR installs exactly these files, and systemd takes
# the installed unit without a word. systemd-analyze needs no running systemd with
# --root; the root must then hold what the unit names: the units it depends on by
# default and the programs it runs.
set -euo pipefail
build=$1 prefix=$2
root=$(mktemp -d "${TMPDIR:-/tmp}/vek_cap_install.XXXXXX")
trap 'rm -rf "$root"' EXIT
DESTDIR=$root cmake --install "$build" >/dev/null
diff -u - <(cd "$root" && find . ! -type d | sort) <<EOF_LIST
.$prefix/bin/kxctl
.$prefix/bin/ssat
.$prefix/lib/systemd/system/vek_cap.service
.$prefix/sbin/vek_cap
.$prefix/sbin/vek_cap-acl
.$prefix/share/bash-completion/completions/kxctl
.$prefix/share/bash-completion/completions/ssat
.$prefix/share/doc/vek_cap/README.md
.$prefix/share/doc/vek_cap/examples/redis-vek_cap.conf
.$prefix/share/doc/vek_cap/examples/sentinel.conf
.$prefix/share/doc/vek_cap/examples/vek_cap.env
.$prefix/share/doc/vek_cap/examples/vek_cap.logrotate
.$prefix/share/doc/vek_cap/examples/vek_cap.zlog
EOF_LIST
mkdir -p "$root/usr/lib/systemd" "$root/usr/bin"
cp -r /usr/lib/systemd/system "$root/usr/lib/systemd/"
cp /usr/bin/mkdir "$root/usr/bin/"
said=$(systemd-analyze verify --root="$root" "$prefix/lib/systemd/system/vek_cap.service" 2>&1)
[ -z "$said" ] || { echo "$said"; exit 1; }
