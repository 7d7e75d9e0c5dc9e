# Sourced by the Windows scripts: runs programs under Wine in a throwaway
# prefix, never the user's; no display, no Mono/Gecko installers.
#   wine_start   makes the prefix and keeps one server up between the many
#                short processes (and before parallel tests race to make it)
#   wine_stop    ends the server and removes the prefix (call it on exit)
wine_start() {
  WINEPREFIX=$(mktemp -d "${TMPDIR:-/tmp}/kelquote-wine.XXXXXX")
  export WINEPREFIX WINEARCH=win64 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
  unset DISPLAY WAYLAND_DISPLAY
  wineserver -p
  wineboot -i >/dev/null 2>&1
}
wine_stop() {
  [ -n "${WINEPREFIX:-}" ] || return 0
  wineserver -k >/dev/null 2>&1 || true
  rm -rf "$WINEPREFIX"
}
