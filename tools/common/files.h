// Whole files in and out, with one clear line for what went wrong.
#pragma once

#include <string>

namespace corvalith::tools {

/// Reads a regular file below 4 GiB into `bytes`. On failure returns false with the reason in `error`.
bool readFile(const std::string& path, std::string& bytes, std::string& error);

/// Writes a file by way of a temporary one in the same folder, so that `path` holds all of `bytes` or what it held.
bool writeFile(const std::string& path, const void* bytes, size_t size, std::string& error);

}  // namespace corvalith::tools
