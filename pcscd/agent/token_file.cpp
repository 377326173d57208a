#include "agent/token_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/random.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "agent/file_descriptor.h"

namespace tez::agent {
namespace {

link::TokenHalf randomHalf() {
    link::TokenHalf half{};
    if (getrandom(half.data(), half.size(), 0) != static_cast<ssize_t>(half.size())) {
        throw std::system_error(errno, std::generic_category(), "no random numbers");
    }
    return half;
}

}  // namespace

void makeTokenFile(const std::filesystem::path& path) {
    const std::string text = link::formatToken({randomHalf(), randomHalf()});
    const FileDescriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file) {
        throw std::system_error(errno, std::generic_category(), "cannot write " + path.string());
    }
    // So short a text is written in one go or not at all.
    if (fchmod(file.get(), S_IRUSR | S_IWUSR) != 0 ||
        write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        const int error = errno;
        unlink(path.c_str());
        throw std::system_error(error, std::generic_category(), "cannot write " + path.string());
    }
}

link::Token readTokenFile(const std::filesystem::path& path) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat facts {};
    if (!file || fstat(file.get(), &facts) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot read " + path.string());
    }
    if ((facts.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw std::runtime_error(
            path.string() + " can be read or changed by others: chmod 600 it, or make another");
    }
    if (facts.st_uid != geteuid()) {
        throw std::runtime_error(path.string() + " belongs to another user");
    }
    std::string text(4096, '\0');  // more than a token has
    const ssize_t size = read(file.get(), text.data(), text.size());
    text.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    const std::optional<link::Token> token = link::parseToken(text);
    if (!token) {
        throw std::runtime_error(path.string() + " is no token's file");
    }
    return *token;
}

}  // namespace tez::agent
