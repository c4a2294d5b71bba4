// run_command.cpp: posix_spawn of /bin/sh -c, bounded by wait_for_child.
#include "run_command.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace qbsmtp::host {

namespace {

// An unlinked temporary file holding input, positioned at its start; -1
// with error set on failure.
int input_file(const std::string& input, std::string& error) {
    const char* directory = std::getenv("TMPDIR");
    std::string pattern =
        std::string(directory && *directory ? directory : "/tmp") + "/qbsmtp-record-XXXXXX";
    const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd < 0) {
        error = "cannot create " + pattern + ": " + std::strerror(errno);
        return -1;
    }
    ::unlink(pattern.c_str());
    std::size_t done = 0;
    while (done < input.size()) {
        const ssize_t written = ::write(fd, input.data() + done, input.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            error = std::string("cannot write the record for the command: ") + std::strerror(errno);
            ::close(fd);
            return -1;
        }
        done += static_cast<std::size_t>(written);
    }
    ::lseek(fd, 0, SEEK_SET);
    return fd;
}

// The host's environment with extra set over it, as NAME=value strings.
std::vector<std::string> merged_environment(const Environment& extra) {
    std::vector<std::string> entries;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('='));
        bool replaced = false;
        for (const auto& [key, value] : extra) replaced |= key == name;
        if (!replaced) entries.push_back(text);
    }
    for (const auto& [key, value] : extra) entries.push_back(key + "=" + value);
    return entries;
}

}  // namespace

CommandRun run_command(const std::string& command, const std::string& input,
                       const Environment& extra, long timeout_seconds) {
    CommandRun run;
    const int stdin_fd = input_file(input, run.error);
    if (stdin_fd < 0) return run;
    std::vector<std::string> environment = merged_environment(extra);
    std::vector<char*> envp;
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::string shell = "/bin/sh", flag = "-c", text = command;
    char* argv[] = {shell.data(), flag.data(), text.data(), nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, stdin_fd, STDIN_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int signal_number : {SIGPIPE, SIGINT, SIGTERM, SIGCHLD})
        sigaddset(&defaults, signal_number);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    pid_t pid = 0;
    const int failure = posix_spawn(&pid, argv[0], &actions, &attributes, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(stdin_fd);
    if (failure != 0) {
        run.error = std::string("cannot start /bin/sh: ") + std::strerror(failure);
        return run;
    }
    run.started = true;
    run.end = wait_for_child(pid, timeout_seconds);
    return run;
}

}  // namespace qbsmtp::host
