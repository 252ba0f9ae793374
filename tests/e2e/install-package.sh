#!/usr/bin/env bash
# The Debian package as users get it: CPack builds it from the build folder,
# it is unpacked into a scratch root, its man pages are found and render
# without warnings, its bash
# completion loads, and a small project outside this tree builds and runs
# against it once through find_package and once through pkg-config; removing
# the scratch root uninstalls it.
#   install-package.sh BUILD_DIR
set -euo pipefail
# shellcheck source=tests/e2e/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
build=$(cd "${1:?usage: install-package.sh BUILD_DIR}" && pwd)
e2e_init install-package "$build/bin"
for program in cpack dpkg-deb man pkg-config g++; do
  command -v "$program" >/dev/null || e2e_skip "$program is not installed"
done

(cd "$build" && cpack -G DEB -B "$E2E_TMP/out" >"$E2E_TMP/cpack.log" 2>&1) ||
  e2e_fail "cpack failed: $(tail -5 "$E2E_TMP/cpack.log")"
deb=$(echo "$E2E_TMP"/out/zarvo_*.deb)
[[ -f $deb ]] || e2e_fail "cpack made no .deb"
dpkg-deb --field "$deb" Depends | grep -q libc6 || e2e_fail "the package declares no run-time dependencies"
root=$E2E_TMP/root
dpkg-deb -x "$deb" "$root"
prefix=$root/usr
e2e_on_exit "rm -rf '$root'"

for program in zarvo-askpass zarvo-keychain git-credential-zarvo; do
  [[ -x $prefix/bin/$program ]] || e2e_fail "$program is not installed"
  page=$(MANPATH=$prefix/share/man man -w "$program") || e2e_fail "man -w finds no page for $program"
  # A page that man renders with warnings (a broken source) fails here.
  warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null) ||
    e2e_fail "man cannot render the page of $program: $warnings"
  [[ -z $warnings ]] || e2e_fail "the page of $program renders with warnings: $warnings"
done
# shellcheck disable=SC1091
bash -c "source '$prefix/share/bash-completion/completions/zarvo-keychain' && complete -p zarvo-keychain" \
  >/dev/null || e2e_fail "the bash completion does not load"
e2e_say "ok: programs, man pages and completion are installed; the pages render without warnings"

# An application of its own, outside this tree.
flags=()
if grep -q '^ZARVO_SANITIZE:BOOL=ON' "$build/CMakeCache.txt"; then
  flags=(-fsanitize=address,undefined)
fi
app=$E2E_TMP/app
mkdir -p "$app"
cat >"$app/main.cpp" <<'CPP'
#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMKeychain.h"

#include <cstdio>

int main()
{
    const auto url = platform::URL::fromString("https://jo@example.com:8443");
    const auto attributes = QMInternetPasswordKeychainItem::attributesForURL(url);
    std::printf("%s %zu\n", QMKeychain::supportsProtocol("https") ? "https" : "none", attributes.size());
    return 0;
}
CPP
cat >"$app/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(outside CXX)
find_package(QMFoundation REQUIRED)
add_executable(app main.cpp)
target_link_libraries(app QMFoundation::QMFoundation)
CMAKE
cmake -S "$app" -B "$app/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_FLAGS="${flags[*]}" >"$E2E_TMP/app.log" 2>&1 && cmake --build "$app/build" >>"$E2E_TMP/app.log" 2>&1 ||
  e2e_fail "the outside project does not build with find_package: $(tail -15 "$E2E_TMP/app.log")"
e2e_expect_eq "$("$app/build/app")" "https 4" "the outside project built with CMake"

read -ra pkg_flags <<<"$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs qmfoundation)" ||
  e2e_fail "pkg-config does not know qmfoundation"
g++ "${flags[@]}" -o "$app/app-pc" "$app/main.cpp" "${pkg_flags[@]}" >"$E2E_TMP/pc.log" 2>&1 ||
  e2e_fail "the outside project does not build with pkg-config: $(tail -15 "$E2E_TMP/pc.log")"
e2e_expect_eq "$("$app/app-pc")" "https 4" "the outside project built with pkg-config"
e2e_say "ok: an outside project builds against the package with CMake and with pkg-config"
