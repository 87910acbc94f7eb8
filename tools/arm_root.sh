# What a 32-bit ARM guest of tools/check_kernel has of its own: a Debian root that no program of this machine has run in, our programs
# built for it, and the package. Sourced by bash after kernel.sh. All of it is kept in build/kernel/arm until what it is made of changes.

arm=$root/build/kernel/arm
arm_build=$root/build/armhf-kill
arm_suite=bookworm arm_mirror=http://deb.debian.org/debian  # the release alone: other indexes come and go
arm_packages=('?essential' mount python3 python3-pytest python3-pytest-rerunfailures python3-pexpect iproute2 ethtool procps kmod libcap2-bin
    snmp snmpd snmptrapd netcat-openbsd inetutils-telnet systemd-standalone-sysusers systemd-standalone-tmpfiles)

# Run by mmdebstrap once the packages are unpacked, while they are still there: what their scripts would do that the tests need, for
# there is no processor to run them. dpkg gets its list, so that a package installed later is held to its dependencies.
finish_arm_root() {  # ROOT
    local package name into=$1/var/lib/dpkg
    for package in "$1"/var/cache/apt/archives/*.deb; do
        name=$(dpkg-deb -f "$package" Package)
        { echo "Package: $name" && echo 'Status: install ok installed' && dpkg-deb -f "$package" | grep -v '^Package:' && echo; } >>"$into/status"
        [ "$(dpkg-deb -f "$package" Multi-Arch)" != same ] || name+=:armhf
        dpkg-deb --fsys-tarfile "$package" | tar t | sed 's,^\./,/,; s,\(.\)/$,\1,; s,^/$,/.,' >"$into/info/$name.list" || return 1
    done
    echo armhf >"$into/arch" && echo 1 >"$into/info/format"
    cp "$1/usr/share/base-passwd/passwd.master" "$1/etc/passwd" && cp "$1/usr/share/base-passwd/group.master" "$1/etc/group" &&
        : >"$1/etc/shadow" && mkdir -p "$1"/{mnt,root,run/lock,var/log,var/tmp} &&
        rm -rf "$1/var/run" "$1/var/lock" && ln -s /run "$1/var/run" && ln -s /run/lock "$1/var/lock" && ln -sf mawk "$1/usr/bin/awk" && ln -sf nc.openbsd "$1/bin/nc" &&
        ln -sf inetutils-telnet "$1/usr/bin/telnet" &&
        printf '127.0.0.1 localhost\n' >"$1/etc/hosts" &&
        { /usr/bin/python3 -m compileall -q -s "$1" -p / "$1"/usr/lib/python3* >/dev/null || true; }  # of use where both have the same version
}

unless_made_of() {  # NAME MADE-OF COMMAND...: not when the last time was of the same; its output is in build/kernel/arm/NAME.log
    local stamp=$arm/$1.made_of log=$arm/$1.log of=$2 began=$SECONDS
    [ "$(cat "$stamp" 2>/dev/null)" = "$of" ] && return 0
    rm -f "$stamp"
    "${@:3}" >"$log" 2>&1 </dev/null || return 1
    echo "$of" >"$stamp"
    echo "$1 made in $((SECONDS - began)) s"
}

unpack_arm_root() {
    local name include=()
    for name in "${arm_packages[@]}"; do include+=(--include="$name"); done
    rm -rf "$arm/root"
    { echo '#!/bin/bash'; declare -f finish_arm_root; echo 'finish_arm_root "$1"'; } >"$arm/finish" && chmod 755 "$arm/finish" || return 1
    mmdebstrap --variant=extract --format=directory --architectures=armhf "${include[@]}" --extract-hook="$arm/finish" \
        "$arm_suite" "$arm/root" "$arm_mirror"
}

make_arm_root() {
    unless_made_of root "$({ declare -f unpack_arm_root finish_arm_root; echo "${arm_packages[@]}" $arm_suite; } | sha256sum)" unpack_arm_root
}

# With a filter that ends the process: a gap in its table is not to be missed.
build_arm_programs() {
    {
        cmake --preset armhf -B "$arm_build" -DESMC_WERROR=ON -DESMC_TESTS=OFF -DESMC_MAP=OFF -DESMC_FILTER_KILL=ON && cmake --build "$arm_build" -j "$jobs"
    } >"$arm/programs.log" 2>&1
}

# The package of the tree as it stands, without the tests, which are not in it.
build_arm_package() {
    unless_made_of package "$(git ls-files -z --cached --others --exclude-standard -- CMakeLists.txt cmake debian mibs packaging src docs/man tools/package |
        xargs -0 sha256sum | sha256sum)" tools/package --out "$arm/packages" armhf
}
