#include "rules_manager/capture_script.h"

#include "common/log.h"
#include "common/printable.h"
#include "common/settings.h"
#include "common/thread.h"
#include "rules_manager/rule_files.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

std::atomic<int32_t> rm_script_notice_ms{RM_SCRIPT_NOTICE_MS};

namespace {

constexpr char SHELL[] = "/bin/sh";
constexpr int SHELL_NOT_RUN = 127 << 8; // wait status

// A text composed in a buffer. What does not fit is counted but not written.
struct text_t {
    char *bytes;
    size_t size;   // with the terminator
    size_t length; // of the whole text
};

void append(text_t *text, const char *part, size_t length)
{
    if (text->length + length < text->size) {
        std::memcpy(text->bytes + text->length, part, length);
        text->bytes[text->length + length] = '\0';
    }
    text->length += length;
}

void append(text_t *text, const char *part)
{
    append(text, part, std::strlen(part));
}

// Escape for use inside double quotes of a shell command.
void append_escaped(text_t *text, const char *part)
{
    for (; *part != '\0'; part++) {
        if (std::strchr("\\\"$`", *part) != nullptr) {
            append(text, "\\", 1);
        }
        append(text, part, 1);
    }
}

void put_command(text_t *text, const rm_rule_t *rule, uint32_t queue_count)
{
    append(text, "bash ");
    append(text, ks_capture_script);
    append(text, " \"");
    append_escaped(text, rule->live_file);
    append(text, "\" ");
    if (rule->has_history == 0 || rule->hist_files == nullptr) {
        return;
    }
    append(text, "\"");
    bool first = true;
    for (uint32_t i = 0; i < queue_count; i++) {
        if (rule->hist_files[i] != nullptr) {
            append(text, first ? "" : ",");
            append_escaped(text, rule->hist_files[i]);
            first = false;
        }
    }
    append(text, "\"");
}

void put_history_list(text_t *text, const rm_rule_t *rule, uint32_t queue_count)
{
    for (uint32_t i = 0; i < queue_count; i++) {
        if (rule->hist_files[i] == nullptr) {
            continue;
        }
        const char *name = rm_relative_name(rule->hist_files[i]);
        const char *separator = text->length > 0 ? "," : "";
        if (text->length + std::strlen(separator) + std::strlen(name) > MSG_TEXT_WIRE_MAX) {
            return;
        }
        append(text, separator);
        append(text, name);
    }
}

// Make room for a text in rm->filenames; growing loses what it held.
bool grow_filenames(rules_manager_t *rm, size_t size)
{
    std::free(rm->filenames);
    rm->filenames_size = 0;
    rm->filenames = size <= INT32_MAX ? static_cast<char *>(std::malloc(size)) : nullptr;
    if (rm->filenames == nullptr) {
        KS_ERROR("kestrune: Rules_manager: Error while reallocating string for capture script");
        return false;
    }
    rm->filenames_size = static_cast<int32_t>(size);
    return true;
}

using put_t = void (*)(text_t *text, const rm_rule_t *rule, uint32_t queue_count);

bool compose(rules_manager_t *rm, const rm_rule_t *rule, put_t put)
{
    text_t text = {rm->filenames, static_cast<size_t>(rm->filenames_size), 0};
    append(&text, "");
    put(&text, rule, rm->queue_count);
    if (text.length < text.size) {
        return true;
    }
    const size_t needed = text.length + 1;
    if (!grow_filenames(rm, needed)) {
        return false;
    }
    text = {rm->filenames, needed, 0};
    append(&text, "");
    put(&text, rule, rm->queue_count);
    return true;
}

// Start the shell with the command as a child. -1 when that fails, with the result to report in *result.
pid_t spawn_shell(const char *command, int *result)
{
    // posix_spawn does not change its arguments, although it takes them as non-const.
    char *const arguments[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                               const_cast<char *>(command), nullptr};
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    *result = -1;
    posix_spawnattr_t attributes;
    if (posix_spawnattr_init(&attributes) != 0) {
        return -1;
    }
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    pid_t child = -1;
    const int error = posix_spawn(&child, SHELL, nullptr, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    if (error == 0) {
        return child;
    }
    if (error != EAGAIN && error != ENOMEM) { // exec failed, not fork
        *result = SHELL_NOT_RUN;
    }
    return -1;
}

void close_descriptor(void *fd)
{
    close(*static_cast<int *>(fd));
}

// Whether the process still runs after this time. Can be cancelled while it waits. False also where the
// kernel has no process descriptors.
bool runs_longer(pid_t child, int milliseconds)
{
    int fd =
        static_cast<int>(syscall(SYS_pidfd_open, child, 0)); // close-on-exec; some C libraries lack a wrapper
    if (fd < 0) {
        return false;
    }
    int ended = 0;
    pthread_cleanup_push(close_descriptor, &fd);
    ended = thread_poll(fd, POLLIN, milliseconds);
    pthread_cleanup_pop(1);
    return ended == 0;
}

} // namespace

bool rm_compose_command(rules_manager_t *rm, const rm_rule_t *rule)
{
    return compose(rm, rule, put_command);
}

bool rm_compose_history_list(rules_manager_t *rm, const rm_rule_t *rule)
{
    return compose(rm, rule, put_history_list);
}

int rm_run_command(const char *command, pid_t *running)
{
    thread_cancel_enable();
    pthread_testcancel(); // do not start what would be killed at once
    thread_cancel_disable();
    int result = -1;
    const pid_t child = spawn_shell(command, &result);
    if (child == -1) {
        return result;
    }
    *running = child;
    if (runs_longer(child, rm_script_notice_ms.load())) {
        printable_t space;
        KS_ERROR(
            "kestrune: Rules_manager: The capture script still runs after %d s, no other rule is finished "
            "meanwhile: '%s'",
            rm_script_notice_ms.load() / 1000, printable(command, &space));
    }
    siginfo_t ended;
    thread_cancel_enable();
    // Does not reap: after a cancellation at its end, the process still exists under its number.
    while (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
    }
    thread_cancel_disable();
    *running = 0;
    pid_t reaped = -1;
    do {
        reaped = waitpid(child, &result, 0);
    } while (reaped == -1 && errno == EINTR);
    return reaped == child ? result : -1;
}

void rm_kill_command(pid_t running)
{
    kill(-running, SIGKILL);
    kill(running, SIGKILL); // it may have moved to another group, and is reaped below
    while (waitpid(running, nullptr, 0) == -1 && errno == EINTR) {
    }
}
