#ifndef AKUDOA_AKUDOAQUANTIZEPARAM_P_H
#define AKUDOA_AKUDOAQUANTIZEPARAM_P_H

#include <cstddef>
#include <cstdint>
#include <string>

// Cache directory with a trailing '/': $AKUDOA_CACHE_DIR when set and not
// empty, else "/App/buffer/". The directory is not created.
std::string akudoa_cache_dir();

// Writes the blocks (count of them, each len bytes) to path + a temporary
// suffix unique to this process and thread, flushes it to the disk and
// renames it over path, so that readers see either the old file or the
// complete new one, never a short one. false on any failure (the temporary
// is removed).
bool akudoa_write_file_atomic(const std::string& path, const uint8_t* const* blocks, size_t count, size_t len);

// Reads exactly `count` blocks of len bytes into blocks[] when the file
// holds exactly count*len bytes; false (nothing guaranteed about blocks) on
// a missing, short, long or unreadable file. Maps the file read-only.
bool akudoa_read_file_exact(const std::string& path, uint8_t* const* blocks, size_t count, size_t len);

#endif
