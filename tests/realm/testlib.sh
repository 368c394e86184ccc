# shellcheck shell=bash
# Helpers for the realm's own tests. Checks here do not rely on realm.sh's own bookkeeping.
export LC_ALL=C
PATH=$PATH:/usr/sbin:/sbin

fail() { echo "FAIL: $*" >&2; exit 1; }
ok() { echo "ok: $*"; }

# Live (not zombie) krb5kdc processes whose environment names DIR's kdc.conf.
kdcs_of() {
  local dir=$1 p
  for p in /proc/[0-9]*; do
    is_live_kdc "${p#/proc/}" || continue
    if tr '\0' '\n' <"$p/environ" 2>/dev/null | grep -qxF "KRB5_KDC_PROFILE=$dir/kdc.conf"; then
      echo "${p#/proc/}"
    fi
  done
}

# Whether PID is still a live krb5kdc, whoever started it. Builtins only: called per process.
is_live_kdc() {
  local pid=$1 comm stat
  read -r comm 2>/dev/null <"/proc/$pid/comm" || return 1
  [ "$comm" = krb5kdc ] || return 1
  read -r stat 2>/dev/null <"/proc/$pid/stat" || return 1
  stat=${stat##*) }
  [ "${stat%% *}" != Z ]
}

run_ok() {
  local out
  out=$("$@" 2>&1) || fail "'$*' failed: $out"
  printf '%s\n' "$out"
}

# CMD must fail and say TEXT.
expect_fail_with() {
  local text=$1 out
  shift
  if out=$("$@" 2>&1); then fail "'$*' succeeded, expected a failure: $out"; fi
  grep -qF -- "$text" <<<"$out" || fail "'$*' failed without saying '$text': $out"
}

# Seconds from start to expiry of the first ticket in a klist listing.
ticket_seconds() {
  local line start end
  line=$(grep -E '^[0-9]{2}/[0-9]{2}/[0-9]{2} ' <<<"$1" | head -n 1)
  [ -n "$line" ] || return 1
  local -a f
  read -r -a f <<<"$line"
  start=$(date -d "${f[0]} ${f[1]}" +%s) && end=$(date -d "${f[2]} ${f[3]}" +%s) || return 1
  echo $((end - start))
}

# Seconds from start to "renew until" of the first ticket in a klist listing.
renew_seconds() {
  local line renew start
  line=$(grep -E '^[0-9]{2}/[0-9]{2}/[0-9]{2} ' <<<"$1" | head -n 1)
  renew=$(grep -m 1 'renew until' <<<"$1" | sed 's/.*renew until //')
  [ -n "$line" ] && [ -n "$renew" ] || return 1
  local -a f
  read -r -a f <<<"$line"
  start=$(date -d "${f[0]} ${f[1]}" +%s) && renew=$(date -d "$renew" +%s) || return 1
  echo $((renew - start))
}

# A lifetime such as 10m, 1h, 90s or 2d in seconds; fails for other forms.
to_seconds() {
  [[ $1 =~ ^([0-9]+)([smhd]?)$ ]] || return 1
  local n=${BASH_REMATCH[1]}
  case ${BASH_REMATCH[2]} in
    m) n=$((n * 60)) ;;
    h) n=$((n * 3600)) ;;
    d) n=$((n * 86400)) ;;
  esac
  echo "$n"
}
