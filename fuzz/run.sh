#!/usr/bin/env bash
# Builds a fuzz target with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer on every library) and runs it.
#   fuzz/run.sh [seconds] [overlay|peer]      (default 600 s, overlay)
# The build folder is $ZARNU_FUZZ_BUILD, else build/fuzz. Findings land in
# <build>/findings/, the corpus in <build>/corpus/; the run's statistics end
# the output (-print_final_stats).
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
seconds="${1:-600}"
target="${2:-overlay}"
case "$target" in overlay|peer) ;; *) echo "fuzz/run.sh: unknown target '$target' (overlay or peer)" >&2; exit 2;; esac
build="${ZARNU_FUZZ_BUILD:-$repo/build/fuzz}"
san="-fsanitize=address,undefined,fuzzer-no-link -fno-omit-frame-pointer"
CC=clang CXX=clang++ cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZARNU_FUZZ=ON \
  -DZARNU_BUILD_TESTS=OFF -DZARNU_BUILD_BENCH=OFF -DCMAKE_CXX_FLAGS="$san" -DCMAKE_C_FLAGS="$san" >/dev/null
nice -n 5 cmake --build "$build" -j2 --target "${target}_fuzz"
corpus="$build/corpus/$target"
mkdir -p "$corpus" "$build/findings"
if [ "$target" = peer ]; then
  # Seeds: one packet of each kind.
  /usr/bin/python3 - "$corpus" <<'PY'
import json, struct, sys, pathlib
out = pathlib.Path(sys.argv[1])
me = {"device": "0123456789abcdef0123456789abcdef", "host": "alice-laptop", "user": "alice", "version": "1.34"}
for kind, body in ((1, b""), (2, json.dumps(me).encode()), (3, json.dumps(me).encode()),
                   (4, json.dumps({"device": me["device"]}).encode())):
    (out / f"seed{kind}").write_bytes(b"ZRNP" + struct.pack(">BBHQ", 1, kind, len(body), 7) + body)
PY
  exec "$build/bin/peer_fuzz" -max_total_time="$seconds" -artifact_prefix="$build/findings/" \
    -print_final_stats=1 "$corpus"
fi
# Seeds: well-formed requests of every method, one with an attachment, one
# without a method.
/usr/bin/python3 - "$corpus" <<'PY'
import json, struct, sys, pathlib
out = pathlib.Path(sys.argv[1])
requests = [
    ("overlay_debug_list", None), ("overlay_debug_enable", {"messages": ["CSM_PEER"]}),
    ("overlay_debug_disable", {"messages": ["CSM", "NOPE"]}),
    ("overlay_configdb_put", {"option": "csmCurlTimeout", "value": "5"}), ("watchdog_trigger", None),
    ("resync_share_list", None), ("resync_all", None), ("overlay_get_root_share", None),
    ("overlay_path_status_sync", {"file_path": "/a/b"}), ("overlay_path_status_cached", {"file_path": "BinaryIndex-0"}),
    (None, {"x": 1}),
]
for i, (method, params) in enumerate(requests):
    msg = {"id": i}
    if method: msg["method"] = method
    if params: msg["params"] = params
    text = json.dumps(msg).encode()
    body = struct.pack(">I", len(text)) + text + struct.pack(">I", 3) + b"abc"
    (out / f"seed{i}").write_bytes(b"ZOV1" + struct.pack(">I", len(body)) + body)
PY
exec "$build/bin/overlay_fuzz" -max_total_time="$seconds" -dict="$repo/fuzz/overlay.dict" \
  -artifact_prefix="$build/findings/" -print_final_stats=1 "$corpus"
