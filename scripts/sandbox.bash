# Sourced: how the daemon is started on a Linux host.

host=$(cd "$(dirname "${BASH_SOURCE[0]}")/../host" && pwd)

# create_sandbox DIRECTORY CONFIG
# Lays out the files that the daemon opens on a device: its configuration, and empty files that
# take the place of the kernel's.
create_sandbox() {
    mkdir -p "$1"/{dev,proc/sys/hung_task_enh,vendor/etc}
    cp "$2" "$1/vendor/etc/tovrel.json"
    touch "$1/dev/kmsg" "$1/proc/sysrq-trigger"
    touch "$1"/proc/sys/hung_task_enh/{global_detect_mode,max_iowait_timeout_cnt}
    touch "$1"/proc/sys/hung_task_enh/{max_iowait_task_cnt,per_task_detect_mode}
}

# exec_daemon BUILD_DIR SANDBOX [PROPERTIES]
# Becomes the daemon, which dies with the process that started this one.
exec_daemon() {
    export PATH="$host/bin:$PATH" TOVREL_SANDBOX=$2 TOVREL_PROPERTIES=${3-}
    local config=/vendor/etc/tovrel.json library=$1/libsandbox.so
    # A library that cannot be preloaded is passed over with a warning, and a blank or a colon in
    # its path divides it: the daemon would find the real files.
    if ! LD_PRELOAD=$library cmp -s "$TOVREL_SANDBOX$config" "$config"; then
        echo "The daemon is not started: $library cannot be preloaded" >&2
        exit 1
    fi
    exec setpriv --pdeathsig KILL env LD_PRELOAD="$library" "$1/tovrel"
}
