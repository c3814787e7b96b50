#ifndef AKUDOA_BASE_AKUDOAEXPORT_H
#define AKUDOA_BASE_AKUDOAEXPORT_H

// Symbols are hidden by default; everything a host may call carries this.
#if defined(AKUDOA_BUILDING_LIBRARY)
#define AKUDOA_EXPORT __attribute__((visibility("default")))
#else
#define AKUDOA_EXPORT
#endif

#endif
