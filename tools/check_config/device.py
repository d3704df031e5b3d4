"""The device on which a configuration is played: what is listed, as steps of the virtual device."""
import functools

ZYGOTE, INIT, BINDER = 30, 1, 900  # process ids
BINDER_THREAD = "a server", f"Binder:{BINDER}_1"
COMM_MAX = 15  # bytes of a thread's name
# Names, valid in no file, of what does not run; whether it stands in front of all others.
ABSENT = {"A,absent": True, "B,absent": True, "y,absent": False, "z,absent": False}


def main_thread(name, threads):
    """The name of a process's main thread: some processes keep the end of theirs."""
    end = name[-COMM_MAX:]
    return end if end in threads else name[:COMM_MAX]


def others_of(name, threads):
    """The listed threads of a process beside its main one."""
    return [thread for thread in threads if thread != main_thread(name, threads)]


def tasks_of(world, parent=ZYGOTE):
    """What runs, at rest, by process and thread: the ids of a task, as in "1000/1001", and the
    keys with which it comes. The processes are children of the parent."""
    tasks = {("the zygote", ""): (f"{ZYGOTE}", "comm=zygote state=S")}
    for name, threads in {**dict.fromkeys(world.iowait, []), **world.processes}.items():
        if name in ABSENT:
            continue
        pid, main = 1000 + 100 * len(tasks), main_thread(name, threads)
        tasks[name, main] = f"{pid}", f"comm={main} cmd={name} ppid={parent} state=S"
        for tid, thread in enumerate(others_of(name, threads), pid + 1):
            if thread not in ABSENT:
                tasks[name, thread] = f"{pid}/{tid}", f"comm={thread} state=S"
    if world.binder["enable"]:
        users = {uid: name for name, uid in world.binder["uid_map"].items()}
        uid = min(world.binder["monitor_uids"] or [1], key=lambda uid: uid not in users)
        keys = f"uid={uid} user={users.get(uid, 'u')} ppid={parent} state=S"
        tasks[BINDER_THREAD[0], "binder"] = f"{BINDER}", f"comm=binder {keys}"
        tasks[BINDER_THREAD] = f"{BINDER}/{BINDER + 1}", f"comm={BINDER_THREAD[1]} state=S"
    return tasks


def absentees(processes):
    """What may be absent, as process and thread: any process, any thread but a main one."""
    for name, threads in processes.items():
        yield name, ""
        yield from ((name, thread) for thread in others_of(name, threads))


@functools.cache
def worlds_without(world, process, thread):
    """What is absent bears names and stands at places in the file that bring it to the front and to
    the end of the daemon's hash tables, whose order is another one on the device."""
    worlds, others = [], world.processes.copy()
    threads = others.pop(process)
    for absent, is_first in ABSENT.items():
        if thread:
            entry = {process: [absent if name == thread else name for name in threads]}
        else:
            entry = {absent: threads}
        worlds.append(world.listing({**entry, **others} if is_first else {**others, **entry}))
    return worlds
