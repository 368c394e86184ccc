#!/usr/bin/env bash
# A throwaway MIT Kerberos realm on 127.0.0.1 for tests. Commands and files: README.md.
set -euo pipefail
SELF=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)/$(basename "${BASH_SOURCE[0]}")
PATH=$PATH:/usr/sbin:/sbin  # the KDC tools live in sbin, which an unprivileged PATH often lacks
. "$(dirname "$SELF")/realm.defaults"

die() { echo "realm.sh: error: $*" >&2; exit 1; }
usage() { echo "usage: realm.sh start|stop|stop-kdc|start-kdc|kinit|exec|destroy DIR ... (see README.md)" >&2; exit 2; }
canonical() { (cd "$1" 2>/dev/null && pwd -P); }
alive() { local s; read -r s 2>/dev/null <"/proc/$1/stat" && [[ ${s##*) } != Z* ]]; }  # not a zombie either
random_port() { echo $((20000 + (RANDOM * 32768 + RANDOM) % 12000)); }  # below the ephemeral range

# PIDs of live krb5kdc processes started for DIR (their environment names DIR/kdc.conf): a reused PID or
# another realm's KDC is never hit, and a KDC whose pid file was lost is still found.
kdcs_of() {
  local p comm
  for p in /proc/[0-9]*; do
    read -r comm 2>/dev/null <"$p/comm" && [ "$comm" = krb5kdc ] && alive "${p#/proc/}" || continue
    tr '\0' '\n' <"$p/environ" 2>/dev/null | grep -qxF "KRB5_KDC_PROFILE=$1/kdc.conf" && echo "${p#/proc/}"
  done
  return 0
}

# TERM, then KILL after 5 s; fails if one survives.
stop_kdcs() {
  local pids pid= i
  pids=$(kdcs_of "$1")
  [ -z "$pids" ] || kill -TERM $pids 2>/dev/null || true
  for i in $(seq 350); do
    for pid in $pids; do alive "$pid" && break; pid=; done
    [ -n "$pid" ] || break
    [ "$i" -lt 250 ] || kill -KILL $pids 2>/dev/null || true
    sleep 0.02
  done
  rm -f "$1/kdc.pid"
  [ -z "$(kdcs_of "$1")" ] || die "a KDC of $1 survived KILL"
}
stop_watchdog() {
  local pid
  pid=$(cat "$1/watchdog.pid" 2>/dev/null) || return 0
  tr '\0' '\n' <"/proc/$pid/environ" 2>/dev/null | grep -qxF "OSTREL_REALM_WATCHDOG=$1" && kill "$pid" 2>/dev/null
  rm -f "$1/watchdog.pid"
}

# Sockets bound to a port, "TCP-listeners UDP-sockets". The KDC sets SO_REUSEPORT, so a second KDC on a taken port
# starts without error and shares the traffic: any other count than ours means taken.
sockets_on() {
  awk -v p=":$(printf '%04X' "$1")" 'FNR > 1 && substr($2, length($2) - 4) == p {
    if (FILENAME ~ /udp/) u++; else if ($4 == "0A") t++ } END { print t + 0, u + 0 }' /proc/net/{tcp,tcp6,udp,udp6}
}

write_files() {  # DIR REALM PORT MAX_LIFE RENEW_LIFE CLOCKSKEW
  printf '[libdefaults]\n default_realm = %s\n dns_lookup_kdc = false\n dns_lookup_realm = false\n rdns = false\n' "$2" >"$1/krb5.conf"
  printf ' dns_canonicalize_hostname = false\n qualify_shortname = ""\n forwardable = true\n udp_preference_limit = 1\n' >>"$1/krb5.conf"
  printf ' clockskew = %s\n[realms]\n %s = {\n  kdc = 127.0.0.1:%s\n }\n[domain_realm]\n localhost = %s\n' "$6" "$2" "$3" "$2" >>"$1/krb5.conf"
  cat >"$1/kdc.conf" <<EOF
[kdcdefaults]
 kdc_listen = 127.0.0.1:$3
 kdc_tcp_listen = 127.0.0.1:$3
[realms]
 $2 = {
  database_name = $1/principal
  key_stash_file = $1/stash
  acl_file = $1/kadm5.acl
  max_life = $4
  max_renewable_life = $5
  master_key_type = aes256-cts-hmac-sha1-96
  supported_enctypes = aes256-cts-hmac-sha1-96:normal aes128-cts-hmac-sha1-96:normal
 }
[logging]
 kdc = FILE:$1/kdc.log
 default = FILE:$1/kdc.log
EOF
  printf 'REALM=%s\nPORT=%s\n' "$2" "$3" >"$1/realm.state"
  local vars=(KRB5_CONFIG="$1/krb5.conf" KRB5_KDC_PROFILE="$1/kdc.conf" KRB5_KTNAME="FILE:$1/keytab"
    KRB5CCNAME="FILE:$1/ccache" KRB5RCACHEDIR="$1/rcache" OSTREL_REALM="$2" OSTREL_REALM_DIR="$1" OSTREL_KDC_PORT="$3"
    OSTREL_USER1="$USER1" OSTREL_PASS1="$PASS1" OSTREL_USER2="$USER2" OSTREL_PASS2="$PASS2" OSTREL_SPN="$SPN"
    OSTREL_SPN_HOST="$SPN_HOST" OSTREL_SPN_NO_KEY="$SPN_NO_KEY")
  printf '%s\n' "${vars[@]}" >"$1/env"
  printf 'export %q\n' "${vars[@]}" >"$1/env.sh"
}

# Starts the KDC of DIR as a child (never daemon mode); 2 if its port is taken.
launch() {
  local dir=$1 port i
  . "$dir/realm.state"
  port=$PORT
  [ "$(sockets_on "$port")" = "0 0" ] || return 2
  KRB5_CONFIG=$dir/krb5.conf KRB5_KDC_PROFILE=$dir/kdc.conf krb5kdc -n -r "$REALM" </dev/null >"$dir/kdc.out" 2>&1 &
  echo $! >"$dir/kdc.pid"
  for i in $(seq "$((${OSTREL_REALM_START_TIMEOUT:-10} * 100))"); do
    if ! alive "$(cat "$dir/kdc.pid")"; then
      grep -q 'Address already in use' "$dir/kdc.out" "$dir/kdc.log" 2>/dev/null && return 2
      break
    fi
    if grep -q 'commencing operation' "$dir/kdc.log" 2>/dev/null && (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
      [ "$(sockets_on "$port")" = "1 1" ] && return 0
      stop_kdcs "$dir"
      return 2
    fi
    sleep 0.01
  done
  cat "$dir/kdc.out" "$dir/kdc.log" >&2 2>/dev/null
  return 1
}

# On any failure or interruption before success, no KDC is left running; files are kept for diagnosis.
on_failure() {
  local rc=$?
  trap - EXIT
  stop_kdcs "$1" 2>/dev/null || true
  stop_watchdog "$1"
  echo "realm.sh: start failed (status $rc); no KDC left running" >&2
  exit "$rc"
}
arm() {
  trap "on_failure '$1'" EXIT
  trap 'exit 130' INT; trap 'exit 143' TERM; trap 'exit 129' HUP
}

cmd_start() {
  local dir=${1:?DIR} port= realm=$REALM max=10m renew=1h skew=300 watch= replace= rc tries
  shift
  while [ $# -gt 0 ]; do
    case $1 in
      --port) port=$2 ;; --realm) realm=$2 ;; --max-life) max=$2 ;; --renew-life) renew=$2 ;;
      --clockskew) skew=$2 ;; --watch) watch=$2 ;; --replace) replace=1; shift; continue ;;
      *) die "start: unknown option '$1'" ;;
    esac
    shift 2 || die "$1 needs a value"
  done
  [ "$watch" != parent ] || watch=$PPID
  [[ ${port:-1}${watch:-1}$skew =~ ^[0-9]+$ ]] || die "invalid --port, --watch or --clockskew"
  [ -z "$replace" ] || [ ! -e "$dir" ] || cmd_destroy "$dir"
  mkdir -p "$dir" && dir=$(canonical "$dir") || die "cannot create $1"
  [ -z "$(ls -A "$dir")" ] || die "$dir is not empty (use --replace, or realm.sh destroy $dir)"
  arm "$dir"
  mkdir "$dir/rcache"
  write_files "$dir" "$realm" "${port:-${OSTREL_REALM_FIRST_PORT:-$(random_port)}}" "$max" "$renew" "$skew"
  export KRB5_CONFIG=$dir/krb5.conf KRB5_KDC_PROFILE=$dir/kdc.conf
  kdb5_util -r "$realm" create -s -P "$(head -c 18 /dev/urandom | od -An -tx1 | tr -d ' \n')" >/dev/null 2>&1 || die "kdb5_util failed"
  : >"$dir/kadm5.acl"
  kadmin.local -r "$realm" >/dev/null 2>&1 <<EOF
