# Sourced by the commands of this directory: what they do alike. Answers --help for all of them.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
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
if [[ $root == *[[:blank:]:]* ]]; then
    refuse "the path of this clone has a blank or a colon, which LD_PRELOAD cannot take: move it"
fi
