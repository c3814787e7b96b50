#ifndef AKUDOA_AKUDOAQUANTIZEPARAM_H
#define AKUDOA_AKUDOAQUANTIZEPARAM_H

#include "AKUDoa/base/akudoaexport.h"

// Size of the file system that holds path, in MiB: block size x total
// blocks into *totalMB and blocks available to unprivileged users x block
// size into *freeMB (each only when non-null). false when the query fails.
//
// The engines keep their steering tables in pairs of cache files under
// "/App/buffer/" (or the directory named by the environment variable
// AKUDOA_CACHE_DIR): a scale file of B native floats and a table file of
// B rows of 2*M*P signed bytes. The names carry every parameter the table
// depends on, for example
//   QuantizeScaleParam_v3_64_48_128_43_1.3_513.data
//   QuantizeParam_v3_fodis_2.5_64_48_128_43_1.3_513.data
AKUDOA_EXPORT bool storage_request(const char* path, int* totalMB, int* freeMB);

#endif
