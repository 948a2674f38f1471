# Sourced by the other scripts: where the tree is, and how a missing package gets onto the machine.

set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# Debian's own Python, which is the one that Debian's Python packages are for.
# shellcheck disable=SC2034  # the scripts that source this use it
python=/usr/bin/python3

# What the programs around the program are built with.
# shellcheck disable=SC2034
companion_packages=(libcli11-dev nlohmann-json3-dev libtomlplusplus-dev libblkid-dev libudev-dev)

# Installs those of the named Debian packages that are not there.
install_missing() {
    local missing=() package
    for package in "$@"; do
        if ! dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$package")
        fi
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return
    fi
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        as_root=(sudo)
    fi
    echo "Installing ${missing[*]}"
    "${as_root[@]}" apt-get update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# Configures the named preset, quietly unless it fails; further arguments go to cmake.
configure() {
    local preset=$1 log
    shift
    mkdir -p "$root/build"
    log=$root/build/configure-$preset.log
    if ! (cd "$root" && cmake --preset "$preset" "$@") >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
}
