#!/usr/bin/env bash
# Fuzzes the plug-in with the targets of the clang build (cmake --preset clang && cmake --build --preset clang):
# each for SECONDS, one after another, or only the TARGETs named. A target starts from its seeds
# (fuzz/corpus/TARGET) and what its earlier runs kept (build/clang/fuzz/found/TARGET); an input that crashes,
# leaks or hangs it is kept in build/clang/fuzz/failures, its log in build/clang/fuzz/logs, and the run fails.
#
#   scripts/fuzz.sh SECONDS [TARGET...]
#   scripts/fuzz.sh seeds       new Kerberos seed tokens, and the realm files the acceptors need to read them
#                               (fuzz/realm), from a throwaway realm started and stopped here
#
# No target needs a running realm: the acceptors read only the keytab and configuration in fuzz/realm.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/clang
targets=(parameters keys messages siteminder accept_gssapi accept_sspi accept_threadtoken)

usage() { echo "usage: scripts/fuzz.sh SECONDS [TARGET...] | seeds   (targets: ${targets[*]})" >&2; exit 2; }

# Two bytes of the first pass's length, the first pass's token, the second pass's token.
write_seed() {  # FILE FIRST [SECOND], tokens as files
  local n
  n=$(stat -c %s "$2")
  printf "\\x$(printf %02x $((n >> 8)))\\x$(printf %02x $((n & 255)))" >"$1"
  cat "$2" ${3:+"$3"} >>"$1"
}

make_seeds() {
  local work realm mode
  work=$(mktemp -d)
  realm=$work/realm
  # The KDC goes on every way out (realm.sh stops it by its PID); the watchdog stops it even if this shell is
  # killed outright.
  trap "bash tests/realm/realm.sh destroy '$realm' >/dev/null 2>&1 || true; rm -rf '$work'" EXIT
  trap 'exit 130' INT TERM HUP
  # Tickets for ten years and as wide a clock skew: the seeds stay good without a KDC.
  bash tests/realm/realm.sh start "$realm" --max-life 3650d --renew-life 3650d --clockskew 315360000 --watch $$
  # A user with a local account, so that the "SSPI" acceptor can tell its SIDs.
  bash tests/realm/realm.sh exec "$realm" kadmin.local -r OSTREL.TEST -q "addprinc -pw fuzz-Ostrel-pw nobody" >/dev/null
  bash tests/realm/realm.sh kinit "$realm" nobody --password fuzz-Ostrel-pw --lifetime 3650d
  for mode in krb5 krb5-one-way krb5-delegate spnego two-step; do
    bash tests/realm/realm.sh exec "$realm" "$build/negotiate_tokens" "$mode" HTTP/localhost >"$work/$mode.b64"
    head -n 1 "$work/$mode.b64" | base64 -d >"$work/$mode.1"
    tail -n +2 "$work/$mode.b64" | base64 -d >"$work/$mode.2"
    for target in accept_gssapi accept_sspi; do
      mkdir -p "fuzz/corpus/$target"
      write_seed "fuzz/corpus/$target/$mode" "$work/$mode.1" "$work/$mode.2"
    done
  done
  mkdir -p fuzz/corpus/accept_threadtoken fuzz/realm
  cp fuzz/corpus/accept_gssapi/krb5 fuzz/corpus/accept_threadtoken/krb5
  cp "$realm/keytab" "$realm/krb5.conf" fuzz/realm/
  echo "seeds written to fuzz/corpus/accept_*, the realm's keytab and krb5.conf to fuzz/realm"
}

run() {  # TARGET SECONDS
  local target=$1 log=$build/fuzz/logs/$1.log executions cov
  [ -x "$build/fuzz/fuzz_$target" ] || { echo "fuzz.sh: no $build/fuzz/fuzz_$target: build the clang preset" >&2; return 1; }
  mkdir -p "$build/fuzz/found/$target" "$build/fuzz/failures" "$build/fuzz/logs"
  # Trace and assertions on: their formatting of hostile text is fuzzed too.
  if ! OSTREL_TRACE=/dev/null OSTREL_ASSERT=/dev/null "$build/fuzz/fuzz_$target" -max_total_time="$2" -timeout=20 \
      -print_final_stats=1 -artifact_prefix="$build/fuzz/failures/$target-" \
      "$build/fuzz/found/$target" "fuzz/corpus/$target" >"$log" 2>&1; then
    tail -n 40 "$log"
    echo "=== fuzz $target: FAILED; the input is in $build/fuzz/failures, the log in $log"
    return 1
  fi
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  cov=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | grep -oE 'cov: [0-9]+ ft: [0-9]+' || true)
  echo "=== fuzz $target: $2 s, $executions executions, ${cov:-no coverage line}"
}

[ $# -ge 1 ] || usage
if [ "$1" = seeds ]; then
  make_seeds
  exit 0
fi
[[ $1 =~ ^[0-9]+$ ]] || usage
seconds=$1
shift
[ $# -eq 0 ] || targets=("$@")
failed=0
for target in "${targets[@]}"; do
  run "$target" "$seconds" || failed=1
done
exit $failed
