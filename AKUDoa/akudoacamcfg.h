#ifndef AKUDOA_AKUDOACAMCFG_H
#define AKUDOA_AKUDOACAMCFG_H

#include <cstdint>

// Capacity of the per-position geometry arrays: the capture hardware always
// delivers this many channels, smaller arrays are subsets of it.
constexpr int AKUDOA_MAX_MIC_NUM = 128;
// Capacity of the per-bin sensitivity gains: frameSize / 2 + 1 for the
// largest supported frame of 1024 samples (plus one spare).
constexpr int AKUDOA_MAX_SENSITIVITY_BINS = 514;

// Imaging program. The enumerator values are what the host passes; the
// camera record stores the program number instead (3, 4, 53, 54).
enum DOAProgarm {
    DOA_PROGRAM_V3 = 0,           // stored as 3, planar engine V3
    DOA_PROGRAM_V4 = 1,           // stored as 4, planar engine V4
    DOA_PROGRAM_V5_PROCESS_3 = 2, // stored as 53, planar engine V3
    DOA_PROGRAM_V5_PROCESS_4 = 3, // stored as 54, planar engine V4
};

// Acoustic camera configuration, filled once by AKUDoaKernel::init. The
// kernel owns the one instance; engines, the pickup and the distance
// measurer keep a pointer to it and read their settings from it. The field
// order is part of the interface: do not reorder.
struct StCamCfg {
    int32_t doaVersionSelect;   // program number: 3, 4, 53 or 54
    int32_t sampleFrequency;    // Hz
    int32_t channelNum;         // 8, 16, 36, 48, 64 or 128 microphones
    int32_t imageResolutionRow; // heat-map rows; 1 selects linear-array mode
    int32_t imageResolutionCol; // heat-map columns
    int32_t sectionFactor;      // image subdivision factor
    int32_t frameSize;          // samples per channel and FFT length, <= 1024
    float imageThetaXYFactor;   // angle scale of the image grid
    int32_t eangleDomain;       // angle domain of the image
    bool readFromFile;          // engines may load quantization tables from the cache
    bool autoSave;              // engines save freshly computed tables to the cache
    bool freqAverage;           // combine neighbouring FFT bins
    float micMaxRadius;         // array radius in metres (fixed preset)
    float waveScaleDb;          // heat-map scale in dB
    float focusDistance;        // metres
    bool focusDistanceEn;       // near-field focus at focusDistance instead of infinity
    float distanceMeasureRow;   // rows of the distance grid (integral value)
    float distanceMeasureCol;   // columns of the distance grid (integral value)
    const char* micFile;        // geometry file path or null; owned by the kernel
    const char* micSenCalibrationFile; // sensitivity file path or null; owned by the kernel
    int32_t rotateMode;         // image rotation mode used by the pickup
    int32_t imageCorrectionFlag; // 1: resample through the coordinate table
    float rx1, rx2, rx3;        // coordinate correction, row coefficients
    float ry1, ry2, ry3;        // coordinate correction, column coefficients
    int32_t extendRows;         // extended-view rows
    int32_t extendCols;         // extended-view columns
    int32_t initFlag;           // 1 once init has finished
    bool targetQuantize;        // target quantization switch of the engines
    bool distanceMeasureEn;     // create the distance measurer
    bool extraEn;               // create the extended-view engine
    int32_t micIndex[AKUDOA_MAX_MIC_NUM]; // input channel feeding array position i
    float micPhi[AKUDOA_MAX_MIC_NUM];     // azimuth in radians, -pi..pi
    float micRadius[AKUDOA_MAX_MIC_NUM];  // distance from the array centre, metres
    float micSensitivity[AKUDOA_MAX_SENSITIVITY_BINS]; // gain per FFT bin, frameSize/2+1 used
    bool pickupFullBand;        // pickup passes every bin instead of the band list; cleared by init, no INI key
    // DOA:compact_steering: the far-field V3 table keeps one block per mirror
    // pair of pixels (half the bytes); no effect in the near field.
    bool compactSteering;
};

#endif
