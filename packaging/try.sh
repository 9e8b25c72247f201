#!/usr/bin/env bash
# Installs the packages on a fresh Debian, a directory that systemd-nspawn boots, and works with them
# as a person does who logs in there. Every step is checked; the first that does not do what it
# should ends it with status 1 and the machine's journal.
# usage: try.sh DIRECTORY-OF-PACKAGES
set -euo pipefail

packages=$(readlink -f "${1:?usage: try.sh DIRECTORY-OF-PACKAGES}")
base=$packages/bookworm.tar
machine=$packages/machine
console=$packages/console.log
nspawn_id= leader=

skip() {
  printf 'try: skipped: %s\n' "$*"
  exit 0
}
fail() {
  printf 'try: FAILED: %s\n' "$*" >&2
  exit 1
}
headline() { printf '\n── %s\n' "$*"; }
check() {
  local what=$1
  shift
  "$@" || fail "$what"
  printf '  ✓ %s\n' "$what"
}
wait_until() {
  local what=$1 deadline=$((SECONDS + 60))
  shift
  until "$@"; do
    ((SECONDS < deadline)) || fail "waited for this in vain: $what"
    sleep 0.2
  done
}

clean_up() {
  local status=$?
  if [[ -n $leader && $status != 0 ]]; then
    printf '\nThe journal of the machine:\n' >&2
    as_root journalctl --no-pager --lines 80 >&2 || true
  fi
  [[ -z $nspawn_id ]] || kill -KILL "$nspawn_id" 2>/dev/null || true
  [[ -z $nspawn_id ]] || wait "$nspawn_id" 2>/dev/null || true
  rm -rf "$machine"
}

# Without a service manager on this machine there is nobody to register with, and the machine stays
# in this script's own control group. The system calls are those of a watch over files.
boot() {
  local deadline=$((SECONDS + 120)) state=
  systemd-nspawn --directory "$machine" --boot --quiet --machine docsource-try --register no \
    --keep-unit --system-call-filter='fanotify_init fanotify_mark open_by_handle_at' \
    </dev/null >>"$console" 2>&1 &
  nspawn_id=$!
  until [[ $state == running || $state == degraded ]]; do
    kill -0 "$nspawn_id" 2>/dev/null || fail "the machine does not boot: $(tail -n 3 "$console")"
    ((SECONDS < deadline)) || fail "the machine does not come up ($state)"
    sleep 0.5
    leader=$(cat "/proc/$nspawn_id/task/$nspawn_id/children")
    leader=${leader%% *}
    [[ -z $leader ]] || state=$(as_root systemctl is-system-running 2>/dev/null) || true
  done
  printf '  the machine is %s\n' "$state"
}
shut_down() {
  as_root systemctl poweroff
  wait "$nspawn_id" || true
  nspawn_id= leader=
}

clean=(env --ignore-environment PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8)
as_root() { nsenter --target "$leader" --all -- "${clean[@]}" "$@"; }
# In a session of the user's own, as a login makes it.
as_user() {
  as_root systemd-run --quiet --pipe --wait --collect --property=PAMName=login \
    --property=User=alice --property=WorkingDirectory=/home/alice -- bash -c "$1"
}
show() {
  local line
  printf '  $ %s\n' "$1"
  output=$(as_user "$1" 2>&1) || fail "it ended with status $?: $output"
  [[ -n $output ]] || return 0
  while IFS= read -r line; do printf '    %s\n' "$line"; done <<<"$output"
}
unit_is_active() { [[ $(as_root systemctl is-active "$1") == active ]]; }
user_unit_is_active() { [[ $(as_user "systemctl --user is-active $1") == active ]]; }
coordination_is() { [[ $(as_root cat /run/docsource/coordination) == "$1" ]]; }
status_is() { as_user "docsource status '$1'" | grep -q "^$2 "; }
reads_as_original() { as_user "cmp ~/DocSource/letters/$1 ~/elsewhere/$1"; }
refuses_to_open() { as_user "! cat ~/DocSource/letters/$1 >/dev/null 2>&1"; }
arrived() { as_user "grep -qx '$1' ~/elsewhere/letter.txt"; }
account_is_well() { as_user 'docsource accounts --json 2>&1' | grep -q '"state": "ok"'; }
evict() {
  show "docsource evict ~/DocSource/letters/$1"
  check 'its content is not here any more' status_is "/home/alice/DocSource/letters/$1" placeholder
}

