#include "fuzz/side_file.h"
#include "plan/plan.h"

#include <cmath>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plim::fuzz::withSideFile(data, size, "edits.json", [](const auto&, const auto& file) {
        auto plan = plim::EditPlan::decode(file);
        if (!plan.value)
            return;
        // Whatever the file holds, a 20-s recording never plays longer than itself, or than a
        // day on repeated clips.
        constexpr double raw = 20;
        const double remapped = plim::TimeRemap::of(*plan.value, raw).outputDuration(raw);
        const double timeline = plan.value->clipTimeline(raw).outputDuration();
        const double clips = plan.value->clips ? static_cast<double>(plan.value->clips->size()) : 1;
        if (!(remapped <= raw + 1e-6) || !(timeline <= clips * raw + 1e-6)
            || !(timeline <= plim::plan_limits::longestClipsSeconds)) {
            std::fprintf(stderr, "a 20-s plim plays %g s (%g s on its clips)\n", remapped, timeline);
            std::abort();
        }
    });
    return 0;
}
