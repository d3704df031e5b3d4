# shellcheck shell=bash
# Sourced by the commands of this directory: what they do alike. Prints the comment at the head of
# the command if that is asked for help, and refuses a clone in which nothing can be built.
set -euo pipefail

root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/..")
command=$(realpath "$0")

# refuse TEXT
# Ends the command for a reason that the user can mend.
refuse() {
    echo "${0##*/}: $*" >&2
    exit 2
}

# build PRESET [TARGET...]
# Prints what the tools say only when they fail.
build() {
    local preset=$1 output
    shift
    echo "building $preset ..."
    [[ $# -eq 0 ]] || set -- --target "$@"
    output=$(cd "$root" && cmake --preset "$preset" 2>&1 &&
        cmake --build --preset "$preset" "$@" 2>&1) && return
    echo "$output" >&2
    exit 1
}

if [[ ${1-} == -h || ${1-} == --help ]]; then
    sed '1d; /^#/!Q; s/^# \?//' "$command"
    exit
fi

# The loader's LD_PRELOAD, the linker's options and CMake part words at these.
separators='[][:space:]:;,|"\[]'
[[ ! $root =~ $separators ]] ||
    refuse "no build in a path with '${BASH_REMATCH[0]}': move this clone"
[[ -w $root ]] || refuse "you may not write to $root: work in a clone of your own"
foreign=$(find "$root/build" ! -type l ! -writable -print -quit 2>/dev/null || true)
[[ -z $foreign ]] || refuse "you may not write to $foreign, which $(stat -c %U "$foreign")" \
    "has built: remove $root/build, or work in a clone of your own"
