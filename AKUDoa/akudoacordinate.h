#ifndef AKUDOA_AKUDOACORDINATE_H
#define AKUDOA_AKUDOACORDINATE_H

// Affine coefficients that map heat-map cells onto the engine's raw map
// (camera/array alignment). Same order as the rx1..ry3 fields of StCamCfg.
struct CordinateMat {
    float rx1;  // row offset, in raw-map rows times the section factor
    float rx2;  // raw row per output column
    float rx3;  // raw row per output row
    float ry1;  // column offset, in raw-map columns times the section factor
    float ry2;  // raw column per output column
    float ry3;  // raw column per output row
};

#endif
