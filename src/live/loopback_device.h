#pragma once
// The v4l2loopback device that Plim Camera writes to, behind a seam so that a stand-in can
// play the device where the module cannot be loaded.
//
// Threads: one thread at a time uses a device (the live render thread while frames flow,
// then the thread that closes the sink). Every call returns at once: the device is opened
// non-blocking, and a frame it cannot take now is refused, never waited for.

#include "live/camera_format.h"

#include <expected>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace plim {

// The one command that loads the module with the camera's label (the package loads it at
// every start from then on).
std::string loopbackLoadCommand(const std::string& label);

// Why a device could not be opened.
struct LoopbackTrouble {
    enum class Kind {
        notInstalled,       // no video device has the label, and v4l2loopback is not loaded
        loadedWithoutLabel, // v4l2loopback is loaded, but none of its devices has the label
        notAnOutput,        // the labelled device takes no frames (another writer holds it)
        denied,             // the device may not be opened by this user
        failed,             // anything else
    };
    Kind kind = Kind::failed;
    std::string detail; // the device's path and the system's words, for the sentence
    bool operator==(const LoopbackTrouble&) const = default;
};

// Where the system shows its video devices and whether v4l2loopback is loaded.
struct LoopbackPlaces {
    std::filesystem::path videoClass = "/sys/class/video4linux"; // one folder a device, its label in `name`
    std::filesystem::path devices = "/dev";                      // the device nodes, by the same names
    std::filesystem::path module = "/sys/module/v4l2loopback";   // present while the module is loaded
};

class LoopbackDevice {
public:
    enum class Write {
        taken,   // the whole frame was written
        refused, // the device cannot take it now
        lost,    // the device went away or broke: close it and connect again
    };

    virtual ~LoopbackDevice() = default;
    // Finds the video device whose card label is `label` and opens it for writing.
    virtual std::expected<void, LoopbackTrouble> open(const std::string& label) = 0;
    // Asks an open device for `format` (and its rate); answers what the device settled on,
    // which may differ, or the system's error number.
    virtual std::expected<CameraFormat, int> setFormat(const CameraFormat& format) = 0;
    virtual Write write(std::span<const uint8_t> frame) = 0;
    // Closing a closed device does nothing.
    virtual void close() = 0;

    // The system's devices, through V4L2.
    static std::unique_ptr<LoopbackDevice> system(LoopbackPlaces places = {});
};

// The names ("video3") of the devices under `classFolder` (/sys/class/video4linux) whose
// label (their `name` file) is `label`, in number order.
std::vector<std::string> videoDevicesLabelled(const std::filesystem::path& classFolder, const std::string& label);

} // namespace plim
