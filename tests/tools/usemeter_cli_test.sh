#!/usr/bin/env bash
# The usemeter command end to end, and the README's host examples, run for real. Every
# case gets a fresh temporary HOME; the whole script runs in a network namespace that
# holds only loopback, so nothing (hits, the corporate-network look-up) leaves the machine.
#
# Usage: usemeter_cli_test.sh USEMETER HOST_C HOST_CPP SOURCE_DIR
set -uo pipefail

if [[ "${1:-}" != --inside ]]; then
  if [[ $(id -u) -eq 0 ]] && unshare -n true 2>/dev/null; then
    exec unshare -n -- "$0" --inside "$@"
  elif unshare -rn true 2>/dev/null; then
    exec unshare -rn -- "$0" --inside "$@"
  fi
  echo "SKIP: cannot make a loopback-only network namespace here"
  exit 77
fi
shift
usemeter=$1 host_c=$2 host_cpp=$3 source_dir=$4
ip link set lo up || exit 1

work=$(mktemp -d "${TMPDIR:-/tmp}/usemeter-cli-test.XXXXXX")
collector_pid=
trap 'stop_collector; rm -rf "$work"' EXIT

mkdir -p "$work/data/statistic"
cat >"$work/data/statistic/enabled_stat_events.xml" <<'EOF'
<?xml version="1.0" encoding="UTF-8"?>
<bag>
  <event type="bag"><name type="string">gui</name></event>
  <event type="bag"><name type="string">analysis_type</name></event>
</bag>
EOF
data=(--data-dir "$work/data")

# ---- harness ----------------------------------------------------------------------------
passed=0 failed=0 case_name= case_ok=1

begin() {
  case_name=$1 case_ok=1
  unset NORVEL_STATISTICS_DISABLE NORVEL_DONOTSEND_FEEDBACK NORVEL_DISABLE_FEEDBACK \
        NORVEL_FORCE_FEEDBACK NORVEL_FORCE_UUID http_proxy no_proxy NO_PROXY all_proxy ALL_PROXY
  HOME=$(mktemp -d "$work/home.XXXXXX")
  export HOME
}
end() {
  stop_collector
  if ((case_ok)); then echo "ok: $case_name"; passed=$((passed + 1)); else failed=$((failed + 1)); fi
}
fail() { echo "FAIL: $case_name: $*"; case_ok=0; }

# Runs the tool; leaves stdout, stderr and the exit status in $out, $err, $rc.
tool() {
  timeout 60 "$usemeter" "$@" >"$work/out" 2>"$work/err"
  rc=$? out=$(cat "$work/out") err=$(cat "$work/err")
}
expect_rc() { [[ "$rc" == "$1" ]] || fail "exit status $rc, expected $1 (stderr: $err)"; }
expect_out() { for s; do [[ "$out" == *"$s"* ]] || fail "stdout lacks: $s"; done; }
expect_err() { for s; do [[ "$err" == *"$s"* ]] || fail "stderr lacks: $s"; done; }
expect_one_line_error() {
  [[ -z "$out" ]] || fail "stdout not empty: $out"
  [[ $(printf '%s\n' "$err" | wc -l) -eq 1 && -n "$err" ]] || fail "stderr is not one line: $err"
}

start_collector() {
  # The redirections below truncate only once the background job runs: a previous
  # collector's "listening" line must not be read in the meantime.
  rm -f "$work/collector.out" "$work/collector.err"
  rm -f "$work/hits.db"*
  "$usemeter" collector --listen 127.0.0.1:0 --store "sqlite:$work/hits.db" --print "$@" \
    >"$work/collector.out" 2>"$work/collector.err" &
  collector_pid=$! port=
  for _ in $(seq 100); do
    port=$(sed -n 's|^listening on http://127.0.0.1:\([0-9]*\)$|\1|p' "$work/collector.out" 2>/dev/null)
    [[ -n "$port" ]] && return 0
    sleep 0.1
  done
  fail "collector did not start: $(cat "$work/collector.err")"
}
stop_collector() {
  collector_rc=
  [[ -n "$collector_pid" ]] || return 0
  kill -TERM "$collector_pid" 2>/dev/null
  wait "$collector_pid"
  collector_rc=$? collector_pid=
}
collected() { cat "$work/collector.out"; }
# Sends a raw request (stdin) to the collector and prints the response's status line.
http_raw() {
  exec 3<>"/dev/tcp/127.0.0.1/$port" || return 1
  cat >&3
  timeout 10 head -n 1 <&3 | tr -d '\r'
  exec 3<&-
}
http_post() {
  printf 'POST /collect HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n'
  printf 'Content-Type: application/x-www-form-urlencoded\r\nContent-Length: %d\r\n\r\n%s' \
         "${#1}" "$1"
}

