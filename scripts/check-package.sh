#!/usr/bin/env bash
# Checks what a user installs: the install rules (staged with DESTDIR) and the
# Debian package built by CPack from the build folder that run-tests.sh made,
# installed with apt-get and run on the bundled sample. Installing needs root
# (or sudo); without it the package is built and inspected only. A package
# that was not installed before is removed again at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ ! -f build/CMakeCache.txt ]; then
  cmake -S . -B build >/dev/null
  cmake --build build -j"$(nproc 2>/dev/null || echo 2)"
fi
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
fail() { echo "check-package: $*" >&2; exit 1; }

# cmake --install, staged.
DESTDIR="$stage" cmake --install build >/dev/null
for f in bin/sondex share/man/man1/sondex.1.gz share/doc/sondex/README.md share/doc/sondex/examples/driver.py \
  share/doc/sondex/docs/report.md share/doc/sondex/samples/sample.mp4 share/doc/sondex/tools/plot_yaw.py \
  share/doc/sondex/copyright; do
  [ -s "$stage/usr/local/$f" ] || fail "cmake --install did not install $f"
done
# Every relative link of the installed documents leads to an installed file.
doc=$stage/usr/local/share/doc/sondex
while IFS= read -r -d '' page; do
  while IFS= read -r target; do
    target=${target%%#*}
    [ -z "$target" ] || [ -e "$(dirname "$page")/$target" ] || fail "${page#"$doc"/} links to $target, which is not installed"
  done < <(grep -o '](\([^)]*\))' "$page" | sed 's/^](//; s/)$//' | grep -v '^[a-z]*:' || true)
done < <(find "$doc" -name '*.md' -print0)
# The installed program reads the installed samples, from any folder.
(cd / && "$stage/usr/local/bin/sondex" "$doc/samples/sample.dng" | tail -n 1 | grep -q '^result: {"status":"succeed", "type":"DNG"') ||
  fail "the installed sondex did not read the installed sample.dng"

# The package.
rm -f build/sondex_*.deb
(cd build && cpack -G DEB) >/dev/null
debs=(build/sondex_*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || fail "cpack made no single sondex_*.deb"
deb=${debs[0]}
depends=$(dpkg-deb -f "$deb" Depends)
[[ $depends == *libc6* ]] || fail "Depends lacks libc6: $depends"
# The default build links its own FFmpeg and the C++ runtime statically: no
# FFmpeg package may be needed. Built against the system's FFmpeg, the
# package needs its libraries and libstdc++.
if [ "$(sed -n 's/^SONDEX_FFMPEG:STRING=//p' build/CMakeCache.txt)" = system ]; then
  for lib in libstdc++6 libavformat libavcodec libavutil; do
    [[ $depends == *"$lib"* ]] || fail "Depends lacks $lib: $depends"
  done
else
  [[ $depends != *libav* ]] || fail "Depends names an FFmpeg library although FFmpeg is linked statically: $depends"
  [ -s "$stage/usr/local/share/doc/sondex/ffmpeg/COPYING.LGPLv2.1" ] || fail "cmake --install did not install FFmpeg's licence"
  needed=$(objdump -p "$stage/usr/local/bin/sondex" | grep NEEDED || true)
  [[ $needed != *libav* ]] || fail "the installed sondex loads FFmpeg's shared libraries: $needed"
fi
contents=$(dpkg-deb -c "$deb")
grep ' ./usr/bin/sondex$' <<< "$contents" > /dev/null || fail "the package holds no /usr/bin/sondex"
grep ' ./usr/share/man/man1/sondex.1.gz$' <<< "$contents" > /dev/null || fail "the package holds no manual page"
grep ' ./usr/share/doc/sondex/copyright$' <<< "$contents" > /dev/null || fail "the package holds no copyright file"

SUDO=
if [ "$(id -u)" -ne 0 ]; then
  if sudo -n true 2>/dev/null; then
    SUDO=sudo
  else
    echo "check-package: built $deb (Depends: $depends); not root, so not installed"
    exit 0
  fi
fi
installed_before=no
dpkg-query -W -f='${Status}' sondex 2>/dev/null | grep -q 'install ok installed' && installed_before=yes

export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get install -y ./build/sondex_*.deb > "$stage/apt.log" 2>&1 || { cat "$stage/apt.log" >&2; fail "apt-get could not install $deb"; }
result=$(/usr/bin/sondex samples/sample.mp4 | tail -n 1)
[[ $result == 'result: {"status":"succeed", "hasKDTD":true, "type":"dualfish", "codec":"H264"'* ]] ||
  fail "the installed sondex printed: $result"
printf 'samples/sample.jpg\n' | /usr/bin/sondex | grep -q '^result: {"status":"succeed", "type":"JPEG"' ||
  fail "the installed sondex did not answer a request"
[ -s /usr/share/man/man1/sondex.1.gz ] || fail "the manual page was not installed"
version=$(dpkg-query -W -f='${Version}' sondex)
if [ "$installed_before" = no ]; then
  $SUDO apt-get remove -y -qq sondex >/dev/null 2>&1 || $SUDO dpkg -r sondex >/dev/null
fi
echo "check-package: $deb $version installed with apt-get and run on samples/sample.mp4 (Depends: $depends)"
