#!/usr/bin/env bash
# Runs Zarnu locally on its embedded defaults: installs what is missing, builds,
# starts a local cloud service (HTTPS with its own certificate) in a scratch
# folder, creates a demo account, links and starts the agent, and takes a short
# tour of zarnucmd. Stops the agent and the service before it ends.
# Usage: scripts/demo.sh [scratch-folder]
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)
bash scripts/install-deps.sh
bash scripts/build.sh release
bin="$repo/build/release/bin"

scratch="${1:-$repo/build/demo}"
rm -rf "$scratch"
mkdir -p "$scratch/cloud" "$scratch/zarnu" "$scratch/files/photos" "$scratch/Zarnu"
export ZARNU_DATA="$scratch/zarnu"

log="$scratch/cloud.log"
mkfifo "$scratch/cloud.out"
"$bin/zarnu-cloud" serve --data "$scratch/cloud" --listen 127.0.0.1:0 --self-signed >"$scratch/cloud.out" 2>"$log" &
cloud_pid=$!
agent_pid=""
stop_all() {
  if [ -n "$agent_pid" ]; then kill "$agent_pid" 2>/dev/null; wait "$agent_pid" 2>/dev/null || true; fi
  kill "$cloud_pid" 2>/dev/null; wait "$cloud_pid" 2>/dev/null || true
}
trap stop_all EXIT

# The service prints one line, "listening on <url>", once it accepts connections.
exec 3<"$scratch/cloud.out"
line=""
read -r -t 120 line <&3 || true
url="${line#listening on }"
if [ -z "$line" ] || [ "$url" = "$line" ]; then
  cat "$log" >&2
  echo "demo: the cloud service did not start" >&2
  exit 1
fi
export ZARNU_CLOUD_ADDRESS="$url"
# zarnucmd trusts the service's own certificate through ca.pem in its data folder.
cp "$scratch/cloud/cert.pem" "$ZARNU_DATA/ca.pem"

echo "demo-password" | "$bin/zarnu-cloud" user add demo --data "$scratch/cloud" >/dev/null
login=(-username=demo -password=demo-password)

echo "hello from zarnu" >"$scratch/files/hello.txt"
head -c 3000000 /dev/urandom >"$scratch/files/photos/big.bin"
: >"$scratch/files/photos/empty.txt"

# Links the agent to the demo account and starts it; it prints one line,
# "listening on <socket>", once its overlay socket accepts connections.
echo "demo-password" | "$bin/ZarnuAgent" -link -username=demo -root="$scratch/Zarnu" -cloudAddress="$url" >/dev/null
mkfifo "$scratch/agent.out"
"$bin/ZarnuAgent" >"$scratch/agent.out" 2>"$scratch/agent.err" &
agent_pid=$!
exec 4<"$scratch/agent.out"
line=""
read -r -t 60 line <&4 || true
if [ "${line#listening on }" = "$line" ]; then
  cat "$scratch/agent.err" >&2
  echo "demo: the agent did not start" >&2
  exit 1
fi

z() {
  echo
  echo "\$ zarnucmd $*"
  "$bin/zarnucmd" "$@" || echo "(exit status $?)"
}

echo "Cloud service: $url (data in $scratch/cloud); agent data folder: $ZARNU_DATA"
echo "Agent: pid $agent_pid, ${line}, root folder $scratch/Zarnu"
z -version
z Config get csmCloudAddress
echo
echo "(the agent takes the change and applies it at once; its log says so:)"
z Config put csmCurlTimeout 120
z Config get csmCurlTimeout
grep -h "csmCurlTimeout" "$ZARNU_DATA/agent.log" | tail -n 1 || true
z Debug msg -list "CSM_(OVA|CLOUD|PEER).*"
z Debug msg -enable "CSM_PEER.*"
z Debug msg -list "CSM_PEER.*"
z Debug feedback -message="The demo went well"
echo "(the report, and the agent's diagnostics beside it:)"
ls "$ZARNU_DATA/crashes"
z Cloud authClient "${login[@]}"
z Cloud mkdir /docs "${login[@]}"
z Cloud put "$scratch/files/hello.txt" /docs "${login[@]}"
z Cloud put "$scratch/files/photos" / -r "${login[@]}"
z Cloud ls / -r "${login[@]}"
z Cloud ls "/photos/*.bin" -p "${login[@]}"
z Cloud link /docs/hello.txt "${login[@]}"
z Cloud get /docs/hello.txt "$scratch/hello-copy.txt" "${login[@]}"
echo "(downloaded: $(cat "$scratch/hello-copy.txt"))"
z Cloud rm /docs/hello.txt "${login[@]}"
z Cloud ls /docs -d "${login[@]}"
z Cloud undelete /docs/hello.txt "${login[@]}"
echo
echo "(the agent keeps its root folder and the cloud the same: a file dropped into the folder goes up)"
echo "a note dropped into the synced folder" >"$scratch/Zarnu/dropped.txt"
for _ in $(seq 1 150); do  # the agent waits until a new file is 1.5 s old, then uploads it
  if "$bin/zarnucmd" Overlay status dropped.txt 2>/dev/null | grep -q "Synced"; then break; fi
  sleep 0.2
done
z Overlay status dropped.txt
z Cloud ls / "${login[@]}"
echo "(and what was put into the cloud above came down into the folder:)"
(cd "$scratch/Zarnu" && find . -type f | sort)
echo
echo "(a download never overwrites a local file:)"
z Cloud get /docs/hello.txt "$scratch/hello-copy.txt" "${login[@]}"
z Cloud ls /nothing-here "${login[@]}"
echo
echo "(the agents on this network, the demo's own among them; a line typed after two seconds ends the scan:)"
echo "\$ zarnucmd Peer list"
(sleep 2; echo) | "$bin/zarnucmd" Peer list || echo "(exit status $?)"
echo
echo "Demo finished; the agent and the cloud service are stopped. Try your own commands with:"
echo "  ZARNU_DATA=$ZARNU_DATA $bin/ZarnuAgent &"
echo "  ZARNU_DATA=$ZARNU_DATA $bin/zarnucmd -help"