((EUID == 0)) || skip 'only root can boot a machine'
for program in mmdebstrap systemd-nspawn nsenter; do
  command -v "$program" >/dev/null || skip "there is no $program"
done
unshare --mount --pid --fork true 2>/dev/null || skip 'no namespaces can be made here'

headline 'A fresh Debian'
if [[ ! -e $base ]]; then
  mmdebstrap --quiet --variant=apt --format=tar \
    --include=systemd-sysv,libpam-systemd,dbus,dbus-user-session,bash,procps bookworm "$base.new" ||
    skip 'no Debian could be made: is a mirror reachable?'
  mv "$base.new" "$base"
fi
trap clean_up EXIT
trap 'exit 130' INT TERM
rm -rf "$machine"
mkdir -p "$machine"
tar --extract --directory "$machine" --file "$base"
cp "$packages"/*.deb "$machine/root/"
: >"$console"
boot

headline 'A user logs in'
as_root useradd --create-home --shell /bin/bash alice
as_root loginctl enable-linger alice
as_user 'mkdir elsewhere && echo "Dear diary, today I was installed." >elsewhere/letter.txt &&
  head -c 3000000 /dev/urandom >elsewhere/picture.jpg && mkdir elsewhere/notes &&
  for i in {1..60}; do seq -f "note $i, %g" 3000 >elsewhere/notes/$i.txt; done'

headline 'The packages are installed'
install() {
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install --quiet=2 --yes --no-install-recommends "$@" </dev/null 2>&1
}
as_root apt-get update --quiet=2
mapfile -t ours < <(cd "$packages" && ls -- docsource_*.deb libdocsource1_*.deb | sed 's|^|/root/|')
install "${ours[@]}" | grep -v '^(Reading\|^Selecting\|npacking\|^Preparing' | sed 's/^/    /'
as_root systemctl status --no-pager --lines=5 platformd.service | sed 's/^/    /'
as_user 'systemctl --user status --no-pager --lines=5 docsourced.service' | sed 's/^/    /'
for unit in platformd.service platformd-coordination.socket platformd-sandbox.socket; do
  check "$unit is active" unit_is_active "$unit"
done
check 'docsourced.service of the user is active' user_unit_is_active docsourced.service
check 'every program is coordinated' coordination_is access
check 'a desktop would be notified' test "$(as_root systemctl --global is-enabled docsource-notify.service)" = enabled

headline 'An account is added, and its documents are read'
show 'docsource add folder letters ~/elsewhere'
check 'the documents are there' as_user 'test -e ~/DocSource/letters/picture.jpg'
show 'docsource status ~/DocSource/letters'
check 'they are placeholders' status_is /home/alice/DocSource/letters/picture.jpg placeholder
show 'cat ~/DocSource/letters/letter.txt'
check 'cat got the document' test "$output" = 'Dear diary, today I was installed.'
check 'and cmp the other one' reads_as_original picture.jpg

headline 'It is edited'
show 'echo "I was edited." >>~/DocSource/letters/letter.txt'
wait_until 'the edit arrives' arrived 'I was edited.'
show 'cat ~/elsewhere/letter.txt'
show 'docsource sync letters'
show 'docsource doctor'

headline 'Programs in Python ask too'
install "/root/$(cd "$packages" && ls -- python3-docsource_*.deb)" >"$packages/python.log" || fail "$(<"$packages/python.log")"
evict letter.txt
show "python3 -c 'import docsource, os
print(docsource.Client().open(os.path.expanduser(\"~/DocSource/letters/letter.txt\")).read().decode(), end=\"\")'"
check 'Python got the document' test "$(tail -n 1 <<<"$output")" = 'I was edited.'

headline 'The packages are upgraded while documents are read'
install --reinstall "${ours[@]}" >"$packages/upgrade.log" 2>&1 &
upgrade_id=$!
# Each for the first time. It may fail, and is read again then; it is never something else.
as_user 'refused=0
  for i in {1..60}; do
    until content=$(cat ~/DocSource/letters/notes/$i.txt 2>/dev/null && echo .); do
      refused=$((refused + 1)) && sleep 0.2
    done
    [ "$content" = "$(cat ~/elsewhere/notes/$i.txt && echo .)" ] || exit 1
    sleep 0.1
  done 2>/dev/null
  echo "  60 documents were read, after $refused refusals"' ||
  fail 'a document was read wrong during the upgrade'
wait "$upgrade_id" || fail "the upgrade failed: $(<"$packages/upgrade.log")"
check 'platformd.service is active' unit_is_active platformd.service
wait_until 'docsourced.service of the user is active' user_unit_is_active docsourced.service

headline 'The machine is restarted'
wait_until 'the account is ready' account_is_well
as_user 'docsource evict ~/DocSource/letters >/dev/null'
check 'the content of the letter is not here' \
  status_is /home/alice/DocSource/letters/letter.txt placeholder
shut_down
boot
check 'platformd.service is active' unit_is_active platformd.service
show 'cat ~/DocSource/letters/letter.txt'
check 'cat got the document' test "$(tail -n 1 <<<"$output")" = 'I was edited.'
check 'and cmp the other one' reads_as_original picture.jpg

# As on a kernel without FAN_PRE_ACCESS, and as without the capability to watch at all.
limit() {
  as_root mkdir -p /run/systemd/system/platformd.service.d
  as_root sh -c "printf '[Service]\n%s\n' '$1' >/run/systemd/system/platformd.service.d/limit.conf"
  as_root systemctl daemon-reload
  as_root systemctl restart platformd.service
}
headline 'On a kernel that tells of opening only'
limit 'Environment=DOCSOURCE_COORDINATION=open'
check 'so it is' coordination_is open
wait_until 'the account is ready' account_is_well
evict picture.jpg
check 'cmp got the document' reads_as_original picture.jpg

headline 'On a machine where nobody may watch files'
limit 'CapabilityBoundingSet=~CAP_SYS_ADMIN'
check 'programs have to ask' coordination_is cooperative
wait_until 'the account is ready' account_is_well
evict picture.jpg
check 'cat is refused, and gets no zeros' refuses_to_open picture.jpg
show 'docsource get ~/DocSource/letters/picture.jpg'
check 'then cmp got the document' reads_as_original picture.jpg
evict picture.jpg

headline 'Where somebody may again'
limit ''
check 'every program is coordinated' coordination_is access
show 'docsource get ~/DocSource/letters/picture.jpg'
evict picture.jpg
check 'cmp got the document by itself' reads_as_original picture.jpg
evict picture.jpg

headline 'What is wrong is said'
says() {
  local line
  line=$(as_user '! docsource doctor' | grep "$1") && printf '    %s\n' "$line"
}
limit 'ExecStartPre=/bin/false' || true
wait_until 'of a service that failed' says '^wrong  platformd.service: It failed'
as_root systemctl reset-failed platformd.service
limit ''
as_user 'systemctl --user mask --now --runtime docsourced.service docsourced.socket'
wait_until 'of one that nobody starts' says '^note   docsourced.service: It is masked'
as_user 'systemctl --user unmask --runtime docsourced.service docsourced.socket
  systemctl --user start docsourced.socket docsourced.service'
as_user 'mv elsewhere away && ! docsource sync letters >/dev/null'
wait_until 'of an account whose documents are away' says '^wrong  account letters: It is offline'
as_user 'mv away elsewhere && docsource sync letters'
show 'docsource doctor'

headline 'The account and the packages are removed'
if as_root apt-get remove --quiet=2 --yes docsource >"$packages/refusal.log" 2>&1; then
  fail 'the package went although there were documents to guard'
fi
grep -A 6 '^These directories' "$packages/refusal.log" | sed 's/^/    /'
show 'docsource remove letters'
as_root apt-get purge --quiet=2 --yes docsource 2>&1 | grep -v '^(Reading' | sed 's/^/    /'
check 'the documents are where they came from' \
  as_user 'grep -qx "I was edited." ~/elsewhere/letter.txt'
check 'no process is left' as_root sh -c "! pgrep -f '^(/usr/libexec/docsource/|platformd)'"

shut_down
printf '\nEverything did what it should.\n'
