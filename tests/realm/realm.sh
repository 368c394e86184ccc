#!/usr/bin/env bash
# A throwaway MIT Kerberos realm on 127.0.0.1 for tests. Usage: see usage() and README.md.
set -euo pipefail

PROG=realm.sh
SELF=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)/$(basename "${BASH_SOURCE[0]}")
# The KDC tools live in sbin, which an unprivileged user's PATH often lacks.
PATH=$PATH:/usr/sbin:/sbin

# Fixed names and passwords, shared with the build files so tests can name them.
# shellcheck source=realm.defaults
. "$(dirname "$SELF")/realm.defaults"
DEFAULT_REALM=$REALM
SPN_HTTP=$SPN

START_TIMEOUT=${OSTREL_REALM_START_TIMEOUT:-10}
STOP_TIMEOUT=5

usage() {
  cat <<EOF
usage: $PROG start DIR [--port N] [--realm NAME] [--max-life 10m] [--renew-life 1h]
                       [--clockskew 300] [--watch PID|parent] [--replace]
       $PROG stop DIR          stop the KDC (and its watchdog); idempotent
       $PROG stop-kdc DIR      stop only the KDC, keep the realm
       $PROG start-kdc DIR     start the KDC of an existing realm again
       $PROG kinit DIR USER [--lifetime 2m] [--renewable 10m] [--ccache FILE] [--password PW]
       $PROG exec DIR CMD [ARG...]   run CMD with the realm's environment
       $PROG destroy DIR       stop, then remove DIR
EOF
}

die() { echo "$PROG: error: $*" >&2; exit 1; }
note() { echo "$PROG: $*" >&2; }

