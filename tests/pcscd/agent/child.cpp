#include "child.h"

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <system_error>
#include <utility>

namespace tez::agent {

Child::Child(const std::filesystem::path& program, std::vector<std::string> arguments,
             const std::filesystem::path& output) {
    std::string name = program.string();
    std::vector<char*> words{name.data()};
    for (std::string& argument : arguments) {
        words.push_back(argument.data());
    }
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    const int error =
        posix_spawn(&process_, name.c_str(), &actions, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), name);
    }
}

Child::Child(Child&& other) noexcept : process_(std::exchange(other.process_, 0)) {}

Child::~Child() {
    if (process_ != 0) {
        end(SIGKILL);
    }
}

void Child::send(int signal) const {
    kill(process_, signal);
}

int Child::end(int signal) {
    send(signal);
    return wait();
}

int Child::wait() {
    int status = 0;
    waitpid(std::exchange(process_, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tez::agent
