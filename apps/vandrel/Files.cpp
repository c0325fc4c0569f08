#include "Files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace host {

std::FILE* openForWriting(const std::string& file) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0) {
        if (errno == ELOOP) throw std::runtime_error("Refusing to write " + file + ": it is a symbolic link");
        throw std::runtime_error("Cannot write " + file + ": " + std::strerror(errno));
    }
    std::FILE* out = ::fdopen(fd, "w");
    if (out == nullptr) {
        ::close(fd);
        throw std::runtime_error("Cannot write " + file);
    }
    return out;
}

std::string makeScratchFile(const std::string& dir, const std::string& stem, const std::string& suffix) {
    const std::string pattern = (std::filesystem::path(dir) / (stem + "XXXXXX" + suffix)).string();
    std::vector<char> path(pattern.begin(), pattern.end());
    path.push_back('\0');
    const int fd = ::mkstemps(path.data(), static_cast<int>(suffix.size()));
    if (fd < 0) throw std::runtime_error("Cannot create a scratch file in " + dir + ": " + std::strerror(errno));
    ::close(fd);
    return std::string(path.data());
}

std::string scratchDirectory() { return std::filesystem::temp_directory_path().string(); }

}  // namespace host
