# Names every Debian package that the project needs, once. Sourced by run-station and run-tests; changes nothing when
# all of them are there.

build_packages="g++ cmake ninja-build pkg-config git libjsoncpp-dev liblog4cpp5-dev libdbus-1-dev libssl-dev zlib1g-dev
  libcurl4-openssl-dev rapidjson-dev libgtest-dev libbenchmark-dev libseccomp-dev"
# What the daemon runs on the device, and what the virtual station needs beside it.
runtime_packages="p7zip-full tar unzip e2fsprogs mount util-linux procps dbus dbus-daemon time
  ca-certificates"
station_packages="bzip2 openssl findutils systemd perl-base"
fuzz_packages="clang libclang-rt-14-dev"
lint_packages="$fuzz_packages clang-format clang-tidy"

# as_root COMMAND...: runs it as root, through sudo where needed; 126 when neither works.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null 2>&1; then
    sudo "$@"
  else
    return 126
  fi
}

# install_dependencies [PACKAGE...]: installs what is missing of the packages above and of those named.
install_dependencies() {
  local package missing=""
  for package in $build_packages $runtime_packages $station_packages "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing="$missing $package"
  done
  [ -n "$missing" ] || return 0
  echo "Installing:$missing"
  # shellcheck disable=SC2086
  if ! { as_root apt-get update -qq && as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
    --no-install-recommends $missing >/dev/null; }; then
    echo "These Debian packages are missing and could not be installed:$missing" >&2
    echo "Install them as root: apt-get install$missing" >&2
    return 1
  fi
}
