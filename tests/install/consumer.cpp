// Built outside the tree against an installed akudoa: the umbrella header and
// the exported containers, utilities, four-lane math and logging must work.
#include <AKUDoa/akudoa.h>

#include <cmath>
#include <cstdio>
#include <cstring>

static int lines = 0;
static void handler(const char*, int, const char*, const char* message)
{
    if (std::strstr(message, "consumer 42"))
        ++lines;
}

int main()
{
    InstallDoaMessageHandler(handler);
    AKUDOA_LOG() << "consumer" << 42;

    vec_fp32* v = create_vec_fp32(4);
    const float values[4] = {3.0f, 7.0f, 7.0f, 1.0f};
    std::memcpy(v->data, values, sizeof(values));
    int index = -1;
    float best = 0.0f;
    vec_fp32_find_max(v, best, index);
    destroy_vec_fp32(v);

    float lanes[4];
    vst1q_f32(lanes, exp_ps(vdupq_n_f32(0.0f)));

    const bool ok = lines == 1 && best == 7.0f && index == 1 && lanes[0] == 1.0f &&
                    std::strcmp(AKUDoaKernel::DoaVersion(), "5.1.0.0") == 0;
    std::printf("%s\n", ok ? "consumer ok" : "consumer FAILED");
    return ok ? 0 : 1;
}