addprinc -pw $PASS1 $USER1
addprinc -pw $PASS2 $USER2
addprinc -randkey $SPN
addprinc -randkey $SPN_HOST
addprinc -randkey $SPN_NO_KEY
ktadd -k $dir/keytab $SPN $SPN_HOST
EOF
  # kadmin.local exits 0 even when a command fails: check the result.
  [ "$(klist -k "$dir/keytab" 2>/dev/null | grep -c "@$realm")" -ge 4 ] || die "the realm's principals or keytab are missing"
  printf '%s %s\n%s %s\n' "$USER1" "$PASS1" "$USER2" "$PASS2" >"$dir/passwords"
  chmod 600 "$dir/passwords" "$dir/keytab" "$dir/stash"
  if [ -n "$watch" ]; then
    [ -d "/proc/$watch" ] || die "--watch: no process $watch"
    OSTREL_REALM_WATCHDOG=$dir bash "$SELF" _watch "$dir" "$watch" </dev/null >>"$dir/watchdog.log" 2>&1 &
    echo $! >"$dir/watchdog.pid"
  fi
  for tries in 1 2 3 4 5 6 7 8; do
    rc=0
    launch "$dir" || rc=$?
    [ $rc = 2 ] && [ -z "$port" ] || break
    write_files "$dir" "$realm" "$(random_port)" "$max" "$renew" "$skew"
  done
  [ $rc != 2 ] || die "port $port on 127.0.0.1 is already in use"
  [ $rc = 0 ] || die "the KDC did not start"
  case ${OSTREL_REALM_FAULT:-} in  # test hooks: fail or stall half-way, with the KDC running
    fail) die "failing on purpose after the KDC started" ;;
    hang) echo "stalling on purpose" >&2; while :; do sleep 0.1; done ;;
  esac
  trap - EXIT
  echo "realm $realm: KDC pid $(cat "$dir/kdc.pid") on 127.0.0.1:$(. "$dir/realm.state"; echo "$PORT"); environment in $dir/env.sh"
}

