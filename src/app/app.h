#pragma once
// App: the plim and plimctl commands over the subsystems below. Benchmarks and tools reach
// the demo plim's maker and the plan a render starts from through this header.

#include "app/demo_plim.h"
#include "app/plan_report.h"