# ---- bad input --------------------------------------------------------------------------
begin "bad input: one line on stderr, exit status 2"
while IFS='|' read -r want_rc want_err args; do
  read -ra argv <<<"$args"
  tool "${argv[@]}"
  [[ "$rc" == "$want_rc" ]] || fail "usemeter $args: exit status $rc, expected $want_rc"
  [[ "$err" == *"$want_err"* ]] || fail "usemeter $args: stderr '$err' lacks '$want_err'"
  expect_one_line_error
done <<'EOF'
2|missing command|
2|unknown command 'frob'|frob
2|unrecognised option '--bogus'|status --bogus
2|unrecognised option '-x'|report -x run.a
2|missing feature name|report
2|missing feature name|explain --product p
2|unknown consent action 'maybe'|consent maybe
2|unexpected argument 'extra'|status extra
2|the required argument for option '--product' is missing|status --product
2|for option '--answer' is invalid|collector --answer abc
2|--answer must be an HTTP status|collector --answer 42
2|--durability must be normal or full|collector --durability maybe
2|--listen needs a numeric ADDR:PORT|collector --listen localhost:8080
2|--since must be a day YYYY-MM-DD|collector export --store sqlite:x --since 2026-13-01
2|--product-version must be three numbers|status --product-version 1.2
2|--log-config: no such file|status --log-config /nonexistent/log.properties
EOF
end

begin "collector on an occupied port"
start_collector
tool collector --listen "127.0.0.1:$port" --store "sqlite:$work/other.db"
expect_rc 1
expect_err "cannot listen on 127.0.0.1:$port"
expect_one_line_error
end

# ---- status -----------------------------------------------------------------------------
begin "status explains a setup disabled by the environment"
NORVEL_STATISTICS_DISABLE=1 tool status "${data[@]}"
expect_rc 0
expect_out 'NORVEL_STATISTICS_DISABLE="1"' "evsDisabled (3)" "DISABLED: nothing is sent" \
           "Return 'evsDisabled' - NORVEL_STATISTICS_DISABLE is set" \
           "Return 'false' - statistic disabled due to environment variables" \
           "not run: the library does not consult it" "entries             analysis_type, gui"
NORVEL_STATISTICS_DISABLE=1 tool status --json
expect_out '"enabled": false' '"state": "evsDisabled"' '"tested": false'
end

begin "status explains a setup forced on, with its proxy route"
NORVEL_FORCE_FEEDBACK=1 http_proxy=http://127.0.0.1:9 tool status "${data[@]}"
expect_rc 0
expect_out "ENABLED: permitted feature uses are sent" \
           "Return 'true' - statistic forcefully enabled by environment variables" \
           '1.                  "http://127.0.0.1:9" (http_proxy)' \
           "2.                  no explicit proxy" "ucGranted (1)"
NORVEL_FORCE_FEEDBACK=1 tool status --json
expect_out '"enabled": true' '"state": "evsEnabledForced"' '"source": "uuid.xml"'
end

# With the environment silent, consent and the corporate-network test decide. Here the
# resolver is out of reach (nsError) unless the build names a numeric corporate address.
begin "status with consent given follows the corporate-network test"
tool consent yes
expect_rc 0
tool status --json
network=$(sed -n 's/.*"status": "\(ns[A-Za-z]*\)".*/\1/p' <<<"$out")
tool status
expect_out "ucGranted (1): given" "corporate test      $network"
case "$network" in
  nsError) expect_out "Return 'false' - network error" "DISABLED" ;;
  nsExcludedNetwork) expect_out "Return 'false' - excluded network" "DISABLED" ;;
  nsOk) expect_out "ENABLED" ;;
  *) fail "no network status in status --json" ;;
esac
end

begin "status shows an identifier file without an identifier"
mkdir -p "$HOME/norvel/trovix/settings/statistic"
printf '<?xml version="1.0" encoding="UTF-8"?>\n<bag/>\n' \
  >"$HOME/norvel/trovix/settings/statistic/uuid.xml"
NORVEL_FORCE_FEEDBACK=1 tool status
expect_out "(empty: nothing can be sent)" "Return 'false' - empty uuid. reporting disabled" \
           "DISABLED"
end

# ---- explain and consent ----------------------------------------------------------------
begin "explain: whitelisted, run. and dropped names"
export NORVEL_FORCE_FEEDBACK=1 NORVEL_FORCE_UUID=0F1E2D3C-4B5A-4978-8796-A5B4C3D2E1F0
tool explain "${data[@]}" --version 7.1 gui.open.file run.build run.build.more 'a b'
expect_rc 0
body_prefix="v=1&tid=UA-12345678-42&cid=$NORVEL_FORCE_UUID&an=trovix&av=7.1&cd1=posix&cd2="
expect_out 'whitelist entry "gui"' "&t=event&ec=gui&el=open.file&cd3=n" \
           "by the run.<tool> rule" "&t=event&ec=run&el=build&cd3=n" "$body_prefix"
