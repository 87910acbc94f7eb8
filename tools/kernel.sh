# A small kernel of Debian's source package, with the real DPLL core and the mock driver of tests/kernel, and the machine
# that is emulated to run it. Sourced by bash after lib.sh. `arch` is x86_64 or arm; `top` gets the source, which all
# share, `top/$arch` kernel and driver, which are kept until what they are made of changes.

source_package=linux-source-6.12 here=$root/tests/kernel top=$root/build/kernel

kernel_of() {  # ARCHITECTURE
    arch=$1 kernel_packages=(flex bison bc make gcc xz-utils libelf-dev kmod)
    case $arch in
    x86_64)
        kernel_packages+=(qemu-system-x86)
        machine=(qemu-system-x86_64 -machine microvm,accel=tcg,acpi=off,pic=on,pit=on,rtc=on -cpu max)
        console=ttyS0 compiler=gcc strip=strip kernel_image=vmlinux kernel_for=()
        # Measuring that timer spins, and the emulator leaves its own loop at each turn: half of the time of a boot.
        kernel_words=nolapic_timer
        ;;
    arm)
        kernel_packages+=(qemu-system-arm gcc-arm-linux-gnueabihf)
        machine=(qemu-system-arm -machine virt,accel=tcg,gic-version=2 -cpu cortex-a15)
        console=ttyAMA0 kernel_words='' compiler=gcc-arm-linux-gnueabihf strip=true kernel_image=arch/arm/boot/zImage
        kernel_for=(ARCH=arm CROSS_COMPILE=arm-linux-gnueabihf-)
        ;;
    esac
    mkdir -p "$top/$arch"
}

install_for_kernel() {
    install_missing "${kernel_packages[@]}" >"$top/$arch/install.log" 2>&1 && (install_missing "$source_package") >>"$top/$arch/install.log" 2>&1
}

# What no guest needs is not unpacked: its sources, but not its Kconfig files, which are named by others.
unpack() {
    local version part without=()
    version=$(dpkg-query -W -f '${Version} ' "$source_package"; declare -f unpack | sha256sum)
    [ "$(cat "$top/source/.version" 2>/dev/null)" = "$version" ] && return 0
    for part in sound samples drivers/{gpu,media,staging,infiniband,scsi,usb,iio,video,crypto,mtd,hwmon,accel,comedi} \
        drivers/net/{ethernet,wireless} arch/{alpha,arc,csky,hexagon,loongarch,m68k,microblaze,mips,nios2,openrisc,parisc,powerpc,riscv,s390,sh,sparc,xtensa}; do
        without+=(--exclude="*/$part/*.[chS]")
    done
    without+=(--exclude='*/Documentation/*.'{rst,yaml,txt,svg} --exclude='*/tools/'{perf,testing} --exclude='*/dts/*.dts' --exclude='*/dts/*.dtsi')
    rm -rf "$top/source" "$top"/*/objects
    mkdir "$top/source" &&
        tar xJf "/usr/src/$source_package.tar.xz" --strip-components=1 -C "$top/source" "${without[@]}" || return 1
    # DPLL has no prompt of its own: what selects it switches it on.
    cat >>"$top/source/drivers/dpll/Kconfig" <<'END'

config DPLL_MOCK_CLOCK
	tristate "A clock that is not there"
	depends on NET && DEBUG_FS
	select DPLL
END
    echo 'obj-$(CONFIG_DPLL_MOCK_CLOCK) += mock_clock.o' >>"$top/source/drivers/dpll/Makefile"
    echo "$version" >"$top/source/.version"
}

kernel_make() {
    nice -n 10 make -s -C "$top/source" O="$top/$arch/objects" -j "$jobs" "${kernel_for[@]}" "$@"
}

configure() {
    local wish refused=0
    sort -u "$here/common.fragment" "$here/$arch.fragment" | grep '^CONFIG_' >"$top/$arch/fragment"
    kernel_make KCONFIG_ALLCONFIG="$top/$arch/fragment" allnoconfig || return 1
    while IFS= read -r wish; do
        grep -qxF "$wish" "$top/$arch/objects/.config" || { echo "FAULT the kernel's configuration does not grant $wish"; refused=1; }
    done <"$top/$arch/fragment"
    return $refused
}

made_of() {
    { dpkg-query -W -f '${Version}\n' "$source_package" "$compiler"; cat "$here"/{common,"$arch"}.fragment "$here/mock_clock.c" tools/kernel.sh; } |
        sha256sum | cut -d' ' -f1
}

build_kernel() {
    local began=$SECONDS
    [ "$(cat "$top/$arch/made_of" 2>/dev/null)" = "$(made_of)" ] && { echo "kernel and driver are those of before"; return 0; }
    rm -f "$top/$arch/made_of"
    mkdir -p "$top/$arch/objects"
    unpack && cp "$here/mock_clock.c" "$top/source/drivers/dpll/" && configure && kernel_make "${kernel_image##*/}" modules || return 1
    cp "$top/$arch/objects/$kernel_image" "$top/$arch/" && "$strip" -s "$top/$arch/${kernel_image##*/}" &&
        cp "$top/$arch/objects/drivers/dpll/mock_clock.ko" "$top/$arch/" || return 1
    made_of >"$top/$arch/made_of"
    echo "kernel $(cat "$top/$arch/objects/include/config/kernel.release") built in $((SECONDS - began)) s"
}

# emulate SECONDS ROOT OUT INIT [WORD...] &: in place of the background process, a guest whose root is a folder of the host, which it can't change, until it
# ends. OUT is a second share, "out", that it can; the words go to the kernel. Its console is the output. `shares` has more
# of the machine's options. Its time goes by instructions while it computes.
emulate() {
    local limit=$1 root_of=$2 out=$3 init=$4 share=virtio-9p-device
    shift 4
    exec timeout -k 5 "$limit" "${machine[@]}" -smp 1 -icount shift=1 -m 768 -nodefaults -nographic -no-reboot -serial stdio -kernel "$top/$arch/${kernel_image##*/}" \
        -append "console=$console quiet panic=-1 reboot=t root=root rootfstype=9p rootflags=trans=virtio,version=9p2000.L,msize=262144,cache=loose ro init=$init $kernel_words $*" \
        -fsdev "local,id=root,path=$root_of,security_model=none,readonly=on,multidevs=remap" -device $share,fsdev=root,mount_tag=root \
        -fsdev "local,id=out,path=$out,security_model=none" -device $share,fsdev=out,mount_tag=out "${shares[@]}" </dev/null
}
