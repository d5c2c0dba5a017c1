# Sourced by the scripts that fetch Debian armhf packages without touching the host's package
# database (armhf-sysroot.sh, phone-vm/fetch.sh). The caller sets `work`, the folder of the private
# apt state. prepare_private_apt: the host's own Debian package sources, read by an apt that sees
# only the armhf architecture and keeps its lists, cache and (empty) package status under $work; it
# sets `apt_options` for every apt call. update_lists: the package lists.

prepare_private_apt() {
  mkdir -p "$work/state/lists/partial" "$work/cache/archives/partial" "$work/sources.list.d" "$work/debs"
  : > "$work/status"
  : > "$work/sources.list"
  [ -f /etc/apt/sources.list ] && grep -E '^deb .*/debian' /etc/apt/sources.list > "$work/sources.list" || true
  local f
  for f in /etc/apt/sources.list.d/*.sources /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] && grep -qE '/debian(-security)?/?( |$)' "$f" && cp "$f" "$work/sources.list.d/"
  done
  apt_options=(
    -o APT::Architecture=armhf -o APT::Architectures=armhf
    -o Dir::State="$work/state" -o Dir::State::status="$work/status" -o Dir::Cache="$work/cache"
    -o Dir::Etc::sourcelist="$work/sources.list" -o Dir::Etc::sourceparts="$work/sources.list.d"
    -o Debug::NoLocking=1 -o APT::Sandbox::User=root -o Acquire::Languages=none
  )
  return 0
}

# A source whose index cannot be had right now (a mirror in the middle of a sync) is left out, as
# long as some armhf index arrived: the packages then come in that source's older versions.
update_lists() {
  apt-get "${apt_options[@]}" -qq update && return 0
  compgen -G "$work/state/lists/*binary-armhf_Packages*" >/dev/null || { echo "no armhf package index" >&2; exit 1; }
  echo "warning: some armhf package indexes could not be updated; going on without them" >&2
}
