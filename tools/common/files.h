// Whole files in and out.
#ifndef TOOLS_COMMON_FILES_H
#define TOOLS_COMMON_FILES_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace tools {

// The library takes no document or answer above 64 MiB, so larger files are refused.
inline constexpr size_t max_file_bytes = 64u << 20;

// The file's octets; throws failure.
std::string read_file(const std::string &path);

bool file_exists(const std::string &path);

// A terminal, a pipe or another device: it takes what is written, and is neither replaced by a file
// nor removed.
bool is_device(const std::string &path);

// Makes a folder, and the folders above it that are missing, for their owner only; one that is
// there stays as it is. Returns what was made, the outermost first. Throws failure.
std::vector<std::string> make_folders(const std::string &path);

// The names in a folder, sorted; none when there is no such folder. Throws failure.
std::vector<std::string> list_folder(const std::string &path);

// Writes a new file beside `path` and renames it into place, so that a reader sees the old
// content or the new, never a part. Throws failure and leaves `path` as it was.
void write_file(const std::string &path, const std::string &bytes, mode_t mode);

// A file that a person names to be written is replaced only with `force`. Throws failure.
void require_free(const std::string &path, bool force);

// What a person names to be written must not be one of the inputs. Throws usage_failure.
void require_other_file(const std::string &path, const std::vector<std::string> &inputs,
                        const std::string &advice);

// Do both name one file? Neither need be there.
bool is_same_file(const std::string &path, const std::string &other);

// Writes all of it, however often it takes; false with errno when that cannot be.
bool write_all(int fd, const void *bytes, size_t length);

}  // namespace tools

#endif
