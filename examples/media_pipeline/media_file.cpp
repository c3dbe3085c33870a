#include "media_file.h"

#include <filesystem>
#include <system_error>

std::string mediaPathProblem(const std::string &path) {
    std::error_code status;
    if (std::filesystem::is_directory(path, status)) {
        return "it is a directory";
    }
    return std::filesystem::file_size(path, status) == 0 && !status ? "it is empty" : "";
}