need_tools() {
  local t missing=()
  for t in "$@"; do command -v "$t" >/dev/null 2>&1 || missing+=("$t"); done
  [ ${#missing[@]} -eq 0 ] ||
    die "missing ${missing[*]}: install krb5-kdc krb5-admin-server krb5-user (scripts/install-packages.sh)"
}

# Absolute, symlink-free path, so that the KDC's environment can be matched later.
canonical_dir() { (cd "$1" 2>/dev/null && pwd -P); }

# Alive and not a zombie: a reaped-late KDC must not count as running.
proc_alive() {
  local pid=$1 stat
  [ -n "$pid" ] || return 1
  if [ -r "/proc/$pid/stat" ]; then
    read -r stat 2>/dev/null <"/proc/$pid/stat" || return 1
    stat=${stat##*) }
    [ "${stat%% *}" != Z ]
  else
    kill -0 "$pid" 2>/dev/null
  fi
}

# Whether PID is a process started for DIR: NAME=VALUE in its initial environment.
proc_has_env() {
  local pid=$1 want=$2 entries e
  [ -r "/proc/$pid/environ" ] || return 1
  mapfile -d '' entries 2>/dev/null <"/proc/$pid/environ" || return 1
  for e in "${entries[@]}"; do [ "$e" = "$want" ] && return 0; done
  return 1
}

# A recorded PID is only trusted if it is still the KDC of this realm (PIDs get reused).
is_realm_kdc() {
  local pid=$1 dir=$2 comm
  proc_alive "$pid" || return 1
  read -r comm 2>/dev/null <"/proc/$pid/comm" || return 1
  [ "$comm" = krb5kdc ] && proc_has_env "$pid" "KRB5_KDC_PROFILE=$dir/kdc.conf"
}

is_realm_watchdog() {
  proc_alive "$1" && proc_has_env "$1" "OSTREL_REALM_WATCHDOG=$2"
}

# Every KDC of this realm, recorded or not (a lost pid file must not hide one).
realm_kdc_pids() {
  local dir=$1 p pid comm
  for p in /proc/[0-9]*; do
    pid=${p#/proc/}
    read -r comm 2>/dev/null <"$p/comm" || continue
    [ "$comm" = krb5kdc ] || continue
    proc_alive "$pid" && proc_has_env "$pid" "KRB5_KDC_PROFILE=$dir/kdc.conf" && echo "$pid"
  done
  return 0
}

wait_gone() {
  local pid=$1 check=$2 dir=$3 deadline=$((SECONDS + $4))
  while "$check" "$pid" "$dir"; do
    [ $SECONDS -lt "$deadline" ] || return 1
    sleep 0.02
  done
}

terminate() {
  local pid=$1 check=$2 dir=$3 what=$4
  "$check" "$pid" "$dir" || return 0
  kill -TERM "$pid" 2>/dev/null || true
  wait_gone "$pid" "$check" "$dir" "$STOP_TIMEOUT" && return 0
  note "$what $pid ignored TERM for ${STOP_TIMEOUT}s; killing it"
  kill -KILL "$pid" 2>/dev/null || true
  wait_gone "$pid" "$check" "$dir" 2 || die "$what $pid is still running after KILL"
}

stop_kdc() {
  local dir=$1 pid
  if [ -f "$dir/kdc.pid" ]; then
    read -r pid <"$dir/kdc.pid" || pid=
    [ -z "$pid" ] || terminate "$pid" is_realm_kdc "$dir" KDC
  fi
  for pid in $(realm_kdc_pids "$dir"); do
    terminate "$pid" is_realm_kdc "$dir" KDC
  done
  rm -f "$dir/kdc.pid"
}

stop_watchdog() {
  local dir=$1 pid
  [ -f "$dir/watchdog.pid" ] || return 0
  read -r pid <"$dir/watchdog.pid" || pid=
  [ -z "$pid" ] || [ "$pid" = "$$" ] || terminate "$pid" is_realm_watchdog "$dir" watchdog
  rm -f "$dir/watchdog.pid"
}

load_state() {
  local dir=$1
  [ -f "$dir/realm.state" ] || die "$dir is not a realm made by $PROG (no realm.state)"
  # shellcheck disable=SC1091
  . "$dir/realm.state"
}

write_configs() {
  local dir=$1 realm=$2 port=$3 max_life=$4 renew_life=$5 clockskew=$6
  cat >"$dir/krb5.conf" <<EOF
[libdefaults]
    default_realm = $realm
    dns_lookup_kdc = false
    dns_lookup_realm = false
    dns_canonicalize_hostname = false
    rdns = false
    qualify_shortname = ""
    forwardable = true
    udp_preference_limit = 1
    clockskew = $clockskew

[realms]
    $realm = {
        kdc = 127.0.0.1:$port
    }

[domain_realm]
    localhost = $realm
EOF
  cat >"$dir/kdc.conf" <<EOF
[kdcdefaults]
    kdc_listen = 127.0.0.1:$port
    kdc_tcp_listen = 127.0.0.1:$port

[realms]
    $realm = {
        database_name = $dir/principal
        key_stash_file = $dir/stash
        acl_file = $dir/kadm5.acl
        max_life = $max_life
        max_renewable_life = $renew_life
        master_key_type = aes256-cts-hmac-sha1-96
        supported_enctypes = aes256-cts-hmac-sha1-96:normal aes128-cts-hmac-sha1-96:normal
    }

[logging]
    kdc = FILE:$dir/kdc.log
    admin_server = FILE:$dir/kadmin.log
    default = FILE:$dir/kdc.log
EOF
  cat >"$dir/realm.state" <<EOF
REALM=$realm
PORT=$port
EOF
}

write_env() {
  local dir=$1 realm=$2 port=$3 name value
  local -a vars=(
    KRB5_CONFIG "$dir/krb5.conf"
    KRB5_KDC_PROFILE "$dir/kdc.conf"
    KRB5_KTNAME "FILE:$dir/keytab"
    KRB5CCNAME "FILE:$dir/ccache"
    KRB5RCACHEDIR "$dir/rcache"
    OSTREL_REALM "$realm"
    OSTREL_REALM_DIR "$dir"
    OSTREL_KDC_PORT "$port"
    OSTREL_USER1 "$USER1"
    OSTREL_PASS1 "$PASS1"
    OSTREL_USER2 "$USER2"
    OSTREL_PASS2 "$PASS2"
    OSTREL_SPN "$SPN_HTTP"
    OSTREL_SPN_HOST "$SPN_HOST"
    OSTREL_SPN_NO_KEY "$SPN_NO_KEY"
  )
  : >"$dir/env.sh.tmp"
  : >"$dir/env.tmp"
  set -- "${vars[@]}"
  while [ $# -gt 0 ]; do
    name=$1 value=$2
    shift 2
    printf 'export %s=%q\n' "$name" "$value" >>"$dir/env.sh.tmp"
    printf '%s=%s\n' "$name" "$value" >>"$dir/env.tmp"
  done
  mv "$dir/env.tmp" "$dir/env"
  mv "$dir/env.sh.tmp" "$dir/env.sh"
}

create_database() {
  local dir=$1 realm=$2 master out
  master=$(head -c 18 /dev/urandom | od -An -tx1 | tr -d ' \n')
  out=$(kdb5_util -r "$realm" create -s -P "$master" 2>&1) ||
    die "kdb5_util create failed: $out"
  : >"$dir/kadm5.acl"
  out=$(kadmin.local -r "$realm" 2>&1 <<EOF
addprinc -pw $PASS1 $USER1
addprinc -pw $PASS2 $USER2
addprinc -randkey $SPN_HTTP
addprinc -randkey $SPN_HOST
addprinc -randkey $SPN_NO_KEY
ktadd -k $dir/keytab $SPN_HTTP $SPN_HOST
EOF
  ) || die "kadmin.local failed: $out"
  # kadmin.local exits 0 even when a command fails: check the result instead.
  local princs keys p
  princs=$(kadmin.local -r "$realm" -q listprincs 2>/dev/null)
  for p in "$USER1" "$USER2" "$SPN_HTTP" "$SPN_HOST" "$SPN_NO_KEY"; do
    grep -qxF "$p@$realm" <<<"$princs" || die "principal $p@$realm was not created: $out"
  done
  keys=$(klist -k "FILE:$dir/keytab" 2>&1) || die "no keytab written: $keys"
  for p in "$SPN_HTTP" "$SPN_HOST"; do
    grep -qF " $p@$realm" <<<"$keys" || die "keytab lacks $p@$realm: $keys"
  done
  printf '%s %s\n%s %s\n' "$USER1" "$PASS1" "$USER2" "$PASS2" >"$dir/passwords"
  chmod 600 "$dir/passwords" "$dir/keytab" "$dir/stash"
}

# Sockets bound to PORT: "TCP-listeners UDP-sockets". The KDC sets SO_REUSEPORT, so a
# second KDC on a taken port starts without error and the kernel splits the traffic.
port_sockets() {
  local hex files=() f
  hex=$(printf '%04X' "$1")
  for f in /proc/net/tcp /proc/net/tcp6 /proc/net/udp /proc/net/udp6; do
    [ -r "$f" ] && files+=("$f")
  done
  [ ${#files[@]} -gt 0 ] || return 1
  awk -v p=":$hex" '
    FNR > 1 && substr($2, length($2) - 4) == p {
      if (FILENAME ~ /udp/) u++; else if ($4 == "0A") t++
    }
    END { print t + 0, u + 0 }' "${files[@]}"
}

port_in_use() {
  local counts
  if counts=$(port_sockets "$1"); then
    [ "$counts" != "0 0" ]
  else
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
  fi
}

# Below Linux's default ephemeral range, so outgoing connections do not collide.
random_port() {
  local p
  for _ in $(seq 1 50); do
    p=$((20000 + (RANDOM * 32768 + RANDOM) % 12000))
    port_in_use "$p" || { echo "$p"; return 0; }
  done
  die "found no free port on 127.0.0.1"
}

# Starts the KDC as a child (never daemon mode) and records its PID.
# Returns 2 if the port was taken, so a caller that picked it can try another.
launch_kdc() {
  local dir=$1 realm=$2 port=$3 pid deadline
  ! port_in_use "$port" || return 2
  : >"$dir/kdc.log"
  KRB5_CONFIG=$dir/krb5.conf KRB5_KDC_PROFILE=$dir/kdc.conf \
    krb5kdc -n -r "$realm" </dev/null >"$dir/kdc.out" 2>&1 &
  pid=$!
  KDC_PID=$pid
  echo "$pid" >"$dir/kdc.pid"
  deadline=$((SECONDS + START_TIMEOUT))
  while :; do
    if ! proc_alive "$pid"; then
      wait "$pid" 2>/dev/null || true
      KDC_PID=
      rm -f "$dir/kdc.pid"
      if grep -q 'Address already in use' "$dir/kdc.log" "$dir/kdc.out" 2>/dev/null; then
        return 2
      fi
      note "the KDC exited during start-up; its log:"
      cat "$dir/kdc.out" "$dir/kdc.log" >&2 || true
      return 1
    fi
    if grep -q 'commencing operation' "$dir/kdc.log" 2>/dev/null &&
       (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
      local counts
      if counts=$(port_sockets "$port") && [ "$counts" != "1 1" ]; then
        note "another process shares 127.0.0.1:$port (TCP listeners, UDP sockets: $counts)"
        terminate "$pid" is_realm_kdc "$dir" KDC
        wait "$pid" 2>/dev/null || true
        KDC_PID=
        rm -f "$dir/kdc.pid"
        return 2
      fi
      return 0
    fi
    if [ $SECONDS -ge "$deadline" ]; then
      note "the KDC (pid $pid) did not accept on 127.0.0.1:$port within ${START_TIMEOUT}s; its log:"
      cat "$dir/kdc.out" "$dir/kdc.log" >&2 || true
      return 1
    fi
    sleep 0.01
  done
}

# On any failure or interruption before success, leave nothing running.
KDC_PID=
WATCH_PID=
STARTED_OK=0
START_DIR=
on_start_exit() {
  local rc=$?
  [ "$STARTED_OK" = 1 ] && return 0
  if [ -n "$START_DIR" ]; then
    if [ -n "$KDC_PID" ]; then
      kill -TERM "$KDC_PID" 2>/dev/null || true
      wait "$KDC_PID" 2>/dev/null || true
    fi
    stop_kdc "$START_DIR" 2>/dev/null || true
    stop_watchdog "$START_DIR" 2>/dev/null || true
    note "start failed (status $rc); no KDC left running; files kept in $START_DIR"
  fi
  exit "$rc"
}
arm_start_trap() {
  trap on_start_exit EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
  trap 'exit 129' HUP
}

cmd_start() {
  [ $# -ge 1 ] || { usage >&2; exit 2; }
  local dir=$1 port="" realm=$DEFAULT_REALM max_life=10m renew_life=1h clockskew=300
  local watch="" replace=0
  shift
  while [ $# -gt 0 ]; do
    case $1 in
      --port) port=${2:?--port needs a value}; shift 2 ;;
      --realm) realm=${2:?--realm needs a value}; shift 2 ;;
      --max-life) max_life=${2:?--max-life needs a value}; shift 2 ;;
      --renew-life) renew_life=${2:?--renew-life needs a value}; shift 2 ;;
      --clockskew) clockskew=${2:?--clockskew needs a value}; shift 2 ;;
      --watch) watch=${2:?--watch needs a PID or 'parent'}; shift 2 ;;
      --replace) replace=1; shift ;;
      *) die "start: unknown option '$1'" ;;
    esac
  done
  [ "$watch" != parent ] || watch=$PPID
  [ -z "$port" ] || [[ $port =~ ^[0-9]+$ && $port -gt 0 && $port -lt 65536 ]] ||
    die "invalid port '$port'"
  [ -z "$watch" ] || [[ $watch =~ ^[0-9]+$ ]] || die "invalid --watch '$watch'"
  [[ $clockskew =~ ^[0-9]+$ ]] || die "invalid clockskew '$clockskew'"
  need_tools krb5kdc kdb5_util kadmin.local klist

  if [ "$replace" = 1 ] && [ -e "$dir" ]; then
    cmd_destroy "$dir"
  fi
  mkdir -p "$dir" || die "cannot create $dir"
  dir=$(canonical_dir "$dir") || die "cannot enter $1"
  [ -z "$(ls -A "$dir")" ] || die "$dir is not empty (use --replace, or $PROG destroy $dir)"

  START_DIR=$dir
  arm_start_trap
  umask 022
  mkdir "$dir/rcache"
  export KRB5_CONFIG=$dir/krb5.conf KRB5_KDC_PROFILE=$dir/kdc.conf

  local fixed_port=$port
  [ -n "$port" ] || port=${OSTREL_REALM_FIRST_PORT:-$(random_port)}
  write_configs "$dir" "$realm" "$port" "$max_life" "$renew_life" "$clockskew"
  create_database "$dir" "$realm"

  if [ -n "$watch" ]; then
    proc_alive "$watch" || die "--watch: no process $watch"
    OSTREL_REALM_WATCHDOG=$dir bash "$SELF" _watch "$dir" "$watch" \
      </dev/null >>"$dir/watchdog.log" 2>&1 &
    WATCH_PID=$!
    echo "$WATCH_PID" >"$dir/watchdog.pid"
  fi

  local attempt rc
  for attempt in 1 2 3 4 5 6 7 8; do
    rc=0
    launch_kdc "$dir" "$realm" "$port" || rc=$?
    [ $rc -eq 0 ] && break
    if [ $rc -eq 2 ] && [ -z "$fixed_port" ] && [ $attempt -lt 8 ]; then
      note "port $port is taken; trying another"
      port=$(random_port)
      write_configs "$dir" "$realm" "$port" "$max_life" "$renew_life" "$clockskew"
      continue
    fi
    [ $rc -eq 2 ] && die "port $port on 127.0.0.1 is already in use"
    die "the KDC did not start"
  done
  # Test hooks: fail or stall half-way, with the KDC running.
  case ${OSTREL_REALM_FAULT:-} in
    after-kdc) die "failing on purpose after the KDC started (OSTREL_REALM_FAULT)" ;;
    hang-after-kdc) note "stalling on purpose after the KDC started (OSTREL_REALM_FAULT)"
                    while :; do sleep 0.1; done ;;
  esac

  write_env "$dir" "$realm" "$port"
  STARTED_OK=1
  echo "realm $realm: KDC pid $KDC_PID on 127.0.0.1:$port; environment in $dir/env.sh"
}

