#!/usr/bin/env bash
# Shows the system at work: real processes in a root of their own, which is gone afterwards. Every
# step is checked; the first that does not do what it should ends the show with status 1.
# usage: demo.sh BUILD-DIRECTORY
set -euo pipefail

build=$(readlink -f "${1:?usage: demo.sh BUILD-DIRECTORY}")
docsource=$build/bin/docsource
provider=org.example.provider
consumer=org.example.consumer

work=$(mktemp -d "${TMPDIR:-/tmp}/docsource-demo.XXXXXX")
export DOCSOURCE_ROOT=$work/root DOCSOURCE_LOG=debug
origin=$work/origin
log=$work/log
platformd_id= docsourced_id= finished=

# Ends a process of ours and leaves its exit status in $status.
end() {
  status=0
  [[ -n $1 ]] || return 0
  kill -TERM "$1" 2>/dev/null || true
  wait "$1" || status=$?
}

clean_up() {
  end "$docsourced_id"
  end "$platformd_id"
  if [[ -z $finished ]]; then
    printf '\nThe log up to here:\n' >&2
    cat "$log" >&2 || true
  fi
  cd /
  rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

headline() { printf '\n── %s\n' "$*"; }
fail() {
  printf 'demo: FAILED: %s\n' "$*" >&2
  exit 1
}
check() {
  local what=$1
  shift
  "$@" || fail "$what"
  printf '  ✓ %s\n' "$what"
}

# The command line as it would be typed.
print_command() {
  local argument line
  line="  $ $(basename "$1")"
  for argument in "${@:2}"; do
    if [[ $argument == *' '* ]]; then argument="'$argument'"; fi
    line+=" $argument"
  done
  printf '%s\n' "$line"
}

# Runs a command, shows it with what it prints, and leaves that in $output.
show() {
  local line
  print_command "$@"
  output=$("$@") || fail "$(basename "$1") ended with status $?"
  [[ -n $output ]] || return 0
  while IFS= read -r line; do printf '    %s\n' "$line"; done <<<"$output"
}

# Runs the tool and keeps what it prints in a file.
copy_to() {
  print_command docsource "${@:2}"
  "$docsource" "${@:2}" >"$1" || fail "docsource ended with status $?"
  printf '    (%d bytes)\n' "$(stat --format=%s "$1")"
}

# Runs the tool, which must end with an error and print nothing else.
is_refused() {
  local what=$1 ended=0
  shift
  print_command docsource "$@"
  "$docsource" "$@" >"$work/printed" 2>"$work/refusal" || ended=$?
  sed 's/^/    /' "$work/refusal"
  check "$what" test "$ended" = 1 -a ! -s "$work/printed"
}

# Until the condition holds; not longer than 20 seconds.
wait_until() {
  local what=$1 deadline=$((SECONDS + 20))
  shift
  until "$@"; do
    ((SECONDS < deadline)) || fail "waited for this in vain: $what"
    sleep 0.05
  done
}

# The value behind "name: " in what was shown last.
answer() { sed -n "s/^$1: //p" <<<"$output"; }
logged() { grep -qF -- "$1" "$log"; }
serves() { "$docsource" --timeout 5 wake-up 2>/dev/null; }
sees_provider() { "$docsource" providers --json | grep -qF "\"providerIdentifier\": \"$provider\""; }
# Nothing but the file's marks and the first block of a placeholder is on the disk.
is_placeholder() { (($(stat --format='%b * %B <= 8192 && %s' "$1") == 300000)); }

# The extension processes that this daemon runs.
extension_ids() {
  local file
  for file in "/proc/$docsourced_id/task/"*/children; do cat "$file"; done 2>/dev/null
}

headline 'A root of its own, and an origin with documents'
mkdir -p "$origin/travel" "$DOCSOURCE_ROOT"
printf 'Dear diary, today the broker worked.\n' >"$origin/diary.txt"
head -c 300000 /dev/urandom >"$origin/travel/Über den Wolken.jpg"
printf '  %s\n' "$DOCSOURCE_ROOT"
ls -lR --time-style=+ "$origin" | sed 's/^/    /'

headline 'platformd and docsourced start'
"$build/bin/platformd" </dev/null 2>>"$log" &
platformd_id=$!
"$build/bin/docsourced" </dev/null 2>>"$log" &
docsourced_id=$!
wait_until 'docsourced answers' serves
printf '  platformd is process %d, docsourced process %d\n' "$platformd_id" "$docsourced_id"
show "$docsource" device status

headline 'An application is installed: a consumer'
show "$docsource" install "$build/examples/Consumer.app"

headline 'A provider extension is installed, discovered and registered'
cp -r "$build/examples/Provider.docext" "$work"
sed -i "s|<string>/srv/documents</string>|<string>$origin</string>|" \
  "$work/Provider.docext/Info.plist"
check 'its Info.plist names the origin' grep -qF "$origin" "$work/Provider.docext/Info.plist"
show "$docsource" install "$work/Provider.docext"
wait_until 'the daemon knows the provider' sees_provider
show "$docsource" bundles

headline 'The listing'
show "$docsource" providers
listed=$("$docsource" providers --json |
  sed -n 's/.*"documentStorageURL": "file:\/\/\([^"]*\)".*/\1/p')
storage=$(printf '%b' "${listed//%/\\x}")
diary=diary.txt
picture='travel/Über den Wolken.jpg'
original="$origin/travel/Über den Wolken.jpg"
wait_until 'the provider is registered with file coordination' logged "for doc source $provider"
wait_until 'the provider has made its placeholders' test -e "$storage$picture"
print_command cd "$storage"
cd "$storage"
check 'the extension runs as a process of its own' test -n "$(extension_ids)"
show du --apparent-size --bytes "$diary" "$picture"
show du --block-size=1 "$diary" "$picture"
check 'the documents are there as placeholders, with their sizes and without content' \
  is_placeholder "$picture"

headline 'A consumer is granted a document, and gets tokens for it'
show "$docsource" extend-sandbox "$picture" --provider "$provider" --consumer "$consumer"
token=$(answer token)
check 'there is a token' test -n "$token" -a "$token" != none

headline 'The document is provided'
show "$docsource" start "$picture" --provider "$provider" --consumer "$consumer"
check 'its content is that of the origin' cmp "$picture" "$original"
is_refused 'another document, which was not granted, is refused' \
  start "$diary" --provider "$provider" --consumer "$consumer"

headline 'The token is redeemed'
copy_to "$work/redeemed" consume "$token"
check 'it gives the document' cmp "$work/redeemed" "$original"
altered=${token%?}$([[ $token == *0 ]] && echo 1 || echo 0)
is_refused 'a token with another last character gives nothing' consume "$altered"

headline 'A bookmarkable string is made, and the consumer resolves it and reads the document'
show "$docsource" extend-bookmark "$diary" --consumer "$consumer"
bookmark=$output
check 'it names the provider' test "${bookmark#docsource:"$provider"/}" != "$bookmark"
show "$docsource" bookmark "$diary"
check 'making it without a grant gives the same string' test "$output" = "$bookmark"
show "$DOCSOURCE_ROOT/Applications/Consumer.app/example-consumer" "$bookmark"
check 'the consumer, with its own identity, got the document' test "$output" = "$(<"$origin/diary.txt")"
is_refused 'this tool, which is another consumer, does not' resolve "$bookmark"
show "$docsource" extend-bookmark "$diary" --consumer com.veltro.docsource.tool
show "$docsource" resolve "$output"
check 'with a grant of its own it does' test "$(answer document)" = "$storage$diary"

headline 'The consumer runs in a sandbox, where it sees no document but the one it was granted'
if bwrap --unshare-user --disable-userns --unshare-pid --unshare-net --ro-bind / / --proc /proc \
  true 2>/dev/null; then
  print_command docsource run "$consumer" -- "$bookmark"
  output=$("$docsource" run "$consumer" -- "$bookmark" 2>"$work/heard") ||
    fail "docsource ended with status $?: $(<"$work/heard")"
  sed 's/^/    /' "$work/heard"
  printf '    %s\n' "$output"
  check 'with the token that it was given it read the document' \
    test "$output" = "$(<"$origin/diary.txt")"
  seen=$DOCSOURCE_ROOT/Containers/Views/$consumer/shown
  show find "$seen" -type f -printf '%f\n'
  check 'and nothing else is there' test "$output" = "$diary"
else
  printf '  left out: there is no bubblewrap here, or no user namespaces\n'
fi

headline 'A coordinated read has the provider bring the content in'
show "$docsource" stop "$picture" --provider "$provider" --consumer "$consumer"
wait_until 'the document is a placeholder again' is_placeholder "$picture"
show du --block-size=1 "$picture"
copy_to "$work/read" read "$picture"
check 'what was read is the document' cmp "$work/read" "$original"
show du --block-size=1 "$picture"

headline 'Programs that know nothing of all this read and edit documents'
if grep -qx -e access -e open "$DOCSOURCE_ROOT/run/coordination"; then
  show "$docsource" stop "$picture" --provider "$provider" --consumer "$consumer"
  wait_until 'the document is a placeholder again' is_placeholder "$picture"
  show du --block-size=1 "$picture"
  print_command cat "$picture"
  cat "$picture" >"$work/read" || fail "cat ended with status $?"
  check 'cat waited and got the document' cmp "$work/read" "$original"
  show du --block-size=1 "$picture"
  show sed -i s/worked/works/ "$diary"
  wait_until 'the edit has arrived at the origin' grep -qF 'the broker works' "$origin/diary.txt"
  show cat "$origin/diary.txt"
else
  printf '  left out: platformd lacks the capability to watch for them (docs/coordination.md)\n'
fi

headline 'The access-control file'
show "$docsource" grants
check 'it holds the grants' test "$(wc -l <<<"$output")" = 4
show cat "$DOCSOURCE_ROOT/Home/Library/DocSource/AccessControl.plist"

headline 'The end'
extensions=$(extension_ids)
end "$docsourced_id"
docsourced_id=
check 'docsourced ended cleanly' test "$status" = 0
for id in $extensions; do check "its extension process $id ended" test ! -e "/proc/$id"; done
end "$platformd_id"
platformd_id=
check 'platformd ended cleanly' test "$status" = 0

headline 'The log of it all'
check 'it has lines of docsourced' logged docsourced[
check 'and of platformd' logged platformd[
sed 's/^/  /' "$log"
finished=yes
printf '\nEverything did what it should.\n'
