#ifndef AKUDOA_AKUDOAKERNEL_H
#define AKUDOA_AKUDOAKERNEL_H

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoacordinate.h"
#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/base/akufftwindow.h"
#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/base/akudoamatrix.h"

struct AKUDoaKernelPrivate;

// The library's facade: reads the configuration, owns the engines, the band
// manager, the frame buffers and the locks, and serves every host call.
//
// Life cycle: construct, init(path) once before any other thread touches the
// object, then per frame one of the readout calls from one capture thread.
class AKUDOA_EXPORT AKUDoaKernel {
public:
    using DOAProgarm = ::DOAProgarm;
    static constexpr DOAProgarm DOA_PROGRAM_V3 = ::DOA_PROGRAM_V3;
    static constexpr DOAProgarm DOA_PROGRAM_V4 = ::DOA_PROGRAM_V4;
    static constexpr DOAProgarm DOA_PROGRAM_V5_PROCESS_3 = ::DOA_PROGRAM_V5_PROCESS_3;
    static constexpr DOAProgarm DOA_PROGRAM_V5_PROCESS_4 = ::DOA_PROGRAM_V5_PROCESS_4;

    AKUDoaKernel();
    ~AKUDoaKernel();
    AKUDoaKernel(const AKUDoaKernel&) = delete;
    AKUDoaKernel& operator=(const AKUDoaKernel&) = delete;

    // Loads the INI file at path and builds everything the configured program
    // needs. False when the path is not a regular file, cannot be loaded or
    // parsed, or a setting lies outside its accepted range (one log line
    // names it; nothing is built then, see docs/configuration.md). An unsupported
    // microphone count ends the process (status 0) after printing a notice to
    // standard output. A second call releases what the first one built.
    bool init(const char* path);

    // Heat-map readout. All return false without touching anything when the
    // frame is null or smaller than the capture channels in use x frameSize,
    // a caller buffer has the wrong shape, init has not finished, or the
    // engine the call needs has not been created. A channel holding NaN or
    // inf is imaged as silence for that frame (docs/bad-input.md).
    bool readHeatMap(mat2d_fp32* frame, mat2d_fp32* heatMap, vec_fp32* spectrum, int channel);
    bool readHeatMap(mat2d_fp32* frame, mat2d_fp32* heatMap, fpoint2d target, float& distance,
                     vec_fp32* spectrum, int channel);
    bool readHeatMap(mat2d_fp32* frame, mat2d_fp32* heatMap, fpoint2d target, int& lowBin, int& highBin,
                     float& power, vec_fp32* spectrum, int channel);
    bool readHeatMapExtra(mat2d_fp32* frame, mat2d_fp32* heatMap);
    bool readLineHeatMap(mat2d_fp32* frame, mat2d_fp32* heatMap0, mat2d_fp32* heatMap1);
    // Picked-up audio: pushes the frame into a ring of three buffers, then
    // under the pickup lock steers at target (x = row, y = column; with
    // image correction on, first mapped like a target point of the picture)
    // and writes frameSize samples of the beam into audio. The block lags the
    // frame by half a frame (plus 11 samples). One calling thread only: the
    // ring is written without a lock. Planar mode only.
    //
    // Note: the pickup does not listen where the heat map draws a source at
    // the same cell. With programs 3 and 53 it steers toward the cell
    // mirrored through the image centre: a source drawn at cell (i, j) is
    // heard with the target (rows - i, cols - j) in the default rotation
    // mode 1 (rows - 1 - i on an axis the mode leaves unflipped). Programs 4
    // and 54 draw the same direction mirrored likewise and, in addition,
    // further from the centre (1.13 times for 64 x 48 cells, 1.23 times for
    // 16 x 12, with the default angle settings).
    // The pickup also skips a target equal to the one it stored last (after
    // its own rotation mapping), so alternating between a point and its
    // mirror may leave it steered at the first. readPickedUpAudioAtCell
    // avoids both.
    bool readPickedUpAudio(mat2d_fp32* frame, vec_fp32* audio, fpoint2d target);
    // As readPickedUpAudio, but listens where the heat map (as returned by
    // readHeatMap, after any coordinate correction) shows the cell (x = row,
    // y = column): exactly for programs 3 and 53, to the nearest pickup
    // point for the gridding programs 4 and 54. False for a cell outside the
    // map.
    bool readPickedUpAudioAtCell(mat2d_fp32* frame, vec_fp32* audio, fpoint2d cell);
    // Pickup analysis window of frameSize samples (the default is Hann),
    // set under the pickup lock.
    void setFFTWindow_pickup(FFTWindowType type, float p1, float p2, float p3);

    // Amplitude arriving from target (x = row, y = column of the heat map)
    // in the last frame, in val; x and y come back as given. With correction
    // on, the target is mapped onto the engine's raw map first.
    fpoint2d getPaWithTarget(fpoint2d target);

    // Program and engine control. Each setter may run on another thread
    // while frames are read: engine calls happen under the engine lock, so a
    // switch waits for a running frame and the next frame waits for the new
    // tables. Before init, and in linear-array mode (no planar engine), the
    // engine setters only store their fields.
    DOAProgarm getDoaProgram();
    // Replaces the planar engine by the program's one (tables loaded from the
    // cache or built), rebuilds the coordinate table and installs the
    // default Tukey(0.2) imaging window. Same program: nothing happens.
    void setDoaProgram(DOAProgarm program);
    // Focus distance in metres (0.01 to 1000; anything else is refused with
    // a log line); enable selects near-field tables. Rebuilds (or loads) the
    // steering tables of the current engine.
    void setFocusDis(float distance, bool enable);
    float getFocusDis();
    bool getFocusDisEn();
    // Imaging analysis window of frameSize samples (the default is
    // Tukey(0.2)), set under the engine lock. Parameters that are not finite
    // or beyond +-1e6, or give a non-finite sample, are refused (log line).
    void setFFTWindow_doa(FFTWindowType type, float p1, float p2, float p3);
    // Radius mode: only the central square of the image is computed.
    void setFocusRadius(bool on);
    bool focusRadius() const;
    // Self-spectrum mode: keep the microphones' own power in the image
    // (otherwise it is removed and negative powers are floored at zero).
    void setSpectrumSelf(bool on);
    bool spectrumSelf() const;

    // Coordinate correction between the camera picture and the heat map.
    // Coefficients that are not finite or beyond +-1e4 are refused (log line).
    void updateCordinateMat(CordinateMat m);
    CordinateMat cordinateMat();

    // The band manager built by init (null before), for band and black-list
    // changes by the host. The kernel takes no lock for it.
    AKUDoaFreqBands* freqBandsManager();

    int neededChannelsCount() const; // capture channels, always 128
    int channelsCount() const;       // microphones in the array
    int audioRecoverLength() const;  // samples per frame
    int imgRows() const;
    int imgCols() const;
    int imgFac() const;
    int samlpeRate() const;          // Hz

    // The configuration record filled by init (geometry, image grid, focus),
    // read-only, for tools that need more than the accessors above. Valid
    // for the life of the kernel; its contents change only in init.
    const StCamCfg* camConfig() const;

    static const char* DoaVersion(); // "5.1.0.0"

private:
    friend class AKUDoaKernelInspector; // white-box access for tests
    AKUDoaKernelPrivate* d;
};

#endif