cmd_watch() {
  local dir=$1 owner=$2
  trap '' INT HUP
  while [ -d "$dir" ] && proc_alive "$owner"; do
    sleep 0.5
  done
  if [ -d "$dir" ]; then
    echo "$(date '+%F %T') process $owner is gone: stopping the KDC of $dir"
    stop_kdc "$dir"
    rm -f "$dir/watchdog.pid"
  fi
}

cmd_start_kdc() {
  [ $# -eq 1 ] || { usage >&2; exit 2; }
  local dir pid
  dir=$(canonical_dir "$1") || die "no realm at $1"
  local REALM PORT
  load_state "$dir"
  need_tools krb5kdc
  for pid in $(realm_kdc_pids "$dir"); do die "the KDC of $dir is already running (pid $pid)"; done
  START_DIR=$dir
  arm_start_trap
  local rc=0
  launch_kdc "$dir" "$REALM" "$PORT" || rc=$?
  [ $rc -ne 2 ] || die "port $PORT on 127.0.0.1 is already in use"
  [ $rc -eq 0 ] || die "the KDC did not start"
  STARTED_OK=1
  echo "realm $REALM: KDC pid $KDC_PID on 127.0.0.1:$PORT"
}

cmd_stop_kdc() {
  [ $# -eq 1 ] || { usage >&2; exit 2; }
  local dir
  dir=$(canonical_dir "$1") || { note "no realm at $1: nothing to stop"; return 0; }
  stop_kdc "$dir"
}

cmd_stop() {
  [ $# -eq 1 ] || { usage >&2; exit 2; }
  local dir
  dir=$(canonical_dir "$1") || { note "no realm at $1: nothing to stop"; return 0; }
  # The watchdog first, so it cannot race the stop.
  stop_watchdog "$dir"
  stop_kdc "$dir"
}

cmd_destroy() {
  [ $# -eq 1 ] || { usage >&2; exit 2; }
  local dir
  dir=$(canonical_dir "$1") || return 0
  # Never remove a directory this script did not make.
  if [ -n "$(ls -A "$dir")" ] && [ ! -f "$dir/realm.state" ]; then
    die "$dir is not a realm made by $PROG (no realm.state): not removing it"
  fi
  cmd_stop "$dir"
  rm -rf "$dir"
}

cmd_kinit() {
  [ $# -ge 2 ] || { usage >&2; exit 2; }
  local dir user=$2 lifetime="" renewable="" ccache="" password="" have_password=0
  dir=$(canonical_dir "$1") || die "no realm at $1"
  shift 2
  while [ $# -gt 0 ]; do
    case $1 in
      --lifetime) lifetime=${2:?--lifetime needs a value}; shift 2 ;;
      --renewable) renewable=${2:?--renewable needs a value}; shift 2 ;;
      --ccache) ccache=${2:?--ccache needs a value}; shift 2 ;;
      --password) password=${2?--password needs a value}; have_password=1; shift 2 ;;
      *) die "kinit: unknown option '$1'" ;;
    esac
  done
  [ -f "$dir/env.sh" ] || die "$dir has no env.sh: was the realm started?"
  need_tools kinit
  # shellcheck disable=SC1091
  . "$dir/env.sh"
  if [ "$have_password" = 0 ]; then
    local name=${user%@*} u p
    while read -r u p; do
      [ "$u" = "$name" ] && { password=$p; have_password=1; break; }
    done <"$dir/passwords"
    [ "$have_password" = 1 ] || die "no password known for '$user' (see $dir/passwords)"
  fi
  local -a args=()
  [ -z "$lifetime" ] || args+=(-l "$lifetime")
  [ -z "$renewable" ] || args+=(-r "$renewable")
  [ -z "$ccache" ] || args+=(-c "$ccache")
  # kinit reads the password from stdin when it is not a terminal; the prompt goes to stdout.
  kinit "${args[@]}" "$user" <<<"$password" >/dev/null
}

cmd_exec() {
  [ $# -ge 2 ] || { usage >&2; exit 2; }
  local dir
  dir=$(canonical_dir "$1") || die "no realm at $1"
  [ -f "$dir/env.sh" ] || die "$dir has no env.sh: was the realm started?"
  shift
  # shellcheck disable=SC1091
  . "$dir/env.sh"
  exec "$@"
}

[ $# -ge 1 ] || { usage >&2; exit 2; }
command=$1
shift
case $command in
  start) cmd_start "$@" ;;
  stop) cmd_stop "$@" ;;
  stop-kdc) cmd_stop_kdc "$@" ;;
  start-kdc) cmd_start_kdc "$@" ;;
  kinit) cmd_kinit "$@" ;;
  exec) cmd_exec "$@" ;;
  destroy) cmd_destroy "$@" ;;
  _watch) cmd_watch "$@" ;;
  -h|--help|help) usage ;;
  *) usage >&2; die "unknown command '$command'" ;;
esac
