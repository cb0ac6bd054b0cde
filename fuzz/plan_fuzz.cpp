#include "fuzz/side_file.h"
#include "plan/plan.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plim::fuzz::withSideFile(data, size, "edits.json", [](const auto&, const auto& file) {
        auto plan = plim::EditPlan::decode(file);
        (void)plan;
    });
    return 0;
}
