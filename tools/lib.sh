# What ./check, ./demo and bench/run share. Sourced by bash; `root` is the top of the tree.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# How many jobs a build runs side by side.
jobs=$(nproc 2>/dev/null || echo 2)

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# install_missing PACKAGE...: asks apt-get only for what dpkg does not list as installed.
install_missing() {
    local package missing=()
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    [ "$(id -u)" = 0 ] || die "missing packages (run as root, or: apt-get install ${missing[*]})"
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    # One of us at a time: apt-get waits for dpkg's lock, but not for that of the lists. A mirror that is being updated, or
    # does not answer, is asked again.
    (
        flock 9
        for pause in 5 20 0; do
            apt-get -q -o DPkg::Lock::Timeout=120 update </dev/null 9<&- &&
                apt-get -q -y -o DPkg::Lock::Timeout=120 install --no-install-recommends "${missing[@]}" </dev/null 9<&- && exit 0
            sleep $pause
        done
        exit 1
    ) 9</var/lib/apt || die "apt-get install failed: ${missing[*]}"
}

BUILD_PACKAGES=(g++ cmake ninja-build)
LAB_PACKAGES=(python3 iproute2 util-linux procps)
BENCH_PACKAGES=("${LAB_PACKAGES[@]}" strace)
MAP_PACKAGES=(libcpp-httplib-dev nlohmann-json3-dev libsnmp-dev)
# Where there are tests, those of esmcmap are among them.
TEST_PACKAGES=(libgtest-dev libgmock-dev libbenchmark-dev "${MAP_PACKAGES[@]}")
SYSTEM_PACKAGES=("${LAB_PACKAGES[@]}" python3-pytest python3-pytest-rerunfailures python3-pytest-xdist python3-scapy python3-pexpect tshark libcap2-bin ethtool
    snmp snmpd snmptrapd smitools inetutils-telnet putty-tools netcat-openbsd prometheus prometheus-node-exporter python3-prometheus-client python3-yaml)
PACKAGE_PACKAGES=(dpkg-dev debhelper lintian libcrypt-dev git "${MAP_PACKAGES[@]}")
STYLE_PACKAGES=(clang-format clang-tidy groff)

# need_npm FROM INTO: the packages of FROM/package-lock.json, each with its hash, as INTO/node_modules. No script of theirs is run;
# root has nobody fetch them.
need_npm() {
    local from=$root/$1 held=$root/$2 into registry as=()
    cmp -s "$from/package-lock.json" "$held/package-lock.json" && [ -d "$held/node_modules" ] && return 0
    command -v npm >/dev/null || install_missing npm
    registry=$(npm config get registry)
    into=$(mktemp -d) || die "no temporary directory"
    cp "$from"/package*.json "$into" && mkdir "$into/home"
    if [ "$(id -u)" = 0 ]; then
        chown -R nobody:nogroup "$into"
        as=(setpriv --reuid nobody --regid nogroup --clear-groups --inh-caps -all --no-new-privs)
    fi
    (cd "$into" && HOME=$into/home npm_config_registry=$registry \
        "${as[@]}" npm ci --loglevel=error --fetch-timeout=60000 --fetch-retries=4 --ignore-scripts --no-audit --no-fund </dev/null) ||
        { rm -rf "$into"; die "npm ci in a copy of $1 failed"; }
    rm -rf "$held" "$into/home"
    mkdir -p "$(dirname "$held")" && cp -r --no-preserve=ownership "$into" "$held" && chmod 755 "$held"
    rm -rf "$into"
}

# Debian's main section has no base MIB modules (SNMPv2-SMI and the like); the npm package net-snmp ships them.
need_mib_modules() {
    need_npm tools/mibs build/mibs
}

# What drives a browser over the page of esmcmap, and what checks it for those who do not see it.
need_browser() {
    command -v node >/dev/null || install_missing nodejs
    install_missing chromium
    need_npm tests/map build/browser
}

# libcrypt for the target, unpacked beside the build: the machine's own list of architectures stays as it is, and no
# package of the target is installed. Without a network the build goes on, and the programs refuse passwords in words.
fetch_arm_crypt() {
    local state=$root/build/armhf-packages target=arm-linux-gnueabihf
    [ -f "$state/usr/lib/$target/libcrypt.a" ] || [ -f "/usr/lib/$target/libcrypt.a" ] && return 0
    mkdir -p "$state/lists/partial" "$state/cache/archives/partial"
    cat >"$state/apt.conf" <<CONF
#clear APT::Architectures;
APT::Architecture "armhf";
APT::Architectures { "armhf"; };
Dir::State::lists "$state/lists";
Dir::State::status "/dev/null";
Dir::Cache "$state/cache";
Acquire::Languages "none";
APT::Sandbox::User "root";
CONF
    echo "fetching libcrypt-dev for armhf"
    # One index that is being replaced on the mirror does not matter when the package is in another.
    APT_CONFIG=$state/apt.conf apt-get -qq update </dev/null 2>"$state/update.log"
    (cd "$state" && APT_CONFIG=$state/apt.conf apt-get -qq download libcrypt-dev </dev/null &&
        dpkg -x libcrypt-dev_*_armhf.deb .) || echo "no libcrypt for armhf: built without passwords"
}

# need_namespaces: says in one line why the network tests can't run here, if they can't.
need_namespaces() {
    [ "$(id -u)" = 0 ] || die "must run as root: it makes network and mount namespaces"
    unshare -m -n true 2>/dev/null || die "this machine does not allow new network and mount namespaces"
}
