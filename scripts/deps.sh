# Installs the Debian packages that building and testing need, only those
# that are missing. Sourced by the test and demo commands.
ud_install_deps() {
    local wanted=(cmake ninja-build g++ pkg-config openssl python3 ca-certificates
        libcurl4-openssl-dev libsqlite3-dev libglib2.0-dev libgtest-dev "$@")
    local missing=()
    local p
    for p in "${wanted[@]}"; do
        if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
            missing+=("$p")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "Installing missing packages: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}
