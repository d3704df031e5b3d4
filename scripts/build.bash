# shellcheck shell=bash
# Sourced by the commands of this directory: what they do alike. Answers --help for all of them.
set -euo pipefail

root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/..")
command=$(realpath "$0")

# Prints the comment at the head of the command.
usage() {
    sed '1d; /^#/!Q; s/^# \?//' "$command"
}

# refuse TEXT
# Ends the command for a reason that the user can mend.
refuse() {
    echo "${command##*/}: $*" >&2
    exit 2
}

# Refuses a clone in which nothing can be built.
check_clone() {
    # The loader's LD_PRELOAD, the linker's options and CMake part words at these.
    local separators='[][:space:]:;,|"\[]'
    [[ ! $root =~ $separators ]] ||
        refuse "no build in a path with '${BASH_REMATCH[0]}': move this clone"
    [[ -w $root ]] || refuse "you may not write to $root: work in a clone of your own"
    local foreign
    foreign=$(find "$root/build" ! -type l ! -writable -print -quit 2>/dev/null || true)
    [[ -z $foreign ]] || refuse "you may not write to $foreign, which $(stat -c %U "$foreign")" \
        "has built: remove $root/build, or work in a clone of your own"
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
    usage
    exit
fi
check_clone
