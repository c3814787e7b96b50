#ifndef AKUDOA_AKUDOAQUANTIZEPARAM_P_H
#define AKUDOA_AKUDOAQUANTIZEPARAM_P_H

#include <cstddef>
#include <cstdint>
#include <string>

// Cache directory with a trailing '/': $AKUDOA_CACHE_DIR when set and not
// empty, else "/App/buffer/". The directory is not created.
std::string akudoa_cache_dir();

#endif
