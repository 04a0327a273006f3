"""Each system and library call of the built plugin fails once, for a while and for ever, with each of its errors, in
each scenario of fault_run: a process a run. Every run of a start, every tenth of the others, or all with
KESTRUNE_LONG."""

import collections
import concurrent.futures
import errno
import os
import socket
import subprocess
import sys

from probe_process import built

# The call, how many of them in a run are worth trying, and the errors.
CALLS = [line.split() for line in """\
malloc 4 ENOMEM
calloc 25 ENOMEM
aligned_alloc 20 ENOMEM
mmap 3 ENOMEM EAGAIN
madvise 8 ENOMEM EINVAL
open 8 EMFILE ENOSPC EACCES
fopen 6 EMFILE EACCES
write 5 ENOSPC EIO EINTR SHORT
writev 9 ENOSPC EIO EINTR SHORT
lseek 9 EINVAL
close 9 EIO EINTR
access 4 EACCES
fchmod 3 EPERM
remove 2 EACCES
socket 1 EMFILE ENOBUFS
setsockopt 6 ENOPROTOOPT ENOMEM
bind 1 EADDRINUSE EACCES
listen 2 EADDRINUSE
getaddrinfo 1 EAI_MEMORY EAI_AGAIN EAI_SYSTEM
accept4 3 EMFILE ECONNABORTED ENOMEM
poll 6 ENOMEM EINTR
recv 14 ECONNRESET ENOMEM EINTR
send 9 ECONNRESET EAGAIN EINTR SHORT
sendmsg 6 ECONNRESET EAGAIN SHORT
pthread_create 6 EAGAIN
pthread_mutex_init 9 ENOMEM
pthread_cond_init 2 ENOMEM
pthread_rwlock_init 3 ENOMEM
sem_init 2 ENOSPC
sem_wait 4 EINTR
sem_trywait 6 EAGAIN EINTR
clock_nanosleep 4 EINTR
posix_spawn 2 EAGAIN ENOENT
posix_spawnattr_init 2 ENOMEM
syscall 2 EMFILE ENOSYS
waitid 2 EINTR ECHILD
waitpid 2 EINTR ECHILD""".splitlines()]
# Imported as well: these cannot fail, or nothing depends on their result. Each stands for all names that begin so.
HARMLESS = """
    _ clock_gettime config_set_values difftime environ fclose feof fflush fprintf fputs free freeaddrinfo fwrite
    gai_strerror getpriority getrlimit gettid gettimeofday inet_ntop kill localtime_r mem munmap
    posix_spawnattr_ printf pthread_ sched_yield sem_destroy sem_post setpriority shutdown sig snprintf std
    str sysconf sysinfo time verbose_""".split()
SCENARIOS = ("start", "capture", "evict", "steer")
ONCE, A_WHILE, FOR_EVER = 1, 6, 100000
SHORT = 1 << 16
# What does not last: signals, and a lack of room on a connection that has room.
PASSING = {(call[0], "EINTR") for call in CALLS} | {("send", "EAGAIN")}
LONG = "KESTRUNE_LONG" in os.environ
SECONDS = 60
NOT_REACHED = 3


def number_of(error):
    return SHORT if error == "SHORT" else getattr(errno, error, None) or getattr(socket, error)


def all_runs():
    faults = [[call, str(nth), str(count), str(number_of(error))]
              for call, most, *errors in CALLS for nth in range(1, int(most) + 1) for error in errors
              for count in (ONCE, A_WHILE, FOR_EVER) if count != FOR_EVER or (call, error) not in PASSING]
    for scenario in SCENARIOS:
        yield from [[scenario, *fault] for fault in [[], *faults][::1 if LONG or scenario == "start" else 10]]


def make(run):
    try:
        done = subprocess.run([built("fault_run"), *run], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=SECONDS, check=False)
        return run, done.returncode, done.stdout.decode(errors="replace")
    except subprocess.TimeoutExpired as hanging:
        return run, "hangs", (hanging.stdout or b"").decode(errors="replace")


def forgotten_calls():
    listed = subprocess.run(["nm", "-D", "--undefined-only", "--format=just-symbols", built("kestrune.so")],
                            stdout=subprocess.PIPE, check=True, text=True).stdout
    known = tuple(HARMLESS + [call[0] for call in CALLS])
    return sorted(name for name in listed.split() if not name.startswith(known))


def main():
    reached = collections.Counter()
    failures = ["%s: give it a line in fault_sweep.py" % call for call in forgotten_calls()]
    with concurrent.futures.ThreadPoolExecutor(3 * os.cpu_count()) as pool:
        for run, status, output in pool.map(make, list(all_runs())):
            reached[run[1] if len(run) > 1 and status == 0 else ""] += 1
            if status not in (0, NOT_REACHED):
                failures.append("fault_run %s: %s\n%s" % (" ".join(run), status, output[-3000:]))
    if LONG:
        failures += ["%s: no run has reached it" % call[0] for call in CALLS if reached[call[0]] == 0]
    print("\n".join(failures))
    print("%d runs, %d with a failed call, %d failures" % (reached.total(), reached.total() - reached[""], len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
