# Sourced by the other tools: installs the Debian packages that are missing, or says why it cannot.

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

say() { printf '== %s\n' "$*"; }

# Runs a command quietly; only if it fails is its output shown.
quietly() {
    local log
    log=$(mktemp)
    if ! "$@" >"$log" 2>&1 </dev/null; then
        cat "$log" >&2
        rm -f "$log"
        fail "this failed: $*"
    fi
    rm -f "$log"
}

need_packages() {
    local missing=() package as_root=()
    command -v dpkg-query >/dev/null && command -v apt-get >/dev/null ||
        fail "this needs a Debian system, for its packages: $*"
    for package in "$@"; do
        [ "$(dpkg-query -Wf '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
            missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" != 0 ]; then
        command -v sudo >/dev/null ||
            fail "neither root nor sudo, and these packages are missing: ${missing[*]}"
        as_root=(sudo)
    fi
    say "installing ${missing[*]}"
    quietly "${as_root[@]}" apt-get -o Acquire::Retries=3 update
    quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o Acquire::Retries=3 \
        install -y --no-install-recommends "${missing[@]}"
}

# Configures and builds a preset below build/; a second time only what has changed.
build_preset() {
    say "building the $1 preset"
    quietly cmake --preset "$1"
    quietly cmake --build --preset "$1"
}
