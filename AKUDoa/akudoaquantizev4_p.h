#ifndef AKUDOA_AKUDOAQUANTIZEV4_P_H
#define AKUDOA_AKUDOAQUANTIZEV4_P_H

#include <fftw3.h>

#include <vector>

#include "AKUDoa/akucluster.h"
#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/base/akudoamatrix.h"
#include "AKUDoa/iakudoaquantize_p.h"

// State of AKUDoaQuantizeV4. NR x NC image, M microphones, frame of N
// samples, B bins (N/2+1, or N/4+1 with frequency averaging), G x G grid.
// Everything is created in doaInit and released by the engine's destructor.
struct AKUDoaQuantizeV4Private {
    int rows = 640;         // NR
    int cols = 480;         // NC
    int micNum = 128;       // M
    int sampleRate = 96000; // Hz
    int frameSize = 1024;   // N, samples per frame and channel FFT length
    int binNum = 513;       // B
    int gridSize = 64;      // G

    vec_fp32* fftWindow = nullptr;   // N samples, all zero until a window is set
    mat2d_fp32* cellAmp = nullptr;   // B x M: Gaussian weight of the offset from the nearest node
    mat2d_fp32* kernelX = nullptr;   // B x 9M: nine taps per microphone along the first grid axis
    mat2d_fp32* kernelY = nullptr;   // B x 9M: the same along the second axis
    mat2d_fp32* deconv = nullptr;    // G x G: power correction of the kernel's image-side taper
    mat2d_int32* cellIndex = nullptr; // B x 2M: kernel corner, first axis (m) then second (M + m)
    mat2d_fftwfcplx* binSpectra = nullptr; // B x M: channel spectra of the last frame
    mat2d_fp32* fftMean = nullptr;   // B x 4M: the same as real 2 x 2 blocks
    AKUDoaPendingSpectra pending;    // fftMean/binSpectra rows outside the last band
    vec_fp32* heatAcc = nullptr;     // NR * NC: the frame's accumulated image, row length NC
    mat2d_fp32* binMaps = nullptr;   // B x NR*NC: image of each bin of the last frame
    // Regression outputs: `slots` images of NR x NC stacked row-wise, one per
    // band entry of a batch, summed in band order after the batch.
    mat1d_fp32* gprOut = nullptr;
    mat2d_fp32* focusPhase = nullptr; // B x 2M: cos then sin of each microphone's focus phase
    fftwf_plan* micPlans = nullptr;  // M real-to-complex plans of N points, system heap
    mat2d_fp32* windowed = nullptr;  // M x N windowed samples (plan input)
    mat2d_fftwfcplx* micSpectra = nullptr; // M x N (plan output, N/2+1 written; the rest stays 0)
    // The grids are one per worker (`slots` of them), not one per bin:
    // a bin's grid is needed only while that bin is imaged, and per-bin
    // grids would hold B x G^2 complex values twice over (3.2 GB at
    // 640 x 480) and keep a frame's working set out of the cache.
    fftwf_plan gridPlan = nullptr; // forward 2-D plan of G x G, run on any worker's grid
    // The same transform pruned to what is non-zero and what is read (see
    // akudoa_v4_transform): B in-place plans along the second axis over the
    // columns each bin's kernels cover, then two plans along the first axis
    // of the grid rows the readout reads, from readRows[k] on (into gridOut;
    // the second piece where those rows wrap, else null). Null when the
    // grid stride is not G. System heap.
    fftwf_plan* columnPlans = nullptr;
    fftwf_plan* rowPlans = nullptr;
    int readRows[2] = {0, 0};
    mat2d_fftwfcplx* gridIn = nullptr;  // slots x (G^2 + 1): a worker's gridded spectrum, zero between bins
    mat2d_fftwfcplx* gridOut = nullptr; // slots x G^2: its transform
    std::vector<int> gridRows;          // 2B: grid rows [lo, hi) that bin b's kernels cover
    std::vector<int> gridCols;          // 2B: grid columns [lo, hi) of the same
    vec_fp32* binScratch = nullptr;  // B, unused by the imaging itself
    bool spectrumSelf = false;
    bool focusRadiusMode = false;    // stored, not read by this engine
    AKUCluster* cluster = nullptr;   // target-frequency clustering
    StCamCfg* cfg = nullptr;         // the kernel's record, not owned

    // Workers the per-worker buffers (gprOut, gridIn, gridOut) are made
    // for: the pool's size at doaInit; a frame's team is no larger.
    int slots = 0;
};

// Index arithmetic of the grid readout. S: the grid row stride used by the
// gridding and the readout (G with its lowest bit cleared); H = G >> 1; o:
// column offset of the image inside the grid. Image pixel (i, j) reads grid
// column p = (H + i + 1) mod S of grid row q = (H + o + 2 + j) mod S and the
// deconvolution entry [i + 1][o + 2 + j].
struct AKUDoaV4Geometry {
    int G;
    int S;
    int H;
    int o;
};

AKUDoaV4Geometry akudoa_v4_geometry(int rows, int cols);

// Transform of bin b's grid on worker slot's grids, gridIn -> gridOut.
// With the pruned plans only the covered columns are transformed (in place)
// and only the rows the readout reads are finished, about half the work of
// the 2-D plan; gridOut then holds those rows. Otherwise the 2-D plan runs
// and gridIn is left as it was.
void akudoa_v4_transform(const AKUDoaQuantizeV4Private* d, int b, int slot);

// Nearest node of the G x G grid with axes ax (first index i) and ay
// (second index j) to the point (sx, sy): node n = i * G + j minimising the
// squared distance fma(dx, dx, dy * dy); of equal distances the largest n
// wins. The _ref version scans all G^2 nodes; the other examines only the
// few nodes around the point on each axis and returns the same node.
int akudoa_v4_nearest_node(const float* ax, const float* ay, int G, float sx, float sy);
int akudoa_v4_nearest_node_ref(const float* ax, const float* ay, int G, float sx, float sy);

#endif
