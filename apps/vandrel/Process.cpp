#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace host {

namespace {

// Closes a descriptor once, on every path out.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    int get() const { return fd_; }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// A descriptor above the standard three: when this process runs with one of them closed,
// a new socket or pipe may take its number, and the child's dup2 onto that very number
// would keep the close-on-exec flag and lose it.
int aboveStandard(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(fd);
    return moved;
}

ProcessResult failure(const std::string& program, int error) {
    ProcessResult r;
    r.output = "cannot run " + program + ": " + std::strerror(error);
    return r;
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv, std::string_view input) {
    if (argv.empty()) return failure("(nothing)", EINVAL);
    // The child's standard input is a socket rather than a pipe: when the child exits
    // without reading everything, send() with MSG_NOSIGNAL reports EPIPE instead of
    // killing this process with SIGPIPE.
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return failure(argv[0], errno);
    Fd toChild(sv[0]), childIn(aboveStandard(sv[1]));
    int pp[2];
    if (::pipe2(pp, O_CLOEXEC) != 0) return failure(argv[0], errno);
    Fd fromChild(pp[0]), childOut(aboveStandard(pp[1]));
    if (childIn.get() < 0 || childOut.get() < 0) return failure(argv[0], errno);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, childIn.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, childOut.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, childOut.get(), STDERR_FILENO);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    const int spawnError = ::posix_spawnp(&pid, argv[0].c_str(), &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawnError != 0) return failure(argv[0], spawnError);
    childIn.reset();
    childOut.reset();

    // Feed the input and drain the output together, so that neither side can block the
    // other on a full buffer.
    ProcessResult result;
    result.started = true;
    std::size_t sent = 0;
    if (input.empty()) toChild.reset();
    while (fromChild.get() >= 0) {
        pollfd fds[2] = {{fromChild.get(), POLLIN, 0}, {toChild.get(), POLLOUT, 0}};
        const nfds_t count = toChild.get() >= 0 ? 2 : 1;
        if (::poll(fds, count, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (count == 2 && fds[1].revents != 0) {
            const ssize_t n = ::send(toChild.get(), input.data() + sent, input.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n > 0) sent += static_cast<std::size_t>(n);
            if ((n < 0 && errno != EAGAIN && errno != EINTR) || sent == input.size()) toChild.reset();
        }
        if (fds[0].revents != 0) {
            char buf[4096];
            const ssize_t n = ::read(fromChild.get(), buf, sizeof buf);
            if (n > 0) result.output.append(buf, static_cast<std::size_t>(n));
            else if (n == 0 || errno != EINTR) fromChild.reset();
        }
    }
    toChild.reset();
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string outputExcerpt(std::string_view output) {
    std::string text;
    for (const char c : output) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '\n' || c == '\t' || (u >= 0x20 && u != 0x7f)) text += c;
        if (text.size() >= 2000) break;
    }
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text;
}

}  // namespace host
