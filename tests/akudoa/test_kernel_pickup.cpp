// The kernel's picked-up audio path: the three-buffer frame ring, the target
// correction, the pickup window, and listening where the heat map shows a
// source.

#include <cstring>

#include "AKUDoa/akudoapickupv4.h"
#include "AKUDoa/akudoapickupv4_p.h"
#include "AKUDoa/base/akufftwindow.h"
#include "kernel_fixture.h"

struct AKUDoaPickupV4Access {
    static AKUDoaPickupV4Private* d(AKUDoaPickupV4& p) { return p.d; }
};

using namespace kerneltest;

// Each call copies the frame, in array order (row r holds capture channel
// micIndex[r], the even channels for 64 microphones), into the oldest of
// three buffers and makes it the newest; a null frame is refused and moves
// nothing. Correction off, the pickup gets the caller's row and column
// (mode 0 stores them unmapped); on, the point is first mapped by the plain
// affine rule, (2, 3) -> (3, 3) with F = 10, rx1 = 5. The default window is
// Hann, and the setter replaces it.
TEST_F(KernelTest, PickupRingTargetAndWindow)
{
    for (auto [flag, er, ec] : {std::tuple<int, int, int>{0, 2, 3}, {1, 3, 3}}) {
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini(cameraIni(64, 256, 8, 6, 3, 0, flag, "[AcousticCameraParam]\nsection_factor = 10\nrx1 = 5\n")).c_str()));
        AKUDoaKernelPrivate* p = priv(k);
        ASSERT_EQ(p->framePool.size(), 3u);
        const std::vector<mat2d_fp32*> initial(p->framePool.begin(), p->framePool.end());
        AkuMat frame = akumat(128, 256);
        vec_fp32* audio = create_vec_fp32(256);
        EXPECT_FALSE(k.readPickedUpAudio(nullptr, audio, fpoint2d{0.f, 2, 3}));
        EXPECT_TRUE(std::equal(initial.begin(), initial.end(), p->framePool.begin()));
        for (int call = 0; call < 4; ++call) {
            for (int c = 0; c < 128; ++c)
                for (int i = 0; i < 256; ++i)
                    frame->data[c][i] = float(1000 * call + c) + 0.001f * float(i);
            ASSERT_TRUE(k.readPickedUpAudio(frame.get(), audio, fpoint2d{0.f, 2, 3}));
            ASSERT_EQ(p->framePool.back(), initial[call % 3]) << "call " << call;
            for (int r = 0; r < 64; ++r)
                ASSERT_EQ(initial[call % 3]->data[r][7], frame->data[2 * r][7]) << "call " << call << " row " << r;
        }
        EXPECT_EQ(p->framePool.front(), initial[1]);
        destroy_vec_fp32(audio);
        AKUDoaPickupV4Private* pd = AKUDoaPickupV4Access::d(*p->pickup);
        EXPECT_EQ(std::make_pair(pd->targetRow, pd->targetCol), std::make_pair(er, ec)) << "correction " << flag;
        AKUFFTWindow hann(256, FFT_WINDOW_HANN, 0.f, 0.f, 1.f), tukey(256, FFT_WINDOW_TUKEY, 0.f, 0.f, 0.5f);
        EXPECT_EQ(0, std::memcmp(pd->fftWindow->data, hann.data()->data, 256 * sizeof(float)));
        k.setFFTWindow_pickup(FFT_WINDOW_TUKEY, 0.f, 0.f, 0.5f);
        EXPECT_EQ(0, std::memcmp(pd->fftWindow->data, tukey.data()->data, 256 * sizeof(float)));
    }
}

// The heat map's peak cell, fed back to readPickedUpAudioAtCell, hears that
// source well above another one: for both programs and orientations, and
// when the coordinate correction shifts the displayed map against the
// engine's (2 rows, -1 column). readPickedUpAudio given the same cell
// listens elsewhere; given the documented mirrored target (of the default
// half turn, or of no turn) it steers exactly like the cell call. Frames are periodic, so repeating one is a continuous
// signal; energy counts after two warm-up frames.
TEST_F(KernelTest, PickupAtTheHeatMapPeakFavoursThatSource)
{
    const int n = 1024, rows = 16, cols = 12;
    for (auto [program, mode, more] : {std::tuple<int, int, std::string>{3, -1, ""}, {3, 0, ""}, {4, 1, ""}, {4, 0, ""},
                                      {3, 1, "[AcousticCameraParam]\nimage_correction_flag = 1\nsection_factor = 10\nrx1 = 20\nry1 = -10\n"}}) {
        SCOPED_TRACE(testing::Message() << "program " << program << " mode " << mode << " " << more);
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini(cameraIni(64, n, rows, cols, program, mode, 0, more)).c_str()));
        const StCamCfg& cfg = priv(k)->cfg;
        AkuSimSource a, b;
        a.x = 0.12, a.y = -0.08, a.seed = 8;
        b.x = -0.15, b.y = 0.1, b.seed = 9;
        AkuMat capA = capture(cfg, {a}), capB = capture(cfg, {b});
        AkuMat heat = akumat(rows, cols);
        ASSERT_TRUE(k.readHeatMap(capA.get(), heat.get(), nullptr, 0));
        int pr, pc;
        akugrid_argmax(heat.get(), pr, pc);
        vec_fp32* audio = create_vec_fp32(n);
        const auto listen = [&](mat2d_fp32* capture, bool atCell, fpoint2d target) {
            double e = 0;
            for (int f = 0; f < 5; ++f) {
                EXPECT_TRUE(atCell ? k.readPickedUpAudioAtCell(capture, audio, target) : k.readPickedUpAudio(capture, audio, target));
                for (int i = 0; f >= 2 && i < n; ++i)
                    e += double(audio->data[i]) * audio->data[i];
            }
            return e;
        };
        const double own = listen(capA.get(), true, fpoint2d{0.f, pr, pc});
        EXPECT_GE(10 * std::log10(own / listen(capB.get(), true, fpoint2d{0.f, pr, pc})), 10.0) << "peak " << pr << "," << pc;
        if (program == 3 && more.empty()) {
            ASSERT_TRUE(k.readPickedUpAudio(capA.get(), audio, fpoint2d{0.f, -1, -1})); // the pickup skips a repeated target
            EXPECT_LT(listen(capA.get(), false, fpoint2d{0.f, pr, pc}), own * 0.5);
            listen(capA.get(), true, fpoint2d{0.f, pr, pc});
            const std::vector<float> viaCell(audio->data, audio->data + n);
            listen(capA.get(), false, fpoint2d{0.f, mode ? rows - pr : rows - 1 - pr, mode ? cols - pc : cols - 1 - pc}); // -1: the default half turn
            EXPECT_EQ(std::vector<float>(audio->data, audio->data + n), viaCell);
        }
        destroy_vec_fp32(audio);
    }
}
