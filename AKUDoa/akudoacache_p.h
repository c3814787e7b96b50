#ifndef AKUDOA_AKUDOACACHE_P_H
#define AKUDOA_AKUDOACACHE_P_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct AKUDoaQuantizeV3Private;

// Steering-table cache shared by the planar engines. A pair (scale file of
// B native floats, table file of B rows of 2*M*P signed bytes) is trusted
// only together with its sidecar "<table file>.meta", a short text file:
//
//   akudoa-steering-cache 1
//   key <16 hex digits>     fingerprint of every input that shapes the table
//   scale <16 hex digits>   checksum of the scale file
//   table <16 hex digits>   checksum of the table file
//
// A file's checksum is the XXH3-64 of the XXH3-64 values of its rows (the
// scale file is one row), so rows are checked in parallel.
//
// All three files go through a temporary name "<final>.tmp.<pid>.<n>" and a
// rename; the sidecar is removed first and written last, so a save that dies
// part-way leaves a pair without a sidecar, which the next load rebuilds.

// Fingerprint of a planar steering table: the engine kind, the geometry as
// used (count, radii, azimuths, channel indices, array radius), sample rate,
// frame size, B, image size, angle domain and factor, near field and its
// focus distance, averaging. Floats are hashed by their bits.
uint64_t akudoa_cache_key(const AKUDoaQuantizeV3Private& c, const char* engine, bool nearField,
                          float focusDistance, bool average);

struct AKUDoaCacheFiles {
    std::string scale;
    std::string table;
    std::string meta() const { return table + ".meta"; }
};

// Writes the pair and its sidecar (who names the engine in the log line).
// Removes orphaned temporaries first. false on any failure; no temporary is
// left behind.
bool akudoa_cache_save(const char* who, const AKUDoaCacheFiles& files, uint64_t key, const float* scale,
                       size_t binNum, const uint8_t* const* rows, size_t rowLen);

// Loads the pair into scale[binNum] and rows[binNum][rowLen] when the files
// exist, are regular, have the sizes asked for and agree with the sidecar
// (format, key, checksums), and every scale is finite and positive. A
// missing pair returns false silently; any other rejection logs one line
// saying why. scale is written only on success; rows may be overwritten
// before a checksum mismatch is found. With parts > 1 each row arrives in
// that many equal pieces, rows[b * parts + j] taking piece j of row b (a
// null pointer reads the piece for the checksum only).
bool akudoa_cache_load(const char* who, const AKUDoaCacheFiles& files, uint64_t key, float* scale, size_t binNum,
                       uint8_t* const* rows, size_t rowLen, size_t parts = 1);

// Removes this library's temporaries in dir whose writer process is gone.
void akudoa_cache_sweep(const std::string& dir);

#endif
