// One frame of arbitrary samples (NaN, infinities and huge values included)
// through every readout of the kernel. Input: one byte choosing the
// configuration, four bytes of target (row, column, and the same for the
// pickup), then the samples as native floats, channel after channel (the
// frame is zero where the input ends).
//
// Configurations, each a kernel made once: planar V3 (program 3) with the
// extended view, distance measurement and image correction; planar V4
// (program 54) likewise; the linear array of the examples (two lines of 64).
#include <cstring>

#include "AKUDoa/akudoakernel.h"
#include "fuzz_support.h"

namespace {

const char* const kPlanar = "[AudioRecordingParam]\nsample_frequency = 96000\nchannel_num = 16\nframe_size = 256\n"
                            "[AcousticCameraParam]\nimage_resolution_row = 8\nimage_resolution_col = 6\n"
                            "image_correction_flag = 1\ndistanceMeasure_en = true\n"
                            "distance_measure_row = 5\ndistance_measure_col = 5\n[DOA]\nextra_en = true\n";

AKUDoaKernel* makeKernel(const std::string& dir, const std::string& name, const std::string& text)
{
    fuzz_write(dir + name, text);
    AKUDoaKernel* k = new AKUDoaKernel;
    if (!k->init((dir + name).c_str()))
        std::abort();
    return k;
}

struct Kernels {
    AKUDoaKernel* k[3];
    Kernels()
    {
        const std::string dir = fuzz_dir("frame");
        k[0] = makeKernel(dir, "v3.ini", std::string(kPlanar) + "DOAVersionSelect = 3\n");
        k[1] = makeKernel(dir, "v4.ini", std::string(kPlanar) + "DOAVersionSelect = 54\n");
        k[2] = makeKernel(dir, "line.ini",
            "[AudioRecordingParam]\nchannel_num = 128\nframe_size = 256\n"
            "[AcousticCameraParam]\nimage_resolution_row = 1\nimage_resolution_col = 361\n"
            "image_correction_flag = 0\ndistanceMeasure_en = false\n[DOA]\nextra_en = false\n"
            "[MicParam]\nMicFile = " AKUDOA_SOURCE_DIR "/examples/linear-2x64.bin\n");
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Kernels all;
    if (size < 5)
        return -1;
    AKUDoaKernel& k = *all.k[data[0] % 3];
    const fpoint2d target{0.0f, data[1] % 10 - 1, data[2] % 8 - 1}; // one cell beyond each edge
    const fpoint2d listen{0.0f, data[3] % 10 - 1, data[4] % 8 - 1};
    data += 5;
    size -= 5;

    const int n = k.audioRecoverLength();
    mat2d_fp32* frame = create_mat2d_fp32(k.neededChannelsCount(), n);
    for (int c = 0; c < frame->rows && size > 0; ++c) {
        const size_t bytes = std::min(size, sizeof(float) * static_cast<size_t>(n));
        std::memcpy(frame->data[c], data, bytes);
        data += bytes;
        size -= bytes;
    }
    mat2d_fp32* heat = create_mat2d_fp32(k.imgRows(), k.imgCols());
    mat2d_fp32* heat2 = create_mat2d_fp32(k.imgRows(), k.imgCols());
    mat2d_fp32* extra = create_mat2d_fp32(12, 12);
    vec_fp32* spectrum = create_vec_fp32(n / 2 + 1);
    vec_fp32* audio = create_vec_fp32(n);
    if (k.imgRows() == 1) {
        k.readLineHeatMap(frame, heat, heat2);
    } else {
        float distance = 0.0f, power = 0.0f;
        int low = 0, high = 0;
        k.readHeatMap(frame, heat, spectrum, 0);
        k.readHeatMap(frame, heat, target, distance, spectrum, 1);
        k.readHeatMap(frame, heat, target, low, high, power, spectrum, 2);
        k.readHeatMapExtra(frame, extra);
        k.getPaWithTarget(target);
        k.readPickedUpAudio(frame, audio, listen);
        k.readPickedUpAudioAtCell(frame, audio, listen);
    }
    destroy_vec_fp32(audio);
    destroy_vec_fp32(spectrum);
    destroy_mat2d_fp32(extra);
    destroy_mat2d_fp32(heat2);
    destroy_mat2d_fp32(heat);
    destroy_mat2d_fp32(frame);
    return 0;
}