cmd_destroy() {
  local dir
  dir=$(canonical "$1") || return 0
  [ -z "$(ls -A "$dir")" ] || [ -f "$dir/realm.state" ] || die "$dir is not a realm made by realm.sh: not removing it"
  stop_watchdog "$dir"
  stop_kdcs "$dir"
  rm -rf "$dir"
}

[ $# -ge 2 ] || usage
command=$1
shift
case $command in
  start) cmd_start "$@" ;;
  stop) dir=$(canonical "$1") || exit 0; stop_watchdog "$dir"; stop_kdcs "$dir" ;;
  stop-kdc) dir=$(canonical "$1") || exit 0; stop_kdcs "$dir" ;;
  start-kdc)
    dir=$(canonical "$1") && [ -f "$dir/realm.state" ] || die "no realm at $1"
    [ -z "$(kdcs_of "$dir")" ] || die "the KDC of $dir is already running"
    arm "$dir"
    rc=0; launch "$dir" || rc=$?
    [ $rc != 2 ] || die "its port on 127.0.0.1 is already in use"
    [ $rc = 0 ] || die "the KDC did not start"
    trap - EXIT ;;
  kinit)
    dir=$(canonical "$1") && [ -f "$dir/env.sh" ] || die "no started realm at $1"
    user=$2
    args=()
    password=$(awk -v u="${2%@*}" '$1 == u { print $2 }' "$dir/passwords")
    shift 2
    while [ $# -gt 0 ]; do
      case $1 in
        --lifetime) args+=(-l "$2") ;; --renewable) args+=(-r "$2") ;; --ccache) args+=(-c "$2") ;; --password) password=$2 ;;
        *) die "kinit: unknown option '$1'" ;;
      esac
      shift 2
    done
    . "$dir/env.sh"
    # The cache is the realm's own unless --ccache names one; the password goes through stdin.
    kinit "${args[@]}" "$user" <<<"$password" >/dev/null ;;
  exec) dir=$(canonical "$1") && [ -f "$dir/env.sh" ] || die "no started realm at $1"; shift; . "$dir/env.sh"; exec "$@" ;;
  destroy) cmd_destroy "$1" ;;
  _watch)  # stops the KDC when the watched process is gone
    trap '' INT HUP
    while [ -d "$1" ] && [ -d "/proc/$2" ]; do sleep 0.5; done  # not kill -0: the watched may be another user's
    [ ! -d "$1" ] || { echo "process $2 is gone: stopping the KDC of $1"; stop_kdcs "$1"; rm -f "$1/watchdog.pid"; } ;;
  *) usage ;;
esac
