#include "support/child_process.h"

#include "support/test_host.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void redirect(int fd, const std::string &path)
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(file, fd);
}

} // namespace

child_process_t::child_process_t(const std::vector<std::string> &argv)
{
    std::vector<std::string> texts = argv;
    std::vector<char *> arguments;
    arguments.reserve(texts.size() + 1);
    for (std::string &text : texts) {
        arguments.push_back(text.data());
    }
    arguments.push_back(nullptr);
    const std::string out = dir_.path("out");
    const std::string err = dir_.path("err");
    pid_ = fork();
    if (pid_ == 0) {
        redirect(STDOUT_FILENO, out);
        redirect(STDERR_FILENO, err);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
}

child_process_t::~child_process_t()
{
    if (status_ < 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void child_process_t::signal(int number) const
{
    kill(pid_, number);
}

int child_process_t::wait(int milliseconds)
{
    int status = 0;
    if (status_ < 0 && wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, milliseconds)) {
        status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
    return status_;
}

std::string child_process_t::read(const std::string &name) const
{
    return read_text(dir_.path(name));
}

std::string read_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

bool program_exists(const std::string &name)
{
    return child_process_t({"sh", "-c", "command -v \"$0\"", name}).wait() == 0;
}
