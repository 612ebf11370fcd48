#!/usr/bin/env bash
# Builds the overlay fuzz target with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer on every library) and runs it.
#   fuzz/run.sh [seconds]      (default 600)
# The build folder is $ZARNU_FUZZ_BUILD, else build/fuzz. Findings land in
# <build>/findings/, the corpus in <build>/corpus/; the run's statistics end
# the output (-print_final_stats).
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
seconds="${1:-600}"
build="${ZARNU_FUZZ_BUILD:-$repo/build/fuzz}"
san="-fsanitize=address,undefined,fuzzer-no-link -fno-omit-frame-pointer"
CC=clang CXX=clang++ cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZARNU_FUZZ=ON \
  -DZARNU_BUILD_TESTS=OFF -DZARNU_BUILD_BENCH=OFF -DCMAKE_CXX_FLAGS="$san" -DCMAKE_C_FLAGS="$san" >/dev/null
nice -n 5 cmake --build "$build" -j2 --target overlay_fuzz
mkdir -p "$build/corpus" "$build/findings"
# Seeds: well-formed requests of every method, one with an attachment, one
# without a method.
/usr/bin/python3 - "$build/corpus" <<'PY'
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
  -artifact_prefix="$build/findings/" -print_final_stats=1 "$build/corpus"
