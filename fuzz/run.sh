#!/usr/bin/env bash
# Builds the overlay fuzz target with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer on every library) and runs it.
#   fuzz/run.sh [seconds]      (default 600)
# Findings land in build/fuzz/findings/; the corpus in build/fuzz/corpus/.
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
seconds="${1:-600}"
build="$repo/build/fuzz"
san="-fsanitize=address,undefined,fuzzer-no-link -fno-omit-frame-pointer"
CC=clang CXX=clang++ cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZARNU_FUZZ=ON \
  -DZARNU_BUILD_TESTS=OFF -DZARNU_BUILD_BENCH=OFF -DCMAKE_CXX_FLAGS="$san" -DCMAKE_C_FLAGS="$san" >/dev/null
cmake --build "$build" --target overlay_fuzz
mkdir -p "$build/corpus" "$build/findings"
# Seeds: a few well-formed requests.
python3 - "$build/corpus" <<'PY'
import json, struct, sys, pathlib
out = pathlib.Path(sys.argv[1])
for i, (method, params) in enumerate([
        ("overlay_debug_list", None), ("overlay_debug_enable", {"messages": ["CSM_PEER"]}),
        ("overlay_configdb_put", {"option": "csmCurlTimeout", "value": "5"}),
        ("overlay_path_status_cached", {"file_path": "/a"}), ("overlay_get_root_share", None)]):
    msg = {"id": i, "method": method}
    if params: msg["params"] = params
    text = json.dumps(msg).encode()
    body = struct.pack(">I", len(text)) + text + struct.pack(">I", 3) + b"abc"
    (out / f"seed{i}").write_bytes(b"ZOV1" + struct.pack(">I", len(body)) + body)
PY
"$build/bin/overlay_fuzz" -max_total_time="$seconds" -artifact_prefix="$build/findings/" -print_final_stats=1 \
  "$build/corpus"
