#!/usr/bin/env bash
# Shows the daemon's one job end to end, in a private sandbox:
#   - "/Applications/Velmora VPN.app" (bundle id com.velmora.mac.vpn) is installed,
#   - a root-owned devConfig.json aims the backend at a loopback HTTP server,
#   - /bin/launchctl is ours (Sources/Platform/Launchd), which carries the
#     bootout out with systemctl; the systemctl it finds first on the daemon's
#     PATH is a stand-in (scripts/systemctl-standin.sh) that records its
#     arguments and stops the daemon with SIGTERM, as systemd would, once the
#     demo has seen the daemon's clean-up end;
# then starts the daemon, deletes the bundle, and prints the daemon's log,
# what the backend received, and what is left of the shared folder and plist;
# last, packs the daemon's log into a support archive with tovik-support.
# The real /Library, /Applications and /bin are never touched (scripts/sandbox.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)

bash scripts/setup.sh
echo "=== building"
cmake --preset release >/dev/null
cmake --build --preset release --target vpn_helper launchctl tovik-support loopback-http-server -j "$(nproc)" | tail -n 1

build=$repo/build/release
sandbox=$(mktemp -d /tmp/vpn-helper-demo.XXXXXX)
server_pid=; daemon_pid=
cleanup() {
  [ -n "$daemon_pid" ] && kill -KILL "$daemon_pid" 2>/dev/null || true
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null || true
  rm -rf "$sandbox"
}
trap cleanup EXIT

bundle="$sandbox/Applications/Velmora VPN.app"
shared="$sandbox/Library/Application Support/Velmora Software/com.velmora.mac.vpn"
plist="$sandbox/Library/LaunchDaemons/com.velmora.mac.vpn.vpn_helper.plist"
log="$sandbox/Library/Logs/com.velmora.mac.vpn/Velmora VPN-shared.log"

mkdir -p "$bundle/Contents/MacOS" "$shared" "$(dirname "$plist")" "$sandbox/bin" "$sandbox/tools"
cat > "$bundle/Contents/Info.plist" <<'PLIST'
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>CFBundleIdentifier</key>
	<string>com.velmora.mac.vpn</string>
	<key>CFBundleName</key>
	<string>Velmora VPN</string>
</dict>
</plist>
PLIST
echo "app" > "$bundle/Contents/MacOS/Velmora VPN"
cp "$build/vpn_helper/com.velmora.mac.vpn.vpn_helper.plist" "$plist"
echo "application data" > "$shared/state.bin"
cp "$build/Sources/Platform/Launchd/launchctl" "$sandbox/bin/launchctl"
cp scripts/systemctl-standin.sh "$sandbox/tools/systemctl"

# The backend: a loopback server that answers 200 and records the request.
"$build/Tests/loopback-http-server" --status 200 --port-file "$sandbox/port" \
  --request-file "$sandbox/request.txt" --timeout 60 &
server_pid=$!
for _ in $(seq 100); do [ -s "$sandbox/port" ] && break; sleep 0.05; done
port=$(cat "$sandbox/port")
printf '{\n  "api_fallback_domain": "http://127.0.0.1:%s"\n}\n' "$port" > "$shared/devConfig.json"
chown 0:0 "$shared/devConfig.json" 2>/dev/null || true
chmod 0644 "$shared/devConfig.json"

echo "=== sandbox $sandbox: starting vpn_helper (backend at http://127.0.0.1:$port)"
bash scripts/sandbox.sh "$sandbox" /usr/bin/env PATH="$sandbox/tools:/usr/sbin:/usr/bin:/sbin:/bin" \
  SYSTEMCTL_RECORD="$sandbox/systemctl-calls.txt" SYSTEMCTL_UNITS=com.velmora.mac.vpn.vpn_helper.service \
  SYSTEMCTL_STOP_GATE="$sandbox/stop-gate" "$build/vpn_helper/vpn_helper" &
daemon_pid=$!

wait_for() {  # wait_for <text>: until the daemon's log holds it (20 s at most)
  for _ in $(seq 400); do
    grep -qF "$1" "$log" 2>/dev/null && return 0
    sleep 0.05
  done
  echo "demo: gave up waiting for \"$1\" in the daemon's log" >&2
  return 1
}
wait_for "with result: true"

echo "=== deleting /Applications/Velmora VPN.app"
rm -rf "$bundle"
# systemd's stop job waits for this gate, so the whole clean-up shows.
wait_for "App tools were deleted"
touch "$sandbox/stop-gate"

status=0
wait "$daemon_pid" || status=$?
daemon_pid=
echo "=== vpn_helper ended with status $status (143 = stopped by SIGTERM from launchctl bootout)"
wait "$server_pid" 2>/dev/null || true
server_pid=

echo
echo "=== the daemon's log: /Library/Logs/com.velmora.mac.vpn/Velmora VPN-shared.log"
tr '\036' '\n' < "$log" | sed '/^$/d'
echo
echo "=== what the backend received"
cat "$sandbox/request.txt" 2>/dev/null || echo "(nothing)"
echo
echo
echo "=== systemctl was called as"
cat "$sandbox/systemctl-calls.txt" 2>/dev/null || echo "(never called)"
echo
echo "=== what is left"
for item in "$plist" "$shared"; do
  name=${item#"$sandbox"}
  if [ -e "$item" ]; then echo "still there: $name"; else echo "deleted:     $name"; fi
done

echo
echo "=== support staff pack the daemon's log: tovik-support archive --log <log> --purpose general -o support.zip"
"$build/tovik_support/tovik-support" archive --log "$log" --purpose general -o "$sandbox/support.zip"
unzip -l "$sandbox/support.zip"
