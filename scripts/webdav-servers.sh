#!/usr/bin/env bash
# Installs what the WebDAV tests start as their servers, when it is missing: Apache httpd (its
# binary and modules: mod_dav, mod_dav_fs, mod_ssl, mod_auth_digest, ...), rclone (serve webdav),
# and openssl for their self-signed certificates and password files. The tests start and stop the
# servers themselves, as the current user, on loopback ports; nothing is configured or started
# here, and Debian's own apache2 service is stopped again if installing it started one.
# Usage: scripts/webdav-servers.sh   (idempotent; safe to run on every CI run)
set -euo pipefail

packages=(apache2-bin rclone openssl)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
    echo "Installing ${missing[*]}" >&2
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -qq
    # apache2-bin holds the server and its modules without Debian's site configuration and
    # service, which the tests never use.
    $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

for f in /usr/sbin/apache2 /usr/lib/apache2/modules/mod_dav_fs.so /usr/bin/rclone /usr/bin/openssl; do
    [ -e "$f" ] || { echo "webdav-servers.sh: $f is missing after the installation" >&2; exit 1; }
done
