# Compares the tasks of host/stuck_tasks with what the daemon made of them, and prints a table.
# Exit status 0 if it reported all the stuck ones as it should, and nothing else.
#
# Variables: start (HH:MM:SS, of the daemon), timeout (s), shell ("true" in shell mode).
# Input, with the variable `part` set before each file: tasks, log (the daemon's), kernel_log,
# iowait (what was written to per_task_detect_mode), sysrq (one command a line).

function seconds_of_day(clock,    part_of) {
    split(clock, part_of, ":")
    return part_of[1] * 3600 + part_of[2] * 60 + part_of[3]
}

function since_start(clock) {
    return (seconds_of_day(clock) - seconds_of_day(start) + 86400) % 86400 " s"
}

# How the log tells that the dumps of a task were taken.
function dump_line(monitor, condition, pid, ppid) {
    if (monitor == "process") return "dumped:" pid " "
    return "dumped hung proc:" pid " parent=" ppid " " (condition == "wchan" ? "wchan=" : "stat=")
}

function report_line(condition, thread, pid, tid, ppid, wchan,    ids, time) {
    # What ps does not list has no known parent.
    if (condition == "missing" && shell == "true") ppid = "4294967295"
    ids = "pid:" pid " ppid:" ppid
    time = timeout "s"
    if (condition == "Z") return ids " in Z " time
    if (condition == "wchan") return ids " wchan: " wchan time
    if (condition == "missing") return thread " in " ids " cannot start " time
    if (condition == "unswitch") return "tid:" tid " " ids " in unswitch S " time
    return "tid:" tid " " ids " in " condition " " time
}

# The time of the first log line with this beginning.
function first_time(beginning,    i) {
    for (i = 1; i <= log_lines; ++i) {
        if (index(log_line[i], beginning) == 1) return log_time[i]
    }
    return "-"
}

function row(task, condition, dumped, reported, outcome) {
    return sprintf("%-29s %-9s %7s %9s  %s\n", task, condition, dumped, reported, outcome)
}

function fault(text) { faults[++fault_count] = text }

function judge_stuck(task, monitor, condition, thread, pid, tid, ppid, wchan,
                     line, dumped, outcome) {
    ++stuck
    if (condition ~ /^[DTZ]$/) ++blocked
    line = report_line(condition, thread, pid, tid, ppid, wchan)
    expected[line] = 1
    dumped = first_time(dump_line(monitor, condition, pid, ppid))
    if (dumped == "-") fault(task ": no dumps")
    if (!(line in kernel_log)) fault(task ": no report '" line "'")
    else if (!(line in rebooted)) fault(task ": no reboot after '" line "'")
    outcome = (line in kernel_log ? line : "MISSING") (line in rebooted ? " -> reboot" : "")
    stuck_rows = stuck_rows row(task, condition, dumped, first_time(line), outcome)
}

function judge_healthy(task, condition, pid, remark,    line, found, outcome) {
    ++healthy
    for (line in kernel_log) {
        if (line ~ ("(^| )pid:" pid " ")) found = 1
    }
    if (first_time("dumped:" pid " ") != "-") fault(task ": dumped")
    if (first_time("dumped hung proc:" pid " ") != "-") fault(task ": dumped")
    outcome = (found ? "REPORTED" : "not reported") remark
    other_rows = other_rows row(task, condition, "-", "-", outcome)
}

function judge_iowait(task, pid,    outcome) {
    if (!(pid " 1" in marked)) fault(task ": not marked for the kernel")
    outcome = pid " 1" in marked ? "marked for the kernel" : "MISSING"
    other_rows = other_rows row(task, "I/O wait", "-", "-", outcome)
}

part == "tasks" && NF == 8 { tasks[++task_count] = $0 }

part == "log" {
    log_time[++log_lines] = since_start($4)
    is_host_line = $1 == "host"
    sub(/^[^ ]+ [A-Z] [0-9-]+ [0-9:]+ +[0-9]+ +[0-9]+ /, "")
    log_line[log_lines] = $0
    if (is_host_line && /^reboot /) rebooted[log_line[log_lines - 1]] = 1
}

part == "kernel_log" { kernel_log[$0] = 1 }
part == "iowait" { marked[$0] = 1 }
part == "sysrq" { ++sysrq[$0] }

END {
    for (i = 1; i <= task_count; ++i) {
        split(tasks[i], field, " ")
        monitor = field[1]
        condition = field[2]
        pid = field[5]
        task = field[3] (field[4] == "-" ? "" : " " field[4])
        if (condition == "unswitch" && shell == "true") {
            # ps prints the name at the end of its line, and the line feed stays part of it.
            judge_healthy(task, condition, pid, ": no thread is \"watchdog\" to shell mode")
        } else if (monitor == "iowait") {
            judge_iowait(task, pid)
        } else if (condition == "healthy") {
            judge_healthy(task, condition, pid)
        } else {
            judge_stuck(task, monitor, condition, field[4], pid, field[6], field[7], field[8])
        }
    }
    print "\n" row("TASK", "CONDITION", "DUMPED", "REPORTED", "KERNEL LOG AND POLICY") \
          stuck_rows other_rows

    for (line in kernel_log) {
        if (!(line in expected)) fault("unexpected report '" line "'")
    }
    for (i = 1; i <= split("w l", command, " "); ++i) {
        if (sysrq[command[i]] != blocked) {
            fault(sysrq[command[i]] + 0 " SysRq \"" command[i] "\", not " blocked + 0)
        }
    }

    for (i = 1; i <= fault_count; ++i) print "FAILED: " faults[i]
    if (fault_count == 0) {
        printf "%d stuck tasks reported, %d others left alone.\n", stuck, healthy
    }
    exit fault_count > 0
}
