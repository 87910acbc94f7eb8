# What the checks on emulated machines share. Sourced by bash after lib.sh, in the top of the tree. `build` is the build's folder, `target`
# the compiler's name for the machine, `emulator` the program that runs its programs, `not_here` the tests that it can't run.

# build_foreign PRESET
build_foreign() {
    local began=$SECONDS from=(--preset "$1")
    [ -f "$build/build.ninja" ] && from=(-S . -B "$build")
    mkdir -p build
    cmake "${from[@]}" -DESMC_WERROR=ON >"$build.log" 2>&1 &&
        cmake --build "$build" -j "$jobs" >>"$build.log" 2>&1 ||
        { grep -nE 'error: |undefined reference|CMake Error|FAILED' "$build.log" | head -20; die "the build failed: $build.log"; }
    echo "built in $((SECONDS - began)) s"
}

# Where the tests look for the shell program there is a script that hands it to the emulator.
shell_for_tests() {
    printf '#!/bin/sh\nexec %s -L /usr/%s %s/%s/bin/esmcsh "$@"\n' "$emulator" "$target" "$root" "$build" >"$build/tests/esmcsh"
    chmod 755 "$build/tests/esmcsh"
}

foreign_tests() {
    local regex status
    regex=$(IFS='|'; echo "${!not_here[*]}")
    # Under the emulator a test that measures time may come too late once.
    ctest --test-dir "$build" -L '^(unit|scenario)$' -E "^($regex)\$" -j "$jobs" --repeat until-pass:2 --output-on-failure --no-tests=error \
        --timeout 300 >"$build/ctest.log" 2>&1
    status=$?
    grep -E '\*\*\*|^[0-9]+% tests passed|^Total Test time' "$build/ctest.log"
    [ $status = 0 ] || grep -nE ': Failure$|what\(\)|uncaught target signal' "$build/ctest.log" | head -20
    # Tests that found out themselves that they can't run, in their own words.
    grep -A1 -E ': Skipped$' "$build/Testing/Temporary/LastTest.log" | grep -vE '^--$|: Skipped$' | sort | uniq -c |
        sed 's/^ *\([0-9]*\) /skipped \1: /'
    for regex in "${!not_here[@]}"; do
        # A test that was renamed must not stay on the list.
        if ctest --test-dir "$build" -N -R "^$regex\$" | grep -q 'Total Tests: 1$'; then
            echo "not run here: ${regex//\\/}: ${not_here[$regex]}"
        else
            echo "FAULT ${0##*/}: no test is called ${regex//\\/}"
            status=1
        fi
    done
    return $status
}
