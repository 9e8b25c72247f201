#!/usr/bin/env bash
# Records a session at the terminal: an account on a WebDAV server, read, edited in place, and edited
# by an editor in a sandbox that knows nothing of all this. Real processes in a home of their own,
# which is written as /home/ann and is gone afterwards. The first command that fails ends it.
# usage: session.sh BUILD-DIRECTORY [PICTURE.svg]
# Prints the record, and draws it too. Wants rclone, vim, curl and bubblewrap.
set -euo pipefail

build=$(readlink -f "${1:?usage: session.sh BUILD-DIRECTORY [PICTURE.svg]}")
picture=${2:+$(readlink -f "$2")}
for program in rclone vim curl bwrap; do
  command -v "$program" >/dev/null || { printf 'session: there is no %s\n' "$program" >&2; exit 1; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/docsource-session.XXXXXX")
export HOME=$work/ann PATH=$build/bin:$PATH TERM=dumb COLUMNS=100
export DOCSOURCE_ROOT=$HOME/.local/share/docsource
ids=()
clean_up() {
  local id
  for id in "${ids[@]}"; do kill -TERM "$id" 2>/dev/null || true; done
  for id in "${ids[@]}"; do wait "$id" || true; done
  cd /
  rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

wait_until() {
  local deadline=$((SECONDS + 30))
  until "$@" >/dev/null 2>&1; do
    ((SECONDS < deadline)) || { printf 'session: waited in vain: %s\n' "$*" >&2; cat "$work/log" >&2; exit 1; }
    sleep 0.05
  done
}
# Types a line and shows what it prints.
type_line() {
  {
    printf '%s\n' "\$ $1"
    bash -c "$1" 2>&1 </dev/null | sed "s|$work/ann|/home/ann|g"
  } | tee -a "$work/record"
}
draw() {
  awk '
    { gsub(/&/, "\\&amp;"); gsub(/</, "\\&lt;"); text[NR] = $0; if (length > width) width = length }
    END {
      printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\">\n", width * 7.3 + 32, NR * 17 + 30
      print "<rect width=\"100%\" height=\"100%\" rx=\"8\" fill=\"#1e2127\"/>"
      print "<g font-family=\"DejaVu Sans Mono, monospace\" font-size=\"12\" xml:space=\"preserve\">"
      for (line = 1; line <= NR; ++line) {
        typed = text[line] ~ /^\$ / || typed && text[line - 1] ~ /\\$/
        printf "<text x=\"16\" y=\"%d\" fill=\"%s\">%s</text>\n", line * 17 + 14, typed ? "#8ec07c" : "#d8dee9", text[line]
      }
      print "</g>\n</svg>"
    }' "$work/record"
}

mkdir -p "$HOME" "$DOCSOURCE_ROOT" "$work/server/plans"
cd "$HOME"
printf 'Dear Bob,\nthe meeting is on Monday.\n' >"$work/server/letter.txt"
head -c 3000000 /dev/urandom >"$work/server/plans/house.jpg"
printf 'secret\n' >"$work/server/plans/budget.txt"

rclone serve webdav "$work/server" --addr 127.0.0.1:0 --user ann --pass plum 2>"$work/rclone" &
ids+=($!)
serving() { port=$(sed -n 's|.*http://127.0.0.1:\([0-9]*\)/.*|\1|p' "$work/rclone"); [[ -n $port ]]; }
wait_until serving
port=$(sed -n 's|.*http://127.0.0.1:\([0-9]*\)/.*|\1|p' "$work/rclone" | head -n 1)
platformd 2>>"$work/log" </dev/null &
ids+=($!)
wait_until grep -q . "$DOCSOURCE_ROOT/run/coordination"
if grep -qx cooperative "$DOCSOURCE_ROOT/run/coordination"; then
  printf 'left out: platformd lacks the capability to keep readers waiting (docs/coordination.md)\n'
  exit 0
fi
docsourced 2>>"$work/log" </dev/null &
ids+=($!)
wait_until docsource --timeout 5 wake-up
printf 'plum\n' >"$HOME/.password"
chmod 600 "$HOME/.password"
mkdir "$work/Editor.app"
cat >"$work/Editor.app/Info.plist" <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>QXBundleExecutable</key>
	<string>$(readlink -f "$(command -v vim)")</string>
	<key>QXBundleIdentifier</key>
	<string>org.example.editor</string>
</dict>
</plist>
PLIST
cp -r "$work/Editor.app" "$HOME/Editor.app"

type_line "docsource add webdav Work http://127.0.0.1:$port/ --user ann --password-file ~/.password"
wait_until test -e "$HOME/DocSource/Work/plans/house.jpg"
type_line 'ls -goR --time-style=long-iso DocSource/Work/'
type_line 'du -sh --apparent-size DocSource/Work/; du -sh DocSource/Work/'
type_line 'cat DocSource/Work/letter.txt'
type_line "sed -i 's/Monday/Tuesday/' DocSource/Work/letter.txt"
type_line 'docsource sync Work'
type_line "curl -s -u ann:plum http://127.0.0.1:$port/letter.txt"
type_line 'docsource evict DocSource/Work/letter.txt'
type_line 'docsource status DocSource/Work/letter.txt'
if ! bwrap --unshare-user --disable-userns --unshare-pid --ro-bind / / --proc /proc true 2>/dev/null; then
  printf 'left out: the editor in a sandbox; there are no user namespaces\n'
  exit 0
fi
type_line 'docsource install Editor.app'
type_line "docsource run org.example.editor --document DocSource/Work/letter.txt -- \\
    -u NONE -es DocSource/Work/letter.txt -c '!ls -R \$DOCSOURCE_ROOT/Containers/Group' \\
    -c '%s/Tuesday/Friday/' -c wq"
type_line 'docsource sync Work'
type_line "curl -s -u ann:plum http://127.0.0.1:$port/letter.txt"
if [[ -n $picture ]]; then draw >"$picture"; fi
