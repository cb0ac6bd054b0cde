#pragma once
// The suite's shared pieces other folders use: the history stream of moments (written,
// read and watched), the recording beacon and the session bus it travels on.

#include "suite/beacon.h"
#include "suite/bus_transport.h"
#include "suite/graph_reader.h"
#include "suite/graph_writer.h"
#include "suite/moment.h"
#include "suite/suite_bus.h"
