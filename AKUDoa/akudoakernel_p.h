#ifndef AKUDOA_AKUDOAKERNEL_P_H
#define AKUDOA_AKUDOAKERNEL_P_H

#include <atomic>
#include <deque>
#include <mutex>

#include "AKUDoa/akudoakernel.h"

// Engines and processing objects; each is declared by its own header.
class IAKUDoaQuantize;
class AKUDoaPickupV4;
class AKUDoaDistance;
class AKUDoaExtra;
class AKUDoaQuantizeLine;
struct _dictionary_;

// All state of AKUDoaKernel. The camera record comes first: engines keep a
// pointer to it for their whole life, so the record never moves.
struct AKUDoaKernelPrivate {
    StCamCfg cfg;

    int32_t inited = 0;        // 1 after a successful init
    int32_t channels = 128;    // copies of the configuration taken in init
    int32_t sampleRate = 96000;
    int32_t frameSize = 1024;
    // Forwarded to the planar engine; read by the getters without a lock.
    std::atomic<bool> spectrumSelf{false};
    std::atomic<bool> focusRadius{false};
    int32_t frameRowsNeeded = 0; // caller frames need more rows than the largest micIndex
    int64_t lastMuteLogMs = -1000000; // rate limit of the muted-channel line

    IAKUDoaQuantize* doaEngine = nullptr;  // planar engine V3 or V4
    AKUDoaPickupV4* pickup = nullptr;
    AKUDoaDistance* distance = nullptr;    // only with distance measurement on
    AKUDoaExtra* extra = nullptr;          // only with the extended view on
    AKUDoaQuantizeLine* lineEngine[2] = {nullptr, nullptr}; // linear-array mode, groups 0 and 1
    AKUDoaFreqBands* freqBands = nullptr;

    mat2d_fp32* doaFrame = nullptr;   // channels x frameSize, array order
    mat2d_fp32* extraFrame = nullptr; // same, for the extended view
    std::deque<mat2d_fp32*> framePool; // pickup ring: back = newest frame
    mat2d_fp32* heatMap = nullptr;    // raw engine map when correction is on
    vec_fp32* cordinate = nullptr;    // rows x cols x 2: (u, v) per heat-map cell

    // Lock order: doaMutex before cordinateMutex; pickupMutex never nests.
    std::mutex cordinateMutex; // cordinate and the correction coefficients
    std::mutex doaMutex;       // doaEngine, extra, lineEngine and their settings
    std::mutex pickupMutex;    // pickup

    // The parsed INI file. micFile and micSenCalibrationFile point into it,
    // so it lives as long as the kernel.
    _dictionary_* ini = nullptr;

    AKUDoaKernelPrivate();

    // Copies the caller's frame into dst in array order: row r of dst is row
    // micIndex[r] of frame, dst->cols samples each. A row holding NaN or
    // inf is muted (zeros) for this frame. The caller checks frameFits.
    void pushFrame(const mat2d_fp32* frame, mat2d_fp32* dst);
    // The frame has the rows micIndex addresses and frameSize samples.
    bool frameFits(const mat2d_fp32* frame) const;
    void pushDoaAudioFrame(const mat2d_fp32* frame) { pushFrame(frame, doaFrame); }
    void pushExtraAudioFrame(const mat2d_fp32* frame) { pushFrame(frame, extraFrame); }
    // Writes the frame over the oldest pool buffer and makes it the newest.
    void pushPickUpAudioFrame(const mat2d_fp32* frame);

    // Pickup steering point (for AKUDoaPickupV4::steerTo) that listens where
    // the heat map shows a source at the displayed cell (x = row, y =
    // column): undoes the coordinate correction through the table (rounded
    // to a cell), then asks the engine. Takes doaMutex, then cordinateMutex.
    bool pickupTargetForCell(fpoint2d cell, fpoint2d& target);

    // Releases every object and buffer built by init (not the dictionary).
    void releaseObjects();

    // Coordinate correction (see akudoacordinate_p.h for the arithmetic).
    CordinateMat coefficients() const;
    void GenerateCordinateMat();   // plain affine rule
    void GenerateCordinateMatV4(); // affine plus radial, programs 4 and 54
    void rebuildCordinate();       // the rule of the current program
    void DoCodCor2D(mat2d_fp32* raw, mat2d_fp32* out) const;
    fpoint2d DoPointCorCod2D(fpoint2d p) const;
    // Corrected when correction is on; takes cordinateMutex for the read.
    // Coordinates are kept within +-65536 so that no engine's grid
    // comparison can overflow.
    fpoint2d engineTarget(fpoint2d p);

    // Steps of init, in order.
    static _dictionary_* loadIni(const char* path);
    void buildGeometry();
    void buildLineMode();
    void buildPlanar();
    void buildBuffers();
    void logFinish(long elapsedMs) const;
};

constexpr const char* AKUDOA_KERNEL_VERSION = "5.1.0.0";
// Targets beyond this are far outside any accepted image (4096 cells).
constexpr int AKUDOA_TARGET_LIMIT = 65536;

// Planar engine of a stored program value: V4 for 4 and 54, V3 otherwise.
IAKUDoaQuantize* akudoa_new_planar_engine(int doaVersionSelect);
// Coordinates clamped into +-AKUDOA_TARGET_LIMIT.
fpoint2d akudoa_clamp_target(fpoint2d p);

// Read-only access to the private record, for tests.
class AKUDoaKernelInspector {
public:
    static AKUDoaKernelPrivate* d(AKUDoaKernel& k) { return k.d; }
};

// Built-in geometry of a supported microphone count, for engines and tests.
// Returns false for an unsupported count. Fills count entries of each array.
bool akudoa_builtin_geometry(int count, int32_t* index, float* phi, float* radius);
// Opens path read-only if it is a regular file (never blocks on a FIFO);
// logs and returns -1 for any other kind of file.
int akudoa_open_regular(const char* path);
// Built-in layout of channelNum, replaced by the geometry file when set;
// logs one line per microphone.
void akudoa_load_geometry(StCamCfg& c);
// Replaces bad file values (index outside the capture channels, position
// not finite or out of range, all radii zero) by the built-in ones given.
void akudoa_check_geometry(StCamCfg& c, const int32_t* index, const float* phi, const float* radius);
// frameSize / 2 + 1 gains of 1, replaced by the sensitivity file when set;
// gains that are not finite or outside 0 .. 1000 stay 1.
void akudoa_load_sensitivity(StCamCfg& c);

#endif