[[ $(grep -c '^  dropped' <<<"$out") == 2 ]] || fail "expected run.build.more and 'a b' dropped"
grep -A1 '^a b$' <<<"$out" | grep -q 'valid name  no' || fail "'a b' not shown as invalid"
end

begin "consent: show, yes, no, and an unwritable home"
tool consent
expect_out "ucUnknown - no answer on record; a host asks the user now"
tool consent yes
expect_rc 0
[[ $(cat "$HOME/norvel/optin") == 1 ]] || fail "consent file does not hold 1"
tool consent no
expect_out "ucRefused"
[[ $(cat "$HOME/norvel/optin") == 0 ]] || fail "consent file does not hold 0"
end

begin "consent: an unwritable home is an error"
echo "a file where the directory belongs" >"$HOME/norvel"
tool consent yes
expect_rc 1
expect_err "could not record the answer"
expect_one_line_error
end

# ---- reporting through the collector ----------------------------------------------------
begin "report delivers before it exits; the collector decodes and stores each hit"
start_collector
export NORVEL_FORCE_FEEDBACK=1 http_proxy="http://127.0.0.1:$port"
tool report "${data[@]}" --version 3.2.1 gui.open.file run.build debug.internal
expect_rc 0
expect_out "gui.open.file: queued as ec=gui el=open.file" "debug.internal: dropped"
# No waiting here: the hits must already be there when report has returned.
out=$(collected)
expect_out "hit 1: POST http://www.google-analytics.com/collect (proxy form)" \
           "  av    3.2.1 " "  ec    gui " "  el    open.file " "  ec    run " "  el    build "
[[ $(grep -c '^hit ' <<<"$out") == 2 ]] || fail "expected exactly 2 hits"
stop_collector
[[ "$collector_rc" == 0 ]] || fail "collector exit status $collector_rc after a clean run"
tool collector export --store "sqlite:$work/hits.db" --since 2000-01-01
expect_rc 0
expect_out "received,tid,cid,an,av,cd1,cd2,cd3,ec,el" ",3.2.1," ",gui,open.file" ",run,build"
cid=$(sed -n '2p' <<<"$out" | cut -d, -f3)
tool collector erase --store "sqlite:$work/hits.db" --cid "$cid"
[[ "$out" == "erased 2 hits" ]] || fail "erase printed '$out'"
end

begin "collector --answer answers every hit and stores nothing"
start_collector --answer 204
status=$(http_post "v=1&tid=UA-1&cid=c&t=event&ec=gui" | http_raw)
[[ "$status" == "HTTP/1.1 204 No Content" ]] || fail "hit answered '$status'"
stop_collector
[[ "$collector_rc" == 0 ]] || fail "collector exit status $collector_rc"
tool collector export --store "sqlite:$work/hits.db"
[[ "$out" == "received,tid,cid,an,av,cd1,cd2,cd3,ec,el" ]] || fail "stored: $out"
end

# ---- the README's examples --------------------------------------------------------------
begin "C example asks for consent and records the answer"
out=$(echo y | timeout 60 "$host_c")
expect_out "Send anonymous usage statistics to help improve mytool? [y/N]"
[[ $(cat "$HOME/norvel/optin" 2>/dev/null) == 1 ]] || fail "consent file does not hold 1"
end

begin "C and C++ examples deliver their hits"
start_collector
export NORVEL_FORCE_FEEDBACK=1 http_proxy="http://127.0.0.1:$port"
timeout 60 "$host_c" </dev/null >/dev/null || fail "C example failed"
timeout 60 "$host_cpp" "$work/data" </dev/null >/dev/null || fail "C++ example failed"
out=$(collected)
expect_out "  an    mytool " "  el    mytool " "  av    2024.1.0 " "  el    trovix " \
           "  ec    analysis_type " "  el    hotspots.begin " "  el    hotspots.end "
[[ $(grep -c '^hit ' <<<"$out") == 4 ]] || fail "expected 4 hits"
end

begin "the documentation quotes the example files unchanged"
shopt -s nullglob
for doc in "$source_dir/README.md" "$source_dir"/docs/*.md; do
  while read -r example; do
    quoted=$(awk -v marker="<!-- example: $example -->" '
      $0 == marker { found = 1; next }
      found && /^```/ { if (inside) exit; inside = 1; next }
      inside { print }' "$doc")
    [[ "$quoted" == "$(cat "$source_dir/$example")" ]] || fail "${doc#"$source_dir"/} misquotes $example"
  done < <(sed -n 's/^<!-- example: \(.*\) -->$/\1/p' "$doc")
done
grep -q '<!-- example: docs/examples/host.c -->' "$source_dir/README.md" &&
  grep -q '<!-- example: docs/examples/host.cpp -->' "$source_dir/README.md" ||
  fail "README.md does not quote both examples"
end

echo "$passed passed, $failed failed"
((failed == 0))
