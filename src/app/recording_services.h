#pragma once
// What every recording made through RecordingController is wired to: the suite's beacon on
// the session bus, the suite's history of moments, and the identity file each plim gets.
// plimctl record and the desktop application both use it.
//
// Threads: made, used and destroyed on the controller's controlling thread.

#include "app/recording_controller.h"
#include "suite/beacon.h"
#include "suite/graph_writer.h"
#include "suite/suite_bus.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace plim {

struct RecordingServices {
    std::optional<SuiteBus> bus;
    std::unique_ptr<BeaconBroadcaster> beacon;
    std::unique_ptr<SuiteGraphWriter> moments;

    // Connects what it can (without a session bus there is no beacon, without a writable
    // history no moments) and points `env` at it. `noteMissing` hears the sentence when a
    // plim's identity file could not be written; the plim is kept without it.
    void attach(RecordingController::Environment& env, std::function<void(const std::string&)> noteMissing);
};

} // namespace plim
